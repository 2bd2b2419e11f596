import QtQuick
import Hmisvc

Item {
    Backlight { id: backlight; refreshInterval: 1000; timeLimit: 500 }
    Text { text: backlight.ready ? backlight.brightness : backlight.status + " " + backlight.lastError }
}
