#include "app/TStartup.h"

#include "app/AppInfo.h"
#include "app/EnvelopeReporter.h"
#include "app/TLogger.h"
#include "platform/CrashHandler.h"
#include "platform/HeapTuning.h"
#ifdef TWINFOLD_HAVE_SENTRY_NATIVE
#include "app/SentryNativeReporter.h"
#endif

#include <QDir>
#include <QStringList>

#include <memory>

namespace {
std::unique_ptr<TReporter> g_reporter;
} // namespace

QString TStartup::startLine()
{
    return QStringLiteral("[Main]: The program is starting to run "
                          "[%1]..............................................................")
        .arg(AppInfo::version());
}

bool TStartup::start(const QString &appDir)
{
    HeapTuning::apply();
    QString dir = appDir.isEmpty() ? TLogger::appDir() : appDir;
    if (!dir.endsWith(QLatin1Char('/')))
        dir += QLatin1Char('/');

    // Folders first; a failure is logged once the log exists, and the program goes on.
    QStringList failed;
    for (const QString &sub : {QStringLiteral("sentrydb"), QStringLiteral("Log")}) {
        if (!QDir().mkpath(dir + sub))
            failed.append(dir + sub);
    }
    initLogger(dir);
    logInfo(startLine());
    for (const QString &path : std::as_const(failed))
        logInfo(QStringLiteral("[Main]: cannot create folder %1").arg(path));

    if (g_reporter) {
        TReporter::setCurrent(nullptr);
        g_reporter->close();
        g_reporter.reset();
    }

    TReporter::Options options;
    options.dsn = TReporter::configuredDsn();
    options.databasePath = dir + QStringLiteral("sentrydb");
    options.release = AppInfo::version();
    options.logDir = TLogger::logDir(dir);
    options.handlerDir = CrashHandler::programDir();
    options.debug = false;

#ifdef TWINFOLD_HAVE_SENTRY_NATIVE
    g_reporter = std::make_unique<SentryNativeReporter>();
    const bool ownCrashHandler = false; // the native SDK brings its own
#else
    g_reporter = std::make_unique<EnvelopeReporter>();
    const bool ownCrashHandler = true;
#endif
    const bool ok = g_reporter->init(options);
    logInfo(ok ? QStringLiteral("[Main]: sentry SDK initialized successfully")
               : QStringLiteral("[Main]: sentry_init failed!"));
    if (ok)
        TReporter::setCurrent(g_reporter.get());
    // Crash records are only worth writing when something will send them.
    if (ok && ownCrashHandler && !options.dsn.isEmpty() && !CrashHandler::install(options.databasePath))
        logInfo(QStringLiteral("[Main]: crash handler not installed"));
    return ok;
}

void TStartup::shutdown()
{
    CrashHandler::uninstall();
    TReporter::setCurrent(nullptr);
    if (g_reporter) {
        g_reporter->close();
        g_reporter.reset();
    }
    TLogger::flush();
}

TReporter *TStartup::reporter()
{
    return g_reporter.get();
}
