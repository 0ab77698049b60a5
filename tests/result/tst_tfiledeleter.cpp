#include "result/DeleteResult.h"
#include "result/TFileDeleter.h"

#include "TestMain.h"

#include <QDir>
#include <QFile>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QUrl>

#include <cerrno>
#include <unistd.h>

using namespace Qt::StringLiterals;
using Method = TFileDeleter::Method;
Q_DECLARE_METATYPE(TFileDeleter::Method)

class tst_TFileDeleter : public QObject
{
    Q_OBJECT
    QTemporaryDir m_root;
    QString m_trash;

    QString make(const QString &rel, const QByteArray &data = "data")
    {
        const QString path = m_root.filePath(rel);
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        return f.open(QIODevice::WriteOnly) && f.write(data) == data.size() ? path : QString();
    }
    static QByteArray read(const QString &path)
    {
        QFile f(path);
        return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
    }
    static void methods()
    {
        QTest::addColumn<Method>("method");
        QTest::newRow("trash") << TWIgnoreListPreferences::moveToTrash;
        QTest::newRow("permanent") << TWIgnoreListPreferences::removePermanently;
        QTest::newRow("folder") << TWIgnoreListPreferences::moveToFolder;
    }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        // The trash must land inside this test's folder, never in a real one: in test mode
        // the toolkit's home trash is under $HOME, and a source on another device would go
        // to that device's top-level trash, so both are checked before anything is trashed.
        qputenv("XDG_DATA_HOME", m_root.filePath(u"xdg"_s).toLocal8Bit());
        qputenv("HOME", m_root.filePath(u"home"_s).toLocal8Bit());
        QVERIFY(QDir().mkpath(m_root.filePath(u"home"_s)));
        m_trash = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/Trash"_s;
        QVERIFY2(m_trash.startsWith(m_root.path() + u'/'), qPrintable(m_trash));
        QCOMPARE(QStorageInfo(m_root.path()), QStorageInfo(QDir::home()));
    }

    void vanishedPathIsSuccess_data() { methods(); }
    void vanishedPathIsSuccess()
    {
        QFETCH(Method, method);
        const QString sibling = make(u"gone/sibling"_s);
        const DeleteResult r =
            TFileDeleter::deletePath(m_root.filePath(u"gone/never"_s), method, m_root.filePath(u"t"_s));
        QVERIFY(r.success);
        QCOMPARE(r.errorCode, 0);
        QVERIFY(r.errorMessage.isEmpty());
        QCOMPARE(read(sibling), "data");
    }

    void refusesPathsThatAreNotAbsolute_data() { methods(); }
    void refusesPathsThatAreNotAbsolute()
    {
        QFETCH(Method, method);
        const QString victim = make(u"cwd/victim"_s);
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(m_root.filePath(u"cwd"_s)));
        const DeleteResult relative = TFileDeleter::deletePath(u"victim"_s, method, m_root.filePath(u"t"_s));
        const DeleteResult empty = TFileDeleter::deleteFile(QString(), method, m_root.filePath(u"t"_s));
        QDir::setCurrent(before);
        QVERIFY(!relative.success && !empty.success);
        QCOMPARE(relative.errorCode, int(DeleteError::Unknown));
        QCOMPARE(read(victim), "data");
    }

    void wrongKind_data() { methods(); }
    void wrongKind()
    {
        QFETCH(Method, method);
        const QString file = make(u"kind/file"_s);
        const QString dir = QFileInfo(file).absolutePath();
        const DeleteResult a = TFileDeleter::deleteFile(dir, method, m_root.filePath(u"t"_s));
        QCOMPARE(a.errorCode, int(DeleteError::NotAFile));
        QCOMPARE(a.errorMessage, u"Target is not a file."_s);
        const DeleteResult b = TFileDeleter::deleteFolder(file, method, m_root.filePath(u"t"_s));
        QCOMPARE(b.errorCode, int(DeleteError::NotADirectory));
        QCOMPARE(b.errorMessage, u"Target is not a folder."_s);
        QVERIFY(!a.success && !b.success);
        QCOMPARE(read(file), "data");
    }

    // Each method on a file and on a folder: the source goes, its content arrives where the
    // method puts it, and the neighbour stays.
    void removes_data()
    {
        QTest::addColumn<Method>("method");
        QTest::addColumn<bool>("folder");
        for (bool folder : {false, true}) {
            const char *kind = folder ? "folder" : "file";
            QTest::addRow("trash %s", kind) << TWIgnoreListPreferences::moveToTrash << folder;
            QTest::addRow("permanent %s", kind) << TWIgnoreListPreferences::removePermanently << folder;
            QTest::addRow("to folder %s", kind) << TWIgnoreListPreferences::moveToFolder << folder;
        }
    }
    void removes()
    {
        QFETCH(Method, method);
        QFETCH(bool, folder);
        const QString tag = QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'_');
        const QString inner = make(tag + u"/victim %1/inner.txt"_s.arg(tag), tag.toUtf8());
        const QString sibling = make(tag + u"/sibling.txt"_s);
        const QString victim = folder ? QFileInfo(inner).absolutePath() : inner;
        const QString target = m_root.filePath(tag + u"/missing/target"_s);
        const DeleteResult r = TFileDeleter::deletePath(victim, method, target);
        QVERIFY2(r.success, qPrintable(r.errorMessage));
        QVERIFY(!QFileInfo::exists(victim));
        QCOMPARE(read(sibling), "data");
        const QString name = QFileInfo(victim).fileName();
        const QString tail = folder ? u"/inner.txt"_s : QString();
        if (method == TWIgnoreListPreferences::moveToFolder)
            QCOMPARE(read(target + u'/' + name + tail), tag.toUtf8());
        if (method != TWIgnoreListPreferences::moveToTrash)
            return;
        QCOMPARE(read(m_trash + u"/files/"_s + name + tail), tag.toUtf8());
        QFile info(m_trash + u"/info/"_s + name + u".trashinfo"_s);
        QVERIFY(info.open(QIODevice::ReadOnly));
        // Older toolkits write the path unescaped, newer ones percent-encoded.
        const QByteArray text = info.readAll();
        const qsizetype at = text.indexOf("\nPath=");
        QVERIFY2(at >= 0, text.constData());
        const QByteArray stored = text.mid(at + 6, text.indexOf('\n', at + 1) - at - 6);
        QCOMPARE(QUrl::fromPercentEncoding(stored), victim);
    }

    // Without a usable home trash the toolkit would trash into "files" under the working
    // directory; the removal must fail instead and leave the file where it is.
    void trashWithoutHomeTrashFails()
    {
        const QString file = make(u"nohome/f.txt"_s);
        const QString cwd = QFileInfo(make(u"nohome/cwd/.keep"_s)).absolutePath();
        const QByteArray home = qgetenv("HOME");
        qputenv("HOME", (make(u"nohome/blocker"_s) + u"/home"_s).toLocal8Bit());
        const QString before = QDir::currentPath();
        QDir::setCurrent(cwd);
        const DeleteResult r =
            TFileDeleter::deletePath(file, TWIgnoreListPreferences::moveToTrash, QString());
        QDir::setCurrent(before);
        qputenv("HOME", home);
        QVERIFY(!r.success);
        QCOMPARE(r.errorCode, int(DeleteError::Unknown));
        QCOMPARE(read(file), "data");
        QCOMPARE(QDir(cwd).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
                 QStringList{u".keep"_s});
    }

    // Nothing already in the target folder is replaced: clashing names get a free number,
    // so two selected files of one name both survive.
    void moveToFolderKeepsClashingNames()
    {
        const QString target = m_root.filePath(u"clash/target"_s);
        const QString existing = make(u"clash/target/a.txt"_s, "old");
        const QString one = make(u"clash/x/a.txt"_s, "one");
        const QString two = make(u"clash/y/a.txt"_s, "two");
        for (const QString &p : {one, two})
            QVERIFY(TFileDeleter::deletePath(p, TWIgnoreListPreferences::moveToFolder, target).success);
        QCOMPARE(read(existing), "old");
        QCOMPARE(read(target + u"/a (1).txt"_s), "one");
        QCOMPARE(read(target + u"/a (2).txt"_s), "two");
        QCOMPARE(QDir(target).count(), 5u); // ".", ".." and the three files
    }

    void moveToFolderRefused_data()
    {
        QTest::addColumn<QString>("target");
        QTest::addColumn<bool>("folder");
        QTest::newRow("no target") << QString() << false;
        QTest::newRow("blank target") << u"  "_s << false;
        QTest::newRow("relative target") << u"rel/target"_s << false;
        QTest::newRow("folder into itself") << u"@"_s << true;
        QTest::newRow("folder into its child") << u"@/sub/target"_s << true;
    }
    void moveToFolderRefused()
    {
        QFETCH(QString, target);
        QFETCH(bool, folder);
        const QString file = make(u"refused/%1/keep.txt"_s.arg(QString::fromLatin1(QTest::currentDataTag())));
        const QString victim = folder ? QFileInfo(file).absolutePath() : file;
        target.replace(u'@', victim);
        const DeleteResult r =
            TFileDeleter::deletePath(victim, TWIgnoreListPreferences::moveToFolder, target);
        QVERIFY(!r.success);
        QCOMPARE(r.errorCode, int(DeleteError::MoveFailed));
        QCOMPARE(r.errorMessage, folder ? u"Folder deletion failed."_s : u"Deletion failed."_s);
        QCOMPARE(read(file), "data");
        QCOMPARE(QDir(QFileInfo(file).absolutePath()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 QStringList{u"keep.txt"_s});
    }

    // A link is removed as a link: what it points to is never touched.
    void linksAreNotFollowed_data() { methods(); }
    void linksAreNotFollowed()
    {
        QFETCH(Method, method);
        const QString tag = QString::fromLatin1(QTest::currentDataTag());
        const QString outside = make(u"links/%1/outside/f.txt"_s.arg(tag));
        const QString toFile = m_root.filePath(u"links/%1/in/file-link"_s.arg(tag));
        const QString toDir = m_root.filePath(u"links/%1/in/dir-link"_s.arg(tag));
        QVERIFY(QDir().mkpath(QFileInfo(toFile).absolutePath()));
        QVERIFY(QFile::link(outside, toFile));
        QVERIFY(QFile::link(QFileInfo(outside).absolutePath(), toDir));
        for (const QString &link : {toFile, toDir}) {
            const DeleteResult r =
                TFileDeleter::deletePath(link, method, m_root.filePath(u"links/%1/t"_s.arg(tag)));
            QVERIFY2(r.success, qPrintable(link));
            QVERIFY(!QFileInfo(link).isSymLink());
            QCOMPARE(read(outside), "data");
        }
    }

    void permissionDenied_data() { methods(); }
    void permissionDenied()
    {
        if (::geteuid() == 0)
            QSKIP("Folder permissions do not deny the superuser.");
        QFETCH(Method, method);
        const QString tag = QString::fromLatin1(QTest::currentDataTag());
        const QString file = make(u"locked/%1/f.txt"_s.arg(tag));
        const QString sibling = make(u"locked/%1/g.txt"_s.arg(tag));
        const QString dir = QFileInfo(file).absolutePath();
        QVERIFY(QFile::setPermissions(dir, QFile::ReadOwner | QFile::ExeOwner));
        const QString target = m_root.filePath(u"locked-target-"_s + tag);
        const DeleteResult r = TFileDeleter::deletePath(file, method, target);
        QFile::setPermissions(dir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        QVERIFY(!r.success);
        QCOMPARE(r.errorCode, int(method == TWIgnoreListPreferences::moveToFolder ? DeleteError::MoveFailed
                                                                                  : DeleteError::Unknown));
        QCOMPARE(r.errorMessage, u"Deletion failed."_s);
        QCOMPARE(read(file), "data");
        QCOMPARE(read(sibling), "data");
        QVERIFY(!QFileInfo::exists(target + u"/f.txt"_s));
    }

    void unknownMethodRemovesNothing()
    {
        const QString file = make(u"unknown/f.txt"_s);
        const DeleteResult r =
            TFileDeleter::deletePath(file, static_cast<Method>(7), m_root.filePath(u"t"_s));
        QVERIFY(!r.success);
        QCOMPARE(r.errorCode, int(DeleteError::Unknown));
        QCOMPARE(read(file), "data");
    }

    void messages_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("message");
        const QString unknown = u"An unknown error occurred while deleting the file."_s;
        QTest::newRow("0") << 0 << QString();
        QTest::newRow("1") << 1 << u"The file was not found."_s;
        QTest::newRow("2") << 2 << u"The item is not a file."_s;
        QTest::newRow("3") << 3 << u"The item is not a directory."_s;
        QTest::newRow("4") << 4 << u"The file type is unsupported."_s;
        QTest::newRow("5") << 5 << u"Failed to move the file to the recycle bin."_s;
        QTest::newRow("6") << 6 << u"Failed to move the file."_s;
        QTest::newRow("7") << 7 << u"Permission denied. Please check the file's access rights."_s;
        QTest::newRow("8") << 8 << u"The file is currently in use and cannot be deleted."_s;
        QTest::newRow("9") << 9 << unknown;
        QTest::newRow("10") << 10 << unknown;
        QTest::newRow("-1") << -1 << unknown;
    }
    void messages()
    {
        QFETCH(int, code);
        QFETCH(QString, message);
        QCOMPARE(deleteErrorMessage(code), message);
        QCOMPARE(deleteFailedText(u"/x/y"_s, code), u"Failed to delete the file: /x/y\n"_s + message);
    }

    void systemErrorText()
    {
        const QString plain = TFileDeleter::systemErrorText(ENOENT, false);
        QVERIFY(!plain.isEmpty() && !plain.startsWith(u"Unknown"_s));
        QCOMPARE(plain, plain.trimmed());
        // Only the low 16 bits of an HRESULT name the error.
        QCOMPARE(TFileDeleter::systemErrorText(qint32(0x80070000u | ENOENT), true), plain);
        QCOMPARE(TFileDeleter::systemErrorText(123456, false), u"Unknown error code: 123456"_s);
    }
};

TWINFOLD_TEST_MAIN(tst_TFileDeleter)
#include "tst_tfiledeleter.moc"
