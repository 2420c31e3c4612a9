// The Beta Capture card: notes, start and stop, elapsed time, exports and the predictor's state.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Card {
    id: captureCard
    objectName: "card-capture-primary"
    Accessible.name: "Beta Capture Primary Card"
    title: "Beta Capture"
    visible: capture !== null
    accent: capture && capture.captureActivityTint === "orange" ? captureCard.activeColor : palette.mid
    border.width: capture && capture.captureActivityTint === "orange" ? 2 : 1

    // The frame and the elapsed time take this colour while a capture runs.
    required property color activeColor
    // The buttons' row at its natural width: the dashboard's minimum width keeps it whole.
    readonly property real minimumRowWidth: captureButtons.implicitWidth

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    TextField {
        objectName: "capture-beta-notes"
        Accessible.name: "Notes"
        Layout.fillWidth: true
        placeholderText: "Notes for this tester or session"
        enabled: capture && !capture.captureInteractionLocked
        text: capture ? capture.betaCaptureNotes : ""
        onTextEdited: capture.betaCaptureNotes = text
    }
    RowLayout {
        id: captureButtons
        spacing: layout.utilityAuxiliarySpacing
        Button {
            objectName: "capture-start-beta"
            text: "Start Beta Capture"
            Accessible.name: text
            enabled: capture && !capture.captureInteractionLocked && !capture.profilingIsRunning
            onClicked: capture.startBetaCapture()
        }
        Button {
            objectName: "capture-stop"
            text: "Stop Capture"
            Accessible.name: text
            enabled: capture && capture.profilingIsRunning && !capture.profilingStopInProgress
            onClicked: capture.beginCaptureStop(true)
        }
        Text {
            objectName: "capture-elapsed"
            text: capture ? capture.profilingElapsed : ""
            color: capture && capture.captureActivityTint === "orange" ? captureCard.activeColor
                                                                       : secondaryTextColor
            font.pixelSize: 14
        }
    }
    Text {
        objectName: "capture-message"
        Layout.fillWidth: true
        wrapMode: Text.WrapAtWordBoundaryOrAnywhere
        text: capture ? capture.profilingMessage : ""
        color: palette.windowText
    }
    Text {
        objectName: "capture-last-export"
        Layout.fillWidth: true
        elide: Text.ElideMiddle
        visible: capture && capture.lastExportPath !== undefined && capture.lastExportPath !== null
        text: "Last export: " + (capture ? capture.lastExportPath : "")
        color: palette.windowText
        font.pixelSize: 12
    }
    Text {
        objectName: "capture-last-bundle"
        Layout.fillWidth: true
        elide: Text.ElideMiddle
        visible: capture && capture.lastPackagedExportPath !== undefined && capture.lastPackagedExportPath !== null
        text: "Bundle: " + (capture ? capture.lastPackagedExportPath : "")
        color: palette.windowText
        font.pixelSize: 12
    }
    Text {
        objectName: "capture-predictor"
        Accessible.description: capture ? capture.adaptivePredictorDetail : ""
        Layout.fillWidth: true
        wrapMode: Text.WrapAtWordBoundaryOrAnywhere
        text: capture ? capture.adaptivePredictorLabel : ""
        color: secondaryTextColor
        font.pixelSize: 12
        HoverHandler { id: predictorHover }
        ToolTip.visible: predictorHover.hovered && capture && capture.adaptivePredictorDetail.length > 0
        ToolTip.text: capture ? capture.adaptivePredictorDetail : ""
    }
}
