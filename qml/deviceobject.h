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

/// The properties and methods every type of the module has (not made in
/// QML itself).
///
/// Every call goes through an hmisvc::Service with a time limit, on a thread
/// the process shares per service name; the answer comes back to the GUI thread and updates the
/// properties, which keep the last answer. Nothing waits on the GUI thread,
/// also when a service hangs. The services push nothing: refresh() asks
/// again, refreshInterval does so on a timer. A type whose service is not
/// there yet is "down" and turns "up" by itself once it answers (with a
/// refreshInterval, or on the next refresh()).
class DeviceObject : public QObject, public QQmlParserStatus {
    Q_OBJECT
    Q_INTERFACES(QQmlParserStatus)
    QML_ANONYMOUS
    /// Where the service stands: "unknown" before its first answer, "up"
    /// once it answered, "down" when it died, failed a call or is not there.
    Q_PROPERTY(QString status READ status NOTIFY statusChanged)
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
        service<Proxy>().callAsync(
            [this, done](Result<R> result, std::decay_t<P> &...out) {
                QMetaObject::invokeMethod(
                    this,
                    [this, done, result, held = std::make_tuple(out...)]() mutable {
                        pending_ = std::max(0, pending_ - 1);
                        setLastError(result.ok() ? QString() : QString::fromUtf8(outcomeName(result.outcome())));
                        std::apply([&](auto &...o) { done(result, o...); }, held);
                    },
                    Qt::QueuedConnection);
            },
            method, std::forward<A>(args)...);
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
                    (static_cast<Self *>(this)->*changed)();
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
        (static_cast<Self *>(this)->*changed)();
    }

    /// Sets lastError (a write refused before or by the service).
    void setLastError(const QString &error);
    /// Sets the status ("unknown", "up", "down").
    void setStatus(const QString &status);

private:
    ServiceOptions options();

    QString status_ = QStringLiteral("unknown");
    QString lastError_;
    QTimer timer_;
    int timeLimit_ = 2000;
    int pending_ = 0; // calls not ended yet
    bool complete_ = false;
    std::shared_ptr<void> handle_; // the Service; ends before the QObject does
};

} // namespace hmisvc::qml

#endif
