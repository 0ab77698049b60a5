#include "settings/TOpenSaveThread.h"

#include "app/AppInfo.h"
#include "app/ReadWriteLockGuard.h"
#include "app/SignalFence.h"
#include "app/TLogger.h"
#include "result/GroupItem.h"
#include "result/TPieChart.h"
#include "scan/FileCategory.h"
#include "scan/TFileData.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {
const QString kRoot = u"Twinfold"_s;
const QString kGroups = u"groups"_s;
const QString kGroupItem = u"GroupItem"_s;
const QString kItem = u"Item"_s;
const QString kDefaultScanTime = u"00:00:00"_s;

// How many tokens pass between two looks at the stop flag and the bytes read.
constexpr int kPollEvery = 1024;

// Progress at most once per thousandth, and always for the last group, so a result
// of a million groups does not flood the GUI thread with queued signals.
class ProgressThrottle
{
public:
    explicit ProgressThrottle(qsizetype total) : m_total(total) {}
    bool due(qsizetype index)
    {
        const qsizetype step = m_total > 0 ? index * 1000 / m_total : 0;
        if (index + 1 < m_total && step == m_lastStep)
            return false;
        m_lastStep = step;
        return true;
    }

private:
    qsizetype m_total;
    qsizetype m_lastStep = -1;
};

// XML 1.0 cannot carry most control characters, not even as character references.
bool isXmlChar(char32_t c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

bool fitsInXml(const QString &text)
{
    for (auto it = text.cbegin(); it != text.cend(); ++it) {
        char32_t c = it->unicode();
        if (it->isHighSurrogate()) {
            const auto next = it + 1;
            if (next == text.cend() || !next->isLowSurrogate())
                return false;
            c = QChar::surrogateToUcs4(*it, *next);
            ++it;
        } else if (it->isLowSurrogate()) {
            return false;
        }
        if (!isXmlChar(c))
            return false;
    }
    return true;
}

// A carriage return written as such comes back as a line feed; a character reference
// survives the parser's line-end handling.
void writeExactText(QXmlStreamWriter &writer, const QString &text)
{
    const QStringList pieces = text.split(QLatin1Char('\r'));
    for (qsizetype i = 0; i < pieces.size(); ++i) {
        if (i > 0)
            writer.writeEntityReference(u"#13"_s);
        if (!pieces.at(i).isEmpty())
            writer.writeCharacters(pieces.at(i));
    }
}

QString attribute(const QXmlStreamAttributes &attributes, const QString &name, const QString &fallback)
{
    return attributes.hasAttribute(name) ? attributes.value(name).toString() : fallback;
}
} // namespace

TOpenSaveThread::TOpenSaveThread(QObject *parent) : QThread(parent), m_scanTime(kDefaultScanTime) {}

TOpenSaveThread::~TOpenSaveThread()
{
    requestStop();
    wait();
}

bool TOpenSaveThread::openProject(const QString &filepath)
{
    logInfo(u"Begin open project"_s);
    if (isRunning()) {
        logInfo(u"[TOpenSaveThread]: A project job is still running; open refused. file=%1"_s.arg(filepath));
        return false;
    }
    {
        QMutexLocker locker(&m_mutex);
        m_openMode = true;
        m_saveMode = false;
        m_openPath = filepath;
        m_loadedFiles = 0;
        m_loadedSize = 0;
        m_fileCount = 0;
        m_scanTime = kDefaultScanTime;
    }
    // Only regular files: opening a pipe or a device could block or never end.
    QFile file(filepath);
    if (!QFileInfo(filepath).isFile() || !file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        logInfo(u"Failed to openProject! file=%1"_s.arg(filepath));
        return false;
    }
    file.close();
    m_stop.store(false);
    start(InheritPriority);
    return true;
}

bool TOpenSaveThread::saveProject(const QString &filepath, int count, const QString &time)
{
    if (isRunning()) {
        logInfo(u"[TOpenSaveThread]: A project job is still running; save refused. file=%1"_s.arg(filepath));
        return false;
    }
    {
        QMutexLocker locker(&m_mutex);
        m_saveMode = true;
        m_openMode = false;
        m_savePath = filepath;
        m_fileCount = count;
        m_scanTime = time;
    }
    m_stop.store(false);
    start(InheritPriority);
    return true;
}

void TOpenSaveThread::requestStop()
{
    m_stop.store(true);
}

void TOpenSaveThread::setMaxProjectBytes(qint64 bytes)
{
    QMutexLocker locker(&m_mutex);
    m_maxBytes = bytes;
}

int TOpenSaveThread::fileCount() const
{
    QMutexLocker locker(&m_mutex);
    return m_fileCount;
}

