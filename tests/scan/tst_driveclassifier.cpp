#include "TestMain.h"

#include "platform/DriveClassifier.h"
#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"

#include <QAtomicInt>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {

// The made-up machine. Disks: name (also of the mount point under /d), class of a file
// there, place under devices/, number of the first partition, rotational and removable
// flags ("-" leaves the file out).
const QStringList disks{
    u"ata-ssd SolidState pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda 8:1 0 0"_s,
    u"ata-hdd Rotational pci0000:00/0000:00:1f.2/ata2/host1/target1:0:0/1:0:0:0/block/sdc 8:33 1 0"_s,
    u"nvme SolidState pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1 259:1 0 0"_s,
    u"virtio Rotational pci0000:00/0000:00:02.0/virtio1/block/vda 252:1 1 0"_s,
    u"usb-ssd OtherBus pci0000:00/0000:00:14.0/usb2/2-2/2-2:1.0/host4/target4:0:0/4:0:0:0/block/sdd 8:49 0 0"_s,
    u"sd-card OtherBus platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001/block/mmcblk0 179:1 0 0"_s,
    u"removable-bay OtherBus pci0000:00/0000:00:1f.2/ata3/host5/target5:0:0/5:0:0:0/block/sde 8:65 1 1"_s,
    u"odd-bus OtherBus platform/some-bridge/block/xyz 240:1 0 0"_s,
    u"garbage-flag Unknown pci0000:00/0000:00:1d.0/0000:3e:00.0/nvme/nvme1/nvme1n1 259:3 yes -"_s,
    // Mapped devices (encryption, LVM, RAID) with the disks they span, mounted under /d.
    u"dm-ssd SolidState nvme0n1"_s, u"dm-mirror Rotational nvme0n1 sdc"_s, u"dm-usb OtherBus nvme0n1 sdd"_s,
    u"dm-none Unknown"_s,
    // Other file systems: number, type and source.
    u"nfs OtherBus 0:52 nfs4 server:/export"_s, u"sshfs OtherBus 0:55 fuse.sshfs me@host:"_s,
    u"fuseblk OtherBus 8:1 fuseblk /dev/sda1"_s, u"tmpfs Unknown 0:23 tmpfs tmpfs"_s,
    u"btrfs-by-source SolidState 0:30 btrfs /dev/sda1"_s, u"device-gone Unknown 8:99 ext4 /dev/sdz9"_s,
    u"ext4-by-number SolidState 8:1 ext4 /dev/root"_s};

int driveType(const QString &name)
{
    return QStringList{u"SolidState"_s, u"Rotational"_s, u"OtherBus"_s, u"Unknown"_s}.indexOf(name);
}

bool writeText(const QString &path, const QString &text)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(text.toLatin1() + '\n') == text.size() + 1;
}

QByteArray mountLine(const QString &majorMinor, const QString &mountPoint, const QString &type,
                     const QString &source)
{
    return u"27 1 %1 / %2 rw,relatime shared:1 - %3 %4 rw\n"_s.arg(majorMinor, mountPoint, type, source)
        .toUtf8();
}

} // namespace

class TestDriveClassifier : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void cleanup() { TFileScanner::setDriveQuery({}); }

    void classify_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("expected");
        for (const QString &entry : disks) {
            const QStringList f = entry.split(u' ');
            QTest::addRow("%s", qPrintable(f.at(0)))
                << u"/d/%1/photos/a.jpg"_s.arg(f.at(0)) << driveType(f.at(1));
        }
        // How the mount that holds a path is found.
        for (const auto &[name, path, type] :
             {std::tuple{"mount point itself", u"/media/usb"_s, OtherBus},
              {"same prefix, other folder", u"/media/usbother/a"_s, SolidState},
              {"escaped blank", u"/media/my disk/a"_s, Rotational},
              {"root file system", u"/home/me"_s, SolidState},
              {"later mount on top wins", u"/stacked/x"_s, OtherBus},
              {"relative path", u"home/me"_s, Unknown},
              {"empty path", QString(), Unknown}})
            QTest::newRow(name) << path << int(type);
    }
    void classify()
    {
        QFETCH(QString, path);
        QTEST(DriveClassifier::classifyWith(path, mounts, sys), "expected");
    }

    // Three paths on one device share one cache entry; unknown answers (out-of-range ones
    // count as unknown) are asked again each time.
    void cacheKeepsAllButUnknown_data()
    {
        QTest::addColumn<int>("answer");
        QTest::addColumn<int>("queries");
        for (const auto &[name, answer, queries] : {std::tuple{"solid state", 0, 1},
                                                    {"rotational", 1, 1},
                                                    {"other bus", 2, 1},
                                                    {"unknown", 3, 3},
                                                    {"out of range", 7, 3}})
            QTest::newRow(name) << answer << queries;
    }
    void cacheKeepsAllButUnknown()
    {
        QFETCH(int, answer);
        QTemporaryDir tmp;
        QVERIFY(QDir().mkpath(tmp.filePath(u"a/b"_s)));
        QAtomicInt asked;
        TFileScanner::setDriveQuery([&](const QString &) {
            asked.ref();
            return qint32(answer);
        });
        for (const QString &path : {tmp.path(), tmp.filePath(u"a"_s), tmp.filePath(u"a/b"_s)})
            QCOMPARE(TFileScanner::driveTypeOf(path), answer > 3 ? int(Unknown) : answer);
        QTEST(asked.loadRelaxed(), "queries");
    }

    void realFolders()
    {
        QTemporaryDir tmp;
        const qint32 direct = DriveClassifier::classify(tmp.path());
        QVERIFY(direct >= SolidState && direct <= Unknown);
        QCOMPARE(TFileScanner::driveTypeOf(tmp.path()), direct);
        QCOMPARE(DriveClassifier::cacheKey(tmp.path()), DriveClassifier::cacheKey(QDir::tempPath()));
        QVERIFY(!DriveClassifier::cacheKey(tmp.path()).isEmpty());
        QVERIFY(DriveClassifier::cacheKey(u"/proc"_s) != DriveClassifier::cacheKey(tmp.path()));
        QCOMPARE(DriveClassifier::cacheKey(tmp.filePath(u"missing"_s)), QString());
        QCOMPARE(DriveClassifier::classify(tmp.filePath(u"missing"_s)), int(Unknown));
        QCOMPARE(DriveClassifier::classify(u"/proc/self"_s), int(Unknown));
        QCOMPARE(TFileScanner::driveTypeOf(u"/proc"_s), int(Unknown));
    }

