import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: row
    property string key
    objectName: "setting_" + key
    readonly property var current: (settingsModel.revision, settingsModel.value(key))
    ComboBox {
        id: box
        objectName: "choice_" + row.key
        Layout.preferredWidth: 280
        model: settingsModel.choices(row.key)
        textRole: "label"
        valueRole: "value"
        currentIndex: {
            const list = settingsModel.choices(row.key)
            for (let i = 0; i < list.length; ++i) if (list[i].value === row.current) return i
            return -1
        }
        onActivated: (index) => settingsModel.setValue(row.key, model[index].value)
    }
    Item { Layout.fillWidth: true }
}
