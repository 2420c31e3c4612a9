// The dashboard window's content: the utility top bar, the shared top deck (trend card and live
// metrics card), the selected surface's extra detail and the capture card. Each card is a file of
// its own; this one places them and holds what they share.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

Item {
    id: root
    objectName: "surface-root"
    Accessible.name: "Kelvo Root Surface"
    Accessible.role: Accessible.Pane
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
            + Math.max(trendCard.minimumRowWidth, captureCard.minimumRowWidth)))

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }

    // No background item: the window's clear paints it (DashboardView follows the palette), and
    // an item filling the window would paint every pixel a second time on each frame.

    // The series' colours; the live metrics card warns in GPU Temp's red and an active capture
    // takes the Watts orange.
    readonly property color gpuClockColor: Qt.rgba(48 / 255, 178 / 255, 96 / 255, 1)
    readonly property color gpuTempColor: Qt.rgba(232 / 255, 72 / 255, 77 / 255, 1)
    readonly property color cpuClockColor: Qt.rgba(36 / 255, 132 / 255, 240 / 255, 1)
    readonly property color cpuTempColor: Qt.rgba(152 / 255, 96 / 255, 214 / 255, 1)
    readonly property color fanColor: Qt.rgba(44 / 255, 186 / 255, 214 / 255, 1)
    readonly property color powerColor: Qt.rgba(244 / 255, 134 / 255, 40 / 255, 1)
    readonly property color orange: Qt.rgba(244 / 255, 134 / 255, 40 / 255, 1)

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
                    options: [{ value: "system", title: "System",
                                help: dashboard.publicModeHelp("system") },
                              { value: "enhanced", title: "Kelvo",
                                help: dashboard.publicModeHelp("enhanced") }]
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

                TrendCard {
                    id: trendCard
                    Layout.fillWidth: true
                    gpuClockColor: root.gpuClockColor
                    gpuTempColor: root.gpuTempColor
                    cpuClockColor: root.cpuClockColor
                    cpuTempColor: root.cpuTempColor
                    fanColor: root.fanColor
                    powerColor: root.powerColor
                }
                LiveMetricsCard {
                    Layout.fillWidth: true
                    warningColor: root.gpuTempColor
                }
            }

            // ----- The selected surface's own detail -----
            // Each surface's own detail is built when it is shown and dropped when it is hidden:
            // a hidden card cost the first frame its whole creation (the Fans pane's controls
            // above all) and rebuilt its lists on every refresh while nobody could see them.
            Loader {
                id: advancedSurface
                active: dashboard.selectedSurface === "advanced"
                visible: active
                Layout.fillWidth: true
                sourceComponent: AdvancedDetailCard {}
            }
            Loader {
                id: fansPane
                active: fanSettings !== null && fanSettings.paneOpen
                visible: active
                Layout.fillWidth: true
                sourceComponent: FansPane {}
            }
            Loader {
                id: captureSurface
                active: dashboard.selectedSurface === "capture" && capture !== null
                visible: active
                Layout.fillWidth: true
                sourceComponent: CaptureRunCard {}
            }

            // ----- Capture card -----
            BetaCaptureCard {
                id: captureCard
                Layout.fillWidth: true
                activeColor: root.orange
            }
        }
    }
}
