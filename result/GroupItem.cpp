#include "result/GroupItem.h"

#include "scan/FileCategory.h"

#include <QRegularExpression>

namespace {
// Built once and compiled up front so that every thread only reads it.
const QRegularExpression &similarEntryPattern()
{
    static const QRegularExpression pattern = [] {
        QRegularExpression re(QStringLiteral("^(.*)%1_(\\d+)$").arg(ScanConstants::similarSuffix()),
                              QRegularExpression::DotMatchesEverythingOption);
        re.optimize();
        return re;
    }();
    return pattern;
}
} // namespace

QString GroupItem::realPath(const QString &entry)
{
    if (!entry.contains(ScanConstants::similarSuffix()))
        return entry;
    const QRegularExpressionMatch match = similarEntryPattern().match(entry);
    return match.hasMatch() ? match.captured(1) : entry;
}

qint32 GroupItem::similarityOf(const QString &entry)
{
    if (!entry.contains(ScanConstants::similarSuffix()))
        return -1;
    const QRegularExpressionMatch match = similarEntryPattern().match(entry);
    if (!match.hasMatch())
        return -1;
    bool ok = false;
    const qint32 percent = match.capturedView(2).toInt(&ok);
    return ok ? percent : -1;
}
