#include "app/SentryNativeReporter.h"

#include "app/TLogger.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <sentry.h>

#include <cstdarg>
#include <cstdio>

namespace {
void onSdkLog(sentry_level_t, const char *message, va_list args, void *)
{
    char text[1024];
    va_list copy;
    va_copy(copy, args);
    std::vsnprintf(text, sizeof(text), message, copy);
    va_end(copy);
    logInfo(QStringLiteral("[sentry]: %1").arg(QString::fromUtf8(text)));
}

sentry_level_t sdkLevel(TReporter::Level level)
{
    switch (level) {
    case TReporter::Level::Debug:
        return SENTRY_LEVEL_DEBUG;
    case TReporter::Level::Info:
        return SENTRY_LEVEL_INFO;
    case TReporter::Level::Warning:
        return SENTRY_LEVEL_WARNING;
    case TReporter::Level::Error:
        return SENTRY_LEVEL_ERROR;
    case TReporter::Level::Fatal:
        return SENTRY_LEVEL_FATAL;
    }
    return SENTRY_LEVEL_INFO;
}

// Flat string objects are all the program sends as tags and extra data.
sentry_value_t toSdkObject(const QJsonObject &object)
{
    sentry_value_t value = sentry_value_new_object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QByteArray key = it.key().toUtf8();
        const QByteArray text =
            it.value().isString()
                ? it.value().toString().toUtf8()
                : QJsonDocument(QJsonObject{{it.key(), it.value()}}).toJson(QJsonDocument::Compact);
        sentry_value_set_by_key(value, key.constData(), sentry_value_new_string(text.constData()));
    }
    return value;
}
} // namespace

SentryNativeReporter::~SentryNativeReporter()
{
    close();
}

bool SentryNativeReporter::init(const Options &options)
{
    if (m_running)
        return false;
    sentry_options_t *sdk = sentry_options_new();
    sentry_options_set_dsn(sdk, options.dsn.toUtf8().constData());
    sentry_options_set_release(sdk, options.release.toUtf8().constData());
    sentry_options_set_system_crash_reporter_enabled(sdk, 1);
    sentry_options_set_debug(sdk, options.debug ? 1 : 0);
    sentry_options_set_logger(sdk, onSdkLog, nullptr);
    sentry_options_set_shutdown_timeout(sdk, uint64_t(qMax(0, options.shutdownTimeoutMs)));
    const QString attachment =
        QDir(options.logDir)
            .filePath(QStringLiteral("log_") + QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd")) +
                      QStringLiteral(".log"));
#ifdef Q_OS_WIN
    const QString handler =
        QDir::toNativeSeparators(options.handlerDir + QStringLiteral("/crashpad_handler.exe"));
    sentry_options_set_database_pathw(
        sdk, reinterpret_cast<const wchar_t *>(QDir::toNativeSeparators(options.databasePath).utf16()));
    sentry_options_set_handler_pathw(sdk, reinterpret_cast<const wchar_t *>(handler.utf16()));
    sentry_options_add_attachmentw(
        sdk, reinterpret_cast<const wchar_t *>(QDir::toNativeSeparators(attachment).utf16()));
#else
    const QString handler =
        QDir::toNativeSeparators(options.handlerDir + QStringLiteral("/crashpad_handler"));
    sentry_options_set_database_path(sdk, QFile::encodeName(options.databasePath).constData());
    sentry_options_set_handler_path(sdk, QFile::encodeName(handler).constData());
    sentry_options_add_attachment(sdk, QFile::encodeName(attachment).constData());
#endif
    // sentry_init takes the options in every case.
    m_running = sentry_init(sdk) == 0;
    return m_running;
}

bool SentryNativeReporter::captureMessage(const Event &event)
{
    if (!m_running)
        return false;
    const QByteArray logger = event.logger.toUtf8();
    const QByteArray message = event.message.toUtf8();
    sentry_value_t value = sentry_value_new_message_event(
        sdkLevel(event.level), logger.isEmpty() ? nullptr : logger.constData(), message.constData());
    if (!event.tags.isEmpty())
        sentry_value_set_by_key(value, "tags", toSdkObject(event.tags));
    if (!event.extra.isEmpty())
        sentry_value_set_by_key(value, "extra", toSdkObject(event.extra));
    sentry_capture_event(value);
    return true;
}

void SentryNativeReporter::close()
{
    if (!m_running)
        return;
    m_running = false;
    sentry_close();
}
