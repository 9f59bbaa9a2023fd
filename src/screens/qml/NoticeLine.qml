import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// One line under the bar: the highest-priority notice; the others behind a count.
Rectangle {
    id: line
    objectName: "noticeLine"
    readonly property color tone: live.noticeKind === "error" ? theme.error
                                 : live.noticeKind === "warning" ? theme.warning : theme.mutedText
    property bool expanded: false
    implicitHeight: visible ? content.implicitHeight + theme.unit * 4 : 0
    visible: live.noticeText.length > 0 || app.demoMessage.length > 0
    color: live.noticeKind === "status" ? theme.background : Qt.rgba(tone.r, tone.g, tone.b, 0.10)

    ColumnLayout {
        id: content
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.verticalCenter: parent.verticalCenter
        anchors.leftMargin: theme.unit * 4
        anchors.rightMargin: theme.unit * 4
        spacing: theme.unit

        RowLayout {
            Layout.fillWidth: true
            spacing: theme.unit * 2
            Label {
                objectName: "noticeText"
                Layout.fillWidth: true
                text: live.noticeText.length > 0 ? (live.noticeKind === "error" ? "⚠ " : "") + live.noticeText : app.demoMessage
                color: line.tone
                wrapMode: Text.Wrap
            }
            Label {
                visible: live.noticeText.length > 0 && app.demoMessage.length > 0 && live.noticeKind === "status"
                text: app.demoMessage
                color: theme.mutedText
                font.pixelSize: theme.fontSmall
                elide: Text.ElideRight
                Layout.maximumWidth: 520
            }
            AccentButton {
                visible: live.otherNotices.length > 0
                text: line.expanded ? "收起" : "另有 " + live.otherNotices.length + " 条"
                flat: true
                tone: theme.mutedText
                implicitHeight: 28
                onClicked: line.expanded = !line.expanded
            }
            AccentButton {
                visible: app.demoMode && !live.sessionActive
                text: "退出示例"
                implicitHeight: 28
                onClicked: app.leaveDemo()
            }
            AccentButton {
                objectName: "dismissError"
                visible: live.noticeKind === "error"
                text: "关闭"
                tone: theme.error
                implicitHeight: 28
                onClicked: live.dismissError()
            }
        }
        Repeater {
            model: line.expanded ? live.otherNotices : []
            delegate: Label {
                required property string modelData
                text: modelData
                color: theme.mutedText
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
        }
    }
}
