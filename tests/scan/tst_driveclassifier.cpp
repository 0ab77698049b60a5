#include "TestMain.h"

#include "platform/DriveClassifier.h"
#include "scan/FileMeta.h"
#include "scan/TFileScanner.h"

using namespace Qt::StringLiterals;

namespace {

// The made-up machine: a path, the class it must get, and what is mounted there. Disks:
// place under devices/, number of the first partition, rotational and removable flags
// ("-" leaves the file out).
const QStringList machine{
    u"/ata-ssd SolidState pci0000:00/0000:00:1f.2/ata1/host0/target0:0:0/0:0:0:0/block/sda 8:1 0 0"_s,
    u"/ata-hdd Rotational pci0000:00/0000:00:1f.2/ata2/host1/target1:0:0/1:0:0:0/block/sdc 8:33 1 0"_s,
    u"/nvme SolidState pci0000:00/0000:00:1d.0/0000:3d:00.0/nvme/nvme0/nvme0n1 259:1 0 0"_s,
    u"/virtio Rotational pci0000:00/0000:00:02.0/virtio1/block/vda 252:1 1 0"_s,
    u"/usb-ssd OtherBus pci0000:00/0000:00:14.0/usb2/2-2/2-2:1.0/host4/target4:0:0/4:0:0:0/block/sdd 8:49 0 0"_s,
    u"/sd-card OtherBus platform/fe320000.mmc/mmc_host/mmc0/mmc0:0001/block/mmcblk0 179:1 0 0"_s,
    u"/removable-bay OtherBus pci0000:00/0000:00:1f.2/ata3/host5/target5:0:0/5:0:0:0/block/sde 8:65 1 1"_s,
    u"/odd-bus OtherBus platform/some-bridge/block/xyz 240:1 0 0"_s,
    u"/garbage-flag Unknown pci0000:00/0000:00:1d.0/0000:3e:00.0/nvme/nvme1/nvme1n1 259:3 yes -"_s,
    // Mapped devices (encryption, LVM, RAID) with the disks they span.
    u"/dm-ssd SolidState nvme0n1"_s, u"/dm-mirror Rotational nvme0n1 sdc"_s,
    u"/dm-usb OtherBus nvme0n1 sdd"_s, u"/dm-none Unknown"_s,
    // Other file systems: device number, type and source.
    u"/nfs OtherBus 0:52 nfs4 server:/export"_s, u"/sshfs OtherBus 0:55 fuse.sshfs me@host:"_s,
    u"/fuseblk OtherBus 8:1 fuseblk /dev/sda1"_s, u"/tmpfs Unknown 0:23 tmpfs tmpfs"_s,
    u"/btrfs-by-source SolidState 0:30 btrfs /dev/sda1"_s, u"/device-gone Unknown 8:99 ext4 /dev/sdz9"_s,
    // How the mount that holds a path is found: a path below a mount point, an escaped
    // blank, the later of two mounts on one point; a longer name, a path on the root file
    // system, relative and empty paths mounted nowhere else.
    u"/ SolidState 259:1 ext4 /dev/nvme0n1p1"_s, u"/media/usb OtherBus 8:49 vfat /dev/sdd1"_s,
    u"/media/my\\040disk Rotational 8:33 ext4 /dev/sdc1"_s, u"/stacked OtherBus 259:1 ext4 /dev/x"_s,
    u"/stacked OtherBus 8:49 vfat /dev/sdd1"_s, u"/media/usb/a OtherBus"_s, u"/media/usbother/a SolidState"_s,
    u"/home/me SolidState"_s, u"home/me Unknown"_s, u" Unknown"_s};

bool writeText(const QString &path, const QString &text)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(text.toLatin1() + '\n') == text.size() + 1;
}

} // namespace

