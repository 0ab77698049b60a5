#include "cli/ResultPrinter.h"

#include "app/AppInfo.h"
#include "app/ReadWriteLockGuard.h"
#include "result/GroupItem.h"
#include "scan/FileCategory.h"
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

QList<ResultPrinter::Group> ResultPrinter::collect()
{
    auto &store = TFileData::instance();
    ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
    QList<Group> groups;
    groups.reserve(store.duplicateGroups.size() + store.folderGroups.size());
    for (auto it = store.duplicateGroups.cbegin(); it != store.duplicateGroups.cend(); ++it) {
        const QSet<QString> selected(store.selectedFiles.value(it.key()).cbegin(),
                                     store.selectedFiles.value(it.key()).cend());
        Group group{it.key(), QStringLiteral("files"), {}};
        for (const QString &entry : it.value()) {
            Member m = memberOf(entry);
            if (m.similarity >= 0)
                group.kind = QStringLiteral("similar");
            m.size = QFileInfo(m.path).size();
            m.selected = selected.contains(entry);
            group.members.append(m);
        }
        groups.append(group);
    }
    for (auto it = store.folderGroups.cbegin(); it != store.folderGroups.cend(); ++it) {
        const QStringList selected = store.selectedFiles.value(it.key());
        Group group{it.key(), QStringLiteral("folders"), {}};
        for (const FolderRecord &folder : it.value())
            group.members.append(
                Member{folder.folderPath, folder.totalSize, selected.contains(folder.folderPath), -1});
        groups.append(group);
    }
    std::sort(groups.begin(), groups.end(), [](const Group &a, const Group &b) {
        const QString fa = a.members.isEmpty() ? QString() : a.members.constFirst().path;
        const QString fb = b.members.isEmpty() ? QString() : b.members.constFirst().path;
        return fa != fb ? fa < fb : a.key < b.key;
    });
    return groups;
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

void ResultPrinter::print(QTextStream &out, const QList<Group> &groups, Format format, qint64 scannedFiles)
{
    switch (format) {
    case Text:
        printText(out, groups);
        break;
    case Json:
        printJson(out, groups, scannedFiles);
        break;
    case Csv:
        printCsv(out, groups);
        break;
    }
    out.flush();
}

void ResultPrinter::printText(QTextStream &out, const QList<Group> &groups)
{
    // One path per line and a blank line after each group, as long-standing Unix
    // duplicate tools print, so existing scripts can read it.
    for (const Group &group : groups) {
        for (const Member &m : group.members)
            out << m.path << '\n';
        out << '\n';
    }
}

void ResultPrinter::printJson(QTextStream &out, const QList<Group> &groups, qint64 scannedFiles)
{
    // Written by hand rather than through QJsonObject, which sorts keys: the documented
    // key order is part of the output, and streaming avoids a second copy of the result.
    out << "{\"version\":" << jsonString(AppInfo::version()) << ",\"scannedFiles\":" << scannedFiles
        << ",\"groups\":[";
    for (qsizetype g = 0; g < groups.size(); ++g) {
        const Group &group = groups.at(g);
        out << (g ? ",\n" : "\n") << "{\"key\":" << jsonString(group.key)
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
    out << (groups.isEmpty() ? "]}\n" : "\n]}\n");
}

void ResultPrinter::printCsv(QTextStream &out, const QList<Group> &groups)
{
    out << "key,kind,path,size,selected\r\n";
    for (const Group &group : groups) {
        for (const Member &m : group.members) {
            out << group.key << ',' << group.kind << ',' << csvField(m.path) << ',' << m.size << ','
                << (m.selected ? "true" : "false") << "\r\n";
        }
    }
}
