import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

RowLayout {
    property string label
    property real level: 0
    property bool awake: false
    spacing: theme.unit

    Rectangle {
        width: 8; height: 8; radius: 4
        color: awake ? theme.accent : "transparent"
        border.color: awake ? theme.accent : theme.mutedText
    }
    Label { text: label; color: theme.mutedText; font.pixelSize: theme.fontSmall }
    Rectangle {
        width: 48; height: 6; radius: 3
        color: theme.border
        Rectangle {
            width: parent.width * Math.min(1, Math.max(0, level))
            height: parent.height; radius: 3
            color: theme.accent
        }
    }
}
