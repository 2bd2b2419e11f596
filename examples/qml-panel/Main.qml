// The operator panel of examples/qt-panel in QML: a brightness slider, the
// Wi-Fi networks in range, the last "show settings" broadcast and a status
// line per service. The Hmisvc types make every call off the GUI thread with
// a time limit; a stopped service shows "timed out", the page goes on. Tests
// find the items by their object names.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Hmisvc

ApplicationWindow {
    id: window
    width: 360; height: 420
    visible: true
    title: "Panel"

    Backlight { id: backlight; objectName: "backlight"; timeLimit: 500; refreshInterval: 1000 }
    Wifi { id: wifi; objectName: "wifi"; timeLimit: 500; refreshInterval: 5000 }
    Broadcasts {
        id: broadcasts
        actions: ["hmi.action.show.settings"]
        property string last: "no broadcast yet"
        onReceived: (action, ints, strings) => last = action + " page=" + (ints.page || 0)
    }

    ColumnLayout {
        anchors.fill: parent
        anchors.margins: 8
        Repeater {
            model: [["backlight", backlight, "backlightStatus"], ["Wi-Fi", wifi, "wifiStatus"],
                    ["broadcasts", broadcasts, "broadcastsStatus"]]
            Label {
                required property var modelData
                objectName: modelData[2]
                text: modelData[0] + ": " + modelData[1].status +
                      (modelData[1].lastError ? " (" + modelData[1].lastError + ")" : "")
            }
        }
        Label { objectName: "brightnessLabel"; text: "Brightness " + backlight.brightness + " of " + backlight.maximum }
        Slider {
            objectName: "brightness"
            Layout.fillWidth: true
            from: 0; to: Math.max(backlight.maximum, 1); stepSize: 1
            value: backlight.brightness
            onMoved: backlight.setBrightness(value)
        }
        Label { text: "Wi-Fi networks" }
        ListView {
            objectName: "networks"
            Layout.fillWidth: true; Layout.fillHeight: true
            clip: true
            model: wifi.networks
            delegate: Label {
                required property string ssid
                required property int signal
                text: ssid + " (" + signal + " dBm)"
            }
        }
        Label { objectName: "lastBroadcast"; text: broadcasts.last }
    }
}
