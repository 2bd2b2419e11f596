// A page to type into and click on, for page inspection's tests: a text
// field, a button that copies the field's text to a label.
#include <QGuiApplication>
#include <QQmlApplicationEngine>

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QQmlApplicationEngine engine;
    engine.loadData(R"(
        import QtQuick
        import QtQuick.Controls
        ApplicationWindow {
            visible: true; width: 300; height: 160
            Column {
                TextField { id: field; objectName: "field"; width: 200 }
                Button { text: "Copy"; onClicked: shown.text = field.text }
                Label { id: shown; objectName: "shown"; text: "nothing yet" }
            }
        })");
    return engine.rootObjects().isEmpty() ? 1 : app.exec();
}
