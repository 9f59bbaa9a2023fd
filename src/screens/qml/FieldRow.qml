import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

RowLayout {
    property string label
    default property alias content: slot.data
    Layout.fillWidth: true
    spacing: theme.unit * 4
    Label {
        text: parent.label
        color: theme.text
        Layout.preferredWidth: 260
        wrapMode: Text.Wrap
    }
    RowLayout {
        id: slot
        Layout.fillWidth: true
        spacing: theme.unit * 2
    }
}