class TestDriveClassifier : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(QDir().mkpath(sys + u"/dev/block"_s) && QDir().mkpath(sys + u"/class/block"_s));
        for (const QString &entry : machine) {
            const QStringList f = entry.split(u' ');
            // Mounted at the entry's path: device number and the rest, as other file systems give them.
            QString dev = f.value(2), rest = f.mid(3).join(u' ');
            if (f.at(0).startsWith(u"/dm-"_s)) {
                dev = u"254:%1"_s.arg(machine.indexOf(entry)), rest = u"ext4 /dev/mapper/x"_s;
                const QString dm = sys + u"/devices/virtual/block"_s + f.at(0);
                QVERIFY(QDir().mkpath(dm + u"/slaves"_s) && QFile::link(dm, sys + u"/dev/block/"_s + dev));
                for (const QString &n : f.mid(2))
                    QVERIFY(QFile::link(sys + u"/class/block/"_s + n + u'1', dm + u"/slaves/"_s + n + u'1'));
            } else if (f.size() == 6) { // a disk, with its first partition
                const QString disk = sys + u"/devices/"_s + f.at(2), name = QFileInfo(disk).fileName();
                const QString partition = disk + u'/' + name + u'1';
                QVERIFY(writeText(partition + u"/partition"_s, u"1"_s));
                QVERIFY(f.at(4) == u"-"_s || writeText(disk + u"/queue/rotational"_s, f.at(4)));
                QVERIFY(f.at(5) == u"-"_s || writeText(disk + u"/removable"_s, f.at(5)));
                QVERIFY(QFile::link(partition, sys + u"/dev/block/"_s + f.at(3)) &&
                        QFile::link(partition, sys + u"/class/block/"_s + name + u'1'));
                dev = f.at(3), rest = u"ext4 /dev/whatever"_s;
            }
            if (!dev.isEmpty())
                mounts += u"27 1 %1 / %2 rw,relatime shared:1 - %3 rw\n"_s.arg(dev, f.at(0), rest).toUtf8();
        }
    }
    void cleanup() { TFileScanner::setDriveQuery({}); }

    void classify_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("expected");
        for (const QString &entry : machine)
            QTest::addRow("%s", qPrintable(entry))
                << entry.section(u' ', 0, 0).replace(u"\\040"_s, u" "_s)
                << int(QStringList{u"SolidState"_s, u"Rotational"_s, u"OtherBus"_s, u"Unknown"_s}.indexOf(
                       entry.section(u' ', 1, 1)));
    }
    void classify()
    {
        QFETCH(QString, path);
        QTEST(DriveClassifier::classifyWith(path, mounts, sys), "expected");
    }

    // Paths on one device share one cache entry, but unknown answers (out-of-range ones
    // on either side count as unknown) are asked again each time.
    void cacheKeepsAllButUnknown()
    {
        QVERIFY(QDir().mkpath(dir.filePath(u"a/b"_s)));
        const QList<qint32> answers{Unknown, 4, -1, Rotational}; // and SolidState after them
        QAtomicInt asked;
        TFileScanner::setDriveQuery([&](const QString &) { return answers.value(asked++); });
        QList<qint32> got;
        for (const QString &path : {dir.path(), dir.filePath(u"a"_s), dir.filePath(u"a/b"_s), dir.path(),
                                    dir.filePath(u"a/b"_s), dir.filePath(u"a"_s)})
            got.append(TFileScanner::driveTypeOf(path));
        QCOMPARE(got, (QList<qint32>{Unknown, Unknown, Unknown, Rotational, Rotational, Rotational}));
        QCOMPARE(asked.loadRelaxed(), 4);
    }

    void realFolders()
    {
        // The cache clamps out-of-range classes, so this also checks the range.
        QCOMPARE(TFileScanner::driveTypeOf(dir.path()), DriveClassifier::classify(dir.path()));
        // One key per device: the cache check above shows paths on one device share it.
        const QString key = DriveClassifier::cacheKey(dir.path());
        QVERIFY(!key.isEmpty() && key != DriveClassifier::cacheKey(u"/proc"_s));
        QCOMPARE(DriveClassifier::cacheKey(dir.filePath(u"missing"_s)), QString());
        QCOMPARE(DriveClassifier::classify(dir.filePath(u"missing"_s)), int(Unknown));
        QCOMPARE(TFileScanner::driveTypeOf(u"/proc"_s), int(Unknown));
    }

private:
    // The folder's own name holds "usb" and "mmc", which must not count as the bus of
    // any disk below it.
    QTemporaryDir dir{QDir::tempPath() + u"/usb-mmc-XXXXXX"_s};
    QString sys = dir.filePath(u"sys"_s);
    QByteArray mounts = "garbage line\n\n";
};

TWINFOLD_TEST_MAIN(TestDriveClassifier)
#include "tst_driveclassifier.moc"
