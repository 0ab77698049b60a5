#include "platform/DriveClassifier.h"

#include "scan/FileMeta.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QRegularExpression>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

struct MountEntry
{
    QString mountPoint;
    QByteArray majorMinor;
    QByteArray fsType;
    QByteArray source;
};

// mountinfo escapes blanks, tabs, newlines and backslashes as three octal digits.
QString unescapeMountField(const QByteArray &field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        const char c = field.at(i);
        if (c == '\\' && i + 3 < field.size() && field.at(i + 1) >= '0' && field.at(i + 1) <= '7' &&
            field.at(i + 2) >= '0' && field.at(i + 2) <= '7' && field.at(i + 3) >= '0' &&
            field.at(i + 3) <= '7') {
            out.append(char(((field.at(i + 1) - '0') << 6) | ((field.at(i + 2) - '0') << 3) |
                            (field.at(i + 3) - '0')));
            i += 3;
        } else {
            out.append(c);
        }
    }
    return QFile::decodeName(out);
}

// Fields: id parent major:minor root mount-point options [optional...] - type source super-options
bool parseMountLine(const QByteArray &line, MountEntry &entry)
{
    const QList<QByteArray> fields = line.simplified().split(' ');
    const qsizetype dash = fields.indexOf(QByteArray("-"));
    if (dash < 6 || dash + 2 >= fields.size())
        return false;
    entry.majorMinor = fields.at(2);
    entry.mountPoint = unescapeMountField(fields.at(4));
    entry.fsType = fields.at(dash + 1);
    entry.source = fields.at(dash + 2);
    return true;
}

bool isUnder(const QString &path, const QString &mountPoint)
{
    if (mountPoint == QLatin1String("/"))
        return path.startsWith(QLatin1Char('/'));
    return path == mountPoint ||
           (path.startsWith(mountPoint) && path.at(mountPoint.size()) == QLatin1Char('/'));
}

// The mount that holds the path: the longest mount point above it; of equal ones the
// last listed, which is the one on top.
bool findMount(const QString &path, const QByteArray &mountInfo, MountEntry &found)
{
    bool any = false;
    const QList<QByteArray> lines = mountInfo.split('\n');
    for (const QByteArray &line : lines) {
        MountEntry entry;
        if (!parseMountLine(line, entry) || !isUnder(path, entry.mountPoint))
            continue;
        if (!any || entry.mountPoint.size() >= found.mountPoint.size()) {
            found = entry;
            any = true;
        }
    }
    return any;
}

bool isNetworkFileSystem(const QByteArray &type)
{
    static const char *const network[] = {"nfs",  "nfs4",     "cifs",  "smb3",      "smbfs",  "ncpfs",
                                          "afs",  "9p",       "ceph",  "glusterfs", "lustre", "davfs",
                                          "coda", "virtiofs", "sshfs", "orangefs",  "beegfs"};
    for (const char *name : network) {
        if (type == name)
            return true;
    }
    // FUSE file systems (sshfs, rclone, ntfs-3g, ...) are user-space and often remote.
    return type == "fuse" || type == "fuseblk" || type.startsWith("fuse.");
}

QByteArray readSmallFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.read(64).trimmed();
}

qint32 classifyBlockDevice(const QString &deviceDir, const QString &sysRoot, int depth);

// Combines the classes of the disks under a mapper or RAID device: any removable or
// network member makes it other-bus; any unknown makes it unknown; else rotational wins.
qint32 classifySlaves(const QString &disk, const QString &sysRoot, int depth)
{
    const QDir slaves(disk + QStringLiteral("/slaves"));
    const QStringList names = slaves.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System);
    if (names.isEmpty())
        return DriveType::Unknown;
    bool rotational = false;
    bool unknown = false;
    for (const QString &name : names) {
        const qint32 type = classifyBlockDevice(slaves.filePath(name), sysRoot, depth + 1);
        if (type == DriveType::OtherBus)
            return DriveType::OtherBus;
        if (type == DriveType::Unknown)
            unknown = true;
        else if (type == DriveType::Rotational)
            rotational = true;
    }
    if (unknown)
        return DriveType::Unknown;
    return rotational ? DriveType::Rotational : DriveType::SolidState;
}

