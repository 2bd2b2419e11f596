#include "network.h"

#include <hmisvc/proxies.h>

namespace hmisvc::qml {


void Ethernet::fetch()
{
    fetchRecord(&EthInfoManager::GetEthinfo, info_, &Ethernet::infoChanged);
    fetchInto(&EthInfoManager::GetEthMac, mac_, &Ethernet::macChanged);
}

void Modem::fetch()
{
    fetchInto(&P4gManager::GetIs4G, present_, &Modem::presentChanged);
    fetchRecord(&P4gManager::Get4ginfo, info_, &Modem::infoChanged);
    fetchInto(&P4gManager::Get4GCcid, ccid_, &Modem::ccidChanged);
}

void WifiNetworks::reset(std::vector<WifiList> networks)
{
    beginResetModel();
    rows_ = std::move(networks);
    endResetModel();
}

int WifiNetworks::rowCount(const QModelIndex &parent) const { return parent.isValid() ? 0 : int(rows_.size()); }

QHash<int, QByteArray> WifiNetworks::roleNames() const
{
    return {{Qt::UserRole, "ssid"},
            {Qt::UserRole + 1, "bssid"},
            {Qt::UserRole + 2, "security"},
            {Qt::UserRole + 3, "signal"},
            {Qt::UserRole + 4, "frequency"}};
}

QVariant WifiNetworks::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= int(rows_.size()))
        return {};
    const WifiList &n = rows_[index.row()];
    switch (role - Qt::UserRole) {
    case 0:
        return QString::fromStdString(n.text1);
    case 1:
        return QString::fromStdString(n.text2);
    case 2:
        return QString::fromStdString(n.text3);
    case 3:
        return n.value;
    case 4:
        return QString::fromStdString(n.text4);
    }
    return {};
}

void Wifi::fetchInfo() { fetchRecord(&WifiManager::GetWifiinfo, info_, &Wifi::infoChanged); }

void Wifi::fetch()
{
    fetchInto(&WifiManager::GetIsWifi, present_, &Wifi::presentChanged);
    fetchInfo();
    fetchInto(&WifiManager::GetWifiMac, mac_, &Wifi::macChanged);
    ask(
        &WifiManager::GetWifilist,
        [this](const Result<bool> &r, const std::vector<WifiList> &list) {
            if (r && *r)
                networks_.reset(list);
        },
        std::vector<WifiList>());
}

void Wifi::connectTo(const QString &ssid, const QString &password)
{
    if (ssid.isEmpty()) {
        writeEnded("connectTo", QStringLiteral("no network named"), &Wifi::infoChanged);
        return;
    }
    write(
        "connectTo", &WifiManager::SetWifiConnection, &Wifi::infoChanged,
        [this](const Result<int> &r, const std::string &, const std::string &, int) {
            fetchInfo();
            return *r != 0 ? QStringLiteral("refused: %1").arg(*r) : QString();
        },
        ssid.toStdString(), password.toStdString(), 0);
}

void Wifi::disconnectCurrent()
{
    write("disconnectCurrent", &WifiManager::DisconnectCurrentWifi, &Wifi::infoChanged, [this](const Result<bool> &r) {
        fetchInfo();
        return *r ? QString() : QStringLiteral("refused"); // none was joined
    });
}

void NetworkSelection::fetch()
{
    fetchInto(&NetChanageManager::GetCurrentNet, current_, &NetworkSelection::currentChanged);
    fetchInto(&NetChanageManager::GetNetLevel, level_, &NetworkSelection::levelChanged);
}

void NetworkSelection::prefer(int net)
{
    if (net < 0) {
        writeEnded("prefer", QStringLiteral("network %1 out of range").arg(net), &NetworkSelection::currentChanged);
        return;
    }
    // The answer says nothing: what is in use follows.
    write(
        "prefer", &NetChanageManager::SetFirstNet, &NetworkSelection::currentChanged,
        [this](const Result<bool> &, int) {
            refresh();
            return QString();
        },
        net);
}

} // namespace hmisvc::qml
