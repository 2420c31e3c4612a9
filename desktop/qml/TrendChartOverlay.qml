// What the chart's renderer leaves to the window: the value axes with their units, and a readout
// of every shown series at the pointer or at the keyboard cursor, in each series' own unit.
// Nothing here changes unless the pointer, the cursor, a sample or a scale does: it costs no
// frames of its own while nobody points at the chart.
import QtQuick

Item {
    id: overlay
    objectName: "trend-chart-overlay"
    required property Item chart    // the FixedViewportTrendView it lies on
    required property rect plot
    property var seriesColors: ({}) // series label -> colour
    anchors.fill: parent

    Accessible.role: Accessible.Chart
    Accessible.name: readoutText.length > 0 ? readoutText
                     : "Live Trend Chart. Use the arrow keys to read values."
    activeFocusOnTab: true

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    readonly property var gridValues: [0, 20, 40, 60, 80, 100]
    function yOf(value) { return plot.y + (1 - value / 105) * plot.height }

    // Watts on the right axis: the grid's per cent of the power scale.
    readonly property real powerMax: Number(trend.totalPowerScaleText)
    function wattsText(percent) {
        const watts = powerMax * percent / 100
        return powerMax >= 10 ? watts.toFixed(0) : watts.toFixed(1)
    }

    // Left axis: temperatures in °C, and clocks and fan speed in per cent of their scales, share
    // the chart's 0–105 range.
    Repeater {
        model: overlay.gridValues
        Text {
            objectName: "trend-axis-left-" + modelData
            text: modelData
            x: overlay.plot.x - 5 - width
            y: overlay.yOf(modelData) - height / 2
            color: secondaryTextColor
            font.pixelSize: 11
        }
    }
    Text {
        objectName: "trend-axis-left-unit"
        text: "°C · %"
        x: Math.max(0, overlay.plot.x - 5 - width)
        y: Math.max(0, overlay.plot.y - height - 1)
        color: secondaryTextColor
        font.pixelSize: 11
    }
    Repeater {
        model: trend.showPowerSeries ? overlay.gridValues : []
        Text {
            objectName: "trend-axis-right-" + modelData
            text: overlay.wattsText(modelData)
            x: overlay.plot.x + overlay.plot.width + 5
            y: overlay.yOf(modelData) - height / 2
            color: secondaryTextColor
            font.pixelSize: 11
        }
    }
    Text {
        objectName: "trend-axis-right-unit"
        visible: trend.showPowerSeries
        text: "W"
        x: overlay.plot.x + overlay.plot.width + 5
        y: Math.max(0, overlay.plot.y - height - 1)
        color: secondaryTextColor
        font.pixelSize: 11
    }

    // The cursor: where the pointer is over the plot, or where the arrow keys put it.
    HoverHandler { id: hover }
    property real keyboardX: NaN
    readonly property real hoverX: {
        if (!hover.hovered) return NaN
        const x = hover.point.position.x
        const y = hover.point.position.y
        return x >= plot.x && x <= plot.x + plot.width && y >= plot.y
               && y <= plot.y + plot.height ? x : NaN
    }
    readonly property real cursorX: !isNaN(hoverX) ? hoverX : activeFocus ? keyboardX : NaN

    onActiveFocusChanged: keyboardX = activeFocus ? plot.x + plot.width - 1 : NaN
    Keys.onPressed: event => {
        const step = plot.width / 60  // a second on the 1-minute window, 5 s on the 5-minute
        const left = plot.x, right = plot.x + plot.width - 1
        const from = isNaN(keyboardX) ? right : keyboardX
        if (event.key === Qt.Key_Left) keyboardX = Math.max(left, from - step)
        else if (event.key === Qt.Key_Right) keyboardX = Math.min(right, from + step)
        else if (event.key === Qt.Key_Home) keyboardX = left
        else if (event.key === Qt.Key_End) keyboardX = right
        else return
        event.accepted = true
    }

    // A new sample moves the content under a still cursor; a toggle changes the rows.
    property int revision: 0
    Connections {
        target: trend
        function onSnapshotChanged() { overlay.revision++ }
    }
    readonly property var readout: {
        revision
        trend.showGPUSeries; trend.showCPUSeries; trend.showFanSeries; trend.showPowerSeries
        return isNaN(cursorX) ? ({}) : trend.readoutAt(chart.timeAt(cursorX))
    }
    readonly property bool hasReadout: readout.rows !== undefined
    readonly property string readoutText: {
        if (!hasReadout) return ""
        let parts = []
        for (const row of readout.rows) parts.push(row.series + " " + row.value)
        return readout.time + ": " + parts.join(", ")
    }

    Rectangle {
        objectName: "trend-focus-frame"
        visible: overlay.activeFocus
        x: overlay.plot.x - 2; y: overlay.plot.y - 2
        width: overlay.plot.width + 4; height: overlay.plot.height + 4
        color: "transparent"
        border.color: palette.highlight
        border.width: 2
        radius: 3
    }

    Rectangle {
        objectName: "trend-cursor"
        // A line alone over a stretch without samples says nothing; the keyboard's cursor stays
        // visible so that it can be moved there and back.
        visible: !isNaN(overlay.cursorX) && (overlay.hasReadout || overlay.activeFocus)
        x: Math.round(overlay.cursorX)
        y: overlay.plot.y
        width: 1
        height: overlay.plot.height
        color: palette.windowText
        opacity: 0.5
    }

    Rectangle {
        id: readoutBox
        objectName: "trend-readout"
        visible: overlay.hasReadout
        readonly property real gap: 10
        // Beside the cursor, on whichever side has room, inside the plot.
        x: {
            const right = overlay.cursorX + gap
            return right + width <= overlay.plot.x + overlay.plot.width ? right
                   : Math.max(overlay.plot.x, overlay.cursorX - gap - width)
        }
        y: overlay.plot.y + 6
        width: readoutColumn.implicitWidth + 16
        height: readoutColumn.implicitHeight + 12
        radius: 6
        color: palette.window
        border.color: secondaryTextColor
        border.width: 1
        Accessible.role: Accessible.StaticText
        Accessible.name: overlay.readoutText

        Column {
            id: readoutColumn
            x: 8; y: 6
            spacing: 2
            Text {
                objectName: "trend-readout-time"
                text: overlay.hasReadout ? overlay.readout.time : ""
                color: palette.windowText
                font.pixelSize: 12
                font.bold: true
            }
            Repeater {
                model: overlay.hasReadout ? overlay.readout.rows : []
                Row {
                    objectName: "trend-readout-row-" + dashboard.slug(modelData.series)
                    spacing: 6
                    Rectangle {
                        anchors.verticalCenter: parent.verticalCenter
                        width: 8; height: 8; radius: 4
                        color: overlay.seriesColors[modelData.series] || palette.windowText
                    }
                    Text {
                        text: modelData.series
                        width: 72
                        color: secondaryTextColor
                        font.pixelSize: 12
                    }
                    Text {
                        objectName: "value"
                        text: modelData.value
                        color: palette.windowText
                        font.pixelSize: 12
                    }
                }
            }
        }
    }
}
