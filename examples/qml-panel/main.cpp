// Loads the panel (Main.qml, built into the program).
//
//   qml-panel [--screenshot FILE]
//
// --screenshot saves the window as an image once the services answered and
// quits: with QT_QPA_PLATFORM=offscreen, for the documentation.
#include <QCommandLineParser>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>

#include <cstdio>

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription("Operator panel in QML on the hmisvc system services");
    parser.addHelpOption();
    parser.addOption({"screenshot", "Save the window to <file> once loaded, then quit.", "file"});
    if (!parser.parse(app.arguments())) {
        std::fprintf(stderr, "qml-panel: %s\n", qPrintable(parser.errorText()));
        return 2;
    }
    if (parser.isSet("help"))
        parser.showHelp();
    QQmlApplicationEngine engine;
    engine.addImportPath(QCoreApplication::applicationDirPath() + "/../../qml"); // the build tree's module
    engine.load(QUrl(QStringLiteral("qrc:/QmlPanel/Main.qml")));
    if (engine.rootObjects().isEmpty())
        return 1;
    if (parser.isSet("screenshot")) {
        auto *window = qobject_cast<QQuickWindow *>(engine.rootObjects().first());
        const QString file = parser.value("screenshot");
        // The services answer within their 500 ms limit; a broadcast may come later.
        QTimer::singleShot(3000, window, [window, file] {
            if (!window->grabWindow().save(file)) {
                std::fprintf(stderr, "qml-panel: cannot write %s\n", qPrintable(file));
                QCoreApplication::exit(1);
                return;
            }
            QCoreApplication::quit();
        });
    }
    return app.exec();
}