QString TOpenSaveThread::scanTime() const
{
    QMutexLocker locker(&m_mutex);
    return m_scanTime;
}

int TOpenSaveThread::loadedFiles() const
{
    QMutexLocker locker(&m_mutex);
    return m_loadedFiles;
}

qint64 TOpenSaveThread::loadedSize() const
{
    QMutexLocker locker(&m_mutex);
    return m_loadedSize;
}

QString TOpenSaveThread::openPath() const
{
    QMutexLocker locker(&m_mutex);
    return m_openPath;
}

QString TOpenSaveThread::savePath() const
{
    QMutexLocker locker(&m_mutex);
    return m_savePath;
}

void TOpenSaveThread::run()
{
    bool open = false;
    bool save = false;
    {
        QMutexLocker locker(&m_mutex);
        open = m_openMode;
        save = m_saveMode;
    }
    if (open) {
        logInfo(u"run()"_s);
        openDocument();
    } else if (save) {
        saveDocument();
    }
}

void TOpenSaveThread::failOpen(const QString &logLine, const char *debugMessage)
{
    qDebug() << debugMessage;
    logInfo(logLine.arg(openPath()));
    {
        const SignalFence fence;
        emit openProjectComplated(0, 0, 0);
    }
}

void TOpenSaveThread::openDocument()
{
    QFile file(openPath());
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        failOpen(u"Failed to open project file! file=%1"_s, "Failed to open XML file.");
        return;
    }
    logInfo(u"file.open success."_s);

    qint64 maxBytes = 0;
    {
        QMutexLocker locker(&m_mutex);
        maxBytes = m_maxBytes;
    }
    ParsedProject project;
    ParseStatus status = ParseStatus::Malformed;
    if (file.isSequential() || file.size() > maxBytes) {
        qDebug() << "Project file refused: not a regular file or larger than" << maxBytes << "bytes";
    } else {
        QXmlStreamReader reader(&file);
        status = parse(reader, project, maxBytes);
        if (status == ParseStatus::Malformed)
            qDebug() << "Project file refused:" << reader.errorString() << "line" << reader.lineNumber();
    }
    file.close();
    if (status == ParseStatus::Stopped) {
        logInfo(u"[TOpenSaveThread]: Opening stopped. file=%1"_s.arg(openPath()));
        {
            const SignalFence fence;
            emit openProjectComplated(0, 0, 0);
        }
        return;
    }
    if (status == ParseStatus::Malformed) {
        failOpen(u"Failed to parse XML content! file=%1"_s, "Failed to parse XML content.");
        return;
    }
    logInfo(u"doc.setContent success."_s);
    qDebug() << "Root element name:" << project.rootName;
    if (status == ParseStatus::WrongRoot) {
        failOpen(u"Failed to open Project! file=%1"_s, "Failed to open Project.");
        return;
    }

    // Check every member against the file system first and change the store only at
    // the end, in one step, so a stopped open leaves the current result as it was.
    QHash<QString, QStringList> duplicates;
    QHash<QString, FolderRecords> folders;
    QHash<QString, QStringList> selections;
    int files = 0;
    qint64 bytes = 0;
    const qsizetype total = project.groups.size();
    ProgressThrottle throttle(total);
    for (qsizetype i = 0; i < total; ++i) {
        if (m_stop.load()) {
            logInfo(u"[TOpenSaveThread]: Opening stopped. file=%1"_s.arg(openPath()));
            {
                const SignalFence fence;
                emit openProjectComplated(0, 0, 0);
            }
            return;
        }
        const Group &group = project.groups.at(i);
        QStringList entries;
        QStringList selected;
        int groupFiles = 0;
        qint64 groupBytes = 0;
        // The file does not say whether a group held files or folders, and a member may have
        // changed kind since it was saved. The kind most members still have decides; on a tie
        // the unselected members, which the user meant to keep, and then the first member.
        // A member of the other kind stays listed, and removal refuses it.
        int folderMembers = 0, keptFolders = 0, keptFiles = 0;
        bool firstIsFolder = false;
        for (const Item &item : group.items) {
            const QFileInfo info(GroupItem::realPath(item.entry));
            if (!info.exists())
                continue;
            ++groupFiles;
            if (info.isFile())
                groupBytes += info.size();
            if (entries.isEmpty())
                firstIsFolder = info.isDir();
            folderMembers += info.isDir() ? 1 : 0;
            if (!item.selected)
                (info.isDir() ? keptFolders : keptFiles) += 1;
            if (item.selected)
                selected.append(item.entry);
            entries.append(item.entry);
        }
        const int fileMembers = int(entries.size()) - folderMembers;
        const bool isFolder = folderMembers != fileMembers
                                  ? folderMembers > fileMembers
                                  : (keptFolders != keptFiles ? keptFolders > keptFiles : firstIsFolder);
        // A project written by hand may lack keys; derive one the way a scan would.
        const QString key = group.key.isEmpty() && !entries.isEmpty()
                                ? groupKey(GroupItem::realPath(entries.constFirst()))
                                : group.key;
        if (entries.size() >= 2 && !isFolder) {
            files += groupFiles;
            bytes += groupBytes;
            duplicates.insert(key, entries);
            selections.insert(key, selected);
        } else if (entries.size() >= 2) {
            FolderRecords records;
            for (const QString &entry : std::as_const(entries)) {
                if (!QFileInfo(entry).isDir())
                    continue;
                FolderRecord record;
                record.folderPath = entry;
                TPieChart::measureFolder(entry, record.fileCount, record.totalSize);
                records.append(record);
            }
            if (records.size() > 1) {
                for (const FolderRecord &record : std::as_const(records)) {
                    files += record.fileCount;
                    bytes += record.totalSize;
                }
                folders.insert(key, records);
                selections.insert(key, selected);
            }
        } else if (entries.size() == 1) {
            selections.insert(key, QStringList());
        }
        if (throttle.due(i)) {
            const SignalFence fence;
            emit openProjectProcess(double(i), double(total));
        }
    }

    {
        TFileData &store = TFileData::instance();
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
        store.clear();
        store.duplicateGroups = duplicates;
        store.folderGroups = folders;
        store.selectedFiles = selections;
    }
    {
        QMutexLocker locker(&m_mutex);
        m_fileCount = project.fileCount;
        m_scanTime = project.scanTime;
        m_loadedFiles = files;
        m_loadedSize = bytes;
    }
    {
        const SignalFence fence;
        emit openProjectComplated(1, files, bytes);
    }
}

