import QtQuick
import QtQuick.Controls.Basic

Button {
    id: control
    property bool primary: false
    property color tone: theme.accent
    implicitHeight: 36
    leftPadding: theme.unit * 4
    rightPadding: theme.unit * 4
    focusPolicy: Qt.StrongFocus
    contentItem: Text {
        text: control.text
        font.pixelSize: theme.fontBody
        font.weight: control.primary ? Font.DemiBold : Font.Normal
        color: !control.enabled ? theme.mutedText : (control.primary ? theme.onAccent : control.tone)
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
        elide: Text.ElideRight
    }
    background: Rectangle {
        radius: theme.radius
        color: control.primary ? (control.enabled ? (control.down ? Qt.darker(control.tone, 1.15) : control.tone)
                                                  : Qt.rgba(control.tone.r, control.tone.g, control.tone.b, 0.45))
                               : (control.down || control.hovered ? Qt.rgba(control.tone.r, control.tone.g, control.tone.b, 0.10) : "transparent")
        border.width: control.visualFocus ? 2 : (control.primary ? 0 : 1)
        border.color: control.visualFocus ? theme.text : Qt.rgba(control.tone.r, control.tone.g, control.tone.b, 0.5)
    }
}
