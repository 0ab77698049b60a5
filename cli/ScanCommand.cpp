#include "cli/ScanCommand.h"

#include "app/TControlUI.h"
#include "cli/CliText.h"
#include "cli/InterruptWatcher.h"
#include "result/GroupItemAutoSelector.h"
#include "scan/TFileData.h"
#include "settings/TWGenernalPreferences.h"
#include "settings/TWIgnoreListPreferences.h"
#include "settings/TWPreferences.h"
#include "settings/TWSelectionPreferences.h"
#include "similar/ImageCacheManager.h"

#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QTextStream>

#include <cstdio>
#include <unistd.h>

namespace {
const QStringList kMethods = {QStringLiteral("sampled"), QStringLiteral("name"), QStringLiteral("content")};

// Lower case without dots, as the scanner compares suffixes.
QStringList extensionList(const QString &value)
{
    QStringList out;
    for (QString ext : value.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
        ext = ext.trimmed().toLower();
        while (ext.startsWith(QLatin1Char('.')))
            ext.remove(0, 1);
        if (!ext.isEmpty() && !out.contains(ext))
            out.append(ext);
    }
    return out;
}

bool parseSize(const QString &text, quint64 *value)
{
    bool ok = false;
    const qulonglong v = text.toULongLong(&ok);
    if (ok)
        *value = v;
    return ok;
}
} // namespace

ScanCommand::ScanCommand(QObject *parent) : QObject(parent) {}

ScanCommand::~ScanCommand()
{
    delete controller;
    delete preferences;
}

