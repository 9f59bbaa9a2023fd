import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Rectangle {
    id: bar
    property string currentPage: "live"
    signal pageRequested(string page)
    signal compactRequested()

    implicitHeight: 56
    color: theme.surface

    Rectangle { anchors.bottom: parent.bottom; width: parent.width; height: 1; color: theme.border }

    RowLayout {
        anchors.fill: parent
        anchors.leftMargin: theme.unit * 4
        anchors.rightMargin: theme.unit * 4
        spacing: theme.unit * 2

        Repeater {
            model: [
                { page: "live", label: "同传", name: "navLive" },
                { page: "history", label: "历史", name: "navHistory" },
                { page: "settings", label: "设置", name: "navSettings" },
                { page: "debug", label: "调试", name: "navDebug" }
            ]
            delegate: NavButton {
                required property var modelData
                objectName: modelData.name
                text: modelData.label
                checked: bar.currentPage === modelData.page
                onClicked: bar.pageRequested(modelData.page)
            }
        }

        Label {
            visible: app.demoMode
            text: "示例"
            color: theme.accent
            font.pixelSize: theme.fontSmall
            leftPadding: theme.unit * 2
            rightPadding: theme.unit * 2
            topPadding: theme.unit
            bottomPadding: theme.unit
            background: Rectangle { radius: theme.radius; color: "transparent"; border.color: theme.accent }
        }

        Item { Layout.fillWidth: true }

        Repeater {
            model: live.meters
            delegate: Meter {
                required property var modelData
                label: modelData.label
                level: modelData.level
                awake: modelData.awake
            }
        }

        Label {
            objectName: "elapsed"
            visible: live.sessionActive
            text: live.elapsedText
            font.family: theme.monoDigitsFamily
            font.pixelSize: theme.fontTitle
            color: live.paused ? theme.mutedText : theme.text
            Layout.minimumWidth: 64
            horizontalAlignment: Text.AlignRight
        }

        AccentButton {
            objectName: "compactButton"
            text: "小窗"
            flat: true
            ToolTip.visible: hovered
            ToolTip.text: "字幕小窗（Ctrl+Shift+C）"
            onClicked: bar.compactRequested()
        }

        AccentButton {
            objectName: "pauseButton"
            visible: live.onAir || live.paused
            enabled: !live.finishing && !live.starting
            text: live.paused ? "继续" : "暂停"
            flat: true
            onClicked: live.paused ? live.resume() : live.pause()
        }

        AccentButton {
            objectName: "stopButton"
            visible: live.onAir || live.paused || live.finishing
            enabled: !live.finishing
            text: live.finishing ? "正在保存…" : "结束"
            flat: true
            onClicked: live.stop()
        }

        AccentButton {
            objectName: "startButton"
            visible: !live.sessionActive && !live.finishing
            enabled: !live.starting && !app.demoPreparing
            primary: true
            text: app.demoPreparing ? "准备示例…" : (app.demoMode ? "再看一遍示例" : "开始同传")
            onClicked: app.start()
        }

        AccentButton {
            objectName: "startingButton"
            visible: live.starting
            enabled: false
            primary: true
            text: "正在连接…"
            BusyIndicator {
                anchors.left: parent.left
                anchors.verticalCenter: parent.verticalCenter
                anchors.leftMargin: theme.unit
                width: 20; height: 20
                running: live.starting
            }
            leftPadding: 28
        }
    }
}
