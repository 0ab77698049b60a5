#include "platform/AvailableMemory.h"

#include <QByteArray>
#include <QFile>

#include <limits>

#include <sys/sysinfo.h>

namespace {
// "MemAvailable:  123456 kB" counts reclaimable caches too, the honest figure of what a
// program can still take; it is missing on very old kernels.
qint64 memAvailableFromProc()
{
    QFile meminfo(QStringLiteral("/proc/meminfo"));
    if (!meminfo.open(QIODevice::ReadOnly | QIODevice::Text))
        return 0;
    while (!meminfo.atEnd()) {
        const QByteArray line = meminfo.readLine();
        if (!line.startsWith("MemAvailable:"))
            continue;
        const QList<QByteArray> parts = line.mid(13).simplified().split(' ');
        bool ok = false;
        const qint64 kib = parts.value(0).toLongLong(&ok);
        if (!ok || kib <= 0 || kib > std::numeric_limits<qint64>::max() / 1024)
            return 0;
        return kib * 1024;
    }
    return 0;
}
} // namespace

qint64 AvailableMemory::physicalBytes()
{
    if (const qint64 bytes = memAvailableFromProc(); bytes > 0)
        return bytes;
    struct sysinfo info = {};
    if (sysinfo(&info) != 0)
        return 0;
    const unsigned long long bytes =
        (static_cast<unsigned long long>(info.freeram) + info.bufferram) * info.mem_unit;
    return bytes > static_cast<unsigned long long>(std::numeric_limits<qint64>::max()) ? 0 : qint64(bytes);
}
