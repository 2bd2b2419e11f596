// Every type of the module Hmisvc with every property, signal and method a
// page uses, for qmllint: what the module's type information says of them.
import QtQuick
import Hmisvc

Item {
    id: page
    property string shown: ""
    function show(object: DeviceObject) {
        shown = object.status + object.ready + object.lastError + object.refreshInterval + object.timeLimit
    }

    DeviceInfo {
        id: device
        components: ["kernel", "app"]
        timeLimit: 500
        onReadyChanged: page.show(device)
        onInfoChanged: page.shown = deviceId + deviceType + deviceSeries + deviceModel + hmiName + storageFree +
                                    ramFree + versions.app
    }
    Backlight {
        id: backlight
        refreshInterval: 1000
        onWritten: (method, taken, error) => page.shown = method + taken + error
        onMaximumChanged: setBrightness(Math.min(brightness, maximum))
    }
    Beeper { id: beeper; onStatusChanged: beep(100, 1) }
    DateTime {
        id: clock
        modifiable: true
        onDateTimeChanged: page.shown = dateTime.toLocaleTimeString()
        Component.onCompleted: setDateTime(new Date())
    }
    Ethernet {
        onInfoChanged: page.shown = address + netmask + gateway + dns1 + dns2 + interfaceName
        onMacChanged: page.shown = mac
    }
    Modem {
        onPresentChanged: page.shown = present
        onInfoChanged: page.shown = operatorName + imei + address + apn + mode + state + level
        onCcidChanged: page.shown = ccid
    }
    Wifi {
        id: wifi
        onPresentChanged: page.shown = present
        onInfoChanged: page.shown = connected + ssid + address + signal
        onMacChanged: page.shown = mac
        onLastErrorChanged: page.show(wifi)
        Component.onCompleted: connected ? disconnectCurrent() : connectTo("office", "secret")
    }
    ListView {
        model: wifi.networks
        delegate: Text {
            required property string ssid
            required property string bssid
            required property string security
            required property int signal
            required property string frequency
            text: ssid + bssid + security + signal + frequency
        }
    }
    NetworkSelection {
        onCurrentChanged: if (current < 0) prefer(0)
        onLevelChanged: page.shown = level
    }
    RemoteAccess {
        onFlagsChanged: page.shown = vncRunning + frpRunning + vpnRunning
        Component.onCompleted: {
            restartVnc(0); closeVnc(); setVncPassword("pw"); restartFrp(); closeFrp(); restartVpn(0)
            setVpnRange("a", "b", "c", "d")
        }
    }
    Settings {
        id: language
        section: "ui"; key: "language"
        onValueChanged: page.shown = section + key + value
        Component.onCompleted: value = "de"
    }
    Broadcasts {
        actions: ["hmi.action.show.settings"]
        onReceivingChanged: if (receiving) send("hmi.action.show.settings", { page: 1 }, { from: "page" })
        onReceived: (action, ints, strings) => page.shown = action + ints.page + strings.from
    }
    Component.onCompleted: {
        for (const object of [device, backlight, beeper, clock, language])
            object.refresh()
    }
}
