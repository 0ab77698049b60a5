#pragma once

#include <QString>

// Records fatal crashes of this process as small text files that the reporter sends at
// the next start. The handler itself does only async-signal-safe work; everything it
// needs is prepared by install().
//
// A record is named "<unix time>-<process id>.crash" (written under ".tmp" first and
// renamed, so a half-written record is never picked up) and holds lines of key=value
// after the first line "twinfold-crash 1":
//   code=<signal number, or the exception code on Windows>
//   name=<SIGSEGV, ..., or EXCEPTION_ACCESS_VIOLATION, ...>
//   time=<unix seconds>
//   pid=<process id>
class CrashHandler
{
public:
    // Starts recording into databaseDir (which must exist). Replaces an earlier install.
    static bool install(const QString &databaseDir);
    // Restores what was installed before.
    static void uninstall();
    static bool isInstalled();

    // The folder of the running executable, known before any application object exists.
    static QString programDir();

    static QString recordSuffix() { return QStringLiteral(".crash"); }
    static QString recordHeader() { return QStringLiteral("twinfold-crash 1"); }
};
