import QtQuick
import QtQuick.Controls.Basic

// A caption line in its language's font; with readings, each run stands under its ruby.
Item {
    id: line
    property string text
    property string family
    property bool primary: false
    property bool draft: false
    property var runs: []
    property real textScale: 1.0
    readonly property int pixelSize: (primary ? theme.captionPrimary : theme.captionSecondary) * textScale
    readonly property color tone: draft ? theme.draft : (primary ? theme.text : theme.mutedText)

    implicitHeight: runs.length > 0 ? flow.implicitHeight : plain.implicitHeight
    implicitWidth: plain.implicitWidth

    Text {
        id: plain
        objectName: "captionText"
        visible: line.runs.length === 0
        width: line.width
        text: line.text
        font.family: line.family
        font.pixelSize: line.pixelSize
        font.weight: line.primary ? Font.Medium : Font.Normal
        color: line.tone
        wrapMode: Text.Wrap
        lineHeight: 1.15
    }

    Flow {
        id: flow
        visible: line.runs.length > 0
        width: line.width
        spacing: 0
        Repeater {
            model: line.runs.length > 0 ? line.runs : []
            delegate: Column {
                required property var modelData
                Text {
                    anchors.horizontalCenter: parent.horizontalCenter
                    text: modelData.ruby
                    font.family: theme.japaneseFamily
                    font.pixelSize: Math.max(9, line.pixelSize * 0.45)
                    color: theme.mutedText
                    height: Math.max(9, line.pixelSize * 0.45) * 1.3
                }
                Text {
                    text: modelData.base
                    font.family: theme.japaneseFamily
                    font.pixelSize: line.pixelSize
                    font.weight: line.primary ? Font.Medium : Font.Normal
                    color: line.tone
                    wrapMode: Text.Wrap
                    width: Math.min(implicitWidth, line.width)
                }
            }
        }
    }
}
