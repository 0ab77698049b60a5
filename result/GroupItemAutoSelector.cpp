#include "result/GroupItemAutoSelector.h"

#include "app/ReadWriteLockGuard.h"
#include "app/TLogger.h"
#include "result/GroupItem.h"
#include "result/ImageItem.h"
#include "scan/PoolMap.h"
#include "scan/TFileData.h"
#include "settings/TWPreferences.h"

#include <QFileInfo>
#include <QJsonValue>
#include <QMutex>
#include <QThreadPool>
#include <QVariant>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <filesystem>
#include <optional>

namespace {
// ASCII digits (what a regular expression's \d means without Unicode properties)
// starting at `at`, at most `limit` of them; `end` is set past the last one counted.
qsizetype digitsAt(QStringView text, qsizetype at, qsizetype limit, qsizetype &end)
{
    end = at;
    while (end - at < limit && end < text.size() && text.at(end) >= u'0' && text.at(end) <= u'9')
        ++end;
    return end - at;
}

// Marks of a numbered copy, "(n)", "_n" or "-n" with one to three digits, counted without
// overlap from the left, as the pattern "(\(\d{1,3}\)|_\d{1,3}|-\d{1,3})" would find them.
// Written out because the rule scores every member of every new group during matching.
int numberingMarks(QStringView name)
{
    int marks = 0;
    qsizetype i = 0;
    while (i < name.size()) {
        const QChar c = name.at(i);
        qsizetype end = i + 1;
        if (c == u'(') {
            // All the digits up to the ')' must fit in three.
            if (digitsAt(name, i + 1, 4, end) <= 3 && end > i + 1 && end < name.size() &&
                name.at(end) == u')') {
                ++marks;
                i = end + 1;
                continue;
            }
        } else if ((c == u'_' || c == u'-') && digitsAt(name, i + 1, 3, end) > 0) {
            ++marks;
            i = end;
            continue;
        }
        ++i;
    }
    return marks;
}

struct Lexicon
{
    QStringList words;
    // Words by their first character, as bit masks over `words`, so one pass over a text
    // finds every word in it: the rule runs for every new group during matching.
    std::array<quint64, 128> asciiStarts{};
    quint64 otherStarts = 0;
    qsizetype newIndex = -1;

