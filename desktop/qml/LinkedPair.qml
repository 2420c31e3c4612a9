// Two series toggles that share one setting, with a link mark in a fixed slot between them.
import QtQuick

Row {
    id: pair
    property Item first
    property Item second
    property string linkName
    spacing: layout.trendControlChainLeadSpacing
    children: [first, link, second]

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    Item {
        id: link
        objectName: "trend-series-link-" + pair.linkName
        width: layout.trendControlLinkSlotWidth
        height: layout.trendControlButtonHeight
        Text {
            anchors.centerIn: parent
            text: "↔"
            color: secondaryTextColor
            font.pixelSize: 12
        }
    }
}
