// The Advanced surface's detail: fans, sensors, throttle assessment, last decision and events.
import QtQuick
import QtQuick.Controls

Card {
    objectName: "surface-advanced"
    Accessible.name: "Advanced Surface"
    title: "Advanced"
    DetailList { title: "Fans"; lines: dashboard.advanced.fans || []; objectName: "advanced-fans" }
    Button {
        objectName: "advanced-open-fans"
        Accessible.name: "Fans"
        text: "Fans…"
        visible: fanSettings !== null
        onClicked: fanSettings.paneOpen = true
    }
    DetailList { title: "Sensors"; lines: dashboard.advanced.sensors || []; objectName: "advanced-sensors" }
    DetailList { title: "Throttle assessment"; lines: dashboard.advanced.throttle || []; objectName: "advanced-throttle" }
    DetailList { title: "Last decision"; lines: [dashboard.advanced.decision || "—"]; objectName: "advanced-decision" }
    DetailList { title: "Control loop events"; lines: dashboard.advanced.events || []; objectName: "advanced-events" }
}
