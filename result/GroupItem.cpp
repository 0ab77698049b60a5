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
    const qsizetype at = entry.lastIndexOf(marker);
    const qsizetype digits = at + marker.size();
    if (at <= 0 || digits >= entry.size() || entry.at(at - 1) == u'/' || entry.at(at - 1) == u'\\')
        return -1;
    for (qsizetype i = digits; i < entry.size(); ++i) {
        const char16_t c = entry.at(i).unicode();
        if (c < u'0' || c > u'9')
            return -1;
    }
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
