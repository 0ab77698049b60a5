#pragma once

#include "cli/ResultPrinter.h"

#include <QMap>
#include <QString>
#include <QTextStream>

// What the command line front end's commands share: its streams, usage errors, the
// names of the selection rules and the closing summary.
class CliText
{
public:
    static QTextStream &out();
    static QTextStream &err();
    // Prints "twinfold-cli: <message>" and returns the usage exit status 2.
    static int usageError(const QString &message);
    // Prints "twinfold-cli: <message>" and returns the failure exit status 1.
    static int failure(const QString &message);
    // Value of a selection rule name (newest ... none), or -1.
    static int ruleOf(const QString &name);
    // Applies a selection rule to every group of the result store.
    static void applyRule(int rule, const QMap<QString, qint32> &priority);
    static void summary(const ResultPrinter::Totals &totals, qint64 scannedFiles, qint64 seconds);
};
