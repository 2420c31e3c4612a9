// A captioned list of detail lines on the advanced and capture surfaces.
import QtQuick
import QtQuick.Layouts

ColumnLayout {
    property string title
    property var lines: []
    Layout.fillWidth: true
    spacing: 2
    SystemPalette { id: palette; colorGroup: SystemPalette.Active }
    Text { text: parent.title; font.bold: true; color: palette.windowText; font.pixelSize: 13 }
    Repeater {
        model: parent.lines
        Text {
            required property var modelData
            Layout.fillWidth: true
            wrapMode: Text.WrapAtWordBoundaryOrAnywhere
            text: modelData
            color: palette.windowText
            font.pixelSize: 12
            font.family: "monospace"
        }
    }
}