private:
    // The folder's own name holds "usb" and "mmc", which must not count as the bus of
    // any disk below it.
    QTemporaryDir dir{QDir::tempPath() + u"/usb-mmc-XXXXXX"_s};
    QString sys;
    QByteArray mounts;
};

void TestDriveClassifier::initTestCase()
{
    sys = dir.filePath(u"sys"_s);
    mounts = mountLine(u"259:1"_s, u"/"_s, u"ext4"_s, u"/dev/nvme0n1p1"_s) + "garbage line\n\n";
    QVERIFY(QDir().mkpath(sys + u"/dev/block"_s) && QDir().mkpath(sys + u"/class/block"_s));
    int mapped = 0;
    for (const QString &entry : disks) {
        const QStringList f = entry.split(u' ');
        const QString mountPoint = u"/d/"_s + f.at(0);
        if (f.at(0).startsWith(u"dm-"_s)) {
            const QString number = u"254:%1"_s.arg(mapped),
                          device = sys + u"/devices/virtual/block/dm-%1"_s.arg(mapped);
            ++mapped;
            QVERIFY(QDir().mkpath(device + u"/slaves"_s) &&
                    QFile::link(device, sys + u"/dev/block/"_s + number));
            for (const QString &name : f.mid(2))
                QVERIFY(QFile::link(sys + u"/class/block/"_s + name + u'1',
                                    device + u"/slaves/"_s + name + u'1'));
            mounts += mountLine(number, mountPoint, u"ext4"_s, u"/dev/mapper/x"_s);
        } else if (f.size() == 6) { // a disk, with its first partition
            const QString disk = sys + u"/devices/"_s + f.at(2), name = QFileInfo(disk).fileName();
            const QString partition = disk + u'/' + name + u'1';
            QVERIFY(writeText(partition + u"/partition"_s, u"1"_s));
            QVERIFY(f.at(4) == u"-"_s || writeText(disk + u"/queue/rotational"_s, f.at(4)));
            QVERIFY(f.at(5) == u"-"_s || writeText(disk + u"/removable"_s, f.at(5)));
            QVERIFY(QFile::link(partition, sys + u"/dev/block/"_s + f.at(3)));
            QVERIFY(QFile::link(partition, sys + u"/class/block/"_s + name + u'1'));
            QVERIFY(QFile::link(disk, sys + u"/class/block/"_s + name));
            mounts += mountLine(f.at(3), mountPoint, u"ext4"_s, u"/dev/whatever"_s);
        } else {
            mounts += mountLine(f.at(2), mountPoint, f.at(3), f.at(4));
        }
    }
    // For the lookup of the mount that holds a path.
    mounts += mountLine(u"8:49"_s, u"/media/usb"_s, u"vfat"_s, u"/dev/sdd1"_s) +
              mountLine(u"8:33"_s, u"/media/my\\040disk"_s, u"ext4"_s, u"/dev/sdc1"_s) +
              mountLine(u"259:1"_s, u"/stacked"_s, u"ext4"_s, u"/dev/x"_s) +
              mountLine(u"8:49"_s, u"/stacked"_s, u"vfat"_s, u"/dev/sdd1"_s);
}

TWINFOLD_TEST_MAIN(TestDriveClassifier)
#include "tst_driveclassifier.moc"
