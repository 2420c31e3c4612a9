// Two series toggles that share one setting, drawn as one control: a pill around both, a link
// bar in a fixed slot between them, and both lit while the pointer is on either, so that hiding
// one visibly hides its partner too.
import QtQuick

Item {
    id: pair
    property Item first
    property Item second
    property string linkName
    implicitWidth: row.implicitWidth
    implicitHeight: row.implicitHeight
    readonly property bool hovered: (first !== null && first.hovered)
                                    || (second !== null && second.hovered)

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    Rectangle {
        objectName: "trend-series-pair-" + pair.linkName
        // Hugs the labels rather than the 44-point touch height; stays inside the grid's gap.
        anchors.fill: parent
        anchors.topMargin: 8
        anchors.bottomMargin: 8
        anchors.leftMargin: -4
        anchors.rightMargin: -4
        radius: height / 2
        color: pair.hovered ? Qt.rgba(palette.highlight.r, palette.highlight.g,
                                      palette.highlight.b, 0.15) : "transparent"
        border.color: secondaryTextColor
        border.width: 1
    }

    Row {
        id: row
        spacing: layout.trendControlChainLeadSpacing
        children: [pair.first, link, pair.second]
    }

    Item {
        id: link
        objectName: "trend-series-link-" + pair.linkName
        width: layout.trendControlLinkSlotWidth
        height: layout.trendControlButtonHeight
        Rectangle {
            anchors.centerIn: parent
            width: parent.width - 2
            height: 2
            radius: 1
            color: secondaryTextColor
        }
    }
}
