/**
 * @file
 * What every type of the QML module Hmisvc shares: a supervised service
 * handle whose calls run off the GUI thread, the service's status, the last
 * error and polling.
 */
#ifndef HMISVC_QML_DEVICEOBJECT_H
#define HMISVC_QML_DEVICEOBJECT_H

#include <hmisvc/service.h>

#include <QObject>
#include <QQmlParserStatus>
#include <QString>
#include <QTimer>
#include <QtQml/qqmlregistration.h>

#include <algorithm>
#include <memory>
#include <string>
#include <type_traits>
#include <tuple>
#include <utility>

/// The QML module Hmisvc 1.0 (`import Hmisvc`).
namespace hmisvc::qml {

/// The properties, signals and methods every type of the module has (not
/// made in QML itself).
///
/// Every call goes through an hmisvc::Service with a time limit, on a thread
/// the process shares per service name; the answer comes back to the GUI thread and updates the
/// properties, which keep the last answer. Nothing waits on the GUI thread,
/// also when a service hangs. The services push nothing: refresh() asks
/// again, refreshInterval does so on a timer. A type whose service is not
/// there yet is "down" and turns "up" by itself once it answers (with a
/// refreshInterval, or on the next refresh()).
///
/// After a call past timeLimit: status stays "up" (a slow service is not a
/// dead one), lastError "timed out", the properties and ready keep the last
/// answer. After a refused write: status "up", lastError the reason, the
/// property notified again with the device's value. After the service died
/// or failed a call: status "down", ready false, lastError the outcome.
///
/// The types derive from it by its full name (`hmisvc::qml::DeviceObject`):
/// Qt's type registrar matches a base by the name as written, and with a
/// short one the module's type information leaves out the base's members.
class DeviceObject : public QObject, public QQmlParserStatus {
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    QML_ELEMENT
    QML_UNCREATABLE("DeviceObject is the base of the module's types: it is made as one of them")
    /// Where the service stands: "unknown" before its first answer, "up"
    /// once it answered, "down" when it died, failed a call or is not there.
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
    /// True once every read of a refresh was answered since the service
    /// came up: the properties hold the device's values. False before,
    /// and again once status turns "down".
    Q_PROPERTY(bool ready READ ready NOTIFY readyChanged)
    /// Why the last call or write had no effect: the outcome's name ("timed
    /// out", "not registered", "transaction failed", ...) or a refused
    /// write's reason ("brightness 300 out of range 0..255"); empty after a
    /// success.
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)
    /// Milliseconds between automatic refresh() calls; 0 (the default):
    /// none. A refresh whose calls have not ended yet is not repeated.
    Q_PROPERTY(int refreshInterval READ refreshInterval WRITE setRefreshInterval NOTIFY refreshIntervalChanged)
    /// The time limit of every call in milliseconds (default 2000, at least
    /// 1): a call unanswered by then ends with lastError "timed out".
    Q_PROPERTY(int timeLimit READ timeLimit WRITE setTimeLimit NOTIFY timeLimitChanged)

public:
    ~DeviceObject() override;

    /// Asks the service for every property again; returns at once.
    Q_INVOKABLE void refresh();

    /// See the property.
    QString status() const { return status_; }
    /// See the property.
    bool ready() const { return ready_; }
    /// See the property.
    QString lastError() const { return lastError_; }
    /// See the property.
    int refreshInterval() const { return timer_.interval(); }
    /// Sets the property; a negative value counts as 0.
    void setRefreshInterval(int ms);
    /// See the property.
    int timeLimit() const { return timeLimit_; }
    /// Sets the property; calls made from now on get the new limit.
    void setTimeLimit(int ms);

signals:
    /// The status changed.
    void statusChanged();
    /// ready changed.
    void readyChanged();
    /// A write method ended: @p method by its QML name, whether the device
    /// @p taken the value, and if not the @p error (also in lastError).
    void written(const QString &method, bool taken, const QString &error);
    /// The last error changed.
    void lastErrorChanged();
    /// The refresh interval changed.
    void refreshIntervalChanged();
    /// The time limit changed.
    void timeLimitChanged();

protected:
    /// A type on the GUI thread.
    explicit DeviceObject(QObject *parent = nullptr);

    /// The type's getters, called by refresh() through ask().
    virtual void fetch() = 0;

    /// Nothing before the page set the properties.
    void classBegin() override;
    /// The first refresh, once the page set the properties.
    void componentComplete() override;

