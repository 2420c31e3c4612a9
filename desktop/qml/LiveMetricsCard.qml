// The live metrics card: the latest readings, what Kelvo gains, recent events and the build.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Card {
    id: liveCard
    objectName: "card-live-metrics"
    Accessible.name: "Live Metrics Card"
    title: "Live"

    // The throttle value's colour while the machine throttles.
    required property color warningColor

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    GridLayout {
        id: liveGrid
        objectName: "live-metrics-grid"
        // Fewer columns when the window is narrow; values wrap inside theirs.
        readonly property real minimumColumnWidth: 96
        Layout.fillWidth: true
        columns: Math.max(2, Math.min(6, Math.floor((width + columnSpacing)
                                   / (minimumColumnWidth + columnSpacing))))
        columnSpacing: layout.liveMetricsCardSpacing
        rowSpacing: 4
        Repeater {
            model: [["Mode", "mode"], ["Status", "status"], ["Authority", "authority"],
                    ["CPU Temp", "cpuTemperature"], ["GPU Temp", "gpuTemperature"],
                    ["Power", "power"], ["CPU Clock", "cpuClock"],
                    ["GPU Clock", "gpuClock"], ["Throttle", "throttle"],
                    ["Fans", "fans"]]
            delegate: Column {
                required property var modelData
                objectName: "metric-" + dashboard.slug(modelData[0])
                Accessible.name: modelData[0]
                Accessible.description: valueText.text
                Layout.fillWidth: true
                Layout.columnSpan: modelData[1] === "fans" ? 2 : 1
                Layout.preferredWidth: liveGrid.minimumColumnWidth * Layout.columnSpan
                Text {
                    width: parent.width
                    elide: Text.ElideRight
                    text: modelData[0]
                    color: secondaryTextColor
                    font.pixelSize: 11
                }
                Text {
                    id: valueText
                    width: parent.width
                    wrapMode: Text.WrapAtWordBoundaryOrAnywhere
                    text: dashboard.card[modelData[1]] || "—"
                    color: modelData[1] === "throttle" && live.throttleWarning
                           ? liveCard.warningColor : palette.windowText
                    font.pixelSize: 14
                }
            }
        }
    }
    Text {
        objectName: "metric-benefit"
        Layout.fillWidth: true
        wrapMode: Text.WrapAtWordBoundaryOrAnywhere
        text: dashboard.card.benefit || ""
        color: palette.windowText
        font.pixelSize: 12
    }
    Column {
        objectName: "metric-recent-events"
        Accessible.name: "Recent Events"
        Layout.fillWidth: true
        // Room for the five latest events from the start: the window's first
        // height counts them, and nothing below moves as they arrive.
        Layout.minimumHeight: 5 * eventLineMetrics.lineSpacing
        FontMetrics { id: eventLineMetrics; font.pixelSize: 12 }
        Repeater {
            model: dashboard.card.events || []
            Text {
                required property var modelData
                width: parent.width
                elide: Text.ElideRight
                text: modelData
                color: palette.windowText
                font.pixelSize: 12
            }
        }
    }
    RowLayout {
        spacing: 8
        Text {
            objectName: "build-version"
            Accessible.name: "Build Version"
            Accessible.description: live.buildVersionDetail
            text: live.buildVersionLabel
            color: secondaryTextColor
            font.pixelSize: 11
            HoverHandler { id: buildHover }
            ToolTip.visible: buildHover.hovered && live.buildVersionDetail.length > 0
            ToolTip.text: live.buildVersionDetail
        }
        // The update settings (also in the tray menu) sit with the version they
        // concern; the top bar's width is fixed by its two controls. Absent where
        // no updater runs.
        ToolButton {
            objectName: "build-update-settings"
            Accessible.name: "Update Settings"
            visible: typeof appCommands !== "undefined" && appCommands !== null
            text: "Update Settings…"
            font.pixelSize: 11
            onClicked: appCommands.openSettings()
        }
    }
}
