#include "TestMain.h"

#include "platform/DriveClassifier.h"
#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"

#include <QAtomicInt>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

const QString sata = u"pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda"_s;
const QString nvme = u"pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1"_s;
const QString usb = u"pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host3/target3:0:0/3:0:0:0/block/sdb"_s;
const QString sdCard = u"platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001/block/mmcblk0"_s;
const QString virtio = u"pci0000:00/0000:00:02.0/virtio1/block/vda"_s;
const QString odd = u"platform/some-bridge/block/xyz"_s;

bool writeText(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(text) == text.size();
}

// A made-up sysfs: the disk under devices/, its first partition, and the two ways the
// classifier finds it (dev/block/<major:minor> for the partition, class/block/<name>).
// An empty rotational or removable value leaves that file out.
bool addDisk(const QString &sys, const QString &where, const QByteArray &majorMinor,
             const QByteArray &rotational, const QByteArray &removable)
{
    const QString disk = sys + u"/devices/"_s + where;
    const QString name = QFileInfo(disk).fileName();
    const QString partition = disk + u'/' + name + u'1';
    bool ok = QDir().mkpath(partition) && writeText(partition + u"/partition"_s, "1\n");
    if (!rotational.isEmpty())
        ok = ok && writeText(disk + u"/queue/rotational"_s, rotational + '\n');
    if (!removable.isEmpty())
        ok = ok && writeText(disk + u"/removable"_s, removable + '\n');
    QDir().mkpath(sys + u"/dev/block"_s);
    QDir().mkpath(sys + u"/class/block"_s);
    ok = ok && QFile::link(partition, sys + u"/dev/block/"_s + QString::fromLatin1(majorMinor));
    ok = ok && QFile::link(partition, sys + u"/class/block/"_s + name + u'1');
    ok = ok && QFile::link(disk, sys + u"/class/block/"_s + name);
    return ok;
}

QByteArray mountLine(const QByteArray &majorMinor, const QByteArray &mountPoint, const QByteArray &type,
                     const QByteArray &source)
{
    return "27 1 " + majorMinor + " / " + mountPoint + " rw,relatime shared:1 - " + type + ' ' + source +
           " rw\n";
}

// The mount point of a tmpfs on this machine, if any.
QString tmpfsMount()
{
    QFile f(u"/proc/self/mountinfo"_s);
    if (!f.open(QIODevice::ReadOnly))
        return QString();
    const QList<QByteArray> lines = f.readAll().split('\n');
    for (const QByteArray &line : lines) {
        const QList<QByteArray> parts = line.split(' ');
        const qsizetype dash = parts.indexOf("-");
        if (dash > 4 && dash + 1 < parts.size() && parts.at(dash + 1) == "tmpfs" &&
            !parts.at(4).contains('\\') && ::access(parts.at(4).constData(), R_OK) == 0)
            return QString::fromLocal8Bit(parts.at(4));
    }
    return QString();
}

} // namespace

class TestDriveClassifier : public QObject
{
    Q_OBJECT
private slots:
    void cleanup() { TFileScanner::setDriveQuery({}); }
    void blockDevices_data();
    void blockDevices();
    void fileSystems_data();
    void fileSystems();
    void mountLookup_data();
    void mountLookup();
    void mappedDeviceFollowsItsDisks_data();
    void mappedDeviceFollowsItsDisks();
    void cacheKeepsAllButUnknown_data();
    void cacheKeepsAllButUnknown();
    void realTemporaryFolder();
    void virtualFileSystemsAreUnknown();
};

void TestDriveClassifier::blockDevices_data()
{
    QTest::addColumn<QString>("where");
    QTest::addColumn<QByteArray>("rotational");
    QTest::addColumn<QByteArray>("removable");
    QTest::addColumn<int>("expected");
    QTest::newRow("sata ssd") << sata << QByteArray("0") << QByteArray("0") << int(SolidState);
    QTest::newRow("sata hdd") << sata << QByteArray("1") << QByteArray("0") << int(Rotational);
    QTest::newRow("nvme") << nvme << QByteArray("0") << QByteArray("0") << int(SolidState);
    QTest::newRow("virtio disk") << virtio << QByteArray("1") << QByteArray("0") << int(Rotational);
    QTest::newRow("usb stick") << usb << QByteArray("1") << QByteArray("1") << int(OtherBus);
    QTest::newRow("usb disk, fixed, solid") << usb << QByteArray("0") << QByteArray("0") << int(OtherBus);
    QTest::newRow("sd card") << sdCard << QByteArray("0") << QByteArray("0") << int(OtherBus);
    QTest::newRow("removable bay on ata") << sata << QByteArray("1") << QByteArray("1") << int(OtherBus);
    QTest::newRow("unknown bus") << odd << QByteArray("0") << QByteArray("0") << int(OtherBus);
    QTest::newRow("internal without rotational flag")
        << sata << QByteArray() << QByteArray("0") << int(Unknown);
    QTest::newRow("internal with garbage flag") << nvme << QByteArray("yes") << QByteArray() << int(Unknown);
}

