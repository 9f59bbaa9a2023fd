import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: row
    property string key
    Switch {
        objectName: "switch_" + row.key
        checked: (settingsModel.revision, settingsModel.value(row.key) === true)
        onToggled: settingsModel.setValue(row.key, checked)
    }
    Item { Layout.fillWidth: true }
}
