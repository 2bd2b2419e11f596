/**
 * @file
 * QML type for remote access: the VNC server, the frp tunnel and the VPN.
 */
#ifndef HMISVC_QML_REMOTE_H
#define HMISVC_QML_REMOTE_H

#include "deviceobject.h"

#include <hmisvc/proxies.h>

namespace hmisvc::qml {

/// VNC, frp and VPN ("vncfrpvpn" service); modes and ranges are the
/// service's. What runs follows each action (it asks again after it).
///
/// @code
/// RemoteAccess { id: remote; refreshInterval: 2000 }
/// Switch { checked: remote.vncRunning
///          onToggled: checked ? remote.restartVnc(0) : remote.closeVnc() }
/// @endcode
class RemoteAccess : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// Whether the VNC server runs.
    Q_PROPERTY(bool vncRunning READ vncRunning NOTIFY flagsChanged)
    /// Whether the frp tunnel runs.
    Q_PROPERTY(bool frpRunning READ frpRunning NOTIFY flagsChanged)
    /// Whether the VPN runs.
    Q_PROPERTY(bool vpnRunning READ vpnRunning NOTIFY flagsChanged)

public:
    /// A remote access object.
    explicit RemoteAccess(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Restarts the VNC server in @p mode.
    Q_INVOKABLE void restartVnc(int mode);
    /// Stops the VNC server.
    Q_INVOKABLE void closeVnc();
    /// Sets the VNC password (sent as it is).
    Q_INVOKABLE void setVncPassword(const QString &password);
    /// Restarts the frp tunnel.
    Q_INVOKABLE void restartFrp();
    /// Stops the frp tunnel.
    Q_INVOKABLE void closeFrp();
    /// Restarts the VPN in @p mode.
    Q_INVOKABLE void restartVpn(int mode);
    /// Sets the VPN's range: four strings the service defines (short ones:
    /// the request holds 128 bytes).
    Q_INVOKABLE void setVpnRange(const QString &a, const QString &b, const QString &c, const QString &d);
    //! @cond accessors
    bool vncRunning() const { return flags_ & 1; }
    bool frpRunning() const { return flags_ & 2; }
    bool vpnRunning() const { return flags_ & 4; }

signals:
    void flagsChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    template <class R, class... P, class... A>
    void act(const char *name, R (VncFrpVpnManager::*method)(P...), A &&...args);
    int flags_ = 0;
};

} // namespace hmisvc::qml

#endif
