#include "app/AppInfo.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(AppInfo::application());
    QCoreApplication::setApplicationVersion(AppInfo::version());
    QTextStream(stdout) << "twinfold-cli " << AppInfo::version() << Qt::endl;
    return 0;
}