    // Bit i is set when words[i] occurs in text.
    quint64 wordsIn(QStringView text) const
    {
        quint64 found = 0;
        for (qsizetype i = 0; i < text.size(); ++i) {
            const char16_t c = text[i].unicode();
            quint64 candidates = c < 128 ? asciiStarts[c] : otherStarts;
            candidates &= ~found;
            while (candidates) {
                const int w = std::countr_zero(candidates);
                candidates &= candidates - 1;
                if (text.sliced(i).startsWith(words.at(w)))
                    found |= quint64(1) << w;
            }
        }
        return found;
    }
};

// Shared read-only by every task; built once under the static's thread-safe initialisation.
const Lexicon &lexicon()
{
    static const Lexicon lexicon = [] {
        Lexicon lx;
        lx.words = {
            QStringLiteral("copy"),
            QStringLiteral("copy of"),
            QStringLiteral("kopie"),
            QStringLiteral("copie"),
            QStringLiteral("copia"),
            QStringLiteral("cópia"),
            QStringLiteral("duplicado"),
            QStringLiteral("duplikat"),
            QStringLiteral("копия"),
            QStringLiteral("còpia"),
            QStringLiteral("副本"),
            QStringLiteral("コピー"),
            QStringLiteral("new"),
            QStringLiteral("新建文件夹"),
            QStringLiteral("新しいフォルダー"),
            QStringLiteral("neuer ordner"),
            QStringLiteral("nouveau dossier"),
            QStringLiteral("nova pasta"),
            QStringLiteral("nueva carpeta"),
            QStringLiteral("nuova cartella"),
            QStringLiteral("tmp"),
            QStringLiteral("temp"),
            QStringLiteral("bak"),
            QStringLiteral("backup"),
            QStringLiteral("autosave"),
            QStringLiteral("auto save"),
            QStringLiteral("edited"),
            QStringLiteral("export"),
            QStringLiteral("downloads"),
            QStringLiteral("desktop"),
            QStringLiteral("trash"),
            QStringLiteral("回收站"),
            QStringLiteral("下载"),
            QStringLiteral("桌面"),
        };
        static_assert(sizeof(quint64) * 8 >= 34);
        for (qsizetype w = 0; w < lx.words.size(); ++w) {
            const char16_t first = lx.words.at(w).front().unicode();
            if (first < 128)
                lx.asciiStarts[first] |= quint64(1) << w;
            else
                lx.otherStarts |= quint64(1) << w;
        }
        lx.newIndex = lx.words.indexOf(QStringLiteral("new"));
        return lx;
    }();
    return lexicon;
}

bool keepsLargest(int rule)
{
    return rule == SelectOldest || rule == SelectByFilename || rule == SelectLowResolution ||
           rule == SelectLowQuality;
}

// When every member has the same key, the rules that keep the smallest key keep the last
// member and the others keep the first.
bool keepsLastOnTie(int rule)
{
    return rule == SelectNewest || rule == SelectHighResolution || rule == SelectHighQuality;
}

bool onDisk(const QString &entry)
{
    const QString path = GroupItem::realPath(entry);
    return !path.isEmpty() && QFileInfo::exists(path);
}

// The member's rank under the rule, or nothing when its file is no longer on disk: only a
// member still there can be the one that stays, since a vanished member ranks as oldest or
// smallest and would otherwise leave every real copy selected. Each rule learns whether the
// file is there from the one status call it needs anyway. An unreadable header counts as
// -1 x -1 (product 1).
std::optional<qint64> rankKey(const QString &path, int rule)
{
    if (path.isEmpty())
        return std::nullopt;
    switch (rule) {
    case SelectNewest:
    case SelectOldest: {
        std::error_code error;
        const auto written =
            std::filesystem::last_write_time(std::filesystem::path(path.toStdU16String()), error);
        if (error)
            return std::nullopt;
        // Read without local-time conversion: the ranking needs only the order, and the
        // conversion would serialise every task on the C library's time-zone lock.
        const auto since = std::chrono::file_clock::to_sys(written).time_since_epoch();
        return std::chrono::duration_cast<std::chrono::milliseconds>(since).count();
    }
    case SelectHighQuality:
    case SelectLowQuality: {
        const QFileInfo info(path);
        return info.exists() ? std::optional<qint64>(info.size()) : std::nullopt;
    }
    default:
        break;
    }
    if (!QFileInfo::exists(path))
        return std::nullopt;
    if (rule == SelectByFilename)
        return GroupItemAutoSelector::filenameScore(path);
    const QSize size = ImageItem::headerSize(path);
    return qint64(size.width()) * qint64(size.height());
}

// Every member except the listings of the kept file. A path listed twice is still one
// file: selecting its second listing would remove the copy that was meant to stay.
QStringList allExcept(const QStringList &paths, const QString &kept)
{
    const QString keptPath = GroupItem::realPath(kept);
    QStringList selected;
    selected.reserve(paths.size());
    for (const QString &path : paths) {
        if (GroupItem::realPath(path) != keptPath)
            selected.append(path);
    }
    return selected;
}

QStringList selectRanked(const QStringList &paths, int rule)
{
    // The first member with the smallest and with the largest key, and the last member of
    // all when every key is the same.
    qsizetype firstSmallest = -1, firstLargest = -1, last = -1;
    qint64 smallest = 0, largest = 0;
    bool allEqual = true;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        const std::optional<qint64> key = rankKey(GroupItem::realPath(paths.at(i)), rule);
        if (!key)
            continue;
        if (last < 0) {
            firstSmallest = firstLargest = i;
            smallest = largest = *key;
        } else {
            allEqual = allEqual && *key == smallest;
            if (*key < smallest) {
                smallest = *key;
                firstSmallest = i;
            }
            if (*key > largest) {
                largest = *key;
                firstLargest = i;
            }
        }
        last = i;
    }
    if (last < 0)
        return {};

    qsizetype kept = 0;
    if (allEqual)
        kept = keepsLastOnTie(rule) ? last : firstSmallest;
    else
        kept = keepsLargest(rule) ? firstLargest : firstSmallest;
    return allExcept(paths, paths.at(kept));
}
} // namespace

QStringList GroupItemAutoSelector::selectGroup(const QStringList &paths, int rule)
{
    if (paths.size() < 2)
        return {};
    switch (rule) {
    case SelectNewest:
    case SelectOldest:
    case SelectByFilename:
    case SelectHighResolution:
    case SelectLowResolution:
    case SelectHighQuality:
    case SelectLowQuality:
        return selectRanked(paths, rule);
    case SelectAll:
        return paths;
    default:
        return {};
    }
}

