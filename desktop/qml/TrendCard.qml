// The trend card: the live chart, its time window, the series toggles and Peak Performance.
import QtQuick
import QtQuick.Layouts
import Kelvo.TrendRender 1.0

Card {
    id: trendCard
    objectName: "card-trend"
    Accessible.name: "Trend Card"
    spacing: layout.trendControlCardSpacing

    // Each toggle's dot takes its series' colour.
    required property color gpuClockColor
    required property color gpuTempColor
    required property color cpuClockColor
    required property color cpuTempColor
    required property color fanColor
    required property color powerColor

    // The widest of the title row and the controls row at their natural widths: the dashboard's
    // minimum width keeps both whole.
    readonly property real minimumRowWidth: Math.max(trendTitleRow.implicitWidth,
                                                      trendControlsRow.implicitWidth)

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    // Measured once per label text; the widest label sets the toggles' common column width.
    property var trendControlLabelWidthCache: ({})
    function labelWidth(text) {
        if (trendControlLabelWidthCache[text] === undefined) {
            labelMetrics.text = text
            trendControlLabelWidthCache[text] = Math.ceil(labelMetrics.advanceWidth)
        }
        return trendControlLabelWidthCache[text]
    }
    readonly property var seriesLabels: ["GPU Clock", "GPU Temp", "CPU Clock", "CPU Temp",
                                         "Fan Speed", "Watts"]
    property real seriesColumnWidth: 0
    Component.onCompleted: {
        var widest = 0
        for (var i = 0; i < seriesLabels.length; ++i)
            widest = Math.max(widest, labelWidth(seriesLabels[i]))
        seriesColumnWidth = widest
    }
    TextMetrics { id: labelMetrics; font.pixelSize: 13 }

    RowLayout {
        id: trendTitleRow
        Layout.fillWidth: true
        spacing: layout.trendControlCardSpacing
        Text {
            text: "Trend"
            font.bold: true
            font.pixelSize: 15
            color: palette.windowText
            Layout.fillWidth: true
        }
        SegmentedControl {
            objectName: "control-trend-window"
            Accessible.name: "Trend Window"
            // Its options fill the control, which would otherwise make the
            // whole control fill the row.
            Layout.fillWidth: false
            Layout.preferredWidth: 180
            optionPrefix: "control-trend-window-"
            options: [{ value: "oneMinute", title: "1 min" },
                      { value: "fiveMinutes", title: "5 min" }]
            selected: trend.trendWindow
            onChosen: value => trend.trendWindow = value
        }
    }

    FixedViewportTrendView {
        id: chart
        objectName: "trend-chart-live"
        Accessible.name: "Live Trend Chart"
        Accessible.role: Accessible.Chart
        Layout.fillWidth: true
        Layout.preferredHeight: 260
        model: trend
        // Room on the left for the °C and per cent axis, on the right for the watts.
        plotFrame: Qt.rect(44, 22, Math.max(0, width - 96), Math.max(0, height - 54))

        TrendChartOverlay {
            chart: chart
            plot: chart.plotFrame
            seriesColors: ({ "GPU Clock": trendCard.gpuClockColor,
                             "GPU Temp": trendCard.gpuTempColor,
                             "CPU Clock": trendCard.cpuClockColor,
                             "CPU Temp": trendCard.cpuTempColor,
                             "Fan Speed": trendCard.fanColor,
                             "Watts": trendCard.powerColor })
        }
    }

    RowLayout {
        id: trendControlsRow
        Layout.fillWidth: true
        spacing: layout.trendControlCardSpacing

        GridLayout {
            objectName: "trend-series-toggles"
            Layout.fillWidth: true
            columns: 3
            columnSpacing: layout.trendControlGridSpacing
            rowSpacing: layout.trendControlRowSpacing

            LinkedPair {
                first: SeriesToggle {
                    label: "GPU Clock"; dotColor: trendCard.gpuClockColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showGPUSeries
                    help: "GPU clock as a percentage of " + trend.gpuScaleText
                          + " MHz. Toggling this also toggles GPU Temp."
                    onClicked: trend.showGPUSeries = !trend.showGPUSeries
                }
                second: SeriesToggle {
                    label: "GPU Temp"; dotColor: trendCard.gpuTempColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showGPUSeries
                    help: "GPU temperature. Toggling this also toggles GPU Clock."
                    onClicked: trend.showGPUSeries = !trend.showGPUSeries
                }
                linkName: "gpu"
            }
            LinkedPair {
                first: SeriesToggle {
                    label: "CPU Clock"; dotColor: trendCard.cpuClockColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showCPUSeries
                    help: "CPU clock as a percentage of " + trend.cpuScaleText
                          + " MHz. Toggling this also toggles CPU Temp."
                    onClicked: trend.showCPUSeries = !trend.showCPUSeries
                }
                second: SeriesToggle {
                    label: "CPU Temp"; dotColor: trendCard.cpuTempColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showCPUSeries
                    help: "CPU temperature. Toggling this also toggles CPU Clock."
                    onClicked: trend.showCPUSeries = !trend.showCPUSeries
                }
                linkName: "cpu"
            }
            Row {
                spacing: layout.trendControlGridSpacing
                SeriesToggle {
                    label: "Fan Speed"; dotColor: trendCard.fanColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showFanSeries
                    help: "Fan speed as a percentage of " + trend.fanScaleText + " RPM."
                    onClicked: trend.showFanSeries = !trend.showFanSeries
                }
                SeriesToggle {
                    label: "Watts"; dotColor: trendCard.powerColor
                    labelWidth: trendCard.seriesColumnWidth
                    on: trend.showPowerSeries
                    help: "Right axis up to " + trend.totalPowerScaleText
                          + " W of total system power."
                    onClicked: trend.showPowerSeries = !trend.showPowerSeries
                }
            }
        }

        PeakPerformanceCard {}
    }
}
