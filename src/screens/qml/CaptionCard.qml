import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// One caption block: the label, the source line, the translation line. The Chinese line
// is the one the user reads: larger and stronger whichever side it is on.
Rectangle {
    id: card
    required property int index
    required property string source
    required property string translation
    required property string sourceFamily
    required property string translationFamily
    required property bool sourceIsPrimary
    required property string channel
    required property string label
    required property bool isDraft
    required property bool isAwaiting
    required property string failure
    required property string correction
    required property var ruby
    required property bool rubyOnSource
    property real textScale: 1.0

    implicitHeight: body.implicitHeight + theme.unit * 8
    radius: theme.radius
    color: channel === "microphone" ? theme.microphoneTint : theme.systemTint
    border.color: theme.border

    ColumnLayout {
        id: body
        anchors.left: parent.left
        anchors.right: parent.right
        anchors.top: parent.top
        anchors.margins: theme.unit * 4
        spacing: theme.unit * 2

        RowLayout {
            visible: card.label.length > 0 || card.isDraft || card.correction.length > 0
            spacing: theme.unit * 2
            Label {
                visible: card.label.length > 0
                text: card.label
                color: theme.mutedText
                font.pixelSize: theme.fontSmall
                font.family: theme.chineseFamily
            }
            Tag { visible: card.isDraft; text: "草稿"; tone: theme.draft }
            Tag { visible: card.correction.length > 0; text: "更正"; tone: theme.warning }
        }

        CaptionLine {
            visible: card.source.length > 0
            Layout.fillWidth: true
            text: card.source
            family: card.sourceFamily
            primary: card.sourceIsPrimary
            runs: card.rubyOnSource ? card.ruby : []
            textScale: card.textScale
        }

        CaptionLine {
            visible: card.translation.length > 0
            Layout.fillWidth: true
            text: card.translation
            family: card.translationFamily
            primary: !card.sourceIsPrimary
            draft: card.isDraft
            runs: card.rubyOnSource ? [] : card.ruby
            textScale: card.textScale
        }

        Label {
            visible: card.isAwaiting && card.translation.length === 0
            text: "翻译中…"
            color: theme.draft
            font.pixelSize: theme.fontBody * card.textScale
        }

        RowLayout {
            visible: card.failure.length > 0
            Layout.fillWidth: true
            spacing: theme.unit * 2
            Label {
                Layout.fillWidth: true
                text: "⚠ " + card.failure
                color: theme.error
                wrapMode: Text.Wrap
            }
            AccentButton {
                text: "重试"
                tone: theme.error
                implicitHeight: 28
                onClicked: live.retry()
            }
        }

        Label {
            visible: card.correction.length > 0
            Layout.fillWidth: true
            text: "更正：" + card.correction
            color: theme.warning
            font.family: theme.familyFor(card.correction)
            wrapMode: Text.Wrap
        }
    }
}
