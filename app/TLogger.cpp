#include "app/TLogger.h"

#include "app/AppInfo.h"

#include <QDate>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <spdlog/sinks/daily_file_sink.h>
#include <spdlog/spdlog.h>

namespace {
constexpr const char *kLoggerName = "m_logger";
}

QString TLogger::appDir()
{
    return QStringLiteral("%1/%2/%3/")
        .arg(QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation), AppInfo::organization(),
             AppInfo::application());
}

QString TLogger::logDir(const QString &appDir)
{
    return QDir::cleanPath(appDir + QStringLiteral("/Log"));
}

QString TLogger::todaysFileName()
{
    return QStringLiteral("log_") + QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd")) +
           QStringLiteral(".log");
}

bool TLogger::init(const QString &appDir)
{
    const QString dir = logDir(appDir);
    if (!QDir(dir).exists() && !QDir(dir).mkpath(QStringLiteral(".")))
        qDebug() << "Failed to create writable directory:" << dir;
    try {
        spdlog::drop(kLoggerName);
        const QString basePath = QStringLiteral("%1/log.log").arg(dir);
        // spdlog takes file names in the platform's own encoding, not always UTF-8: a
        // per-user folder with non-ASCII letters must still open.
#ifdef SPDLOG_WCHAR_FILENAMES
        const spdlog::filename_t base = basePath.toStdWString();
#else
        const spdlog::filename_t base = QFile::encodeName(basePath).toStdString();
#endif
        auto logger = spdlog::daily_logger_mt(kLoggerName, base, 0, 0);
        spdlog::set_pattern("[%H:%M:%S.%e]:%v");
        logger->set_level(spdlog::level::info);
        // The file is the diagnostic record of a crash; do not leave lines in a buffer.
        logger->flush_on(spdlog::level::info);
        return true;
    } catch (const spdlog::spdlog_ex &e) {
        qDebug() << "Failed to create the log:" << e.what();
        return false;
    }
}

void TLogger::shutdown()
{
    spdlog::drop(kLoggerName);
}

void TLogger::write(const QString &message)
{
    auto logger = spdlog::get(kLoggerName);
    if (!logger)
        return;
    const QByteArray line = message.simplified().toUtf8();
    logger->log(spdlog::source_loc{"TLogger", 0, "splog_d"}, spdlog::level::info,
                spdlog::string_view_t(line.constData(), size_t(line.size())));
}

void TLogger::flush()
{
    if (auto logger = spdlog::get(kLoggerName))
        logger->flush();
}