int ScanCommand::parse(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Finds identical files (and, with --folders, identical folders, and with --similar, similar images) "
        "below the given folders and prints them in groups.\nText output: one path per line, a blank line "
        "after each group.\nExit status: 0 "
        "success, 1 failure or interrupted, 2 wrong usage."));
    parser.addPositionalArgument(QStringLiteral("FOLDER"), QStringLiteral("Folders to scan."),
                                 QStringLiteral("FOLDER..."));
    parser.addOptions({
        {QStringLiteral("method"), QStringLiteral("How contents are compared: sampled, content or name."),
         QStringLiteral("sampled|content|name")},
        {QStringLiteral("folders"), QStringLiteral("Also find identical folders.")},
        {QStringLiteral("min-size"), QStringLiteral("Skip files smaller than this many KiB."),
         QStringLiteral("KIB")},
        {QStringLiteral("max-size"), QStringLiteral("Skip files larger than this many MiB."),
         QStringLiteral("MIB")},
        {QStringLiteral("only"), QStringLiteral("Scan only these extensions."), QStringLiteral("EXT,...")},
        {QStringLiteral("ignore-ext"), QStringLiteral("Skip these extensions."), QStringLiteral("EXT,...")},
        {QStringLiteral("exclude"), QStringLiteral("Skip this file or folder (repeatable)."),
         QStringLiteral("PATH")},
        {QStringLiteral("include-hidden"), QStringLiteral("Also scan hidden files and folders.")},
        {QStringLiteral("select"),
         QStringLiteral(
             "Re-select every group by a rule: newest, oldest, filename, priority, high-resolution, "
             "low-resolution, high-quality, low-quality, all or none."),
         QStringLiteral("RULE")},
        {QStringLiteral("similar"),
         QStringLiteral("Also group similar images (default from the preferences).")},
        {QStringLiteral("no-similar"), QStringLiteral("Do not group similar images.")},
        {QStringLiteral("algorithm"),
         QStringLiteral(
             "Image measure: smart (hash above 10000 images, else histogram), histogram or phash."),
         QStringLiteral("smart|histogram|phash")},
        {QStringLiteral("similarity"), QStringLiteral("Similarity threshold, 1-100 percent."),
         QStringLiteral("PERCENT")},
        {QStringLiteral("features"),
         QStringLiteral("Feature-point threshold of the refinement, 0-100 percent."),
         QStringLiteral("PERCENT")},
        {QStringLiteral("no-features"), QStringLiteral("Skip the feature-point refinement.")},
        {QStringLiteral("any-type"), QStringLiteral("Also pair images of different formats.")},
        {QStringLiteral("aspect"),
         QStringLiteral("Pair only images whose aspect ratios differ by at most N times."),
         QStringLiteral("N")},
        {QStringLiteral("any-aspect"), QStringLiteral("Pair images whatever their aspect ratio.")},
        {QStringLiteral("similar-select"),
         QStringLiteral("Pre-select in similar groups by a rule (names as for --select)."),
         QStringLiteral("RULE")},
        {QStringLiteral("save"), QStringLiteral("Write the result to a project file."),
         QStringLiteral("FILE")},
        {QStringLiteral("format"), QStringLiteral("Output format: text, json or csv (default text)."),
         QStringLiteral("text|json|csv"), QStringLiteral("text")},
        {QStringLiteral("preferences"), QStringLiteral("Read defaults from this preferences file."),
         QStringLiteral("FILE")},
        {{QStringLiteral("q"), QStringLiteral("quiet")}, QStringLiteral("No progress or summary on stderr.")},
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")},
    });
    if (!parser.parse(QStringList{QStringLiteral("twinfold-cli scan")} + arguments))
        return CliText::usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        CliText::out() << parser.helpText();
        return 0;
    }
    if (!ResultPrinter::parseFormat(parser.value(QStringLiteral("format")), &format))
        return CliText::usageError(
            QStringLiteral("unknown format '%1'").arg(parser.value(QStringLiteral("format"))));
    quiet = parser.isSet(QStringLiteral("quiet"));

    if (parser.positionalArguments().isEmpty())
        return CliText::usageError(QStringLiteral("no folder to scan"));
    for (const QString &arg : parser.positionalArguments()) {
        const QFileInfo info(arg);
        if (!info.exists())
            return CliText::usageError(QStringLiteral("no such folder: %1").arg(arg));
        if (!info.isDir())
            return CliText::usageError(QStringLiteral("not a folder: %1").arg(arg));
        if (!QDir(arg).isReadable())
            return CliText::usageError(QStringLiteral("cannot read folder: %1").arg(arg));
        const QString root = QDir::cleanPath(info.absoluteFilePath());
        if (!roots.contains(root))
            roots.append(root);
    }

    QString preferencesPath = TWPreferences::defaultFilePath();
    if (parser.isSet(QStringLiteral("preferences"))) {
        preferencesPath = parser.value(QStringLiteral("preferences"));
        const QFileInfo info(preferencesPath);
        if (!info.isFile() || !info.isReadable())
            return CliText::usageError(
                QStringLiteral("cannot read preferences file: %1").arg(preferencesPath));
    }
    // Read only: the overrides of this run must never reach the file.
    preferences = new TWPreferences(preferencesPath, false);
    return applyOptions(parser);
}

