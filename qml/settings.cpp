#include "settings.h"

#include <hmisvc/proxies.h>

namespace hmisvc::qml {

namespace {
// Answered for a setting that is not there (the default crosses as a C
// string: no NUL; control characters no stored value is expected to hold).
const std::string kMissing("\x1e\x1fno such setting\x1f\x1e");
} // namespace

bool Settings::named()
{
    if (!section_.isEmpty() && !key_.isEmpty())
        return true;
    setLastError(QStringLiteral("section and key must be set"));
    return false;
}

void Settings::fetch()
{
    if (!named())
        return;
    ask(
        &SettingsManager::GetValue,
        [this](const Result<std::string> &r, const std::string &section, const std::string &key, const std::string &) {
            if (r && *r == kMissing)
                setLastError(QStringLiteral("no such setting: %1/%2").arg(QString::fromStdString(section),
                                                                          QString::fromStdString(key)));
            else if (r && QString::fromStdString(section) == section_ && QString::fromStdString(key) == key_)
                assign(value_, QString::fromStdString(*r), &Settings::valueChanged);
        },
        section_.toStdString(), key_.toStdString(), kMissing);
}

void Settings::setSection(const QString &section)
{
    if (section == section_)
        return;
    section_ = section;
    emit sectionChanged();
    if (!key_.isEmpty())
        refresh();
}

void Settings::setKey(const QString &key)
{
    if (key == key_)
        return;
    key_ = key;
    emit keyChanged();
    if (!section_.isEmpty())
        refresh();
}

void Settings::setValue(const QString &value)
{
    if (section_.isEmpty() || key_.isEmpty()) {
        writeEnded("value", QStringLiteral("section and key must be set"), &Settings::valueChanged);
        return;
    }
    write(
        "value", &SettingsManager::SetValue, &Settings::valueChanged,
        [this](const Result<int> &r, const std::string &, const std::string &, const std::string &sent) {
            if (*r != 0)
                return QStringLiteral("refused: %1").arg(*r);
            assign(value_, QString::fromStdString(sent), &Settings::valueChanged);
            return QString();
        },
        section_.toStdString(), key_.toStdString(), value.toStdString());
}

} // namespace hmisvc::qml
