#include "platform/DirLister.h"

#include <QDir>
#include <QFileInfo>

#include <windows.h>

struct DirLister::Private
{
    QString folder;
    HANDLE find = INVALID_HANDLE_VALUE;
    WIN32_FIND_DATAW data;
    bool pending = false; // the first entry is already in data
    QString path;
    Kind kind = Other;
    qint64 size = 0;
    bool viaLink = false;
    mutable FileIdentity identity;
    mutable bool identityRead = false;
};

DirLister::DirLister(const QString &folder) : d(std::make_unique<Private>())
{
    d->folder = folder;
    if (d->folder.endsWith(QLatin1Char('/')))
        d->folder.chop(1);
    const std::wstring pattern = QDir::toNativeSeparators(d->folder + QStringLiteral("/*")).toStdWString();
    // Basic information and large fetches: the short names are never used.
    d->find = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &d->data, FindExSearchNameMatch, nullptr,
                               FIND_FIRST_EX_LARGE_FETCH);
    d->pending = d->find != INVALID_HANDLE_VALUE;
}

DirLister::~DirLister()
{
    if (d->find != INVALID_HANDLE_VALUE)
        FindClose(d->find);
}

bool DirLister::isOpen() const
{
    return d->find != INVALID_HANDLE_VALUE;
}

bool DirLister::next()
{
    if (d->find == INVALID_HANDLE_VALUE)
        return false;
    for (;;) {
        if (d->pending)
            d->pending = false;
        else if (!FindNextFileW(d->find, &d->data))
            return false;
        const wchar_t *name = d->data.cFileName;
        if (name[0] == L'.' && (name[1] == L'\0' || (name[1] == L'.' && name[2] == L'\0')))
            continue;

        d->path = d->folder + QLatin1Char('/') + QString::fromWCharArray(name);
        d->identity = FileIdentity();
        d->identityRead = false;
        d->viaLink = (d->data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
        d->kind = Other;
        d->size = 0;
        if (d->viaLink) {
            // Links and junctions are followed to what they point at.
            const QFileInfo target(d->path);
            if (target.isDir())
                d->kind = Folder;
            else if (target.isFile()) {
                d->kind = File;
                d->size = target.size();
            }
        } else if (d->data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            d->kind = Folder;
        } else if (!(d->data.dwFileAttributes & FILE_ATTRIBUTE_DEVICE)) {
            d->kind = File;
            d->size = static_cast<qint64>((static_cast<quint64>(d->data.nFileSizeHigh) << 32) |
                                          d->data.nFileSizeLow);
        }
        return true;
    }
}

bool DirLister::hasValidName() const
{
    return true; // Windows names are UTF-16 already
}

QString DirLister::path() const
{
    return d->path;
}

QByteArray DirLister::pathUtf8() const
{
    return d->path.toUtf8();
}

DirLister::Kind DirLister::kind() const
{
    return d->kind;
}

qint64 DirLister::size() const
{
    return d->size;
}

bool DirLister::isHiddenOrSystem() const
{
    return (d->data.dwFileAttributes & (FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM)) != 0;
}

FileIdentity DirLister::identity() const
{
    // Opening a handle is costly on Windows, so it is done only when asked.
    if (!d->identityRead) {
        d->identity = FileIdentity::of(d->path);
        d->identityRead = true;
    }
    return d->identity;
}

bool DirLister::isLink() const
{
    return d->viaLink;
}

bool DirLister::hasOtherHardLinks() const
{
    return false; // the listing carries no link count
}