int ScanCommand::applyOptions(QCommandLineParser &parser)
{
    TWIgnoreListPreferences *ignore = preferences->ignoreList;
    TWSelectionPreferences *selection = preferences->selection;

    if (parser.isSet(QStringLiteral("method"))) {
        const qsizetype method = kMethods.indexOf(parser.value(QStringLiteral("method")));
        if (method < 0)
            return CliText::usageError(
                QStringLiteral("unknown method '%1'").arg(parser.value(QStringLiteral("method"))));
        // The method values follow the preferences' order: sampled 0, name 1, content 2.
        selection->scanMethod = TWSelectionPreferences::TWScanMethod(method);
    }
    if (parser.isSet(QStringLiteral("folders")))
        selection->scanDupDirectory = true;
    if (parser.isSet(QStringLiteral("min-size")) &&
        !parseSize(parser.value(QStringLiteral("min-size")), &ignore->MinFileSize))
        return CliText::usageError(QStringLiteral("--min-size needs a whole number of KiB"));
    if (parser.isSet(QStringLiteral("max-size")) &&
        !parseSize(parser.value(QStringLiteral("max-size")), &ignore->MaxFileSize))
        return CliText::usageError(QStringLiteral("--max-size needs a whole number of MiB"));
    if (parser.isSet(QStringLiteral("only")) && parser.isSet(QStringLiteral("ignore-ext")))
        return CliText::usageError(QStringLiteral("--only and --ignore-ext cannot be combined"));
    if (parser.isSet(QStringLiteral("only"))) {
        ignore->OnlyFileType = extensionList(parser.value(QStringLiteral("only")));
        ignore->ScanFileType = 0;
    }
    if (parser.isSet(QStringLiteral("ignore-ext"))) {
        ignore->IgnoreFileType = extensionList(parser.value(QStringLiteral("ignore-ext")));
        ignore->ScanFileType = 1;
    }
    for (const QString &path : parser.values(QStringLiteral("exclude"))) {
        const QString absolute = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
        if (!ignore->IgnorePathFile.contains(absolute))
            ignore->IgnorePathFile.append(absolute);
    }
    if (parser.isSet(QStringLiteral("include-hidden")))
        ignore->HideSystemFile = false;
    if (parser.isSet(QStringLiteral("select"))) {
        selectRule = CliText::ruleOf(parser.value(QStringLiteral("select")));
        if (selectRule < 0)
            return CliText::usageError(
                QStringLiteral("unknown selection rule '%1'").arg(parser.value(QStringLiteral("select"))));
    }
    savePath = parser.value(QStringLiteral("save"));
    return applySimilarOptions(parser);
}

int ScanCommand::applySimilarOptions(QCommandLineParser &parser)
{
    TWGenernalPreferences *general = preferences->general;
    const auto both = [&parser](const char *a, const char *b) {
        return parser.isSet(QLatin1String(a)) && parser.isSet(QLatin1String(b));
    };
    if (both("similar", "no-similar"))
        return CliText::usageError(QStringLiteral("--similar and --no-similar cannot be combined"));
    if (both("features", "no-features"))
        return CliText::usageError(QStringLiteral("--features and --no-features cannot be combined"));
    if (both("aspect", "any-aspect"))
        return CliText::usageError(QStringLiteral("--aspect and --any-aspect cannot be combined"));
    if (parser.isSet(QStringLiteral("similar")))
        general->hasSimilar = true;
    if (parser.isSet(QStringLiteral("no-similar")))
        general->hasSimilar = false;
    if (parser.isSet(QStringLiteral("algorithm"))) {
        static const QStringList names = {QStringLiteral("smart"), QStringLiteral("histogram"),
                                          QStringLiteral("phash")};
        const qsizetype algorithm = names.indexOf(parser.value(QStringLiteral("algorithm")));
        if (algorithm < 0)
            return CliText::usageError(
                QStringLiteral("unknown algorithm '%1'").arg(parser.value(QStringLiteral("algorithm"))));
        general->algorithmHint = TWSelectionPreferences::TWAlgorithmsHint(algorithm);
    }
    const auto percent = [&parser](const char *name, int lowest, int *value) {
        bool ok = false;
        *value = parser.value(QLatin1String(name)).toInt(&ok);
        return ok && *value >= lowest && *value <= 100;
    };
    int value = 0;
    if (parser.isSet(QStringLiteral("similarity"))) {
        if (!percent("similarity", 1, &value))
            return CliText::usageError(QStringLiteral("--similarity needs a whole number from 1 to 100"));
        general->setSimilarityPercent(value);
    }
    if (parser.isSet(QStringLiteral("features"))) {
        if (!percent("features", 0, &value))
            return CliText::usageError(QStringLiteral("--features needs a whole number from 0 to 100"));
        general->setFeaturesPercent(value);
        general->isAddFeatures = true;
    }
    if (parser.isSet(QStringLiteral("no-features")))
        general->isAddFeatures = false;
    if (parser.isSet(QStringLiteral("any-type")))
        general->isImageType = false;
    if (parser.isSet(QStringLiteral("aspect"))) {
        bool ok = false;
        const int limit = parser.value(QStringLiteral("aspect")).toInt(&ok);
        // The matcher reads factors above 10 as its default of 4, so they are refused here.
        if (!ok || limit < 1 || limit > 10)
            return CliText::usageError(QStringLiteral("--aspect needs a whole number from 1 to 10"));
        general->isImageSize = true;
        general->imageMinSize = limit;
    }
    if (parser.isSet(QStringLiteral("any-aspect")))
        general->isImageSize = false;
    if (parser.isSet(QStringLiteral("similar-select"))) {
        const int rule = CliText::ruleOf(parser.value(QStringLiteral("similar-select")));
        if (rule < 0)
            return CliText::usageError(QStringLiteral("unknown selection rule '%1'")
                                           .arg(parser.value(QStringLiteral("similar-select"))));
        general->selectedSimilar = rule != Deselect;
        if (rule != Deselect)
            general->selectionHint = TWSelectionPreferences::TWSelectionHint(rule);
    }
    return -1;
}

