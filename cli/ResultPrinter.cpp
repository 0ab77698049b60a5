#include "cli/ResultPrinter.h"

#include "app/AppInfo.h"
#include "app/ReadWriteLockGuard.h"
#include "result/GroupItem.h"
#include "scan/FileCategory.h"
#include "scan/PoolMap.h"
#include "scan/TFileData.h"

#include <QFileInfo>
#include <QSet>

#include <algorithm>

namespace {
ResultPrinter::Member memberOf(const QString &entry)
{
    ResultPrinter::Member m;
    m.path = GroupItem::realPath(entry);
    m.similarity = GroupItem::similarityOf(entry);
    return m;
}

QString jsonString(const QString &value)
{
    QString out;
    out.reserve(value.size() + 2);
    out += QLatin1Char('"');
    for (const QChar c : value) {
        switch (c.unicode()) {
        case '"':
            out += QLatin1String("\\\"");
            break;
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        case '\r':
            out += QLatin1String("\\r");
            break;
        case '\t':
            out += QLatin1String("\\t");
            break;
        default:
            if (c.unicode() < 0x20)
                out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
            else
                out += c;
        }
    }
    out += QLatin1Char('"');
    return out;
}

QString csvField(const QString &value)
{
    if (!value.contains(QLatin1Char(',')) && !value.contains(QLatin1Char('"')) &&
        !value.contains(QLatin1Char('\n')) && !value.contains(QLatin1Char('\r')))
        return value;
    QString quoted = value;
    quoted.replace(QLatin1String("\""), QLatin1String("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}
} // namespace

QList<ResultPrinter::GroupRef> ResultPrinter::order(const TFileData &store)
{
    QList<GroupRef> refs;
    refs.reserve(store.duplicateGroups.size() + store.folderGroups.size());
    for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it)
        refs.append(GroupRef{it.key(),
                             it.value().isEmpty() ? QString() : GroupItem::realPath(it.value().constFirst()),
                             false});
    for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it)
        refs.append(
            GroupRef{it.key(), it.value().isEmpty() ? QString() : it.value().constFirst().folderPath, true});
    std::sort(refs.begin(), refs.end(), [](const GroupRef &a, const GroupRef &b) {
        const int order = a.firstPath.compare(b.firstPath);
        return order != 0 ? order < 0 : a.key < b.key;
    });
    return refs;
}

ResultPrinter::Group ResultPrinter::groupOf(const TFileData &store, const GroupRef &ref)
{
    const QStringList selectedList = store.selectedFiles.value(ref.key);
    Group group{ref.key, ref.folders ? QStringLiteral("folders") : QStringLiteral("files"), {}};
    if (ref.folders) {
        for (const FolderRecord &folder : store.folderGroups.value(ref.key))
            group.members.append(
                Member{folder.folderPath, folder.totalSize, selectedList.contains(folder.folderPath), -1});
        return group;
    }
    const QStringList entries = store.duplicateGroups.value(ref.key);
    // Most groups have two or three members: a hash of the selection only pays for large ones.
    constexpr qsizetype kLinearLimit = 16;
    QSet<QString> selected;
    if (selectedList.size() > kLinearLimit)
        selected = QSet<QString>(selectedList.cbegin(), selectedList.cend());
    group.members.reserve(entries.size());
    for (const QString &entry : entries) {
        Member m = memberOf(entry);
        if (m.similarity >= 0)
            group.kind = QStringLiteral("similar");
        m.size = -1; // read by the caller when wanted
        m.selected =
            selectedList.size() > kLinearLimit ? selected.contains(entry) : selectedList.contains(entry);
        group.members.append(m);
    }
    return group;
}

ResultPrinter::Totals ResultPrinter::print(QTextStream &out, Format format, qint64 scannedFiles,
                                           bool readSizes)
{
    // Groups are built and printed a slice at a time: a large result printed from one
    // complete copy would be the scan's peak memory.
    constexpr qsizetype kSlice = 512;
    const TFileData &store = TFileData::instance();
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
    const QList<GroupRef> refs = order(store);
    readSizes = readSizes || format != Text;

    Totals totals;
    totals.groups = refs.size();
    if (format == Json)
        out << "{\"version\":" << jsonString(AppInfo::version()) << ",\"scannedFiles\":" << scannedFiles
            << ",\"groups\":[";
    else if (format == Csv)
        out << "key,kind,path,size,selected\r\n";
    for (qsizetype start = 0; start < refs.size(); start += kSlice) {
        QList<Group> slice;
        slice.reserve(std::min(kSlice, refs.size() - start));
        for (qsizetype i = start; i < std::min(start + kSlice, refs.size()); ++i)
            slice.append(groupOf(store, refs.at(i)));
        if (readSizes) {
            // One status query per file, spread over the pool: a large result has tens of
            // thousands of members and the user is waiting for the output.
            QList<Group *> pending;
            pending.reserve(slice.size());
            for (Group &group : slice)
                pending.append(&group);
            mapOnPool(pending, [](Group *group) {
                for (Member &m : group->members) {
                    if (m.size < 0)
                        m.size = QFileInfo(m.path).size();
                }
            });
        }
        for (qsizetype i = 0; i < slice.size(); ++i) {
            const Group &group = slice.at(i);
            totals.members += group.members.size();
            for (qsizetype m = 1; m < group.members.size(); ++m)
                totals.reclaimable += std::max<qint64>(0, group.members.at(m).size);
            switch (format) {
            case Text:
                printText(out, group);
                break;
            case Json:
                printJson(out, group, start + i == 0);
                break;
            case Csv:
                printCsv(out, group);
                break;
            }
        }
    }
    if (format == Json)
        out << (refs.isEmpty() ? "]}\n" : "\n]}\n");
    out.flush();
    return totals;
}

bool ResultPrinter::parseFormat(const QString &name, Format *format)
{
    if (name == u"text")
        *format = Text;
    else if (name == u"json")
        *format = Json;
    else if (name == u"csv")
        *format = Csv;
    else
        return false;
    return true;
}

void ResultPrinter::printText(QTextStream &out, const Group &group)
{
    // One path per line and a blank line after each group, as long-standing Unix
    // duplicate tools print, so existing scripts can read it.
    for (const Member &m : group.members)
        out << m.path << '\n';
    out << '\n';
}

void ResultPrinter::printJson(QTextStream &out, const Group &group, bool first)
{
    // Written by hand rather than through QJsonObject, which sorts keys: the documented
    // key order is part of the output, and streaming avoids a second copy of the result.
    out << (first ? "\n" : ",\n") << "{\"key\":" << jsonString(group.key)
        << ",\"kind\":" << jsonString(group.kind) << ",\"members\":[";
    for (qsizetype i = 0; i < group.members.size(); ++i) {
        const Member &m = group.members.at(i);
        out << (i ? "," : "") << "{\"path\":" << jsonString(m.path) << ",\"size\":" << m.size
            << ",\"selected\":" << (m.selected ? "true" : "false");
        if (m.similarity >= 0)
            out << ",\"similarity\":" << m.similarity;
        out << '}';
    }
    out << "]}";
}

void ResultPrinter::printCsv(QTextStream &out, const Group &group)
{
    for (const Member &m : group.members) {
        out << group.key << ',' << group.kind << ',' << csvField(m.path) << ',' << m.size << ','
            << (m.selected ? "true" : "false") << "\r\n";
    }
}
