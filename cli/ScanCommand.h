#pragma once

#include "cli/ResultPrinter.h"

#include <QObject>
#include <QStringList>

class QCommandLineParser;
class TControlUI;
class TWPreferences;

// `twinfold-cli scan`: one whole scan through the scan controller, printed in the
// chosen format. The preferences give every default; options override them for this
// run only and nothing is written back.
class ScanCommand : public QObject
{
    Q_OBJECT
public:
    explicit ScanCommand(QObject *parent = nullptr);
    ~ScanCommand() override;

    // Parses the arguments after "scan"; returns an exit status, or -1 to go on and run.
    int parse(const QStringList &arguments);
    // Starts the scan; the returned status arrives through finished().
    void start();

signals:
    void finished(int exitStatus);

private:
    void onProgress();
    void onComplete();
    int applyOptions(QCommandLineParser &parser);
    int applySimilarOptions(QCommandLineParser &parser);

    TWPreferences *preferences = nullptr;
    TControlUI *controller = nullptr;
    QStringList roots;
    ResultPrinter::Format format = ResultPrinter::Text;
    bool quiet = false;
    bool interrupted = false;
    bool showProgress = false;
    int selectRule = -1;
    QString savePath;
    int lastFiles = 0;
    double lastPercent = 0;
};
