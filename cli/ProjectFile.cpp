#include "cli/ProjectFile.h"

#include "app/SignalFence.h"
#include "scan/TFileData.h"
#include "settings/TOpenSaveThread.h"

#include <QEventLoop>
#include <QFileInfo>

bool ProjectFile::open(const QString &path, int *fileCount, QString *scanTime, QString *error)
{
    const QFileInfo info(path);
    if (!info.isFile() || !info.isReadable()) {
        *error = QStringLiteral("cannot read project file: %1").arg(path);
        return false;
    }
    TFileData::instance().clear();
    TOpenSaveThread thread;
    QEventLoop loop;
    int flag = 0;
    QObject::connect(&thread, &TOpenSaveThread::openProjectComplated, &loop, [&](int result, int, qint64) {
        SignalFence::pass();
        flag = result;
        loop.quit();
    });
    if (!thread.openProject(path)) {
        *error = QStringLiteral("cannot read project file: %1").arg(path);
        return false;
    }
    loop.exec();
    thread.wait();
    if (flag != 1) {
        *error = QStringLiteral("not a valid project file: %1").arg(path);
        return false;
    }
    *fileCount = thread.fileCount();
    *scanTime = thread.scanTime();
    return true;
}

bool ProjectFile::save(const QString &path, int fileCount, const QString &scanTime)
{
    TOpenSaveThread thread;
    QEventLoop loop;
    int flag = 0;
    QObject::connect(&thread, &TOpenSaveThread::saveComplated, &loop, [&](int result) {
        SignalFence::pass();
        flag = result;
        loop.quit();
    });
    if (!thread.saveProject(path, fileCount, scanTime))
        return false;
    loop.exec();
    thread.wait();
    return flag == 1;
}
