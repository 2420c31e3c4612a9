// A row of mutually exclusive option buttons; each option's objectName is the prefix plus its
// value, so tests and assistive tools find every option by a stable identifier.
import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

RowLayout {
    id: control
    property var options: []   // [{ value, title, help (optional: the option's tooltip) }]
    property string selected
    property string optionPrefix
    signal chosen(string value)
    // Neighbouring segments share their one-pixel edge.
    spacing: -1

    SystemPalette { id: palette; colorGroup: SystemPalette.Active }
    function highlightAt(alpha) {
        return Qt.rgba(palette.highlight.r, palette.highlight.g, palette.highlight.b, alpha)
    }

    Repeater {
        model: control.options
        Button {
            required property var modelData
            objectName: control.optionPrefix + modelData.value
            text: modelData.title
            // Not checkable: a checkable button flips its own state on every press, which
            // breaks the binding below and leaves a re-pressed option unhighlighted. The
            // selection alone decides which option shows as checked.
            checkable: false
            checked: control.selected === modelData.value
            // The checked look alone is faint in dark palettes: the selection also takes the
            // highlight colour.
            highlighted: checked
            Layout.fillWidth: true
            Layout.preferredWidth: 1
            Accessible.name: modelData.title
            Accessible.description: modelData.help || ""
            ToolTip.visible: hovered && (modelData.help || "").length > 0
            ToolTip.text: modelData.help || ""
            ToolTip.delay: 500
            Accessible.role: Accessible.RadioButton
            Accessible.checkable: true
            Accessible.checked: checked
            onClicked: control.chosen(modelData.value)
            // Flat segments: only the chosen one (and one under the pointer or pressed) is
            // filled. The style's own panel fills every segment with a rounded gradient and an
            // inner frame, and the whole window is drawn again for every frame the chart moves:
            // on a software renderer those fills cost more than everything else in the top bar.
            background: Rectangle {
                implicitWidth: 80
                implicitHeight: 24
                color: parent.down ? control.highlightAt(0.35)
                     : parent.checked ? control.highlightAt(0.22)
                     : parent.hovered ? control.highlightAt(0.10)
                     : "transparent"
                border.width: parent.visualFocus ? 2 : 1
                border.color: parent.checked || parent.visualFocus ? palette.highlight
                                                                   : secondaryTextColor
            }
        }
    }
}
