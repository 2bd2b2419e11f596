/**
 * @file
 * The QML module Hmisvc.Testing 1.0 (`import Hmisvc.Testing`): the simulated
 * device steered from Qt Quick Test cases.
 */
#ifndef HMISVC_QML_TESTING_DEVICECONTROL_H
#define HMISVC_QML_TESTING_DEVICECONTROL_H

#include "control_client.h"

#include <QJSValue>
#include <QJsonValue>
#include <QObject>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <cstdint>
#include <string>
#include <vector>

namespace hmisvc::qml {

/// The running simulator (hmisvc-devsim), reached over its control service
/// "devsim.control": the verbs of the pytest fixture `hmisvc_device` and of
/// hmisvc::testing::Device, one call each.
///
///     DeviceControl { id: device }
///     device.fail("backlight"); device.waitForCall("SetBrightness", [10])
///
/// Each verb returns once the simulator did what it says; meanwhile the GUI
/// thread goes on handling events (as TestCase's wait() does), so the page
/// under test follows the device. A verb the simulator refuses (an unknown
/// service, method or key: its message names the nearest known names) or
/// cannot do, no simulator running, or no answer within timeLimit throws a
/// JS Error with the simulator's words, which fails the test case.
class DeviceControl : public QObject {
    Q_OBJECT
    QML_ELEMENT
    /// Milliseconds a verb waits for the simulator's answer beyond its own
    /// waiting (waitForCall's timeout, a scenario's length); default 30000.
    Q_PROPERTY(int timeLimit READ timeLimit WRITE setTimeLimit NOTIFY timeLimitChanged)

public:
    using QObject::QObject;

    /// One value of the state by its dotted path in state()
    /// ("backlight.brightness"); VALUE any JS value.
    Q_INVOKABLE void set(const QString &key, const QJSValue &value);
    /// A whole or partial state document: an object, a JSON text or a file's path.
    Q_INVOKABLE void load(const QJSValue &document);
    /// The service's next calls fail: all until healed (CALLS -1) or the next
    /// CALLS; with STATUS (not 0) they get that status reply, with DELAYMS a
    /// normal answer that late.
    Q_INVOKABLE void fail(const QString &service, int calls = -1, int status = 0, int delayMs = 0);
    /// Ends fail() for the service.
    Q_INVOKABLE void heal(const QString &service);
    /// Publishes the service with the service manager again.
    Q_INVOKABLE void publish(const QString &service);
    /// Removes the service's name from the service manager.
    Q_INVOKABLE void unpublish(const QString &service);
    /// The service's process dies at once (holders get its death
    /// notification); back after RESTARTAFTERMS, or at restart() when below 0.
    Q_INVOKABLE void crash(const QString &service, int restartAfterMs = -1);
    /// A crashed service's process again; returns once it is published.
    Q_INVOKABLE void restart(const QString &service);
    /// A broadcast from the simulator with int and string extras ({key: value}).
    Q_INVOKABLE void broadcast(const QString &action, const QJSValue &ints = QJSValue(),
                               const QJSValue &strings = QJSValue());
    /// Queues the method's next answers (an array): values of its return
    /// type, or the texts "fail", "status:N" and "delay:MS"; none empties its queue.
    Q_INVOKABLE void reply(const QString &method, const QJSValue &answers = QJSValue());
    /// The device as it started: values, faults, queued answers,
    /// publications, crashed services, call log.
    Q_INVOKABLE void reset();
    /// Runs a scenario (an object, a JSON text or a file's path) to its end;
    /// throws "scenario not met" with the report when an expectation was not.
    Q_INVOKABLE void play(const QJSValue &scenario);
    /// The whole state, as `hmisvc sim dump` prints it.
    Q_INVOKABLE QJSValue state();
    /// The calls served so far, oldest first: objects with seq, time,
    /// program, pid, service, method, args and reply (or status and error).
    /// FILTER: any of service, method, program, since (a mark).
    Q_INVOKABLE QJSValue calls(const QJSValue &filter = QJSValue());
    /// Empties the call log (sequence numbers go on).
    Q_INVOKABLE void clearCalls();
    /// The sequence number of the last call so far, to pass as `since`.
    Q_INVOKABLE double mark();
    /// The first calls of METHOD (with exactly ARGS, an array, where given)
    /// as soon as they came, at most TIMEOUT seconds; at the timeout throws
    /// the calls that did come. FILTER: any of count (default 1), since,
    /// program, service.
    Q_INVOKABLE QJSValue waitForCall(const QString &method, const QJSValue &args = QJSValue(),
                                     double timeout = 5.0, const QJSValue &filter = QJSValue());

    /// See the property.
    int timeLimit() const { return timeLimit_; }
    /// Sets the property (at least 1).
    void setTimeLimit(int ms);

signals:
    /// The time limit changed.
    void timeLimitChanged();

private:
    struct Answer {
        int code = -1;  // the control service's result, -1: none
        std::string text;
    };
    // One request on a thread of its own while this thread handles events,
    // for at most WAITING_S and timeLimit; code -1 when it threw (VERB named
    // in the message).
    Answer ask(const char *verb, uint32_t code, std::vector<tools::ControlArg> args, double waiting_s = 0);
    // ask(), throwing unless the simulator did it (code 0).
    Answer done(const char *verb, uint32_t code, std::vector<tools::ControlArg> args);
    void fail_with(const QString &message);
    QString json(const QJSValue &value);
    QJSValue parsed(const std::string &text);
    // An optional object or array argument: `out` undefined when not
    // given; false after throwing when it is not of that kind.
    bool optional(const char *verb, const char *what, const QJSValue &given, bool array, QJsonValue &out);
    // A document given as an object, a JSON text or a file's path, as JSON text.
    bool document(const char *verb, const QJSValue &given, std::string &text);

    int timeLimit_ = 30000;
};

}  // namespace hmisvc::qml

#endif
