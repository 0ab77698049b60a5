#include "similar/ImageCodecs.h"

#include "app/TLogger.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace {

// Where the module may be, in order: next to the running program, the installed library
// folder, then the build tree (which is what tests and runs from the build folder find).
QStringList moduleFolders()
{
    // Test hook, read once at the first load: when TWINFOLD_CODECS_DIR is set, that folder
    // is the only one searched, so a test can make the module unfindable or broken.
    if (qEnvironmentVariableIsSet("TWINFOLD_CODECS_DIR"))
        return {qEnvironmentVariable("TWINFOLD_CODECS_DIR")};
    QStringList folders;
    if (QCoreApplication::instance())
        folders.append(QCoreApplication::applicationDirPath());
#ifdef Q_OS_LINUX
    else
        folders.append(QFileInfo(u"/proc/self/exe"_s).canonicalPath());
#endif
    folders.append(QString::fromUtf8(TWINFOLD_CODECS_INSTALL_DIR));
    folders.append(QString::fromUtf8(TWINFOLD_CODECS_BUILD_DIR));
    folders.removeAll(QString());
    folders.removeDuplicates();
    return folders;
}

// The table of the module at path, or null with the reason in error.
const ImageCodecs::Table *loadFrom(const QString &path, QString &error)
{
    QLibrary library(path);
    if (!library.load()) {
        error = library.errorString();
        return nullptr;
    }
    const auto entry = reinterpret_cast<ImageCodecs::EntryPoint>(library.resolve(ImageCodecs::entryPoint));
    const ImageCodecs::Table *table = entry ? entry() : nullptr;
    if (table && table->version == ImageCodecs::tableVersion && table->decode && table->read)
        return table; // stays loaded for the rest of the process
    error = entry ? u"%1: version %2 of the codec table, expected %3"_s.arg(
                        path, table ? QString::number(table->version) : u"(none)"_s,
                        QString::number(ImageCodecs::tableVersion))
                  : library.errorString();
    library.unload();
    return nullptr;
}

const ImageCodecs::Table *loadTable()
{
    const QString fileName = QString::fromUtf8(TWINFOLD_CODECS_FILE_NAME);
    // A module that is there but cannot be used says more than a folder without one.
    QString presentError;
    QString lastError = u"no folder to look for %1 in"_s.arg(fileName);
    for (const QString &folder : moduleFolders()) {
        const QString path = QDir(folder).absoluteFilePath(fileName);
        if (const ImageCodecs::Table *table = loadFrom(path, lastError))
            return table;
        if (presentError.isEmpty() && QFileInfo::exists(path))
            presentError = lastError;
    }
    const QString error = presentError.isEmpty() ? lastError : presentError;
    logInfo(u"[TReadImage]: image codecs unavailable: %1"_s.arg(error));
    return nullptr;
}

} // namespace

const ImageCodecs::Table *ImageCodecs::table()
{
    // Initialised exactly once even when several pool threads decode their first image together.
    static const Table *const loaded = loadTable();
    return loaded;
}

bool ImageCodecs::isAvailable()
{
    return table() != nullptr;
}

cv::Mat ImageCodecs::decode(const cv::Mat &bytes, int flags)
{
    const Table *codecs = table();
    return codecs ? codecs->decode(bytes, flags) : cv::Mat();
}

cv::Mat ImageCodecs::read(const std::string &path, int flags)
{
    const Table *codecs = table();
    return codecs ? codecs->read(path, flags) : cv::Mat();
}