    /// Calls @p method with @p args off the GUI thread; on it, sets
    /// lastError from the outcome and calls `done(result, args...)` (the
    /// arguments as the call left them: out-parameters) unless this object
    /// was destroyed first.
    template <class Proxy, class R, class... P, class Done, class... A>
    void ask(R (Proxy::*method)(P...), Done done, A &&...args)
    {
        ++pending_;
        const int round = fetching_ ? round_ : 0; // a read of this refresh
        roundCalls_ += round != 0;
        service<Proxy>().callAsync(
            [this, done, round](Result<R> result, std::decay_t<P> &...out) {
                QMetaObject::invokeMethod(
                    this,
                    [this, done, round, result, held = std::make_tuple(out...)]() mutable {
                        pending_ = std::max(0, pending_ - 1);
                        setLastError(result.ok() ? QString() : QString::fromUtf8(outcomeName(result.outcome())));
                        std::apply([&](auto &...o) { done(result, o...); }, held);
                        if (round != 0 && round == round_)
                            readEnded(result.ok());
                    },
                    Qt::QueuedConnection);
            },
            method, std::forward<A>(args)...);
    }

    /// A write: calls @p method as ask() does; `taken(result, args...)`
    /// on the GUI thread returns "" when the device took the value (and
    /// stores it) or why not. Either way written(@p name, ...) follows; one
    /// not taken sets lastError and emits @p changed (a member signal, or
    /// nullptr for none), so that bindings on the property go back to the
    /// device's value.
    template <class Proxy, class R, class... P, class Changed, class Taken, class... A>
    void write(const char *name, R (Proxy::*method)(P...), Changed changed, Taken taken, A &&...args)
    {
        ask(
            method,
            [this, name, changed, taken](const Result<R> &result, auto &...out) {
                const QString error =
                    result.ok() ? taken(result, out...) : QString::fromUtf8(outcomeName(result.outcome()));
                writeEnded(name, error, changed);
            },
            std::forward<A>(args)...);
    }

    /// A write that ended, or that was refused before any call (@p error
    /// not empty): see write().
    template <class Changed> void writeEnded(const char *name, const QString &error, Changed changed)
    {
        if (!error.isEmpty()) {
            setLastError(error);
            if constexpr (std::is_member_function_pointer_v<Changed>)
                notify(changed);
        }
        emit written(QString::fromLatin1(name), error.isEmpty(), error);
    }

    /// The handle on Proxy's service, made on first use (one per object).
    template <class Proxy> Service<Proxy> &service()
    {
        if (!handle_)
            handle_ = std::make_shared<Service<Proxy>>(options());
        return *static_cast<Service<Proxy> *>(handle_.get());
    }

    /// Asks a getter with no arguments; its answer goes into @p member
    /// (a string as a QString), @p changed emitted when it differs.
    template <class Proxy, class R, class T, class Self>
    void fetchInto(R (Proxy::*method)(), T &member, void (Self::*changed)())
    {
        ask(method, [this, &member, changed](const Result<R> &r) {
            if (!r)
                return;
            if constexpr (std::is_same_v<R, std::string>)
                assign(member, QString::fromStdString(*r), changed);
            else
                assign(member, T(*r), changed);
        });
    }

    /// Asks a record getter (`bool Get...(Record &)`); the record goes into
    /// @p member, @p changed emitted when it differs.
    template <class Proxy, class Record, class Self>
    void fetchRecord(bool (Proxy::*method)(Record &), Record &member, void (Self::*changed)())
    {
        ask(
            method,
            [this, &member, changed](const Result<bool> &r, Record &record) {
                // Records have no comparison; their encodings tell whether they differ.
                if (r && *r && Record(member).toString() != record.toString()) {
                    member = record;
                    notify(changed);
                }
            },
            Record());
    }

    /// Sets @p member to @p value and emits @p changed when it differs.
    template <class T, class Self> void assign(T &member, const T &value, void (Self::*changed)())
    {
        if (member == value)
            return;
        member = value;
        notify(changed);
    }

    /// Emits a subclass's @p changed signal.
    template <class Self> void notify(void (Self::*changed)()) { (static_cast<Self *>(this)->*changed)(); }

    /// Sets lastError (a write refused before or by the service).
    void setLastError(const QString &error);
    /// Sets the status ("unknown", "up", "down").
    void setStatus(const QString &status);

private:
    ServiceOptions options();
    void readEnded(bool answered);
    void setReady(bool ready);

    QString status_ = QStringLiteral("unknown");
    QString lastError_;
    QTimer timer_;
    // While the service is down: the next look for it, a refresh, 250 ms
    // after the last one ended, twice as long each time up to 4 s.
    QTimer lookAgain_;
    int timeLimit_ = 2000;
    int pending_ = 0; // calls not ended yet
    bool complete_ = false;
    bool ready_ = false;
    bool fetching_ = false;  // in fetch(): the calls made are this refresh's reads
    int round_ = 0;          // the refresh whose reads count for ready; 0: none
    int roundCalls_ = 0;     // its reads not answered yet
    bool roundFailed_ = false;
    bool answered_ = false;  // every read of the last refresh answered since it came up
    bool reads_ = true;      // fetch() asks for something
    std::shared_ptr<void> handle_; // the Service; ends before the QObject does
};

} // namespace hmisvc::qml

#endif