QStringList GroupItemAutoSelector::selectByPriority(const QStringList &paths,
                                                    const QMap<QString, qint32> &priority)
{
    if (paths.size() < 2)
        return {};
    if (priority.isEmpty())
        return selectGroup(paths, SelectByFilename);

    // Deepest folder first; equal lengths keep the table's ascending path order.
    QStringList folders = priority.keys();
    std::stable_sort(folders.begin(), folders.end(),
                     [](const QString &a, const QString &b) { return a.size() > b.size(); });

    QList<qint32> ranks;
    ranks.reserve(paths.size());
    QList<bool> present;
    present.reserve(paths.size());
    bool anyProtected = false;
    for (const QString &entry : paths) {
        const QString path = GroupItem::realPath(entry);
        qint32 rank = 0;
        for (const QString &folder : folders) {
            if (path.startsWith(folder, Qt::CaseSensitive)) {
                rank = priority.value(folder);
                break;
            }
        }
        const bool exists = onDisk(entry);
        // A protected copy that has vanished protects nothing.
        anyProtected = anyProtected || (rank < 0 && exists);
        ranks.append(rank);
        present.append(exists);
    }

    QStringList eligible;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        if (ranks.at(i) >= 0)
            eligible.append(paths.at(i));
    }
    if (eligible.isEmpty())
        return {};
    // The protected members are the keepers.
    if (anyProtected)
        return eligible;

    // The keepers are the members of the lowest number still on disk.
    std::optional<qint32> lowest;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        if (present.at(i) && (!lowest || ranks.at(i) < *lowest))
            lowest = ranks.at(i);
    }
    if (!lowest)
        return {};
    QStringList selected;
    for (qsizetype i = 0; i < paths.size(); ++i) {
        if (ranks.at(i) != *lowest)
            selected.append(paths.at(i));
    }
    if (selected.isEmpty())
        return selectGroup(eligible, SelectByFilename);
    return selected;
}

QMap<QString, qint32> GroupItemAutoSelector::priorityFromJson(const QJsonObject &table)
{
    QMap<QString, qint32> priority;
    for (auto it = table.constBegin(); it != table.constEnd(); ++it)
        priority.insert(it.key(), it.value().toVariant().toInt());
    return priority;
}

qint32 GroupItemAutoSelector::filenameScore(const QString &path)
{
    const Lexicon &lx = lexicon();
    const QFileInfo info(path);
    const QString name = info.fileName().toLower();
    const QString dir = info.absolutePath().toLower();
    const quint64 newBit = quint64(1) << lx.newIndex;
    const quint64 inName = lx.wordsIn(name);
    const quint64 inDir = lx.wordsIn(dir);

    qint32 score = 100;
    score -= 50 * std::popcount(inName & ~newBit) + ((inName & newBit) ? 20 : 0);
    score -= 30 * std::popcount(inDir & ~newBit) + ((inDir & newBit) ? 20 : 0);
    score -= 50 * numberingMarks(name);
    return score;
}

void GroupItemAutoSelector::autoSelectAllEx(const QList<Group> &groups, int rule)
{
    // The priority table is read on the caller's thread, once, before any task starts.
    QMap<QString, qint32> priority;
    if (rule == SelectByPriority)
        priority = TWPreferences::instance()->selection->mapPriority;
    autoSelectAllEx(groups, rule, priority);
}

void GroupItemAutoSelector::autoSelectAllEx(const QList<Group> &groups, int rule,
                                            const QMap<QString, qint32> &priority)
{
    TFileData &store = TFileData::instance();
    // The project's pool map, whose hand-overs the race checker can follow; the mutex keeps
    // the short store writes and the count in one order.
    QMutex writeMutex;
    qint32 selectedGroups = 0;
    qint32 done = 0;
    mapOnPool(groups, [&](const Group &group) {
        const QStringList selected = rule == SelectByPriority ? selectByPriority(group.second, priority)
                                                              : selectGroup(group.second, rule);
        const QMutexLocker serial(&writeMutex);
        ++done;
        if (!selected.isEmpty()) {
            store.setSelected(group.first, selected);
            ++selectedGroups;
        } else {
            ReadWriteLockGuard locker(store.lock, ReadWriteLockGuard::Write);
            store.selectedFiles.remove(group.first);
        }
    });
    logInfo(QStringLiteral("[GroupItemAutoSelector]: Auto select %1 groups by rule %2, %3 groups selected.")
                .arg(done)
                .arg(rule)
                .arg(selectedGroups));
}
