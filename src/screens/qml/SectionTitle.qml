import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Label {
    Layout.fillWidth: true
    Layout.topMargin: theme.unit * 4
    font.pixelSize: theme.fontTitle
    font.weight: Font.DemiBold
    color: theme.text
}
