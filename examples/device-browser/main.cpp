#include "BrowserWindow.h"

#include <QtCore/QCommandLineParser>
#include <QtGui/QPixmap>
#include <QtGui/QScreen>
#include <QtWidgets/QApplication>

#include <cstdio>

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QApplication::translate("main", "Shows the devices on the local network."));
    parser.addHelpOption();
    const QCommandLineOption screenshot(
        QStringLiteral("screenshot"),
        QApplication::translate("main", "Search at once, write a picture of the window to <file>, and end."),
        QStringLiteral("file"));
    parser.addOption(screenshot);
    parser.process(application);

    BrowserWindow window;
    window.show();
    if (parser.isSet(screenshot)) {
        const QString file = parser.value(screenshot);
        QObject::connect(&window, &BrowserWindow::finished, &application, [&window, file] {
            window.repaint();
            const bool saved = window.screen()->grabWindow(window.winId()).save(file);
            if (!saved)
                std::fprintf(stderr, "device-browser: cannot write '%s'\n", qPrintable(file));
            QCoreApplication::exit(saved ? 0 : 1);
        });
        window.startOrStop();
    }
    return QApplication::exec();
}
