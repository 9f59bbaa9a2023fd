import QtQuick
import QtQuick.Controls.Basic

AbstractButton {
    id: control
    checkable: false
    implicitHeight: 36
    implicitWidth: label.implicitWidth + theme.unit * 6
    focusPolicy: Qt.StrongFocus
    contentItem: Text {
        id: label
        text: control.text
        font.pixelSize: theme.fontBody + 1
        font.weight: control.checked ? Font.DemiBold : Font.Normal
        color: control.checked ? theme.accent : theme.mutedText
        horizontalAlignment: Text.AlignHCenter
        verticalAlignment: Text.AlignVCenter
    }
    background: Rectangle {
        radius: theme.radius
        color: control.hovered ? Qt.rgba(theme.accent.r, theme.accent.g, theme.accent.b, 0.08) : "transparent"
        border.width: control.visualFocus ? 2 : 0
        border.color: theme.accent
        Rectangle {
            visible: control.checked
            anchors.bottom: parent.bottom
            anchors.horizontalCenter: parent.horizontalCenter
            width: parent.width - theme.unit * 4
            height: 2
            color: theme.accent
        }
    }
}
