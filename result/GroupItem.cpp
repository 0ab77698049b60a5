#include "result/GroupItem.h"

#include "scan/FileCategory.h"

namespace {
// Where the similar-image marker of an entry begins, or -1 for a plain path. The marker is
// "_simlar_" followed by ASCII digits up to the end, as the image matcher writes it; only
// the last one can be followed by digits alone. One right after a separator would leave a
// folder's path, so there it is part of a file name. Written out rather than matched with
// a pattern: it runs for every member in the selection rules, removal and statistics.
qsizetype markerAt(const QString &entry)
{
    static const QString marker = ScanConstants::similarSuffix() + u'_';
    // From the end: the digits, then the marker right before them. Most entries end in a
    // file suffix and are refused at the first character.
    qsizetype digits = entry.size();
    while (digits > 0 && entry.at(digits - 1) >= u'0' && entry.at(digits - 1) <= u'9')
        --digits;
    const qsizetype at = digits - marker.size();
    if (digits == entry.size() || at <= 0 || QStringView(entry).sliced(at, marker.size()) != marker ||
        entry.at(at - 1) == u'/' || entry.at(at - 1) == u'\\')
        return -1;
    return at;
}
} // namespace

QString GroupItem::realPath(const QString &entry)
{
    const qsizetype at = markerAt(entry);
    return at < 0 ? entry : entry.left(at);
}

qint32 GroupItem::similarityOf(const QString &entry)
{
    const qsizetype at = markerAt(entry);
    if (at < 0)
        return -1;
    bool ok = false;
    const qint32 percent =
        QStringView(entry).sliced(at + ScanConstants::similarSuffix().size() + 1).toInt(&ok);
    return ok ? percent : -1;
}
