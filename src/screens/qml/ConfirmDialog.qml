import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Templates as T
import QtQuick.Layouts

Dialog {
    id: dialog
    property string message
    property string acceptText: "确定"
    modal: true
    anchors.centerIn: T.Overlay.overlay
    width: 440
    padding: theme.unit * 5
    background: Rectangle { color: theme.surface; radius: theme.radius; border.color: theme.border }
    header: Label {
        text: dialog.title
        font.pixelSize: theme.fontTitle
        font.weight: Font.DemiBold
        color: theme.text
        padding: theme.unit * 5
        bottomPadding: 0
        wrapMode: Text.Wrap
    }
    contentItem: Label {
        text: dialog.message
        color: theme.text
        wrapMode: Text.Wrap
    }
    footer: RowLayout {
        spacing: theme.unit * 2
        Item { Layout.fillWidth: true }
        AccentButton { text: "取消"; onClicked: dialog.reject() }
        AccentButton {
            objectName: "confirmAccept"
            text: dialog.acceptText
            primary: true
            tone: theme.error
            onClicked: dialog.accept()
        }
        Item { width: theme.unit * 3 }
    }
}
