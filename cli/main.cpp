#include "app/AppInfo.h"
#include "app/TStartup.h"
#include "cli/CliText.h"
#include "cli/DeleteCommand.h"
#include "cli/ScanCommand.h"
#include "cli/ShowCommand.h"

#include <QCoreApplication>
#include <QTextStream>
#include <QTimer>

namespace {
const char *kUsage = "Usage: twinfold-cli COMMAND [options] ...\n"
                     "\n"
                     "Finds duplicate files and folders from the command line.\n"
                     "\n"
                     "Commands:\n"
                     "  scan FOLDER...          scan folders and print the groups found\n"
                     "  show FILE.dupproj       print the groups of a saved project\n"
                     "  delete FILE.dupproj     remove the selected members of a saved project\n"
                     "\n"
                     "Options:\n"
                     "  -h, --help              show this help; COMMAND --help shows a command's options\n"
                     "  -v, --version           show the version\n"
                     "\n"
                     "Exit status: 0 success, 1 failure, 2 wrong usage.\n";
// Debug output of the engine is for developers; users of the command line see only
// warnings and errors on stderr (everything still reaches the log file).
void quietMessages(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    QTextStream(stderr) << message << Qt::endl;
}
} // namespace

int main(int argc, char *argv[])
{
    if (qEnvironmentVariableIsEmpty("TWINFOLD_DEBUG"))
        qInstallMessageHandler(quietMessages);
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(AppInfo::organization());
    QCoreApplication::setApplicationName(AppInfo::application());
    QCoreApplication::setApplicationVersion(AppInfo::version());

    QStringList args = QCoreApplication::arguments().mid(1);
    if (args.isEmpty())
        return CliText::usageError(QStringLiteral("missing command; try 'twinfold-cli --help'"));
    const QString command = args.takeFirst();
    if (command == u"-h" || command == u"--help" || command == u"help") {
        CliText::out() << kUsage << Qt::flush;
        return 0;
    }
    if (command == u"-v" || command == u"--version") {
        CliText::out() << "twinfold-cli " << AppInfo::version() << Qt::endl;
        return 0;
    }

    // Same data folder, daily log and reporting as the window.
    TStartup::start();
    int status = 0;
    if (command == u"scan") {
        ScanCommand scan;
        status = scan.parse(args);
        if (status < 0) {
            QObject::connect(&scan, &ScanCommand::finished, &app,
                             [](int code) { QCoreApplication::exit(code); });
            QTimer::singleShot(0, &scan, &ScanCommand::start);
            status = app.exec();
        }
    } else if (command == u"show") {
        status = ShowCommand::run(args);
    } else if (command == u"delete") {
        status = DeleteCommand::run(args);
    } else {
        status = CliText::usageError(
            QStringLiteral("unknown command '%1'; try 'twinfold-cli --help'").arg(command));
    }
    TStartup::shutdown();
    return status;
}
