import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: row
    property string vendor
    readonly property bool present: (settingsModel.revision, settingsModel.keyPresent(vendor))
    label: settingsModel.keyLabel(vendor)

    Label {
        objectName: "keyState_" + row.vendor
        text: row.present ? "已保存" : "未设置"
        color: row.present ? theme.accent : theme.mutedText
        Layout.preferredWidth: 56
    }
    TextField {
        id: field
        objectName: "keyField_" + row.vendor
        Layout.fillWidth: true
        echoMode: TextInput.Password
        placeholderText: row.present ? "粘贴新密钥以替换" : "粘贴密钥"
        color: theme.text
        onAccepted: save.clicked()
    }
    AccentButton {
        id: save
        objectName: "keySave_" + row.vendor
        text: row.present ? "替换" : "保存"
        implicitHeight: 32
        enabled: field.text.length > 0
        onClicked: if (settingsModel.setKey(row.vendor, field.text)) field.text = ""
    }
    AccentButton {
        objectName: "keyClear_" + row.vendor
        text: "清除"
        tone: theme.error
        implicitHeight: 32
        enabled: row.present
        onClicked: confirm.open()
    }
    ConfirmDialog {
        id: confirm
        title: "清除 " + settingsModel.keyLabel(row.vendor) + " 密钥？"
        message: "清除后需要重新粘贴密钥才能使用 " + settingsModel.keyLabel(row.vendor) + " 的服务。已保存的录音不受影响。"
        acceptText: "清除"
        onAccepted: settingsModel.clearKey(row.vendor)
    }
}