void TestDriveClassifier::blockDevices()
{
    QFETCH(QString, where);
    QFETCH(QByteArray, rotational);
    QFETCH(QByteArray, removable);
    // A temporary folder whose own name holds "usb" must not count as a USB path.
    QTemporaryDir dir(QDir::tempPath() + u"/usb-mmc-XXXXXX"_s);
    const QString sys = dir.filePath(u"sys"_s);
    QVERIFY(addDisk(sys, where, "8:1", rotational, removable));
    const QByteArray mounts = mountLine("8:1", "/data", "ext4", "/dev/whatever");
    QTEST(DriveClassifier::classifyWith(u"/data/photos/a.jpg"_s, mounts, sys), "expected");
}

void TestDriveClassifier::fileSystems_data()
{
    QTest::addColumn<QByteArray>("type");
    QTest::addColumn<QByteArray>("majorMinor");
    QTest::addColumn<QByteArray>("source");
    QTest::addColumn<int>("expected");
    QTest::newRow("nfs") << QByteArray("nfs4") << QByteArray("0:52") << QByteArray("server:/export")
                         << int(OtherBus);
    QTest::newRow("cifs") << QByteArray("cifs") << QByteArray("0:53") << QByteArray("//nas/share")
                          << int(OtherBus);
    QTest::newRow("smb3") << QByteArray("smb3") << QByteArray("0:53") << QByteArray("//nas/share")
                          << int(OtherBus);
    QTest::newRow("9p") << QByteArray("9p") << QByteArray("0:54") << QByteArray("host") << int(OtherBus);
    QTest::newRow("sshfs") << QByteArray("fuse.sshfs") << QByteArray("0:55") << QByteArray("me@host:")
                           << int(OtherBus);
    QTest::newRow("fuseblk on sata") << QByteArray("fuseblk") << QByteArray("8:1") << QByteArray("/dev/sda1")
                                     << int(OtherBus);
    QTest::newRow("tmpfs") << QByteArray("tmpfs") << QByteArray("0:23") << QByteArray("tmpfs")
                           << int(Unknown);
    QTest::newRow("overlay") << QByteArray("overlay") << QByteArray("0:40") << QByteArray("overlay")
                             << int(Unknown);
    QTest::newRow("proc") << QByteArray("proc") << QByteArray("0:21") << QByteArray("proc") << int(Unknown);
    QTest::newRow("btrfs by source name")
        << QByteArray("btrfs") << QByteArray("0:30") << QByteArray("/dev/sda1") << int(SolidState);
    QTest::newRow("device that is gone")
        << QByteArray("ext4") << QByteArray("8:99") << QByteArray("/dev/sdz9") << int(Unknown);
    QTest::newRow("ext4 by number") << QByteArray("ext4") << QByteArray("8:1") << QByteArray("/dev/root")
                                    << int(SolidState);
}

void TestDriveClassifier::fileSystems()
{
    QFETCH(QByteArray, type);
    QFETCH(QByteArray, majorMinor);
    QFETCH(QByteArray, source);
    QTemporaryDir dir;
    const QString sys = dir.filePath(u"sys"_s);
    QVERIFY(addDisk(sys, sata, "8:1", "0", "0"));
    QTEST(DriveClassifier::classifyWith(u"/mnt/x/file"_s, mountLine(majorMinor, "/mnt/x", type, source), sys),
          "expected");
}

void TestDriveClassifier::mountLookup_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("expected");
    QTest::newRow("below the stick") << u"/media/usb/a/b.jpg"_s << int(OtherBus);
    QTest::newRow("the mount point itself") << u"/media/usb"_s << int(OtherBus);
    QTest::newRow("same prefix, other folder") << u"/media/usbother/a"_s << int(SolidState);
    QTest::newRow("escaped blank") << u"/media/my disk/a"_s << int(Rotational);
    QTest::newRow("root file system") << u"/home/me"_s << int(SolidState);
    QTest::newRow("later mount on top wins") << u"/stacked/x"_s << int(OtherBus);
    QTest::newRow("relative path") << u"home/me"_s << int(Unknown);
    QTest::newRow("empty path") << QString() << int(Unknown);
}

void TestDriveClassifier::mountLookup()
{
    QFETCH(QString, path);
    QTemporaryDir dir;
    const QString sys = dir.filePath(u"sys"_s);
    QVERIFY(addDisk(sys, nvme, "259:1", "0", "0"));
    QVERIFY(addDisk(sys, usb, "8:17", "1", "1"));
    QVERIFY(addDisk(sys, sata, "8:1", "1", "0"));
    const QByteArray mounts = mountLine("259:1", "/", "ext4", "/dev/nvme0n1p1") +
                              mountLine("8:17", "/media/usb", "vfat", "/dev/sdb1") +
                              mountLine("8:1", "/media/my\\040disk", "ext4", "/dev/sda1") +
                              "garbage line\n\n" + mountLine("259:1", "/stacked", "ext4", "/dev/nvme0n1p1") +
                              mountLine("8:17", "/stacked", "vfat", "/dev/sdb1");
    QTEST(DriveClassifier::classifyWith(path, mounts, sys), "expected");
}

