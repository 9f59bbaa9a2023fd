import QtQuick
import QtQuick.Controls.Basic

Label {
    property color tone: theme.mutedText
    color: tone
    font.pixelSize: theme.fontSmall - 1
    leftPadding: theme.unit * 1.5
    rightPadding: theme.unit * 1.5
    topPadding: 1
    bottomPadding: 1
    background: Rectangle { radius: theme.radius / 2; color: "transparent"; border.color: parent.tone }
}
