// One series toggle of the trend card: a coloured dot and a label, bound to a series setting
// shared with its linked partner.
import QtQuick
import QtQuick.Controls

AbstractButton {
    id: toggle
    property color dotColor
    property string label
    property string help
    property real labelWidth: 0
    property bool on: true

    objectName: "trend-series-" + dashboard.slug(label)
    Accessible.name: label
    Accessible.description: help
    Accessible.role: Accessible.CheckBox
    Accessible.checkable: true
    Accessible.checked: on
    checkable: false
    implicitHeight: layout.trendControlButtonHeight
    implicitWidth: row.implicitWidth
    hoverEnabled: true
    ToolTip.visible: hovered && help.length > 0
    ToolTip.text: help
    ToolTip.delay: 500

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    contentItem: Row {
        id: row
        spacing: layout.trendControlContentSpacing
        Rectangle {
            anchors.verticalCenter: parent.verticalCenter
            width: layout.trendControlDotSize
            height: layout.trendControlDotSize
            radius: width / 2
            color: toggle.on ? toggle.dotColor : "transparent"
            border.color: toggle.dotColor
            border.width: 2
        }
        Text {
            anchors.verticalCenter: parent.verticalCenter
            width: Math.max(implicitWidth, toggle.labelWidth)
            text: toggle.label
            color: toggle.on ? palette.windowText : secondaryTextColor
            font.pixelSize: 13
        }
    }
}