TOpenSaveThread::ParseStatus TOpenSaveThread::parse(QXmlStreamReader &reader, ParsedProject &project,
                                                    qint64 maxBytes)
{
    // A streaming reader instead of a document tree: it never fetches external
    // entities, and it lets the depth, the bytes read and the stop flag be checked as
    // the file goes by, so no file can exhaust the stack or the memory.
    bool rootSeen = false;
    bool wrongRoot = false;
    bool groupsDone = false;
    int depth = 0;
    int groupsDepth = -1;
    int groupDepth = -1;
    int itemDepth = -1;
    Group group;
    Item item;
    int tokens = 0;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        if (++tokens % kPollEvery == 0) {
            if (m_stop.load())
                return ParseStatus::Stopped;
            // The size was checked before; this catches a file that grows while read.
            if (reader.device() && reader.device()->pos() > maxBytes) {
                reader.raiseError(u"The project file is too large."_s);
                break;
            }
        }
        switch (token) {
        case QXmlStreamReader::DTD:
        case QXmlStreamReader::EntityReference:
            // Our files never declare a document type; declarations are where entity
            // tricks live, so any file that has one is not ours.
            reader.raiseError(u"Document type declarations are not accepted."_s);
            break;
        case QXmlStreamReader::StartElement: {
            if (++depth > kMaxDepth) {
                reader.raiseError(u"Elements nest too deeply."_s);
                break;
            }
            const QStringView name = reader.name();
            const QXmlStreamAttributes attributes = reader.attributes();
            if (depth == 1) {
                rootSeen = true;
                project.rootName = name.toString();
                // The whole file is still read: a broken file is reported as such
                // even when its root is wrong.
                wrongRoot = name != kRoot;
                project.fileCount = attribute(attributes, u"fileCount"_s, u"0"_s).toInt();
                project.scanTime = attribute(attributes, u"scanTime"_s, kDefaultScanTime);
            } else if (wrongRoot) {
                break;
            } else if (groupsDepth < 0 && !groupsDone && name == kGroups) {
                groupsDepth = depth;
            } else if (groupsDepth >= 0 && groupDepth < 0 && name == kGroupItem) {
                groupDepth = depth;
                group = Group();
                group.key = attribute(attributes, u"key"_s, QString());
            } else if (groupDepth >= 0 && itemDepth < 0 && name == kItem) {
                itemDepth = depth;
                item = Item();
                item.selected = attribute(attributes, u"selected"_s, u"0"_s) == u"1"_s;
            }
            break;
        }
        case QXmlStreamReader::Characters:
            if (itemDepth >= 0)
                item.entry += reader.text();
            break;
        case QXmlStreamReader::EndElement:
            if (depth == itemDepth) {
                group.items.append(item);
                itemDepth = -1;
            } else if (depth == groupDepth) {
                project.groups.append(group);
                groupDepth = -1;
            } else if (depth == groupsDepth) {
                groupsDepth = -1;
                groupsDone = true;
            }
            --depth;
            break;
        default:
            break;
        }
    }
    if (reader.hasError() || !rootSeen)
        return ParseStatus::Malformed;
    return wrongRoot ? ParseStatus::WrongRoot : ParseStatus::Ok;
}

