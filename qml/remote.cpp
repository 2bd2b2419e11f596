#include "remote.h"

#include <hmisvc/proxies.h>

namespace hmisvc::qml {

void RemoteAccess::fetch() { fetchInto(&VncFrpVpnManager::Get_Vnc_Flag, flags_, &RemoteAccess::flagsChanged); }

// An action's answer says little (Frp_Close is false either way): what runs
// is asked again.
template <class R, class... P, class... A>
void RemoteAccess::act(const char *name, R (VncFrpVpnManager::*method)(P...), A &&...args)
{
    write(
        name, method, &RemoteAccess::flagsChanged,
        [this](const auto &...) {
            refresh();
            return QString();
        },
        std::forward<A>(args)...);
}

void RemoteAccess::restartVnc(int mode) { act("restartVnc", &VncFrpVpnManager::Vnc_Restart, mode); }
void RemoteAccess::closeVnc() { act("closeVnc", &VncFrpVpnManager::Vnc_Close); }
void RemoteAccess::setVncPassword(const QString &password)
{
    act("setVncPassword", &VncFrpVpnManager::Set_Vnc_Passwd, password.toStdString());
}
void RemoteAccess::restartFrp() { act("restartFrp", &VncFrpVpnManager::Frp_Restart); }
void RemoteAccess::closeFrp() { act("closeFrp", &VncFrpVpnManager::Frp_Close); }
void RemoteAccess::restartVpn(int mode) { act("restartVpn", &VncFrpVpnManager::Vpn_Restart, mode); }

void RemoteAccess::setVpnRange(const QString &a, const QString &b, const QString &c, const QString &d)
{
    act("setVpnRange", &VncFrpVpnManager::Set_Vpn_Range, a.toStdString(), b.toStdString(), c.toStdString(),
        d.toStdString());
}

} // namespace hmisvc::qml
