#pragma once

#include <QString>

// The one log of the program: a daily file under the per-user data folder, one
// info-level line per message, shared by every thread.
class TLogger
{
public:
    // "%1/%2/%3/" over the generic configuration location, organisation and application.
    static QString appDir();
    // Creates appDir()/Log when missing and the daily logger on it. Safe to call again:
    // a second call replaces the logger (tests point it at other folders).
    static bool init(const QString &appDir);
    // Drops the logger; later messages are dropped until init() runs again.
    static void shutdown();
    // Today's file name, "log_yyyy-MM-dd.log".
    static QString todaysFileName();
    static QString logDir(const QString &appDir);
    static void write(const QString &message);
    static void flush();
};

// Every module logs through these two names.
inline void logInfo(const QString &message)
{
    TLogger::write(message);
}
inline bool initLogger(const QString &appDir)
{
    return TLogger::init(appDir);
}
