#include "remote.h"

#include <hmisvc/proxies.h>

namespace hmisvc::qml {

void RemoteAccess::fetch() { fetchInto(&VncFrpVpnManager::Get_Vnc_Flag, flags_, &RemoteAccess::flagsChanged); }

// An action's answer says little (Frp_Close is false either way): what runs
// is asked again.
template <class R, class... P, class... A> void RemoteAccess::act(R (VncFrpVpnManager::*method)(P...), A &&...args)
{
    ask(method, [this](const auto &...) { refresh(); }, std::forward<A>(args)...);
}

void RemoteAccess::restartVnc(int mode) { act(&VncFrpVpnManager::Vnc_Restart, mode); }
void RemoteAccess::closeVnc() { act(&VncFrpVpnManager::Vnc_Close); }
void RemoteAccess::setVncPassword(const QString &password)
{
    act(&VncFrpVpnManager::Set_Vnc_Passwd, password.toStdString());
}
void RemoteAccess::restartFrp() { act(&VncFrpVpnManager::Frp_Restart); }
void RemoteAccess::closeFrp() { act(&VncFrpVpnManager::Frp_Close); }
void RemoteAccess::restartVpn(int mode) { act(&VncFrpVpnManager::Vpn_Restart, mode); }

void RemoteAccess::setVpnRange(const QString &a, const QString &b, const QString &c, const QString &d)
{
    act(&VncFrpVpnManager::Set_Vpn_Range, a.toStdString(), b.toStdString(), c.toStdString(), d.toStdString());
}

} // namespace hmisvc::qml
