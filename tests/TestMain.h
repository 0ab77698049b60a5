#pragma once

#include <QStandardPaths>
#include <QtTest>

// Like QTEST_GUILESS_MAIN, but switches QStandardPaths to its test locations before
// anything can read them, so no test touches the user's own folders or settings.
#define TWINFOLD_TEST_MAIN(TestObject)                                                                      \
    int main(int argc, char *argv[])                                                                       \
    {                                                                                                      \
        QStandardPaths::setTestModeEnabled(true);                                                          \
        QCoreApplication app(argc, argv);                                                                  \
        app.setAttribute(Qt::AA_Use96Dpi, true);                                                           \
        TestObject tc;                                                                                     \
        QTEST_SET_MAIN_SOURCE_PATH                                                                         \
        return QTest::qExec(&tc, argc, argv);                                                              \
    }