void TOpenSaveThread::saveDocument()
{
    const QString path = savePath();
    // Written beside the target and renamed at the end, so a failed or stopped save
    // never leaves a half-written project over a good one.
    QSaveFile file(path);
    file.setDirectWriteFallback(true);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        qDebug() << "Failed to WriteOnly.";
        logInfo(u"Failed to WriteOnly! file=%1"_s.arg(openPath()));
        {
            const SignalFence fence;
            emit saveComplated(0);
        }
        return;
    }
    QXmlStreamWriter writer(&file);
    writer.setAutoFormatting(true);
    writer.writeStartDocument();
    writer.writeStartElement(kRoot);
    writer.writeAttribute(u"fileCount"_s, QString::number(fileCount()));
    writer.writeAttribute(u"scanTime"_s, scanTime());
    writer.writeAttribute(u"version"_s, AppInfo::version());
    writer.writeStartElement(kGroups);
    const bool complete = writeGroups(writer);
    writer.writeEndElement();
    writer.writeEndElement();
    writer.writeEndDocument();

    if (!complete) {
        file.cancelWriting();
        logInfo(u"[TOpenSaveThread]: Saving stopped. file=%1"_s.arg(path));
        {
            const SignalFence fence;
            emit saveComplated(0);
        }
        return;
    }
    if (writer.hasError() || !file.commit()) {
        logInfo(
            u"[TOpenSaveThread]: Failed to save project! file=%1 error=%2"_s.arg(path, file.errorString()));
        {
            const SignalFence fence;
            emit saveComplated(0);
        }
        return;
    }
    {
        const SignalFence fence;
        emit saveComplated(1);
    }
}

bool TOpenSaveThread::writeGroups(QXmlStreamWriter &writer)
{
    QHash<QString, QStringList> duplicates;
    QHash<QString, FolderRecords> folderGroups;
    QHash<QString, QStringList> selections;
    {
        const TFileData &store = TFileData::instance();
        ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Read);
        duplicates = store.duplicateGroups;
        folderGroups = store.folderGroups;
        selections = store.selectedFiles;
    }

    // A stable order (files, then folders, each by key) makes two saves of one
    // result identical files.
    QList<QPair<QString, QStringList>> groups;
    groups.reserve(duplicates.size() + folderGroups.size());
    QStringList keys = duplicates.keys();
    std::sort(keys.begin(), keys.end());
    for (const QString &key : std::as_const(keys))
        groups.append({key, duplicates.value(key)});
    keys = folderGroups.keys();
    std::sort(keys.begin(), keys.end());
    for (const QString &key : std::as_const(keys)) {
        QStringList paths;
        for (const FolderRecord &record : folderGroups.value(key))
            paths.append(record.folderPath);
        groups.append({key, paths});
    }

    const qsizetype total = groups.size();
    ProgressThrottle throttle(total);
    int leftOut = 0;
    for (qsizetype i = 0; i < total; ++i) {
        if (m_stop.load())
            return false;
        const QString &key = groups.at(i).first;
        const QStringList selectedList = selections.value(key);
        const QSet<QString> selected(selectedList.cbegin(), selectedList.cend());
        writer.writeStartElement(kGroupItem);
        writer.writeAttribute(u"GroupType"_s, u"0"_s);
        writer.writeAttribute(u"GroupFlag"_s, u"0"_s);
        writer.writeAttribute(u"key"_s, key);
        for (const QString &entry : groups.at(i).second) {
            if (!fitsInXml(entry)) {
                ++leftOut;
                continue;
            }
            writer.writeStartElement(kItem);
            writer.writeAttribute(u"selected"_s, selected.contains(entry) ? u"1"_s : u"0"_s);
            writeExactText(writer, entry);
            writer.writeEndElement();
        }
        if (throttle.due(i)) {
            const SignalFence fence;
            emit saveProjectProcess(double(i), double(total));
        }
        writer.writeEndElement();
    }
    if (leftOut > 0)
        logInfo(
            u"[TOpenSaveThread]: %1 entries left out of the project: their names hold characters XML cannot carry."_s
                .arg(leftOut));
    return true;
}
