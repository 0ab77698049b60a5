#include "platform/DirLister.h"

#include <QByteArrayView>
#include <QFile>

#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

struct DirLister::Private
{
    QString folder;
    QByteArray folderUtf8;
    DIR *dir = nullptr;
    const char *name = nullptr;
    size_t nameLength = 0;
    Kind kind = Other;
    qint64 size = 0;
    FileIdentity identity;
    bool viaLink = false;
    bool multiLinked = false;
    bool validName = false;
    bool asciiName = false;
};

namespace {
bool isAscii(const char *s, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (static_cast<unsigned char>(s[i]) >= 0x80)
            return false;
    }
    return true;
}
} // namespace

DirLister::DirLister(const QString &folder) : d(std::make_unique<Private>())
{
    d->folder = folder;
    // Keep the joining slash single for a root such as "/".
    if (d->folder.endsWith(QLatin1Char('/')))
        d->folder.chop(1);
    d->folderUtf8 = d->folder.toUtf8();
    d->dir = ::opendir(QFile::encodeName(folder.isEmpty() ? QStringLiteral(".") : folder).constData());
}

DirLister::~DirLister()
{
    if (d->dir)
        ::closedir(d->dir);
}

bool DirLister::isOpen() const
{
    return d->dir != nullptr;
}

bool DirLister::next()
{
    if (!d->dir)
        return false;
    for (;;) {
        const dirent *entry = ::readdir(d->dir);
        if (!entry)
            return false;
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;

        d->name = name;
        d->nameLength = std::strlen(name);
        d->asciiName = isAscii(name, d->nameLength);
        d->validName = d->asciiName || QByteArrayView(name, qsizetype(d->nameLength)).isValidUtf8();
        d->kind = Other;
        d->size = 0;
        d->identity = FileIdentity();
        d->viaLink = false;
        d->multiLinked = false;

        // One status query on the entry itself; a link costs a second one on its target.
        struct stat st;
        const int fd = ::dirfd(d->dir);
        if (::fstatat(fd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            return true; // vanished since the listing: reported as Other
        if (S_ISLNK(st.st_mode)) {
            d->viaLink = true;
            if (::fstatat(fd, name, &st, 0) != 0)
                return true; // dangling link
        }
        if (S_ISREG(st.st_mode)) {
            d->kind = File;
            d->size = static_cast<qint64>(st.st_size);
            d->multiLinked = st.st_nlink > 1;
        } else if (S_ISDIR(st.st_mode)) {
            d->kind = Folder;
        }
        d->identity = FileIdentity(static_cast<quint64>(st.st_dev), static_cast<quint64>(st.st_ino));
        return true;
    }
}

bool DirLister::hasValidName() const
{
    return d->validName;
}

QString DirLister::path() const
{
    if (!d->name)
        return QString();
    if (d->asciiName) {
        // One allocation for the common case.
        QString out;
        out.reserve(d->folder.size() + 1 + qsizetype(d->nameLength));
        out.append(d->folder);
        out.append(QLatin1Char('/'));
        out.append(QLatin1StringView(d->name, qsizetype(d->nameLength)));
        return out;
    }
    return d->folder + QLatin1Char('/') + QString::fromUtf8(d->name, qsizetype(d->nameLength));
}

QByteArray DirLister::pathUtf8() const
{
    if (!d->name)
        return QByteArray();
    // Names were checked to be UTF-8, so the bytes are the text as they are.
    QByteArray out;
    out.reserve(d->folderUtf8.size() + 1 + qsizetype(d->nameLength));
    out.append(d->folderUtf8);
    out.append('/');
    out.append(d->name, qsizetype(d->nameLength));
    return out;
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
    return d->name && d->name[0] == '.';
}

FileIdentity DirLister::identity() const
{
    return d->identity;
}

bool DirLister::isLink() const
{
    return d->viaLink;
}

bool DirLister::hasOtherHardLinks() const
{
    return d->multiLinked;
}
