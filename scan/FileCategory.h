#pragma once

#include <QHash>
#include <QMetaType>
#include <QString>
#include <QStringList>

// Category keys of the extension table, the statistics and the result views.
// 4 is deliberately unassigned.
enum FileCategory : qint32
{
    Images = 1,
    Documents = 2,
    Musics = 3,
    Videos = 5,
    Folder = 6,
    Others = 7,
};

// Shared constants of a scan.
namespace ScanConstants {
// Appended to a member path, then "_" and the similarity percent, in similar-image groups.
inline QString similarSuffix()
{
    return QStringLiteral("_simlar");
}
} // namespace ScanConstants

// The fixed extension lists (lower case, no dot), in their stored order.
const QHash<FileCategory, QStringList> &categorySuffixes();
// Image extensions that count as images but are never decoded for similarity.
const QStringList &similarExcludedSuffixes();
// The category whose list holds the suffix (case-insensitive), searched in ascending
// category order so that an extension in two lists always lands in the lower one.
FileCategory categoryOf(const QString &suffix);
// The text the statistics and views show for a category.
QString categoryLabel(FileCategory category);
// True when the part of the file name after the last dot is in the Images list.
bool isImageFile(const QString &path);
// Upper-case hexadecimal MD5 of the UTF-8 bytes of a group's first path.
QString groupKey(const QString &firstPath);
// The suffix after the last dot of the file name (not of the folders), as written.
QString fileSuffix(const QString &path);
