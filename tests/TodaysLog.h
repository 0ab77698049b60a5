#pragma once

#include "app/TLogger.h"

#include <QFile>
#include <QString>

// Today's log file under the data folder `appDir`, flushed first, from byte `from` on;
// empty when there is none. The tests that check stated log lines read it through this.
inline QString todaysLog(const QString &appDir, qint64 from = 0)
{
    TLogger::flush();
    QFile file(TLogger::logDir(appDir) + QLatin1Char('/') + TLogger::todaysFileName());
    return file.open(QIODevice::ReadOnly) && file.seek(from) ? QString::fromUtf8(file.readAll()) : QString();
}
