#include "cli/CliText.h"

#include "app/ReadWriteLockGuard.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/TFileData.h"

#include <QStringList>

#include <cstdio>

QTextStream &CliText::out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &CliText::err()
{
    static QTextStream stream(stderr);
    return stream;
}

int CliText::usageError(const QString &message)
{
    err() << "twinfold-cli: " << message << Qt::endl;
    return 2;
}

int CliText::failure(const QString &message)
{
    err() << "twinfold-cli: " << message << Qt::endl;
    return 1;
}

int CliText::ruleOf(const QString &name)
{
    // In the order of the rule values 0-9.
    static const QStringList names = {
        QStringLiteral("newest"),       QStringLiteral("oldest"),          QStringLiteral("filename"),
        QStringLiteral("priority"),     QStringLiteral("high-resolution"), QStringLiteral("low-resolution"),
        QStringLiteral("high-quality"), QStringLiteral("low-quality"),     QStringLiteral("all"),
        QStringLiteral("none")};
    return int(names.indexOf(name));
}

void CliText::applyRule(int rule, const QMap<QString, qint32> &priority)
{
    QList<GroupItemAutoSelector::Group> groups;
    {
        auto &store = TFileData::instance();
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
        for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it)
            groups.append({it.key(), it.value()});
        for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it) {
            QStringList folders;
            for (const FolderRecord &record : it.value())
                folders.append(record.folderPath);
            groups.append({it.key(), folders});
        }
    }
    GroupItemAutoSelector::autoSelectAllEx(groups, rule, priority);
}

void CliText::summary(const ResultPrinter::Totals &totals, qint64 scannedFiles, qint64 seconds)
{
    err() << scannedFiles << " files scanned in " << seconds << " s: " << totals.groups << " groups, "
          << totals.members << " members, " << totals.reclaimable << " bytes in extra copies" << Qt::endl;
}
