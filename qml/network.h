/**
 * @file
 * QML types for the device's networks: Ethernet, the 4G modem, Wi-Fi and
 * which network is preferred.
 */
#ifndef HMISVC_QML_NETWORK_H
#define HMISVC_QML_NETWORK_H

#include "deviceobject.h"

#include <hmisvc/records.h>

#include <QAbstractListModel>

#include <vector>

namespace hmisvc::qml {

/// Wired Ethernet ("ethinfo" service); the fields are the service's
/// (the simulator's meaning given).
///
/// @code
/// Ethernet { id: eth }
/// Text { text: eth.interfaceName + " " + eth.address }
/// @endcode
class Ethernet : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The address.
    Q_PROPERTY(QString address READ address NOTIFY infoChanged)
    /// The netmask.
    Q_PROPERTY(QString netmask READ netmask NOTIFY infoChanged)
    /// The gateway.
    Q_PROPERTY(QString gateway READ gateway NOTIFY infoChanged)
    /// The first DNS server.
    Q_PROPERTY(QString dns1 READ dns1 NOTIFY infoChanged)
    /// The second DNS server.
    Q_PROPERTY(QString dns2 READ dns2 NOTIFY infoChanged)
    /// The interface's name.
    Q_PROPERTY(QString interfaceName READ interfaceName NOTIFY infoChanged)
    /// The MAC address.
    Q_PROPERTY(QString mac READ mac NOTIFY macChanged)

public:
    /// An Ethernet object.
    explicit Ethernet(QObject *parent = nullptr) : DeviceObject(parent) {}
    //! @cond accessors
    QString address() const { return QString::fromStdString(info_.text1); }
    QString netmask() const { return QString::fromStdString(info_.text2); }
    QString gateway() const { return QString::fromStdString(info_.text3); }
    QString dns1() const { return QString::fromStdString(info_.text4); }
    QString dns2() const { return QString::fromStdString(info_.text5); }
    QString interfaceName() const { return QString::fromStdString(info_.text6); }
    QString mac() const { return mac_; }

signals:
    void infoChanged();
    void macChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    NetInfo info_;
    QString mac_;
};

/// The 4G modem ("4ginfo" service).
///
/// @code
/// Modem { id: modem; refreshInterval: 5000 }
/// Text { text: modem.present ? modem.operatorName + " " + modem.level + "/5" : "no modem" }
/// @endcode
class Modem : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// Whether a 4G module is fitted.
    Q_PROPERTY(bool present READ present NOTIFY presentChanged)
    /// The operator.
    Q_PROPERTY(QString operatorName READ operatorName NOTIFY infoChanged)
    /// The IMEI.
    Q_PROPERTY(QString imei READ imei NOTIFY infoChanged)
    /// The address.
    Q_PROPERTY(QString address READ address NOTIFY infoChanged)
    /// The APN.
    Q_PROPERTY(QString apn READ apn NOTIFY infoChanged)
    /// The mode.
    Q_PROPERTY(QString mode READ mode NOTIFY infoChanged)
    /// The state.
    Q_PROPERTY(QString state READ state NOTIFY infoChanged)
    /// The signal level (the service's scale; 0 to 5 on the simulator).
    Q_PROPERTY(int level READ level NOTIFY infoChanged)
    /// The SIM card's CCID.
    Q_PROPERTY(QString ccid READ ccid NOTIFY ccidChanged)

public:
    /// A modem object.
    explicit Modem(QObject *parent = nullptr) : DeviceObject(parent) {}
    //! @cond accessors
    bool present() const { return present_; }
    QString operatorName() const { return QString::fromStdString(info_.text1); }
    QString imei() const { return QString::fromStdString(info_.text2); }
    QString address() const { return QString::fromStdString(info_.text3); }
    QString apn() const { return QString::fromStdString(info_.text4); }
    QString mode() const { return QString::fromStdString(info_.text5); }
    QString state() const { return QString::fromStdString(info_.text6); }
    int level() const { return info_.value; }
    QString ccid() const { return ccid_; }

