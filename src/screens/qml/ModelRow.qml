import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

FieldRow {
    id: r
    property var row
    label: row.label
    TextField {
        Layout.preferredWidth: 240
        text: r.row.model
        selectByMouse: true
        color: theme.text
        onEditingFinished: if (text !== r.row.model) settingsModel.setModel(r.row.job, text)
    }
    Label {
        Layout.fillWidth: true
        wrapMode: Text.Wrap
        text: r.row.vendor + (r.row.price ? " · " + r.row.price : "") + (r.row.problem ? "\n⚠ " + r.row.problem : "")
        color: r.row.problem ? theme.warning : theme.mutedText
        font.pixelSize: theme.fontSmall
    }
}
