import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Item {
    objectName: "firstRun"
    signal enterKey()

    ColumnLayout {
        anchors.centerIn: parent
        width: Math.min(parent.width - theme.unit * 16, 560)
        spacing: theme.unit * 5

        Label {
            text: "欢迎使用 Ossevra"
            font.pixelSize: 28
            font.weight: Font.DemiBold
            color: theme.text
        }
        Label {
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: theme.text
            font.pixelSize: theme.fontBody + 2
            lineHeight: 1.3
            text: "Ossevra 把日语对话实时译成中文字幕，语音识别和翻译由 OpenAI 的服务完成。要开始同传，请填入你自己的 OpenAI API 密钥，用量直接记在你的账户上。"
        }
        RowLayout {
            spacing: theme.unit * 3
            AccentButton {
                objectName: "enterKeyButton"
                primary: true
                text: "填写密钥"
                onClicked: enterKey()
            }
            AccentButton {
                objectName: "demoButton"
                text: app.demoPreparing ? "正在准备示例…" : "先看示例"
                enabled: !app.demoPreparing
                onClicked: app.startDemo()
            }
        }
        Label {
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: theme.mutedText
            font.pixelSize: theme.fontSmall
            text: "示例在本机播放一段中日对话，走完整的同传流程；服务由本机模拟，不需要密钥，也不会产生费用。"
        }
    }
}
