import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: row
    property string key
    Switch {
        id: control
        objectName: "switch_" + row.key
        checked: (settingsModel.revision, settingsModel.value(row.key) === true)
        onToggled: settingsModel.setValue(row.key, checked)
        indicator: Rectangle {
            implicitWidth: 40
            implicitHeight: 22
            x: control.leftPadding
            y: parent.height / 2 - height / 2
            radius: height / 2
            color: control.checked ? theme.accent : theme.border
            border.width: control.visualFocus ? 2 : 0
            border.color: theme.text
            Rectangle {
                x: control.checked ? parent.width - width - 3 : 3
                y: 3
                width: 16
                height: 16
                radius: 8
                color: control.checked ? theme.onAccent : theme.surface
            }
        }
    }
    Item { Layout.fillWidth: true }
}
