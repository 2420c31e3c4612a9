// The dashboard window's content: the utility top bar, the shared top deck (trend card and live
// metrics card), the selected surface's extra detail and the capture card.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelvo.TrendRender 1.0

Rectangle {
    id: root
    objectName: "surface-root"
    Accessible.name: "Kelvo Root Surface"
    Accessible.role: Accessible.Pane
    color: palette.window
    implicitWidth: minimumContentWidth
    implicitHeight: stack.implicitHeight + 2 * layout.windowGutter

    // The narrowest content in which nothing is cut off: the top bar, the trend card's rows and
    // the capture card's buttons at their natural widths. The live metrics grid and the detail
    // lists wrap, so they fit any width. The window keeps this as its minimum; a screen narrower
    // than that scrolls sideways instead of clipping.
    readonly property real minimumContentWidth: Math.ceil(Math.max(
        layout.minimumContentWidth,
        2 * layout.windowGutter + topBar.implicitWidth,
        2 * (layout.windowGutter + layout.sectionCardContentPadding)
            + Math.max(trendTitleRow.implicitWidth, trendControlsRow.implicitWidth,
                       captureButtons.implicitWidth)))

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    readonly property color gpuClockColor: Qt.rgba(48 / 255, 178 / 255, 96 / 255, 1)
    readonly property color gpuTempColor: Qt.rgba(232 / 255, 72 / 255, 77 / 255, 1)
    readonly property color cpuClockColor: Qt.rgba(36 / 255, 132 / 255, 240 / 255, 1)
    readonly property color cpuTempColor: Qt.rgba(152 / 255, 96 / 255, 214 / 255, 1)
    readonly property color fanColor: Qt.rgba(44 / 255, 186 / 255, 214 / 255, 1)
    readonly property color powerColor: Qt.rgba(244 / 255, 134 / 255, 40 / 255, 1)
    readonly property color orange: Qt.rgba(244 / 255, 134 / 255, 40 / 255, 1)

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

    Flickable {
        id: scroller
        objectName: "dashboard-scroll"
        anchors.fill: parent
        contentWidth: Math.max(width, root.minimumContentWidth)
        contentHeight: stack.implicitHeight + 2 * layout.windowGutter
        boundsBehavior: Flickable.StopAtBounds
        clip: true
        // Shown for as long as there is more content than window, not only while scrolling:
        // otherwise nothing tells a user that the capture card lies below the fold.
        ScrollBar.vertical: ScrollBar {
            objectName: "dashboard-scroll-vertical"
            policy: scroller.contentHeight > scroller.height ? ScrollBar.AlwaysOn
                                                             : ScrollBar.AlwaysOff
        }
        ScrollBar.horizontal: ScrollBar {
            objectName: "dashboard-scroll-horizontal"
            policy: scroller.contentWidth > scroller.width ? ScrollBar.AlwaysOn
                                                           : ScrollBar.AlwaysOff
        }

        // A surface's own detail sits below the shared deck: choosing one scrolls it into view,
        // so the choice shows even where the deck fills the window. Dashboard goes to the top.
        // Opening the Fans pane (tray menu or the Advanced surface) scrolls it into view.
        Connections {
            target: fanSettings
            function onPaneOpenChanged() {
                if (!fanSettings.paneOpen) return
                stack.ensurePolished()
                const wanted = stack.y + fansPane.y - layout.windowGutter
                scroller.contentY = Math.max(0, Math.min(wanted,
                                                         scroller.contentHeight - scroller.height))
            }
        }
        Connections {
            target: dashboard
            function onSelectedSurfaceChanged() {
                const detail = dashboard.selectedSurface === "advanced" ? advancedSurface
                             : dashboard.selectedSurface === "capture" ? captureSurface : null
                stack.ensurePolished()
                const wanted = detail ? stack.y + detail.y - layout.windowGutter : 0
                scroller.contentY = Math.max(0, Math.min(wanted,
                                                         scroller.contentHeight - scroller.height))
            }
        }

        ColumnLayout {
            id: stack
            x: layout.windowGutter
            y: layout.windowGutter
            width: scroller.contentWidth - 2 * layout.windowGutter
            spacing: layout.surfaceStackSpacing

            // ----- Utility top bar -----
            RowLayout {
                id: topBar
                objectName: "topbar-utility"
                Accessible.name: "Utility Top Bar"
                Accessible.role: Accessible.ToolBar
                Layout.fillWidth: true
                spacing: layout.utilityTopBarSpacing

                SegmentedControl {
                    objectName: "control-public-mode"
                    Accessible.name: "Cooling Preference"
                    Layout.preferredWidth: layout.utilityModeSliderWidth
                    Layout.minimumWidth: layout.utilityModeSliderWidth
                    Layout.maximumWidth: layout.utilityModeSliderWidth
                    optionPrefix: "dashboard-public-mode-"
                    options: [{ value: "system", title: "System" },
                              { value: "enhanced", title: "Kelvo" }]
                    selected: dashboard.publicMode
                    onChosen: value => dashboard.setPublicMode(value)
                }
                // The slack between the slider and the picker includes the spacing on both sides.
                Item {
                    Layout.fillWidth: true
                    Layout.minimumWidth: Math.max(0, layout.utilityTopBarMinimumSlack
                                                     - 2 * layout.utilityTopBarSpacing)
                }
                RowLayout {
                    objectName: "topbar-aux-controls"
                    Accessible.name: "Utility Auxiliary Controls"
                    spacing: layout.utilityAuxiliarySpacing
                    SegmentedControl {
                        objectName: "surface-selection"
                        Accessible.name: "Surface"
                        Layout.preferredWidth: layout.utilitySurfacePickerWidth
                        Layout.minimumWidth: layout.utilitySurfacePickerWidth
                        Layout.maximumWidth: layout.utilitySurfacePickerWidth
                        optionPrefix: "surface-selection-"
                        options: [{ value: "dashboard", title: "Dashboard" },
                                  { value: "advanced", title: "Advanced" },
                                  { value: "capture", title: "Capture" }]
                        selected: dashboard.selectedSurface
                        onChosen: value => dashboard.selectedSurface = value
                    }
                }
            }

            // ----- Shared top deck -----
            ColumnLayout {
                objectName: "surface-top-deck"
                Accessible.name: "Shared Top Deck"
                Layout.fillWidth: true
                spacing: layout.surfaceStackSpacing

                Card {
                    objectName: "card-trend"
                    Accessible.name: "Trend Card"
                    Layout.fillWidth: true
                    spacing: layout.trendControlCardSpacing

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
                        plotFrame: Qt.rect(44, 12, Math.max(0, width - 100), Math.max(0, height - 44))
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
                                    label: "GPU Clock"; dotColor: root.gpuClockColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showGPUSeries
                                    help: "GPU clock as a percentage of " + trend.gpuScaleText
                                          + " MHz. Toggling this also toggles GPU Temp."
                                    onClicked: trend.showGPUSeries = !trend.showGPUSeries
                                }
                                second: SeriesToggle {
                                    label: "GPU Temp"; dotColor: root.gpuTempColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showGPUSeries
                                    help: "GPU temperature. Toggling this also toggles GPU Clock."
                                    onClicked: trend.showGPUSeries = !trend.showGPUSeries
                                }
                                linkName: "gpu"
                            }
                            LinkedPair {
                                first: SeriesToggle {
                                    label: "CPU Clock"; dotColor: root.cpuClockColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showCPUSeries
                                    help: "CPU clock as a percentage of " + trend.cpuScaleText
                                          + " MHz. Toggling this also toggles CPU Temp."
                                    onClicked: trend.showCPUSeries = !trend.showCPUSeries
                                }
                                second: SeriesToggle {
                                    label: "CPU Temp"; dotColor: root.cpuTempColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showCPUSeries
                                    help: "CPU temperature. Toggling this also toggles CPU Clock."
                                    onClicked: trend.showCPUSeries = !trend.showCPUSeries
                                }
                                linkName: "cpu"
                            }
                            Row {
                                spacing: layout.trendControlGridSpacing
                                SeriesToggle {
                                    label: "Fan Speed"; dotColor: root.fanColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showFanSeries
                                    help: "Fan speed as a percentage of " + trend.fanScaleText + " RPM."
                                    onClicked: trend.showFanSeries = !trend.showFanSeries
                                }
                                SeriesToggle {
                                    label: "Watts"; dotColor: root.powerColor
                                    labelWidth: root.seriesColumnWidth
                                    on: trend.showPowerSeries
                                    help: "Right axis up to " + trend.totalPowerScaleText
                                          + " W of total system power."
                                    onClicked: trend.showPowerSeries = !trend.showPowerSeries
                                }
                            }
                        }

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
                                    color: trend.peakPerformanceTint
                                    font.bold: true
                                    font.pixelSize: layout.trendPerformanceValueFontSize * layout.trendPerformanceFontScale
                                }
                            }
                        }
                    }
                }

                Card {
                    objectName: "card-live-metrics"
                    Accessible.name: "Live Metrics Card"
                    Layout.fillWidth: true
                    title: "Live"

                    GridLayout {
                        id: liveGrid
                        objectName: "live-metrics-grid"
                        // Fewer columns when the window is narrow; values wrap inside theirs.
                        readonly property real minimumColumnWidth: 96
                        Layout.fillWidth: true
                        columns: Math.max(2, Math.min(6, Math.floor((width + columnSpacing)
                                                   / (minimumColumnWidth + columnSpacing))))
                        columnSpacing: layout.liveMetricsCardSpacing
                        rowSpacing: 4
                        Repeater {
                            model: [["Mode", "mode"], ["Status", "status"], ["Authority", "authority"],
                                    ["CPU Temp", "cpuTemperature"], ["GPU Temp", "gpuTemperature"],
                                    ["Power", "power"], ["CPU Clock", "cpuClock"],
                                    ["GPU Clock", "gpuClock"], ["Throttle", "throttle"],
                                    ["Fans", "fans"]]
                            delegate: Column {
                                required property var modelData
                                objectName: "metric-" + dashboard.slug(modelData[0])
                                Accessible.name: modelData[0]
                                Accessible.description: valueText.text
                                Layout.fillWidth: true
                                Layout.columnSpan: modelData[1] === "fans" ? 2 : 1
                                Layout.preferredWidth: liveGrid.minimumColumnWidth * Layout.columnSpan
                                Text {
                                    width: parent.width
                                    elide: Text.ElideRight
                                    text: modelData[0]
                                    color: palette.mid
                                    font.pixelSize: 11
                                }
                                Text {
                                    id: valueText
                                    width: parent.width
                                    wrapMode: Text.WrapAtWordBoundaryOrAnywhere
                                    text: dashboard.card[modelData[1]] || "—"
                                    color: modelData[1] === "throttle" && live.throttleWarning
                                           ? root.gpuTempColor : palette.windowText
                                    font.pixelSize: 14
                                }
                            }
                        }
                    }
                    Text {
                        objectName: "metric-benefit"
                        Layout.fillWidth: true
                        wrapMode: Text.WrapAtWordBoundaryOrAnywhere
                        text: dashboard.card.benefit || ""
                        color: palette.windowText
                        font.pixelSize: 12
                    }
                    Column {
                        objectName: "metric-recent-events"
                        Accessible.name: "Recent Events"
                        Layout.fillWidth: true
                        // Room for the five latest events from the start: the window's first
                        // height counts them, and nothing below moves as they arrive.
                        Layout.minimumHeight: 5 * eventLineMetrics.lineSpacing
                        FontMetrics { id: eventLineMetrics; font.pixelSize: 12 }
                        Repeater {
                            model: dashboard.card.events || []
                            Text {
                                required property var modelData
                                width: parent.width
                                elide: Text.ElideRight
                                text: modelData
                                color: palette.windowText
                                font.pixelSize: 12
                            }
                        }
                    }
                    RowLayout {
                        spacing: 8
                        Text {
                            objectName: "build-version"
                            Accessible.name: "Build Version"
                            Accessible.description: live.buildVersionDetail
                            text: live.buildVersionLabel
                            color: palette.mid
                            font.pixelSize: 11
                            HoverHandler { id: buildHover }
                            ToolTip.visible: buildHover.hovered && live.buildVersionDetail.length > 0
                            ToolTip.text: live.buildVersionDetail
                        }
                        // The update settings (also in the tray menu) sit with the version they
                        // concern; the top bar's width is fixed by its two controls. Absent where
                        // no updater runs.
                        ToolButton {
                            objectName: "build-update-settings"
                            Accessible.name: "Update Settings"
                            visible: typeof appCommands !== "undefined" && appCommands !== null
                            text: "Update Settings…"
                            font.pixelSize: 11
                            onClicked: appCommands.openSettings()
                        }
                    }
                }
            }

            // ----- The selected surface's own detail -----
            Card {
                id: advancedSurface
                objectName: "surface-advanced"
                Accessible.name: "Advanced Surface"
                visible: dashboard.selectedSurface === "advanced"
                Layout.fillWidth: true
                title: "Advanced"
                DetailList { title: "Fans"; lines: dashboard.advanced.fans || []; objectName: "advanced-fans" }
                Button {
                    objectName: "advanced-open-fans"
                    Accessible.name: "Fans"
                    text: "Fans…"
                    visible: fanSettings !== null
                    onClicked: fanSettings.paneOpen = true
                }
                DetailList { title: "Sensors"; lines: dashboard.advanced.sensors || []; objectName: "advanced-sensors" }
                DetailList { title: "Throttle assessment"; lines: dashboard.advanced.throttle || []; objectName: "advanced-throttle" }
                DetailList { title: "Last decision"; lines: [dashboard.advanced.decision || "—"]; objectName: "advanced-decision" }
                DetailList { title: "Control loop events"; lines: dashboard.advanced.events || []; objectName: "advanced-events" }
            }
            FansPane {
                id: fansPane
                Layout.fillWidth: true
            }
            Card {
                id: captureSurface
                objectName: "surface-capture"
                Accessible.name: "Capture Surface"
                visible: dashboard.selectedSurface === "capture" && capture !== null
                Layout.fillWidth: true
                title: "Capture run"
                DetailList {
                    title: "Workflow"
                    lines: capture ? [capture.currentWorkflowLabel,
                                      "Scenario: " + capture.profilingScenario,
                                      "Plan: " + (capture.profilingPlanIsRunning ? capture.profilingPlanProgress : "idle")]
                                   : []
                }
            }

            // ----- Capture card -----
            Card {
                id: captureCard
                objectName: "card-capture-primary"
                Accessible.name: "Beta Capture Primary Card"
                Layout.fillWidth: true
                title: "Beta Capture"
                visible: capture !== null
                accent: capture && capture.captureActivityTint === "orange" ? root.orange : palette.mid
                border.width: capture && capture.captureActivityTint === "orange" ? 2 : 1

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
                        color: captureCard.accent
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
                    color: palette.mid
                    font.pixelSize: 12
                    HoverHandler { id: predictorHover }
                    ToolTip.visible: predictorHover.hovered && capture && capture.adaptivePredictorDetail.length > 0
                    ToolTip.text: capture ? capture.adaptivePredictorDetail : ""
                }
            }
        }
    }
}