qint32 classifyBlockDevice(const QString &deviceDir, const QString &sysRoot, int depth)
{
    if (depth > 8)
        return DriveType::Unknown;
    QString disk = QFileInfo(deviceDir).canonicalFilePath();
    if (disk.isEmpty())
        return DriveType::Unknown;
    // A partition sits inside the folder of its whole disk.
    if (QFileInfo::exists(disk + QStringLiteral("/partition")))
        disk = QFileInfo(disk).path();

    // Decide on the part below the sysfs root, so the root's own name cannot match.
    const QString canonicalRoot = QFileInfo(sysRoot).canonicalFilePath();
    const QString where = disk.startsWith(canonicalRoot) ? disk.mid(canonicalRoot.size()) : disk;
    const QString name = QFileInfo(disk).fileName();
    static const QRegularExpression firewire(QStringLiteral("/fw[0-9]"));

    if (where.contains(QLatin1String("/usb")) || where.contains(QLatin1String("/mmc")) ||
        name.startsWith(QLatin1String("mmcblk")) || firewire.match(where).hasMatch())
        return DriveType::OtherBus;
    if (readSmallFile(disk + QStringLiteral("/removable")) == "1")
        return DriveType::OtherBus;
    if (where.contains(QLatin1String("/virtual/")))
        return classifySlaves(disk, sysRoot, depth);

    // Internal buses: ATA/SATA, NVMe, SCSI/SAS hosts, and the paravirtual disks of a
    // virtual machine, which stand in for the host's internal disk.
    const bool internal = where.contains(QLatin1String("/ata")) || where.contains(QLatin1String("/nvme")) ||
                          where.contains(QLatin1String("/host")) ||
                          where.contains(QLatin1String("/virtio")) || where.contains(QLatin1String("/vbd-"));
    if (!internal)
        return DriveType::OtherBus;
    const QByteArray rotational = readSmallFile(disk + QStringLiteral("/queue/rotational"));
    if (rotational == "1")
        return DriveType::Rotational;
    if (rotational == "0")
        return DriveType::SolidState;
    return DriveType::Unknown;
}

} // namespace

qint32 DriveClassifier::classifyWith(const QString &canonicalPath, const QByteArray &mountInfo,
                                     const QString &sysRoot)
{
    MountEntry mount;
    if (canonicalPath.isEmpty() || !findMount(canonicalPath, mountInfo, mount))
        return DriveType::Unknown;
    if (isNetworkFileSystem(mount.fsType))
        return DriveType::OtherBus;

    // The block device by number first; file systems with anonymous numbers (btrfs)
    // name their device in the source field instead.
    const QList<QByteArray> numbers = mount.majorMinor.split(':');
    if (numbers.size() == 2 && numbers.at(0) != "0") {
        const QString byNumber =
            sysRoot + QStringLiteral("/dev/block/") + QString::fromLatin1(mount.majorMinor);
        if (QFileInfo::exists(byNumber))
            return classifyBlockDevice(byNumber, sysRoot, 0);
    }
    if (!mount.source.startsWith("/dev/"))
        return DriveType::Unknown; // tmpfs, overlay, proc...
    QString source = QFile::decodeName(mount.source);
    const QString resolved = QFileInfo(source).canonicalFilePath(); // /dev/mapper/x -> /dev/dm-0
    if (!resolved.isEmpty())
        source = resolved;
    const QString byName = sysRoot + QStringLiteral("/class/block/") + QFileInfo(source).fileName();
    if (!QFileInfo::exists(byName))
        return DriveType::Unknown;
    return classifyBlockDevice(byName, sysRoot, 0);
}

qint32 DriveClassifier::classify(const QString &path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    if (canonical.isEmpty())
        return DriveType::Unknown;
    QFile mounts(QStringLiteral("/proc/self/mountinfo"));
    if (!mounts.open(QIODevice::ReadOnly))
        return DriveType::Unknown;
    // Proc files report no size; readAll reads until the end.
    return classifyWith(canonical, mounts.readAll(), QStringLiteral("/sys"));
}

QString DriveClassifier::cacheKey(const QString &path)
{
    struct stat st;
    if (path.isEmpty() || ::stat(QFile::encodeName(path).constData(), &st) != 0)
        return QString();
    return QStringLiteral("dev:%1:%2").arg(major(st.st_dev)).arg(minor(st.st_dev));
}
