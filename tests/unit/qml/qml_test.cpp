// The QML module in a process that cannot open /dev/binder: every type turns
// "down" with lastError "no driver", never ready; every write reports that it
// was not taken (out of range before any call) and notifies its property
// again; pages destroyed while their calls are under way leave
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
        EXPECT_FALSE(object->property("ready").toBool());
    }
}

// Each write's written() and the property notified again, so that a control
// bound to it goes back; a write refused before any call says so at once.
TEST_F(Module, WritesNotTakenAreReportedAndNotifyTheProperty)
{
    if (access("/dev/binder", R_OK | W_OK) == 0)
        GTEST_SKIP() << "this host has a binder driver";
    struct Case {
        const char *type, *notify, *write, *written;
        bool atOnce;
    } cases[] = {
        {"Backlight", "brightness", "setBrightness(-1)", "setBrightness|brightness -1 out of range: below 0", true},
        {"Backlight", "brightness", "setBrightness(5)", "setBrightness|no driver", false},
        {"Settings", "value", "value = 'x'", "value|section and key must be set", true},
        {"Settings { section: 'a'; key: 'b'", "value", "value = 'x'", "value|no driver", false},
        {"Wifi", "info", "connectTo('', '')", "connectTo|no network named", true},
        {"Wifi", "info", "connectTo('office', 'secret')", "connectTo|no driver", false},
        {"Wifi", "info", "disconnectCurrent()", "disconnectCurrent|no driver", false},
        {"NetworkSelection", "current", "prefer(-2)", "prefer|network -2 out of range", true},
        {"NetworkSelection", "current", "prefer(1)", "prefer|no driver", false},
        {"DateTime", "dateTime", "setDateTime(new Date(NaN))", "setDateTime|invalid date and time", true},
        {"DateTime", "dateTime", "setDateTime(new Date())", "setDateTime|no driver", false},
        {"DateTime", "modifiable", "modifiable = true", "modifiable|no driver", false},
        {"RemoteAccess", "flags", "setVpnRange('a', 'b', 'c', 'd')", "setVpnRange|no driver", false},
        {"Beeper", nullptr, "beep(1, 1)", "beep|no driver", false},
        {"Broadcasts", nullptr, "send('')", "send|no action to send", true},
        {"Broadcasts", nullptr, "send('a', {n: 'x'})", "send|extra n is not an integer", true},
        {"Broadcasts", nullptr, "send('a', {n: 1})", "send|no driver", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.type) + " " + c.write);
        const QByteArray type(c.type), notify = c.notify ? QByteArray("on") + char(c.notify[0] - 'a' + 'A') +
                                                                (c.notify + 1) + "Changed: ++notified\n"
                                                          : QByteArray();
        auto object = make(type + (type.contains('{') ? "\n" : " {\n") +
                           "property int notified: 0\n"
                           "property var got: []\n"
                           "onWritten: (method, taken, error) => got.push(method + '|' + taken + '|' + error)\n" +
                           notify + "function write() { " + c.write + " }\n}");
        ASSERT_TRUE(object);
        QMetaObject::invokeMethod(object.get(), "write");
        auto got = [&] { return object->property("got").toStringList(); };
        if (!c.atOnce) {
            EXPECT_TRUE(until([&] { return !got().isEmpty(); }));
        }
        const QStringList expected{QString(c.written).replace('|', "|false|")};
        EXPECT_EQ(got(), expected);
        EXPECT_EQ(object->property("lastError").toString(), QString(c.written).section('|', 1));
        if (c.notify) {
            EXPECT_EQ(object->property("notified").toInt(), 1);
        }
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
