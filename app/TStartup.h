#pragma once

#include <QString>

class TReporter;

// The first steps of both programs, before any application object exists: the per-user
// data folder, the log, the start line and the crash and usage reporter. shutdown()
// closes the reporter (sending what is pending within its timeout) and flushes the log.
class TStartup
{
public:
    // appDir empty: the per-user data folder (TLogger::appDir()). Never fails the
    // program; returns whether the reporter started.
    static bool start(const QString &appDir = QString());
    static void shutdown();

    // The reporter started by start(), until shutdown().
    static TReporter *reporter();
    static QString startLine();
};
