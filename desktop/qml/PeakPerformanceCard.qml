// The Peak Performance figure under full load, framed in its tint, with its help on hover.
import QtQuick
import QtQuick.Controls

Rectangle {
    objectName: "trend-peak-performance"
    Accessible.name: "Peak Performance"
    Accessible.description: trend.peakPerformanceHelp
    radius: layout.cardCornerRadius
    color: "transparent"
    border.color: trend.peakPerformanceTint
    implicitWidth: peakColumn.implicitWidth + 2 * layout.trendControlOuterPaddingAllowance
    implicitHeight: peakColumn.implicitHeight + layout.trendControlOuterPaddingAllowance
    HoverHandler { id: peakHover }
    ToolTip.visible: peakHover.hovered
    ToolTip.text: trend.peakPerformanceHelp

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    Column {
        id: peakColumn
        anchors.centerIn: parent
        Text {
            objectName: "trend-peak-performance-title"
            anchors.horizontalCenter: parent.horizontalCenter
            horizontalAlignment: Text.AlignHCenter
            text: "Peak Performance\nUnder Full Load"
            color: palette.windowText
            font.pixelSize: layout.trendPerformanceLabelFontSize * layout.trendPerformanceFontScale
        }
        Text {
            objectName: "trend-peak-performance-value"
            anchors.horizontalCenter: parent.horizontalCenter
            text: trend.peakPerformanceValueText
            // No figure yet: its dash is secondary text, legible on either palette.
            color: Qt.colorEqual(trend.peakPerformanceTint, neutralTint) ? secondaryTextColor
                                                                         : trend.peakPerformanceTint
            font.bold: true
            font.pixelSize: layout.trendPerformanceValueFontSize * layout.trendPerformanceFontScale
        }
    }
}
