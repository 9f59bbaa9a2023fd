import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Item {
    ColumnLayout {
        anchors.fill: parent
        anchors.margins: theme.unit * 4
        spacing: theme.unit * 2

        RowLayout {
            spacing: theme.unit * 2
            ComboBox {
                objectName: "levelFilter"
                Layout.preferredWidth: 150
                model: debugLog.levelChoices()
                textRole: "label"
                valueRole: "value"
                onActivated: (index) => debugLog.levelFilter = model[index].value
            }
            ComboBox {
                objectName: "categoryFilter"
                Layout.preferredWidth: 150
                model: debugLog.categoryChoices()
                textRole: "label"
                valueRole: "value"
                onActivated: (index) => debugLog.categoryFilter = model[index].value
            }
            Label {
                text: debugLog.count + " / " + debugLog.totalCount + " 条"
                color: theme.mutedText
            }
            Item { Layout.fillWidth: true }
            AccentButton { text: "复制全部"; onClicked: debugLog.copyAll() }
        }

        ListView {
            id: list
            objectName: "debugList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: debugLog
            spacing: theme.unit
            ScrollBar.vertical: ScrollBar { }
            onCountChanged: if (atYEnd || count < 3) Qt.callLater(positionViewAtEnd)
            delegate: Rectangle {
                id: row
                required property int index
                required property string level
                required property string levelLabel
                required property string categoryLabel
                required property string title
                required property string details
                required property string code
                required property string time
                readonly property color tone: level === "error" ? theme.error : level === "warning" ? theme.warning
                                            : level === "success" ? theme.accent : theme.mutedText
                width: ListView.view.width
                implicitHeight: content.implicitHeight + theme.unit * 4
                radius: theme.radius
                color: theme.surface
                border.color: theme.border
                Rectangle { width: 3; height: parent.height - 8; y: 4; x: 0; color: row.tone; radius: 1 }
                RowLayout {
                    id: content
                    anchors.left: parent.left
                    anchors.right: parent.right
                    anchors.verticalCenter: parent.verticalCenter
                    anchors.leftMargin: theme.unit * 3
                    anchors.rightMargin: theme.unit * 2
                    spacing: theme.unit * 3
                    Label { text: row.time; font.family: theme.monoDigitsFamily; color: theme.mutedText; Layout.alignment: Qt.AlignTop }
                    Label { text: row.levelLabel; color: row.tone; font.weight: Font.DemiBold; Layout.preferredWidth: 36; Layout.alignment: Qt.AlignTop }
                    Label { text: row.categoryLabel; color: theme.mutedText; Layout.preferredWidth: 56; Layout.alignment: Qt.AlignTop }
                    ColumnLayout {
                        Layout.fillWidth: true
                        spacing: 2
                        Label { text: row.title + (row.code.length ? "  · " + row.code : ""); color: theme.text; Layout.fillWidth: true; wrapMode: Text.Wrap }
                        Label { visible: row.details.length > 0; text: row.details; color: theme.mutedText; font.pixelSize: theme.fontSmall; Layout.fillWidth: true; wrapMode: Text.Wrap; maximumLineCount: 4; elide: Text.ElideRight }
                    }
                    AccentButton { text: "复制"; flat: true; implicitHeight: 26; Layout.alignment: Qt.AlignTop; onClicked: debugLog.copyOne(row.index) }
                }
            }
        }
    }
}
