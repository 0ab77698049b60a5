#pragma once

#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtTest>

// Like QTEST_GUILESS_MAIN, but switches QStandardPaths to its test locations before
// anything can read them, and points the native settings and the desktop's data folders
// at a private temporary folder (QSettings' native store ignores the test mode), so no
// test touches the user's own folders, settings or trash.
#define TWINFOLD_TEST_MAIN(TestObject)                                                                      \
    int main(int argc, char *argv[])                                                                       \
    {                                                                                                      \
        QTemporaryDir isolatedHome;                                                                        \
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(isolatedHome.filePath(QStringLiteral("config"))));    \
        qputenv("XDG_DATA_HOME", QFile::encodeName(isolatedHome.filePath(QStringLiteral("data"))));        \
        qputenv("XDG_CACHE_HOME", QFile::encodeName(isolatedHome.filePath(QStringLiteral("cache"))));      \
        QStandardPaths::setTestModeEnabled(true);                                                          \
        QCoreApplication app(argc, argv);                                                                  \
        app.setAttribute(Qt::AA_Use96Dpi, true);                                                           \
        TestObject tc;                                                                                     \
        QTEST_SET_MAIN_SOURCE_PATH                                                                         \
        return QTest::qExec(&tc, argc, argv);                                                              \
    }
