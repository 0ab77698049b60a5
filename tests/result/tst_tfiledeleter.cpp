#include "result/DeleteResult.h"
#include "result/TFileDeleter.h"

#include "PrivateTrash.h"
#include "TestMain.h"

#include <QDirIterator>
#include <QMetaEnum>
#include <QUrl>

#include <unistd.h>

using namespace Qt::StringLiterals;
using Method = TFileDeleter::Method;
Q_DECLARE_METATYPE(TFileDeleter::Method)

using enum TWIgnoreListPreferences::TWRemovalMethod;

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
    static QString tag() { return QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'_'); }

private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY(m_root.isValid());
        m_trash = usePrivateTrash(m_root);
        QVERIFY(!m_trash.isEmpty());
    }

    // Requests that must remove nothing: afterwards the row's folder holds exactly the one
    // file it started with, so a stray copy, a half move or a trash made in the working
    // folder (which is "@/in") all show. "@" stands for the row's folder; rows ending "locked"
    // make "@/in" read-only and "home trash" rows have no usable home trash.
    void leavesEverything_data()
    {
        QTest::addColumn<Method>("method");
        QTest::addColumn<int>("call"); // 0 deletePath, 1 deleteFile, 2 deleteFolder
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("target");
        QTest::addColumn<int>("code");
        const int unknown = int(DeleteError::Unknown), moveFailed = int(DeleteError::MoveFailed);
        const QString t = u"@/t"_s, f = u"@/in/f"_s, in = u"@/in"_s;
        for (Method m : {moveToTrash, removePermanently, moveToFolder}) {
            const char *key = QMetaEnum::fromType<Method>().valueToKey(m);
            QTest::addRow("%s vanished", key) << m << 0 << u"@/in/never"_s << t << 0;
            QTest::addRow("%s relative", key) << m << 0 << u"f"_s << t << unknown;
            QTest::addRow("%s folder as file", key) << m << 1 << in << t << int(DeleteError::NotAFile);
            QTest::addRow("%s file as folder", key) << m << 2 << f << t << int(DeleteError::NotADirectory);
            QTest::addRow("%s locked", key) << m << 0 << f << t << (m == moveToFolder ? moveFailed : unknown);
        }
        QTest::newRow("empty path") << removePermanently << 1 << QString() << t << unknown;
        QTest::newRow("unknown method") << Method(7) << 0 << f << t << unknown;
        QTest::newRow("trash without home trash") << moveToTrash << 0 << f << t << unknown;
        QTest::newRow("no target") << moveToFolder << 0 << f << QString() << moveFailed;
        QTest::newRow("relative target") << moveToFolder << 0 << f << u"rel/t"_s << moveFailed;
        QTest::newRow("folder into itself") << moveToFolder << 0 << in << in << moveFailed;
        QTest::newRow("folder into its child") << moveToFolder << 0 << in << u"@/in/sub/t"_s << moveFailed;
    }
    void leavesEverything()
    {
        QFETCH(Method, method);
        QFETCH(int, call);
        QFETCH(QString, path);
        QFETCH(QString, target);
        QFETCH(int, code);
        const QByteArray row = QTest::currentDataTag();
        if (row.endsWith("locked") && ::geteuid() == 0)
            QSKIP("Folder permissions do not deny the superuser.");
        const QString base = m_root.filePath(u"keep/"_s + tag());
        const QString in = QFileInfo(make(u"keep/%1/in/f"_s.arg(tag()))).absolutePath();
        path.replace(u'@', base);
        target.replace(u'@', base);
        const QByteArray home = qgetenv("HOME");
        if (row.endsWith("home trash")) // a home below a file can never be created
            qputenv("HOME", (make(u"blocker"_s) + u"/home"_s).toLocal8Bit());
        if (row.endsWith("locked"))
            QVERIFY(QFile::setPermissions(in, QFile::ReadOwner | QFile::ExeOwner));
        const QString before = QDir::currentPath();
        QVERIFY(QDir::setCurrent(in));
        const DeleteResult r = call == 0   ? TFileDeleter::deletePath(path, method, target)
                               : call == 1 ? TFileDeleter::deleteFile(path, method, target)
                                           : TFileDeleter::deleteFolder(path, method, target);
        QDir::setCurrent(before);
        QFile::setPermissions(in, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv("HOME", home);
        QCOMPARE(r.success, code == 0);
        QCOMPARE(r.errorCode, code);
        QCOMPARE(r.errorMessage.isEmpty(), code == 0);
        QCOMPARE(read(in + u"/f"_s), "data");
        QStringList left;
        for (QDirIterator it(base, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();)
            left << QDir(base).relativeFilePath(it.next());
        QCOMPARE(left, QStringList{u"in/f"_s});
    }

    // Each method on a file and on a folder: the source goes, its content arrives where the
    // method puts it, and the neighbour stays. A file moved to the folder meets two taken
    // names there and keeps both; a folder goes to a target that does not exist yet. A link
    // beside it, pointing at the neighbour, is removed as a link and the neighbour kept.
    void removes_data()
    {
        QTest::addColumn<Method>("method");
        QTest::addColumn<bool>("folder");
        for (bool folder : {false, true})
            for (Method m : {moveToTrash, removePermanently, moveToFolder})
                QTest::addRow("%s %s", QMetaEnum::fromType<Method>().valueToKey(m),
                              folder ? "folder" : "file")
                    << m << folder;
    }
    void removes()
    {
        QFETCH(Method, method);
        QFETCH(bool, folder);
        const QString name = folder ? u"my v"_s : u"my v.txt"_s, tail = folder ? u"/inner.txt"_s : QString();
        const QString victim = m_root.filePath(tag() + u'/' + name),
                      link = m_root.filePath(tag() + u"/link"_s);
        QVERIFY(!make(tag() + u'/' + name + tail, tag().toUtf8()).isEmpty());
        const QString sibling = make(tag() + u"/sibling/f.txt"_s);
        QVERIFY(QFile::link(folder ? QFileInfo(sibling).absolutePath() : sibling, link));
        const QString target = m_root.filePath(tag() + u"/missing/target"_s);
        for (const QString &taken : {u"my v.txt"_s, u"my v (1).txt"_s})
            QVERIFY(folder || !make(tag() + u"/missing/target/"_s + taken, "old").isEmpty());
        for (const QString &path : {victim, link}) {
            const DeleteResult r = TFileDeleter::deletePath(path, method, target);
            QVERIFY2(r.success, qPrintable(r.errorMessage));
            QVERIFY(!QFileInfo::exists(path) && !QFileInfo(path).isSymLink());
        }
        QCOMPARE(read(sibling), "data");
        if (method == moveToFolder) {
            QCOMPARE(read(target + (folder ? u"/my v/inner.txt"_s : u"/my v (2).txt"_s)), tag().toUtf8());
            QCOMPARE(QDir(target).count(), folder ? 4u : 6u); // with ".", ".." and the link
        }
        if (method != moveToTrash)
            return;
        QCOMPARE(read(m_trash + u"/files/"_s + name + tail), tag().toUtf8());
        // Older toolkits write the path unescaped, newer ones percent-encoded.
        const QByteArray info = read(m_trash + u"/info/"_s + name + u".trashinfo"_s);
        const qsizetype at = info.indexOf("\nPath=");
        QVERIFY2(at >= 0, info.constData());
        QCOMPARE(QUrl::fromPercentEncoding(info.mid(at + 6, info.indexOf('\n', at + 1) - at - 6)), victim);
    }
};

TWINFOLD_TEST_MAIN(tst_TFileDeleter)
#include "tst_tfiledeleter.moc"
