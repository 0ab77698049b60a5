#pragma once

#include <QJsonObject>
#include <QString>

// The crash and usage reporter as the rest of the program sees it. One reporter is
// active per process (current()); it is created and closed by TStartup.
class TReporter
{
public:
    enum class Level
    {
        Debug,
        Info,
        Warning,
        Error,
        Fatal
    };

    struct Options
    {
        // Endpoint of the reporting service; empty means nothing leaves the machine.
        QString dsn;
        // Folder of the reporter's own database (pending crash records).
        QString databasePath;
        QString release;
        // Folder of the daily log; the file of the report's day is attached.
        QString logDir;
        // Program folder, where a native crash handler executable lives.
        QString handlerDir;
        bool debug = false;
        // How long close() may wait for pending reports before dropping them.
        int shutdownTimeoutMs = 2000;
    };

    struct Event
    {
        Level level = Level::Info;
        QString logger;
        QString message;
        QJsonObject tags;
        QJsonObject extra;
    };

    // How many usage events of one feature an installation sends at most.
    static constexpr int kMaxFeatureEvents = 3;

    TReporter() = default;
    TReporter(const TReporter &) = delete;
    TReporter &operator=(const TReporter &) = delete;
    virtual ~TReporter() = default;

    // Never throws; false when the reporter could not start (the program goes on).
    virtual bool init(const Options &options) = 0;
    // False when the event was not accepted (not initialised or already closed).
    virtual bool captureMessage(const Event &event) = 0;
    // Sends what is pending within the shutdown timeout, then stops. Idempotent.
    virtual void close() = 0;

    static TReporter *current();
    static void setCurrent(TReporter *reporter);

    // The DSN of this run: the environment variable TWINFOLD_SENTRY_DSN when it is set
    // (even to an empty value), otherwise the one the build was configured with.
    static QString configuredDsn();
    static QString chooseDsn(bool environmentSet, const QString &environmentValue, const QString &builtIn);
    static QString levelName(Level level);
    // The settings key that counts the usage events of one feature.
    static QString featureCountKey(const QString &feature);
};

// Sends one usage event, at most TReporter::kMaxFeatureEvents per feature per installation.
void trackFeature(const QString &feature, const QString &message);
