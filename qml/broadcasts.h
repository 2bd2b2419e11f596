/**
 * @file
 * QML type for broadcasts: receiving the actions a page listens for, and
 * sending.
 */
#ifndef HMISVC_QML_BROADCASTS_H
#define HMISVC_QML_BROADCASTS_H

#include "deviceobject.h"

#include <hmisvc/broadcast.h>
#include <hmisvc/receiving.h>

#include <QStringList>
#include <QVariantMap>

#include <memory>

namespace hmisvc::qml {

/// Broadcasts: received(action, ints, strings) on the GUI thread for every
/// broadcast whose action is in actions, through an hmisvc::Receiving that
/// keeps receiving when the broadcast service restarts; send() sends one.
/// status is the broadcast service's as sending and receiving see it.
///
/// @code
/// Broadcasts {
///     actions: ["hmi.action.show.settings"]
///     onReceived: (action, ints, strings) => page.show(ints.page)
/// }
/// @endcode
class Broadcasts : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The actions listened for; receiving starts once it is not empty. An
    /// action stays listened for once added (the filter only grows).
    Q_PROPERTY(QStringList actions READ actions WRITE setActions NOTIFY actionsChanged)
    /// True once broadcasts sent now arrive; false while the endpoint
    /// registers or the broadcast service is gone.
    Q_PROPERTY(bool receiving READ receiving NOTIFY receivingChanged)

public:
    /// A broadcasts object, receiving nothing until actions is set.
    explicit Broadcasts(QObject *parent = nullptr);
    ~Broadcasts() override;
    /// Sends a broadcast of @p action with the integer extras @p ints and
    /// the string extras @p strings (maps from key to value; a value that
    /// is not a number in ints sets lastError, nothing is sent).
    Q_INVOKABLE void send(const QString &action, const QVariantMap &ints = {}, const QVariantMap &strings = {});
    //! @cond accessors
    QStringList actions() const { return actions_; }
    void setActions(const QStringList &actions);
    bool receiving() const { return receiving_; }

signals:
    void actionsChanged();
    void receivingChanged();
    //! @endcond

    /// A broadcast of @p action arrived, with its integer extras @p ints and
    /// string extras @p strings (objects: key to value).
    void received(const QString &action, const QVariantMap &ints, const QVariantMap &strings);

protected:
    void fetch() override {}
    /// Starts receiving once the page set actions.
    void componentComplete() override;

private:
    class Receiver;
    void start();
    QStringList actions_;
    bool receiving_ = false;
    IntentFilter filter_;
    std::unique_ptr<Receiver> receiver_;
    std::unique_ptr<Receiving> receiving_layer_; // ends first: no delivery after it
};

} // namespace hmisvc::qml

#endif
