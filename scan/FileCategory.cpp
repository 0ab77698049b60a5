#include "scan/FileCategory.h"

#include <QCryptographicHash>

#include <array>

namespace {
QStringList list(std::initializer_list<const char *> items)
{
    QStringList out;
    out.reserve(qsizetype(items.size()));
    for (const char *s : items)
        out.append(QString::fromLatin1(s));
    return out;
}

constexpr std::array<FileCategory, 4> kSearchOrder = {Images, Documents, Musics, Videos};
} // namespace

const QHash<FileCategory, QStringList> &categorySuffixes()
{
    static const QHash<FileCategory, QStringList> table = {
        {Images, list({"png",  "jpg", "jpeg", "bmp", "tga", "jp2", "jpg2000", "tif", "tiff", "webp", "hdr",
                       "arw",  "bay", "bur",  "ccr", "crw", "cr2", "cr3",     "dcr", "dng",  "drw",  "erf",
                       "fff",  "iiq", "k25",  "kdc", "mef", "mrw", "mos",     "nef", "nrw",  "orf",  "pef",
                       "pff",  "prw", "raf",  "ra",  "rwl", "rw2", "sr2",     "srf", "srw",  "x3f",  "heic",
                       "heif", "pcx", "pic",  "raw", "jif", "svg", "lic",     "eps", "sai",  "sgi",  "emf",
                       "ico",  "psd", "icns", "cur", "wmf", "xbm", "pict",    "gif", "jpc"})},
        {Documents,
         list({"pdf",   "docx", "txt",  "doc",  "potx", "xls",  "chm",  "htm",  "html", "rtf",  "xlsx",
               "pptx",  "xml",  "jar",  "key",  "djvu", "dwg",  "epub", "wps",  "odt",  "xps",  "oxps",
               "pages", "pst",  "rtf",  "rtfd", "vsd",  "vdx",  "vsdx", "wpd",  "dotx", "dot",  "docm",
               "dotm",  "mht",  "xltx", "xlt",  "csv",  "xlsb", "xlsm", "xltm", "xlam", "xla",  "mht",
               "prn",   "dif",  "slk",  "pot",  "ppsx", "pps",  "pptm", "potm", "ppsm", "thmx", "ppam",
               "ppa",   "dat",  "ppt",  "olm",  "dxf",  "dwf"})},
        {Musics, list({"amr", "au",  "aac", "ac3", "aiff", "ape", "caf", "flac", "m4a", "mka",
                       "mp2", "mp3", "ra",  "ogg", "wav",  "mid", "wma", "midi", "cda", "aif"})},
        {Videos, list({"webm", "mxf", "mp4", "flv", "mov",  "wmv", "vob",   "ts",  "tp",
                       "rmvb", "rm",  "mts", "mpg", "mpeg", "mod", "mkv",   "m4v", "m2ts",
                       "divx", "avi", "asf", "amv", "3gp",  "rmx", "flash", "swf"})},
    };
    return table;
}

const QStringList &similarExcludedSuffixes()
{
    static const QStringList suffixes =
        list({"pcx", "pic", "raw", "jif",  "gif", "svg", "lic", "eps",  "sai", "sgi",
              "emf", "ico", "psd", "icns", "cur", "wmf", "xbm", "pict", "exr", "jpc"});
    return suffixes;
}

FileCategory categoryOf(const QString &suffix)
{
    const auto &table = categorySuffixes();
    for (FileCategory category : kSearchOrder) {
        if (table.value(category).contains(suffix, Qt::CaseInsensitive))
            return category;
    }
    return Others;
}

QString categoryLabel(FileCategory category)
{
    switch (category) {
    case Images:
        return QStringLiteral("Images");
    case Documents:
        return QStringLiteral("Documents");
    case Musics:
        return QStringLiteral("Musics");
    case Videos:
        return QStringLiteral("Videos");
    case Folder:
        return QStringLiteral("Folder");
    case Others:
        break;
    }
    return QStringLiteral("Others");
}

QString fileSuffix(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const qsizetype dot = path.lastIndexOf(QLatin1Char('.'));
    if (dot < 0 || dot < slash)
        return QString();
    return path.mid(dot + 1);
}

bool isImageFile(const QString &path)
{
    const QString suffix = fileSuffix(path);
    return !suffix.isEmpty() && categorySuffixes().value(Images).contains(suffix, Qt::CaseInsensitive);
}

QString groupKey(const QString &firstPath)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(firstPath.toUtf8(), QCryptographicHash::Md5).toHex().toUpper());
}
