/**
 * @file
 * QML types for the device itself: its information, backlight, beeper and
 * clock.
 */
#ifndef HMISVC_QML_DEVICE_H
#define HMISVC_QML_DEVICE_H

#include "deviceobject.h"

#include <QDateTime>
#include <QStringList>
#include <QVariantMap>

namespace hmisvc::qml {

/// What the device is: type, identifier, HMI name, versions, free space
/// ("system" service).
///
/// @code
/// DeviceInfo { id: device; components: ["kernel", "app"] }
/// Text { text: device.hmiName + " " + device.versions.app }
/// @endcode
class DeviceInfo : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The device's identifier.
    Q_PROPERTY(QString deviceId READ deviceId NOTIFY infoChanged)
    /// The device type number (the service's numbering).
    Q_PROPERTY(int deviceType READ deviceType NOTIFY infoChanged)
    /// The device series number.
    Q_PROPERTY(int deviceSeries READ deviceSeries NOTIFY infoChanged)
    /// The device model number.
    Q_PROPERTY(int deviceModel READ deviceModel NOTIFY infoChanged)
    /// The HMI's name.
    Q_PROPERTY(QString hmiName READ hmiName NOTIFY infoChanged)
    /// Free storage, in the service's unit (KiB on the simulator).
    Q_PROPERTY(int storageFree READ storageFree NOTIFY infoChanged)
    /// Free RAM, in the service's unit.
    Q_PROPERTY(int ramFree READ ramFree NOTIFY infoChanged)
    /// The components whose versions to ask for (the service names them).
    Q_PROPERTY(QStringList components READ components WRITE setComponents NOTIFY componentsChanged)
    /// Each component's version, by name ("" for one the service does not
    /// know): an object, `versions.app` (a var: qmllint knows no keys of a map).
    Q_PROPERTY(QVariant versions READ versions NOTIFY infoChanged)

public:
    /// A device information object.
    explicit DeviceInfo(QObject *parent = nullptr) : DeviceObject(parent) {}
    //! @cond accessors
    QString deviceId() const { return deviceId_; }
    int deviceType() const { return deviceType_; }
    int deviceSeries() const { return deviceSeries_; }
    int deviceModel() const { return deviceModel_; }
    QString hmiName() const { return hmiName_; }
    int storageFree() const { return storageFree_; }
    int ramFree() const { return ramFree_; }
    QStringList components() const { return components_; }
    void setComponents(const QStringList &components);
    QVariant versions() const { return versions_; }

signals:
    void infoChanged();
    void componentsChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    QString deviceId_, hmiName_;
    int deviceType_ = 0, deviceSeries_ = 0, deviceModel_ = 0, storageFree_ = 0, ramFree_ = 0;
    QStringList components_;
    QVariantMap versions_;
};

/// The screen's backlight.
///
/// @code
/// Backlight { id: backlight; refreshInterval: 1000 }
/// Slider { to: backlight.maximum; value: backlight.brightness
///          onMoved: backlight.setBrightness(value) }
/// @endcode
class Backlight : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The brightness (the service's scale, 0 to maximum); -1 until known.
    Q_PROPERTY(int brightness READ brightness NOTIFY brightnessChanged)
    /// The highest brightness; -1 until known.
    Q_PROPERTY(int maximum READ maximum NOTIFY maximumChanged)

public:
    /// A backlight object.
    explicit Backlight(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Sets the brightness to @p level: brightness follows the service's
    /// answer. Outside 0..maximum nothing is sent; a level the service
    /// refuses (the backlight is locked) is "refused". Either way brightness
    /// stays and is notified again: a Slider bound to it goes back.
    Q_INVOKABLE void setBrightness(int level);
    //! @cond accessors
    int brightness() const { return brightness_; }
    int maximum() const { return maximum_; }

signals:
    void brightnessChanged();
    void maximumChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    int brightness_ = -1, maximum_ = -1;
};

/// The beeper.
///
/// @code
/// Beeper { id: beeper }
/// Button { onClicked: beeper.beep(100, 1) }
/// @endcode
class Beeper : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT

public:
    /// A beeper object.
    explicit Beeper(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Sounds the beeper once per call; the service defines @p a and @p b
    /// (duration, count or the like).
    Q_INVOKABLE void beep(int a, int b);

protected:
    void fetch() override {}
};

/// The device's clock.
///
/// @code
/// DateTime { id: clock; refreshInterval: 1000 }
/// Text { text: clock.dateTime.toLocaleTimeString() }
/// @endcode
class DateTime : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The device's date and time as last read (local time); invalid until known.
    Q_PROPERTY(QDateTime dateTime READ dateTime NOTIFY dateTimeChanged)
    /// Whether the user may change the time; writing asks the service.
    Q_PROPERTY(bool modifiable READ modifiable WRITE setModifiable NOTIFY modifiableChanged)

public:
    /// A clock object.
    explicit DateTime(QObject *parent = nullptr) : DeviceObject(parent) {}
    /// Sets the device clock to @p dateTime (an invalid one sets lastError,
    /// nothing is sent); dateTime follows on the next refresh.
    Q_INVOKABLE void setDateTime(const QDateTime &dateTime);
    //! @cond accessors
    QDateTime dateTime() const { return dateTime_; }
    bool modifiable() const { return modifiable_; }
    void setModifiable(bool modifiable);

signals:
    void dateTimeChanged();
    void modifiableChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    QDateTime dateTime_;
    bool modifiable_ = false;
};

} // namespace hmisvc::qml

#endif
