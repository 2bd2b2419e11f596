/**
 * @file
 * QML type for one stored setting.
 */
#ifndef HMISVC_QML_SETTINGS_H
#define HMISVC_QML_SETTINGS_H

#include "deviceobject.h"

namespace hmisvc::qml {

/// One value of the settings service, by section and key.
///
/// @code
/// Settings { id: language; section: "ui"; key: "language" }
/// Text { text: language.value }
/// Button { onClicked: language.value = "de" }
/// @endcode
class Settings : public hmisvc::qml::DeviceObject {
    Q_OBJECT
    QML_ELEMENT
    /// The section of the setting.
    Q_PROPERTY(QString section READ section WRITE setSection NOTIFY sectionChanged)
    /// The key of the setting within its section.
    Q_PROPERTY(QString key READ key WRITE setKey NOTIFY keyChanged)
    /// The stored value as last read; writing stores it: value follows the
    /// service's answer. A setting that is not there reads as lastError
    /// "no such setting: section/key", value unchanged; a write the service
    /// refuses leaves value and sets lastError "refused: " and its answer.
    Q_PROPERTY(QString value READ value WRITE setValue NOTIFY valueChanged)

public:
    /// A settings object; it reads once section and key are set.
    explicit Settings(QObject *parent = nullptr) : DeviceObject(parent) {}
    //! @cond accessors
    QString section() const { return section_; }
    void setSection(const QString &section);
    QString key() const { return key_; }
    void setKey(const QString &key);
    QString value() const { return value_; }
    void setValue(const QString &value);

signals:
    void sectionChanged();
    void keyChanged();
    void valueChanged();
    //! @endcond

protected:
    void fetch() override;

private:
    bool named();
    QString section_, key_, value_;
};

} // namespace hmisvc::qml

#endif
