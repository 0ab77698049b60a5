#include "cli/DeleteCommand.h"

#include "app/SignalFence.h"
#include "cli/CliText.h"
#include "cli/ProjectFile.h"
#include "result/DeleteResult.h"
#include "result/GroupItem.h"
#include "result/TImageDeleteWorker.h"
#include "scan/TFileData.h"
#include "settings/TWPreferences.h"

#include <QCommandLineParser>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QSet>

namespace {
using Method = TWIgnoreListPreferences::TWRemovalMethod;

bool parseTarget(const QString &value, Method *method, QString *folder)
{
    if (value == u"trash") {
        *method = TWIgnoreListPreferences::moveToTrash;
    } else if (value == u"permanent") {
        *method = TWIgnoreListPreferences::removePermanently;
    } else if (value.startsWith(u"folder:") && value.size() > 7) {
        *method = TWIgnoreListPreferences::moveToFolder;
        *folder = QDir::cleanPath(QFileInfo(value.mid(7)).absoluteFilePath());
    } else {
        return false;
    }
    return true;
}

// The real paths the batch would remove: selected entries that are members of their group.
QStringList selectedMembers(const TImageDeleteWorker::Tables &tables)
{
    QStringList out;
    QSet<QString> seen;
    for (auto it = tables.selected.cbegin(); it != tables.selected.cend(); ++it) {
        const QStringList members =
            tables.files.contains(it.key()) ? tables.files.value(it.key()) : tables.dirs.value(it.key());
        for (const QString &entry : it.value()) {
            bool member = false;
            for (const QString &m : members)
                member = member || m == entry || TImageDeleteWorker::isSimilarEntryOf(m, entry);
            const QString real = GroupItem::realPath(entry);
            if (member && !seen.contains(real)) {
                seen.insert(real);
                out.append(real);
            }
        }
    }
    out.sort();
    return out;
}
} // namespace

int DeleteCommand::run(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Removes the selected members of a saved project and rewrites the project with what is "
        "left. Prints each removed path; each failure goes to stderr with its reason."));
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Project file (.dupproj)."));
    parser.addOptions({
        {QStringLiteral("to"),
         QStringLiteral("Where removed files go: trash (the desktop's trash), permanent, or folder:DIR. "
                        "Default: the preferences' removal method."),
         QStringLiteral("trash|permanent|folder:DIR")},
        {QStringLiteral("dry-run"), QStringLiteral("List what would be removed; change nothing.")},
        {QStringLiteral("preferences"), QStringLiteral("Read the default removal method from this file."),
         QStringLiteral("FILE")},
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")},
    });
    if (!parser.parse(QStringList{QStringLiteral("twinfold-cli delete")} + arguments))
        return CliText::usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        CliText::out() << parser.helpText() << Qt::flush;
        return 0;
    }
    if (parser.positionalArguments().size() != 1)
        return CliText::usageError(QStringLiteral("delete needs exactly one project file"));
    const QString project = parser.positionalArguments().constFirst();
    if (!QFileInfo(project).isFile())
        return CliText::usageError(QStringLiteral("no such project file: %1").arg(project));

    Method method = TWIgnoreListPreferences::moveToTrash;
    QString folder;
    if (parser.isSet(QStringLiteral("to"))) {
        if (!parseTarget(parser.value(QStringLiteral("to")), &method, &folder))
            return CliText::usageError(
                QStringLiteral("unknown removal target '%1'").arg(parser.value(QStringLiteral("to"))));
    } else {
        QString prefsPath = TWPreferences::defaultFilePath();
        if (parser.isSet(QStringLiteral("preferences"))) {
            prefsPath = parser.value(QStringLiteral("preferences"));
            if (!QFileInfo(prefsPath).isFile())
                return CliText::usageError(QStringLiteral("cannot read preferences file: %1").arg(prefsPath));
        }
        const TWPreferences prefs(prefsPath, false);
        method = prefs.ignoreList->RemovealMethod;
        folder = prefs.ignoreList->TrashFolder;
    }
    if (method == TWIgnoreListPreferences::moveToFolder && !parser.isSet(QStringLiteral("dry-run"))) {
        if (folder.isEmpty() || !QFileInfo(folder).isDir())
            return CliText::usageError(QStringLiteral("no such target folder: %1").arg(folder));
    }

    int fileCount = 0;
    QString scanTime;
    QString error;
    if (!ProjectFile::open(project, &fileCount, &scanTime, &error))
        return CliText::failure(error);
    const TImageDeleteWorker::Tables given = TImageDeleteWorker::tablesFromStore(TFileData::instance());

    if (parser.isSet(QStringLiteral("dry-run"))) {
        for (const QString &path : selectedMembers(given))
            CliText::out() << path << '\n';
        CliText::out().flush();
        return 0;
    }

    auto *worker = new TImageDeleteWorker(given.files, given.dirs, given.selected, method, folder);
    QEventLoop loop;
    TImageDeleteWorker::Tables result;
    QStringList removed;
    QList<DeleteResult> failures;
    QObject::connect(worker, &TImageDeleteWorker::removalReport, &loop,
                     [&](const QStringList &done, const QList<DeleteResult> &failed) {
                         const SignalFence fence; // held while the slot runs: see ~TImageDeleteWorker
                         removed = done;
                         failures = failed;
                     });
    QObject::connect(worker, &TImageDeleteWorker::finished, &loop,
                     [&](const QHash<QString, QStringList> &files, const QHash<QString, QStringList> &dirs,
                         const QHash<QString, QStringList> &selected) {
                         const SignalFence fence; // held while the slot runs: see ~TImageDeleteWorker
                         result = TImageDeleteWorker::Tables{files, dirs, selected};
                         loop.quit();
                     });
    worker->start();
    loop.exec();

    TImageDeleteWorker::applyToStore(TFileData::instance(), given, result);
    for (const QString &path : std::as_const(removed))
        CliText::out() << path << '\n';
    CliText::out().flush();
    for (const DeleteResult &failure : std::as_const(failures))
        CliText::err() << "twinfold-cli: cannot remove " << failure.path << ": "
                       << deleteErrorMessage(failure.errorCode) << Qt::endl;
    if (!ProjectFile::save(project, fileCount, scanTime))
        return CliText::failure(QStringLiteral("cannot rewrite project file: %1").arg(project));
    return failures.isEmpty() ? 0 : 1;
}
