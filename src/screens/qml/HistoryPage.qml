import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Templates as T
import QtQuick.Dialogs
import QtQuick.Layouts

Item {
    id: page
    property bool active: false
    onActiveChanged: if (active) history.refresh()
    function focusSearch() { search.forceActiveFocus(); search.selectAll() }

    RowLayout {
        anchors.fill: parent
        spacing: 0

        // The list of recordings.
        Rectangle {
            Layout.preferredWidth: 360
            Layout.fillHeight: true
            color: theme.surface
            Rectangle { anchors.right: parent.right; width: 1; height: parent.height; color: theme.border }

            ColumnLayout {
                anchors.fill: parent
                anchors.margins: theme.unit * 3
                spacing: theme.unit * 2

                TextField {
                    id: search
                    objectName: "historySearch"
                    Layout.fillWidth: true
                    placeholderText: "搜索标题和内容（Ctrl+F）"
                    color: theme.text
                    selectByMouse: true
                    onTextChanged: history.search = text
                }
                Label {
                    visible: history.count === 0
                    text: history.search.length ? "没有找到。" : "还没有记录。结束一次同传后，它会出现在这里。"
                    color: theme.mutedText
                    wrapMode: Text.Wrap
                    Layout.fillWidth: true
                }
                ListView {
                    id: recordings
                    objectName: "historyList"
                    Layout.fillWidth: true
                    Layout.fillHeight: true
                    clip: true
                    model: history
                    spacing: theme.unit
                    ScrollBar.vertical: ScrollBar { }
                    delegate: ItemDelegate {
                        id: row
                        required property string recordingId
                        required property string title
                        required property string date
                        required property string mode
                        required property string duration
                        required property string status
                        required property var sentences
                        required property bool isActive
                        width: ListView.view.width
                        highlighted: history.selectedId === recordingId
                        onClicked: history.select(recordingId)
                        background: Rectangle {
                            radius: theme.radius
                            color: row.highlighted ? Qt.rgba(theme.accent.r, theme.accent.g, theme.accent.b, 0.12)
                                                   : (row.hovered ? Qt.rgba(theme.accent.r, theme.accent.g, theme.accent.b, 0.05) : "transparent")
                            border.width: row.visualFocus ? 2 : 0
                            border.color: theme.accent
                        }
                        contentItem: ColumnLayout {
                            spacing: 2
                            Label {
                                Layout.fillWidth: true
                                text: row.title
                                color: theme.text
                                font.weight: Font.Medium
                                elide: Text.ElideRight
                            }
                            Label {
                                Layout.fillWidth: true
                                text: row.date + " · " + row.mode + " · " + row.duration + " · " + row.status + " · " + row.sentences + " 句"
                                color: theme.mutedText
                                font.pixelSize: theme.fontSmall
                                elide: Text.ElideRight
                            }
                        }
                    }
                }
            }
        }

        // The selected recording.
        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 0

            Label {
                visible: history.selectedId.length === 0
                Layout.fillWidth: true
                Layout.fillHeight: true
                horizontalAlignment: Text.AlignHCenter
                verticalAlignment: Text.AlignVCenter
                text: "选择左侧的一条记录查看字幕。"
                color: theme.mutedText
            }

            ColumnLayout {
                visible: history.selectedId.length > 0
                Layout.fillWidth: true
                Layout.margins: theme.unit * 5
                spacing: theme.unit * 2
                Label {
                    objectName: "historyTitle"
                    Layout.fillWidth: true
                    text: history.selectedTitle
                    font.pixelSize: theme.fontTitle + 2
                    font.weight: Font.DemiBold
                    color: theme.text
                    elide: Text.ElideRight
                }
                Label { text: history.selectedSummary; color: theme.mutedText; font.pixelSize: theme.fontSmall }
                RowLayout {
                    spacing: theme.unit * 2
                    AccentButton { text: "重命名"; implicitHeight: 32; onClicked: { renameField.text = history.selectedTitle; renameDialog.open() } }
                    AccentButton { text: "导出 Markdown"; implicitHeight: 32; onClicked: { exportDialog.selectedFile = "file:///" + history.suggestedExportName(history.selectedId); exportDialog.open() } }
                    AccentButton { text: "复制全文"; implicitHeight: 32; onClicked: history.copyAllText(history.selectedId) }
                    AccentButton { visible: history.selectedHasAudio; text: "播放录音"; implicitHeight: 32; onClicked: history.play(history.selectedId) }
                    AccentButton { text: "删除"; tone: theme.error; implicitHeight: 32; onClicked: deleteDialog.open() }
                }
                Label {
                    visible: history.message.length > 0
                    text: history.message
                    color: theme.mutedText
                    font.pixelSize: theme.fontSmall
                    Layout.fillWidth: true
                    elide: Text.ElideMiddle
                }
            }

            CaptionStream {
                visible: history.selectedId.length > 0
                Layout.fillWidth: true
                Layout.fillHeight: true
                model: history.selectedCaptions
                followLatest: false
                emptyText: "这条记录没有字幕。"
            }
        }
    }

    ConfirmDialog {
        id: deleteDialog
        objectName: "deleteDialog"
        title: "删除“" + history.selectedTitle + "”？"
        message: "这条记录的录音、字幕和翻译都会从本机删除，无法恢复。"
        acceptText: "删除"
        onAccepted: history.remove(history.selectedId)
    }

    Dialog {
        id: renameDialog
        title: "重命名"
        modal: true
        anchors.centerIn: T.Overlay.overlay
        width: 420
        background: Rectangle { color: theme.surface; radius: theme.radius; border.color: theme.border }
        contentItem: TextField { id: renameField; color: theme.text; selectByMouse: true; onAccepted: renameDialog.accept() }
        standardButtons: Dialog.Ok | Dialog.Cancel
        onAccepted: history.rename(history.selectedId, renameField.text)
    }

    FileDialog {
        id: exportDialog
        title: "导出 Markdown"
        fileMode: FileDialog.SaveFile
        nameFilters: ["Markdown (*.md)"]
        onAccepted: history.exportMarkdown(history.selectedId, selectedFile)
    }
}
