// The QML module in a process that cannot open /dev/binder: every type turns
// "down" with lastError "no driver" and writes out of range are refused
// before any call; pages destroyed while their calls are under way leave
// nothing behind that calls back (the asan stage runs this sanitized).
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QQmlComponent>
#include <QQmlEngine>

#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

namespace {

// Processes events until @p done holds; false when a minute passed first.
bool until(const std::function<bool()> &done)
{
    QDeadlineTimer deadline(60000);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    }
    return true;
}

class Module : public ::testing::Test {
protected:
    Module() { engine_.addImportPath(HMISVC_QML_IMPORT_PATH); }
    std::unique_ptr<QObject> make(const QByteArray &qml)
    {
        QQmlComponent component(&engine_);
        component.setData("import Hmisvc\n" + qml, QUrl());
        std::unique_ptr<QObject> object(component.create());
        EXPECT_TRUE(object) << qPrintable(component.errorString());
        return object;
    }
    QQmlEngine engine_;
};

TEST_F(Module, EveryTypeWithoutADriverIsDownAndSaysWhy)
{
    if (access("/dev/binder", R_OK | W_OK) == 0)
        GTEST_SKIP() << "this host has a binder driver";
    for (const char *type : {"DeviceInfo", "Backlight", "DateTime", "Ethernet", "Modem", "Wifi", "NetworkSelection",
                             "RemoteAccess", "Settings { section: \"a\"; key: \"b\" }"}) {
        SCOPED_TRACE(type);
        auto object = make(QByteArray(type).contains('{') ? QByteArray(type) : QByteArray(type) + " {}");
        ASSERT_TRUE(object);
        EXPECT_EQ(object->property("status").toString(), "unknown");
        EXPECT_TRUE(until([&] { return object->property("status").toString() == QLatin1String("down"); }));
        EXPECT_TRUE(until([&] { return object->property("lastError").toString() == QLatin1String("no driver"); }));
    }
}

TEST_F(Module, WritesOutOfRangeAreRefusedBeforeAnyCall)
{
    struct Case {
        const char *qml, *method;
        QVariant argument;
        const char *error;
    } cases[] = {
        {"Backlight {}", "setBrightness", -1, "brightness -1 out of range: below 0"},
        {"NetworkSelection {}", "prefer", -2, "network -2 out of range"},
        {"Wifi {}", "connectTo", QString(), "no network named"},
        {"Settings {}", "refresh", QVariant(), "section and key must be set"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.qml);
        auto object = make(c.qml);
        ASSERT_TRUE(object);
        if (!c.argument.isValid())
            QMetaObject::invokeMethod(object.get(), c.method);
        else if (c.argument.typeId() == QMetaType::QString)
            QMetaObject::invokeMethod(object.get(), c.method, Q_ARG(QString, c.argument.toString()),
                                      Q_ARG(QString, QString()));
        else
            QMetaObject::invokeMethod(object.get(), c.method, Q_ARG(int, c.argument.toInt()));
        EXPECT_EQ(object->property("lastError").toString(), c.error); // at once, before any answer
    }
}

TEST_F(Module, PagesDestroyedWithCallsInFlight)
{
    const char *page[] = {"DeviceInfo { refreshInterval: 1 }", "Backlight { refreshInterval: 1 }",
                          "Wifi { refreshInterval: 1 }", "Modem { refreshInterval: 1 }",
                          "Settings { section: \"a\"; key: \"b\"; refreshInterval: 1 }",
                          "Broadcasts { actions: [\"hmisvc.test\"] }"};
    for (int i = 0; i < 50; ++i) {
        std::vector<std::unique_ptr<QObject>> objects;
        for (const char *qml : page) {
            objects.push_back(make(qml));
            ASSERT_TRUE(objects.back());
        }
        for (int spin = 0; spin < i % 5; ++spin)
            QCoreApplication::processEvents();
        objects.clear(); // answers still on their way
    }
    // Whatever was posted to the destroyed objects is dropped, not delivered.
    QDeadlineTimer settle(200);
    while (!settle.hasExpired())
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
