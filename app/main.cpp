#include "app/AppInfo.h"
#include "app/TLogger.h"
#include "app/TStartup.h"

#include <QApplication>
#include <QFile>
#include <QSettings>
#include <QTextStream>

#include <memory>

int main(int argc, char *argv[])
{
    // The resources sit in a static library; referencing them keeps the linker from dropping them.
    Q_INIT_RESOURCE(resource);
    TStartup::start();

#if QT_DEPRECATED_SINCE(6, 0)
    // Qt 6 always scales; the attributes only exist where deprecated API is still built.
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    QApplication::setAttribute(Qt::AA_EnableHighDpiScaling);
    QApplication::setAttribute(Qt::AA_UseHighDpiPixmaps);
    QT_WARNING_POP
#endif
    auto app = std::make_unique<QApplication>(argc, argv);
    QApplication::setOrganizationName(AppInfo::organization());
    QApplication::setApplicationName(AppInfo::application());
    QApplication::setApplicationVersion(AppInfo::version());

    QFile style(QStringLiteral(":resource/Style.qss"));
    if (style.open(QIODevice::ReadOnly | QIODevice::Text))
        app->setStyleSheet(QString::fromUtf8(style.readAll()));
    else
        logInfo(QStringLiteral("[Main]: no style sheet, using the system look"));

    // Selects the translation catalogues once localization is part of the build.
    const int language = QSettings(AppInfo::organization(), AppInfo::application())
                             .value(QStringLiteral("Language"), 1)
                             .toInt();
    Q_UNUSED(language)

    QTextStream(stderr) << "twinfold: the main window is not part of this build; use twinfold-cli."
                        << Qt::endl;
    const int exitCode = 0;

    TStartup::shutdown();
    app.reset();
    return exitCode;
}