void TestDriveClassifier::mappedDeviceFollowsItsDisks_data()
{
    QTest::addColumn<QStringList>("members"); // "ssd", "hdd", "usb" or "none" for an empty slaves folder
    QTest::addColumn<int>("expected");
    QTest::newRow("encrypted ssd") << QStringList{u"ssd"_s} << int(SolidState);
    QTest::newRow("mirror of ssd and hdd") << QStringList{u"ssd"_s, u"hdd"_s} << int(Rotational);
    QTest::newRow("volume spanning usb") << QStringList{u"ssd"_s, u"usb"_s} << int(OtherBus);
    QTest::newRow("no members (zram, loop)") << QStringList() << int(Unknown);
}

void TestDriveClassifier::mappedDeviceFollowsItsDisks()
{
    QFETCH(QStringList, members);
    QTemporaryDir dir;
    const QString sys = dir.filePath(u"sys"_s);
    QVERIFY(addDisk(sys, nvme, "259:1", "0", "0"));
    QVERIFY(addDisk(sys, sata, "8:1", "1", "0"));
    QVERIFY(addDisk(sys, usb, "8:17", "1", "1"));
    const QString mapped = sys + u"/devices/virtual/block/dm-0"_s;
    QVERIFY(QDir().mkpath(mapped + u"/slaves"_s));
    QVERIFY(QFile::link(mapped, sys + u"/dev/block/254:0"_s));
    for (const QString &member : members) {
        const QString disk = member == u"ssd"_s ? nvme : member == u"hdd"_s ? sata : usb;
        const QString name = QFileInfo(disk).fileName();
        QVERIFY(QFile::link(sys + u"/devices/"_s + disk + u'/' + name + u'1',
                            mapped + u"/slaves/"_s + name + u'1'));
    }
    QTEST(DriveClassifier::classifyWith(u"/srv/f"_s, mountLine("254:0", "/srv", "ext4", "/dev/mapper/vg-srv"),
                                        sys),
          "expected");
}

void TestDriveClassifier::cacheKeepsAllButUnknown_data()
{
    QTest::addColumn<int>("answer");
    QTest::addColumn<int>("queries");
    QTest::newRow("solid state") << int(SolidState) << 1;
    QTest::newRow("rotational") << int(Rotational) << 1;
    QTest::newRow("other bus") << int(OtherBus) << 1;
    QTest::newRow("unknown") << int(Unknown) << 3;
    QTest::newRow("out of range counts as unknown") << 7 << 3;
}

void TestDriveClassifier::cacheKeepsAllButUnknown()
{
    QFETCH(int, answer);
    QTemporaryDir dir;
    QVERIFY(QDir().mkpath(dir.filePath(u"a/b"_s)));
    QAtomicInt asked;
    TFileScanner::setDriveQuery([&](const QString &) {
        asked.ref();
        return qint32(answer);
    });
    const int expected = answer > 3 ? int(Unknown) : answer;
    // Three paths on one device share one cache entry.
    QCOMPARE(TFileScanner::driveTypeOf(dir.path()), expected);
    QCOMPARE(TFileScanner::driveTypeOf(dir.filePath(u"a"_s)), expected);
    QCOMPARE(TFileScanner::driveTypeOf(dir.filePath(u"a/b"_s)), expected);
    QTEST(asked.loadRelaxed(), "queries");
}

void TestDriveClassifier::realTemporaryFolder()
{
    QTemporaryDir dir;
    const qint32 direct = DriveClassifier::classify(dir.path());
    QVERIFY(direct >= SolidState && direct <= Unknown);
    QCOMPARE(TFileScanner::driveTypeOf(dir.path()), direct);
    QCOMPARE(TFileScanner::driveTypeOf(dir.path()), direct);
    QVERIFY(!DriveClassifier::cacheKey(dir.path()).isEmpty());
    QCOMPARE(DriveClassifier::cacheKey(dir.path()), DriveClassifier::cacheKey(QDir::tempPath()));
    QVERIFY(DriveClassifier::cacheKey(u"/proc"_s) != DriveClassifier::cacheKey(dir.path()));
    QCOMPARE(DriveClassifier::cacheKey(dir.filePath(u"missing"_s)), QString());
    QCOMPARE(DriveClassifier::classify(dir.filePath(u"missing"_s)), int(Unknown));
}

void TestDriveClassifier::virtualFileSystemsAreUnknown()
{
    QCOMPARE(DriveClassifier::classify(u"/proc/self"_s), int(Unknown));
    QCOMPARE(TFileScanner::driveTypeOf(u"/proc"_s), int(Unknown));
    const QString tmpfs = tmpfsMount();
    if (tmpfs.isEmpty())
        QSKIP("no readable tmpfs mounted here");
    QCOMPARE(DriveClassifier::classify(tmpfs), int(Unknown));
}

TWINFOLD_TEST_MAIN(TestDriveClassifier)
#include "tst_driveclassifier.moc"