signals:
    void presentChanged();
    void infoChanged();
    void ccidChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    P4gInfo info_;
    bool present_ = false;
    QString ccid_;
};

/// The Wi-Fi scan list as a model for ListView: roles ssid, bssid,
/// security, signal (dBm), frequency (MHz), one row per network in range.
class WifiNetworks : public QAbstractListModel {
    Q_OBJECT
    QML_ANONYMOUS

public:
    /// An empty list.
    using QAbstractListModel::QAbstractListModel;
    /// Replaces the rows with @p networks.
    void reset(std::vector<WifiList> networks);
    //! @cond model
    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    //! @endcond

private:
    std::vector<WifiList> rows_;
};

/// Wi-Fi ("wifiinfo" service): the connected network, the networks in
/// range, joining and leaving.
///
/// @code
/// Wifi { id: wifi; refreshInterval: 3000 }
/// ListView { model: wifi.networks
///            delegate: Text { text: ssid + " " + signal + " dBm" } }
/// Button { onClicked: wifi.connectTo("office", password.text) }
/// @endcode
class Wifi : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// Whether a Wi-Fi module is fitted.
    Q_PROPERTY(bool present READ present NOTIFY presentChanged)
    /// Whether a network is joined.
    Q_PROPERTY(bool connected READ connected NOTIFY infoChanged)
    /// The joined network's SSID ("" for none).
    Q_PROPERTY(QString ssid READ ssid NOTIFY infoChanged)
    /// The address on it.
    Q_PROPERTY(QString address READ address NOTIFY infoChanged)
    /// Its signal in dBm (0 when not connected).
    Q_PROPERTY(int signal READ signal NOTIFY infoChanged)
    /// The MAC address.
    Q_PROPERTY(QString mac READ mac NOTIFY macChanged)
    /// The networks in range (a model: roles ssid, bssid, security, signal, frequency).
    Q_PROPERTY(QAbstractItemModel *networks READ networks CONSTANT)

public:
    /// A Wi-Fi object.
    explicit Wifi(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Joins @p ssid with @p password; the connected network follows.
    /// A refusal sets lastError to "refused: " and the service's answer
    /// (1: unknown network, 2: password too short, on the simulator).
    Q_INVOKABLE void connectTo(const QString &ssid, const QString &password);
    /// Leaves the joined network.
    Q_INVOKABLE void disconnectCurrent();
    //! @cond accessors
    bool present() const { return present_; }
    bool connected() const { return info_.text6 == "connected"; }
    QString ssid() const { return connected() ? QString::fromStdString(info_.text1) : QString(); }
    QString address() const { return QString::fromStdString(info_.text2); }
    int signal() const { return info_.value; }
    QString mac() const { return mac_; }
    QAbstractItemModel *networks() { return &networks_; }

signals:
    void presentChanged();
    void infoChanged();
    void macChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    void fetchInfo();
    WifiInfo info_;
    bool present_ = false;
    QString mac_;
    WifiNetworks networks_;
};

/// Which network is preferred, the one in use and its level
/// ("netchanage" service; networks numbered 0 Ethernet, 1 Wi-Fi, 2 4G on
/// the simulator).
///
/// @code
/// NetworkSelection { id: net; refreshInterval: 2000 }
/// ComboBox { model: ["Ethernet", "Wi-Fi", "4G"]; onActivated: net.prefer(index) }
/// @endcode
class NetworkSelection : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The network in use.
    Q_PROPERTY(int current READ current NOTIFY currentChanged)
    /// Its signal level (0 to 5 on the simulator).
    Q_PROPERTY(int level READ level NOTIFY levelChanged)

public:
    /// A network selection object.
    explicit NetworkSelection(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Prefers network @p net; a negative number sets lastError, nothing is sent.
    Q_INVOKABLE void prefer(int net);
    //! @cond accessors
    int current() const { return current_; }
    int level() const { return level_; }

signals:
    void currentChanged();
    void levelChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    int current_ = -1, level_ = 0;
};

} // namespace hmisvc::qml

#endif
