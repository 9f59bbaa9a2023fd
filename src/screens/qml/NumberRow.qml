import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: row
    property string key
    readonly property var current: (settingsModel.revision, settingsModel.value(key))
    TextField {
        id: field
        objectName: "number_" + row.key
        Layout.preferredWidth: 160
        text: row.current === undefined ? "" : String(row.current)
        selectByMouse: true
        color: theme.text
        onEditingFinished: {
            if (text === String(row.current)) return
            if (!settingsModel.setValue(row.key, text)) text = Qt.binding(() => row.current === undefined ? "" : String(row.current))
        }
    }
    Item { Layout.fillWidth: true }
}