void ScanCommand::start()
{
    controller = new TControlUI;
    controller->setPreferences(preferences->ignoreList, preferences->selection, preferences->general);
    showProgress = !quiet && ::isatty(STDERR_FILENO);

    auto *watcher = new InterruptWatcher(this);
    connect(watcher, &InterruptWatcher::interrupted, this, [this] {
        if (interrupted || controller->runState() != TControlUI::Starting)
            return;
        interrupted = true;
        controller->stopScan();
    });
    connect(controller, &TControlUI::onAllComplate, this, &ScanCommand::onComplete);
    if (showProgress) {
        connect(controller, &TControlUI::filesScaningChange, this, [this](int files) {
            lastFiles = files;
            onProgress();
        });
        connect(controller, &TControlUI::processChange, this, [this](double percent) {
            lastPercent = percent;
            onProgress();
        });
    }
    TFileData::instance().clear();
    controller->startScan(roots);
}

void ScanCommand::onProgress()
{
    const bool scanning = controller->status() == TControlUI::ScaningFile;
    QTextStream err(stderr);
    if (scanning)
        err << "\rscanning: " << lastFiles << " files"
            << "\x1b[K";
    else
        err << "\rmatching: " << controller->scannedFileCount() << " files, " << int(lastPercent) << '%'
            << "\x1b[K";
    err.flush();
}

void ScanCommand::onComplete()
{
    if (showProgress)
        QTextStream(stderr) << "\r\x1b[K";
    if (selectRule >= 0)
        CliText::applyRule(selectRule, preferences->selection->mapPriority);

    const auto finish = [this] {
        const ResultPrinter::Totals totals =
            ResultPrinter::print(CliText::out(), format, controller->scannedFileCount(), showProgress);
        if (showProgress)
            CliText::summary(totals, controller->scannedFileCount(), controller->elapsedSecondsCount());
        if (interrupted)
            CliText::err() << "twinfold-cli: scan interrupted; the groups above are incomplete" << Qt::endl;
        else if (preferences->general->hasSimilar && ImageCacheManager::instance().isIncomplete())
            CliText::err() << "twinfold-cli: this scan is incomplete: image matching ran out of memory and "
                              "disk space for image features, so some similar images may be missing"
                           << Qt::endl;
        emit finished(interrupted ? 1 : 0);
    };
    if (savePath.isEmpty()) {
        finish();
        return;
    }
    connect(controller, &TControlUI::onSaveProjectComplated, this, [this, finish](int flag) {
        if (flag != 1) {
            CliText::err() << "twinfold-cli: cannot write project file: " << savePath << Qt::endl;
            emit finished(1);
            return;
        }
        finish();
    });
    controller->saveProject(savePath);
}
