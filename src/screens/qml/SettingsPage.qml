import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Item {
    id: page
    property bool active: false
    onActiveChanged: if (active && settingsModel.microphones.length === 0) settingsModel.refreshDevices()

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        Label {
            objectName: "settingsMessage"
            Layout.fillWidth: true
            visible: settingsModel.message.length > 0
            text: settingsModel.message
            color: settingsModel.messageIsError ? theme.error : theme.mutedText
            padding: theme.unit * 3
            leftPadding: theme.unit * 6
            wrapMode: Text.Wrap
            background: Rectangle { color: settingsModel.messageIsError ? Qt.rgba(theme.error.r, theme.error.g, theme.error.b, 0.08) : theme.background }
        }

        ScrollView {
            id: scroll
            Layout.fillWidth: true
            Layout.fillHeight: true
            contentWidth: availableWidth
            clip: true

            ColumnLayout {
                width: Math.min(scroll.availableWidth - theme.unit * 12, 860)
                x: theme.unit * 6
                spacing: theme.unit * 2

                Item { height: theme.unit * 2 }
                SectionTitle { text: "API 密钥" }
                Label {
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: theme.mutedText
                    font.pixelSize: theme.fontSmall
                    text: "密钥保存在系统密钥环里（不可用时保存在仅本人可读的文件中），保存后不会再显示。"
                }
                Repeater {
                    model: ["openai", "gemini", "google", "jev"]
                    delegate: KeyRow {
                        required property string modelData
                        vendor: modelData
                        Layout.fillWidth: true
                    }
                }

                SectionTitle { text: "收音" }
                ChoiceRow { key: "capture_mode"; label: "收音来源" }
                SwitchRow { key: "separate_channels"; label: "电脑声音和麦克风分路识别（对方 / 我）" }
                FieldRow {
                    label: "音频设备"
                    Label {
                        Layout.fillWidth: true
                        wrapMode: Text.Wrap
                        color: theme.text
                        text: (settingsModel.outputs.length ? "输出：" + settingsModel.outputs.join("、") + "\n" : "")
                              + (settingsModel.microphones.length ? "输入：" + settingsModel.microphones.join("、") + "\n" : "")
                              + settingsModel.devicesStatus
                    }
                    AccentButton { text: "刷新"; implicitHeight: 28; onClicked: settingsModel.refreshDevices() }
                }

                SectionTitle { text: "语言" }
                ChoiceRow { key: "recognition_language"; label: "识别语言" }
                ChoiceRow { key: "target_language"; label: "译成" }
                ChoiceRow { key: "perspective"; label: "谁在看字幕" }

                SectionTitle { text: "引擎" }
                ChoiceRow { key: "live_engine"; label: "同传引擎" }
                NumberRow { key: "chunk_seconds"; label: "切片秒数（0.5–8）"; objectName: "chunkSecondsRow" }

                SectionTitle { text: "字幕与外观" }
                ChoiceRow { key: "caption_text_size"; label: "字幕字号" }
                ChoiceRow { key: "skin"; label: "配色（靛蓝跟随系统深浅色）" }
                SwitchRow { key: "show_furigana"; label: "日语汉字上方显示读音" }

                SectionTitle { text: "句子处理" }
                SwitchRow { key: "refine_sentences"; label: "整句完成后重新翻译" }
                SwitchRow { key: "repair_source"; label: "修正识别错误" }
                SwitchRow { key: "context_repair"; label: "结合上下文修正" }
                SwitchRow { key: "learn_glossary"; label: "学习专有名词" }
                SwitchRow { key: "running_summary"; label: "持续生成摘要" }

                SectionTitle { text: "模型" }
                Label {
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: theme.mutedText
                    font.pixelSize: theme.fontSmall
                    text: settingsModel.modelSummary
                }
                Repeater {
                    model: settingsModel.modelRows
                    delegate: ModelRow {
                        required property var modelData
                        row: modelData
                        Layout.fillWidth: true
                    }
                }

                SectionTitle { text: "计费（自定价格，0 表示用价目表）" }
                NumberRow { key: "rate_realtime_minute"; label: "实时每分钟（美元）" }
                NumberRow { key: "rate_input_million"; label: "输入每百万 token（美元）" }
                NumberRow { key: "rate_output_million"; label: "输出每百万 token（美元）" }

                SectionTitle { text: "服务地址" }
                Repeater {
                    model: settingsModel.endpoints
                    delegate: FieldRow {
                        required property var modelData
                        label: modelData.label
                        Label {
                            Layout.fillWidth: true
                            text: modelData.url + "    （环境变量 " + modelData.variable + " 可改）"
                            color: theme.text
                            elide: Text.ElideMiddle
                        }
                    }
                }
                Item { height: theme.unit * 8 }
            }
        }
    }
}
