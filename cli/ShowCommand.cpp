#include "cli/ShowCommand.h"

#include "cli/CliText.h"
#include "cli/ProjectFile.h"
#include "cli/ResultPrinter.h"

#include <QCommandLineParser>
#include <QFileInfo>

int ShowCommand::run(const QStringList &arguments)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Prints the groups of a saved project, selection included."));
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("Project file (.dupproj)."));
    parser.addOptions({
        {QStringLiteral("format"), QStringLiteral("Output format: text, json or csv (default text)."),
         QStringLiteral("text|json|csv"), QStringLiteral("text")},
        {{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")},
    });
    if (!parser.parse(QStringList{QStringLiteral("twinfold-cli show")} + arguments))
        return CliText::usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help"))) {
        CliText::out() << parser.helpText() << Qt::flush;
        return 0;
    }
    ResultPrinter::Format format = ResultPrinter::Text;
    if (!ResultPrinter::parseFormat(parser.value(QStringLiteral("format")), &format))
        return CliText::usageError(
            QStringLiteral("unknown format '%1'").arg(parser.value(QStringLiteral("format"))));
    if (parser.positionalArguments().size() != 1)
        return CliText::usageError(QStringLiteral("show needs exactly one project file"));

    const QString path = parser.positionalArguments().constFirst();
    if (!QFileInfo(path).isFile())
        return CliText::usageError(QStringLiteral("no such project file: %1").arg(path));
    int fileCount = 0;
    QString scanTime;
    QString error;
    if (!ProjectFile::open(path, &fileCount, &scanTime, &error))
        return CliText::failure(error);
    ResultPrinter::print(CliText::out(), format, fileCount);
    return 0;
}
