#include "platform/FileIdentity.h"

#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

FileIdentity FileIdentity::of(const QString &path)
{
    struct stat st;
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &st) != 0)
        return FileIdentity();
    return FileIdentity(static_cast<quint64>(st.st_dev), static_cast<quint64>(st.st_ino));
}

bool FileIdentity::mappingSurvivesTruncation()
{
    return false;
}

bool FileIdentity::isHiddenOrSystem(const QString &path)
{
    // Linux has no system flag; a leading dot is what hides a name from the user.
    qsizetype end = path.size();
    while (end > 1 && path.at(end - 1) == QLatin1Char('/'))
        --end;
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'), end - 1);
    const qsizetype start = slash + 1;
    return start < end && path.at(start) == QLatin1Char('.');
}
