// A captioned list of detail lines on the advanced and capture surfaces.
import QtQuick
import QtQuick.Layouts

ColumnLayout {
    id: list
    property string title
    property var lines: []
    Layout.fillWidth: true
    spacing: 2
    SystemPalette { id: palette; colorGroup: SystemPalette.Active }
    Text { text: list.title; font.bold: true; color: palette.windowText; font.pixelSize: 13 }
    // The lines are rebuilt every refresh. A Repeater straight inside a layout lets Qt 6.4's
    // layout read a delegate the model change has just freed (a crash seen under load); inside a
    // positioner the layout sees one stable item.
    Column {
        Layout.fillWidth: true
        spacing: 2
        Repeater {
            model: list.lines
            Text {
                required property var modelData
                width: parent.width
                wrapMode: Text.WrapAtWordBoundaryOrAnywhere
                text: modelData
                color: palette.windowText
                font.pixelSize: 12
                font.family: "monospace"
            }
        }
    }
}
