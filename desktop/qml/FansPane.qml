// Which fans Kelvo may touch and the user's limits: whether the quiet modes share the work among
// the fans, each fan with its live speed, which die it cools, its choice (auto, firmware or a fixed duty), its minimum duty, whether it may stop when
// everything is cool, and a calibration on request; the quiet limits and the performance target,
// with the reason when a value is refused.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Card {
    id: pane
    objectName: "surface-fans"
    Accessible.name: "Fans Pane"
    title: "Fans"

    SystemPalette { id: fansPalette; colorGroup: SystemPalette.Active }

    Text {
        Layout.fillWidth: true
        wrapMode: Text.WordWrap
        color: fansPalette.windowText
        font.pixelSize: 12
        text: "Auto: Kelvo drives the fan, never below its minimum. Firmware: Kelvo never writes "
              + "it. Fixed: Kelvo holds it at a share of its speed range. Pumps run fixed at 100 % "
              + "until you choose otherwise. Stop when cool: under Auto with no minimum, the fan "
              + "stands still while every temperature is well under its limit."
    }

    // One switch for every fan: whether the quiet modes share the work by what each fan cools.
    RowLayout {
        Layout.fillWidth: true
        spacing: 8
        Switch {
            objectName: "fans-share"
            Accessible.name: "Share The Work Among The Fans"
            text: "Share the work among the fans"
            checked: fanSettings !== null && fanSettings.shareWork
            onToggled: fanSettings.setShareWork(checked)
        }
        Text {
            objectName: "fans-share-note"
            readonly property string problem: fanSettings ? fanSettings.shareProblem : ""
            text: problem.length > 0 ? problem + "."
                : fanSettings !== null && fanSettings.shareWork
                ? "In the quiet modes Kelvo measures which part each fan cools, with small slow "
                  + "speed changes under load, and raises first the fans that cool the hot part "
                  + "best."
                : "Every fan under Auto follows one speed, and none is measured."
            color: fansPalette.windowText
            font.pixelSize: 12
            wrapMode: Text.WordWrap
            Layout.fillWidth: true
        }
        // After a change of fans or coolers what was measured no longer holds.
        Button {
            objectName: "fans-measure-again"
            Accessible.name: "Measure The Fans Again"
            text: "Measure again"
            enabled: fanSettings !== null && fanSettings.shareWork
            onClicked: fanSettings.measureAgain()
        }
    }

    // A count-based model: the entries change every tick (the speeds), and recreating the rows
    // each time would take the focus from a field being edited.
    // Inside a positioner: a Repeater straight inside the card's layout lets Qt 6.4's layout read
    // a delegate that a change of the count has just freed.
    Column {
        Layout.fillWidth: true
        spacing: pane.spacing
        Repeater {
            model: fanSettings ? fanSettings.fans.length : 0
            ColumnLayout {
                id: fanRow
                required property int index
                readonly property var fan: fanSettings.fans[index] || ({})
                objectName: "fans-row-" + index
                width: parent.width
                spacing: 4
                RowLayout {
                    Layout.fillWidth: true
                    Text {
                        objectName: "fans-title-" + fanRow.index
                        text: fanRow.fan.title || ""
                        font.bold: true
                        elide: Text.ElideMiddle
                        Layout.fillWidth: true
                        color: fansPalette.windowText
                    }
                    Text {
                        objectName: "fans-rpm-" + fanRow.index
                        text: fanRow.fan.stopped ? "stopped"
                            : fanRow.fan.rpm >= 0 ? Math.round(fanRow.fan.rpm) + " rpm" : "— rpm"
                        color: fansPalette.windowText
                    }
                }
                // Why the fan is not Kelvo's as chosen: a stored choice that cannot be read, a
                // helper that refuses the fan, or a floor the helper holds it above.
                Text {
                    objectName: "fans-status-" + fanRow.index
                    readonly property string problem: fanRow.fan.problem || ""
                    readonly property string heldBack: fanRow.fan.heldBack || ""
                    readonly property int floorPercent: fanRow.fan.floorPercent || 0
                    visible: text.length > 0
                    function sentence(words) { return words.endsWith(".") ? words : words + "." }
                    text: problem.length > 0 ? sentence("Stored choice: " + problem)
                        : heldBack.length > 0 ? sentence("With the firmware: " + heldBack)
                        : floorPercent > 0 ? "The helper keeps this fan at no less than "
                                             + floorPercent + " %."
                        : ""
                    color: fansPalette.windowText
                    font.pixelSize: 12
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }
                // Which die the fan cools, as Kelvo has measured it, or that it has not yet.
                Text {
                    objectName: "fans-coupling-" + fanRow.index
                    visible: text.length > 0
                    text: fanRow.fan.couplingText || ""
                    color: fansPalette.windowText
                    font.pixelSize: 12
                    wrapMode: Text.WordWrap
                    Layout.fillWidth: true
                }
                RowLayout {
                    spacing: 8
                    SegmentedControl {
                        objectName: "fans-choice-" + fanRow.index
                        Accessible.name: "Fan Choice"
                        Layout.preferredWidth: 270
                        optionPrefix: "fans-choice-" + fanRow.index + "-"
                        options: [{ value: "auto", title: "Auto" },
                                  { value: "firmware", title: "Firmware" },
                                  { value: "fixed", title: "Fixed" }]
                        selected: fanRow.fan.choice || "auto"
                        onChosen: value => fanSettings.setChoice(fanRow.fan.identity, value,
                                                                 fixedBox.value)
                    }
                    Label { text: "Fixed %" }
                    SpinBox {
                        id: fixedBox
                        objectName: "fans-fixed-" + fanRow.index
                        from: 0
                        to: 100
                        editable: true
                        value: fanRow.fan.choice === "fixed" ? fanRow.fan.fixedPercent : 60
                        onValueModified: fanSettings.setChoice(fanRow.fan.identity, "fixed", value)
                    }
                    Label { text: "Minimum %" }
                    SpinBox {
                        objectName: "fans-min-" + fanRow.index
                        from: 0
                        to: 100
                        editable: true
                        value: fanRow.fan.minimumPercent || 0
                        onValueModified: fanSettings.setMinimum(fanRow.fan.identity, value)
                    }
                }
                RowLayout {
                    spacing: 8
                    Layout.fillWidth: true
                    Switch {
                        objectName: "fans-stop-" + fanRow.index
                        Accessible.name: "Stop When Cool"
                        text: "Stop when cool"
                        enabled: fanRow.fan.stopAvailable === true
                        checked: fanRow.fan.stopWhenCool === true
                        onToggled: {
                            if (!fanSettings.setStopWhenCool(fanRow.fan.identity, checked))
                                checked = Qt.binding(() => fanRow.fan.stopWhenCool === true)
                        }
                    }
                    Text {
                        objectName: "fans-stop-note-" + fanRow.index
                        visible: text.length > 0
                        text: fanRow.fan.stopNote || ""
                        color: fansPalette.windowText
                        font.pixelSize: 12
                        wrapMode: Text.WordWrap
                        // Its item can be laid out taller than its lines (the lines it wrapped to
                        // in a narrower row): they are drawn at its middle, beside the switch.
                        verticalAlignment: Text.AlignVCenter
                        Layout.fillWidth: true
                    }
                }
                RowLayout {
                    spacing: 8
                    Layout.fillWidth: true
                    Button {
                        objectName: "fans-calibrate-" + fanRow.index
                        Accessible.name: "Calibrate Fan"
                        text: "Calibrate"
                        enabled: fanRow.fan.calibrating !== true
                        onClicked: fanSettings.calibrate(fanRow.fan.identity)
                    }
                    ProgressBar {
                        objectName: "fans-calibration-progress-" + fanRow.index
                        visible: fanRow.fan.calibrating === true
                        from: 0
                        to: 1
                        value: fanRow.fan.calibrationProgress || 0
                        Layout.preferredWidth: 120
                    }
                    Text {
                        objectName: "fans-calibration-text-" + fanRow.index
                        text: fanRow.fan.calibrationText || fanRow.fan.calibrationNote || ""
                        color: fansPalette.windowText
                        font.pixelSize: 12
                        wrapMode: Text.WordWrap
                        verticalAlignment: Text.AlignVCenter
                        Layout.fillWidth: true
                    }
                }
            }
        }
    }

    Text {
        text: "Limits"
        font.bold: true
        color: fansPalette.windowText
    }
    GridLayout {
        columns: 2
        columnSpacing: 8
        Repeater {
            model: [{ which: "cpu", title: "CPU quiet limit (°C)" },
                    { which: "gpu", title: "GPU quiet limit (°C)" },
                    { which: "performance", title: "Performance target (°C)" }]
            delegate: RowLayout {
                required property var modelData
                Layout.columnSpan: 2
                Label { text: modelData.title; Layout.preferredWidth: 180 }
                // A free text field, not a clamped spin box: an out-of-range value is refused
                // with the reason instead of being silently changed.
                TextField {
                    objectName: "fans-limit-" + modelData.which
                    Layout.preferredWidth: 80
                    readonly property real current: modelData.which === "cpu" ? fanSettings.cpuQuietLimit
                                                  : modelData.which === "gpu" ? fanSettings.gpuQuietLimit
                                                  : fanSettings.performanceTarget
                    text: String(current)
                    onEditingFinished: {
                        if (!fanSettings.setLimit(modelData.which, Number(text)))
                            text = String(current)
                    }
                }
            }
        }
    }
    Text {
        objectName: "fans-limit-message"
        visible: fanSettings !== null && fanSettings.limitMessage.length > 0
        text: fanSettings ? fanSettings.limitMessage : ""
        color: "#d03030"
        Layout.fillWidth: true
        wrapMode: Text.WordWrap
    }
    Button {
        objectName: "fans-close"
        text: "Close"
        onClicked: fanSettings.paneOpen = false
    }
}
