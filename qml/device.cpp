#include "device.h"

#include <hmisvc/proxies.h>
#include <hmisvc/records.h>

namespace hmisvc::qml {

void DeviceInfo::fetch()
{
    const auto changed = &DeviceInfo::infoChanged;
    fetchInto(&SystemManager::GetDeviceID, deviceId_, changed);
    fetchInto(&SystemManager::GetHmiName, hmiName_, changed);
    fetchInto(&SystemManager::GetDeviceType, deviceType_, changed);
    fetchInto(&SystemManager::GetDeviceSeries, deviceSeries_, changed);
    fetchInto(&SystemManager::GetDeviceModel, deviceModel_, changed);
    fetchInto(&SystemManager::GetStorageFreeSpace, storageFree_, changed);
    fetchInto(&SystemManager::GetRamFreeSpace, ramFree_, changed);
    for (const QString &name : components_)
        ask(
            &SystemManager::GetVersion,
            [this, name](const Result<std::string> &r, const std::string &) {
                if (!r)
                    return;
                QVariantMap versions = versions_;
                versions[name] = QString::fromStdString(*r);
                assign(versions_, versions, &DeviceInfo::infoChanged);
            },
            name.toStdString());
}

void DeviceInfo::setComponents(const QStringList &components)
{
    if (components == components_)
        return;
    components_ = components;
    emit componentsChanged();
    refresh();
}

void Backlight::fetch()
{
    fetchInto(&BacklightManager::GetMaxBrightness, maximum_, &Backlight::maximumChanged);
    fetchInto(&BacklightManager::GetBrightness, brightness_, &Backlight::brightnessChanged);
}

void Backlight::setBrightness(int level)
{
    const auto changed = &Backlight::brightnessChanged;
    if (level < 0 || (maximum_ >= 0 && level > maximum_)) {
        writeEnded("setBrightness",
                   maximum_ >= 0 ? QStringLiteral("brightness %1 out of range 0..%2").arg(level).arg(maximum_)
                                 : QStringLiteral("brightness %1 out of range: below 0").arg(level),
                   changed);
        return;
    }
    write(
        "setBrightness", &BacklightManager::SetBrightness, changed,
        [this, changed](const Result<bool> &accepted, int sent) {
            if (!*accepted)
                return QStringLiteral("refused");
            assign(brightness_, sent, changed);
            return QString();
        },
        level);
}

void Beeper::beep(int a, int b)
{
    write("beep", &BeepManager::Beep, nullptr, [](const Result<void> &, int, int) { return QString(); }, a, b);
}

namespace {

// The service's fields as the simulator fills them: month 1-12, full year.
QDateTime toQt(const Date &d)
{
    return QDateTime(QDate(d.year, d.month, d.day), QTime(d.hour, d.minute, d.second, d.subsecond));
}

} // namespace

void DateTime::fetch()
{
    ask(
        &DateManager::GetTime,
        [this](const Result<void> &r, const Date &date) {
            if (r)
                assign(dateTime_, toQt(date), &DateTime::dateTimeChanged);
        },
        Date());
    fetchInto(&DateManager::Modifiable, modifiable_, &DateTime::modifiableChanged);
}

void DateTime::setDateTime(const QDateTime &dateTime)
{
    if (!dateTime.isValid()) {
        writeEnded("setDateTime", QStringLiteral("invalid date and time"), &DateTime::dateTimeChanged);
        return;
    }
    Date date;
    const QDate day = dateTime.date();
    const QTime time = dateTime.time();
    date.year = day.year(), date.month = day.month(), date.day = day.day();
    date.hour = time.hour(), date.minute = time.minute(), date.second = time.second();
    date.subsecond = time.msec();
    date.extra = day.dayOfWeek() % 7;
    write(
        "setDateTime", &DateManager::SetTime, &DateTime::dateTimeChanged,
        [](const Result<void> &, const Date &) { return QString(); }, date);
}

void DateTime::setModifiable(bool modifiable)
{
    write(
        "modifiable", &DateManager::SetModifiable, &DateTime::modifiableChanged,
        [this](const Result<void> &, bool sent) {
            assign(modifiable_, sent, &DateTime::modifiableChanged);
            return QString();
        },
        modifiable);
}

} // namespace hmisvc::qml
