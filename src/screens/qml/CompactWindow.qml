import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Window

// The last caption blocks in large type, over another application. X11 lets a window keep
// itself on top; Wayland does not, so there the window says how to pin it.
Window {
    id: compact
    signal returnRequested()
    readonly property bool onX11: Qt.platform.pluginName === "xcb"
    property real textScale: 1.4
    property bool hintDismissed: false

    width: 760
    height: 220
    minimumWidth: 320
    minimumHeight: 120
    title: "Ossevra 字幕"
    color: "transparent"
    flags: Qt.Window | Qt.FramelessWindowHint | (onX11 ? Qt.WindowStaysOnTopHint : 0)

    Rectangle {
        anchors.fill: parent
        radius: 12
        color: Qt.rgba(0.06, 0.07, 0.09, 0.86)

        DragHandler { target: null; onActiveChanged: if (active) compact.startSystemMove() }
        TapHandler { onDoubleTapped: compact.returnRequested() }

        ListView {
            id: lines
            objectName: "compactList"
            anchors.fill: parent
            anchors.margins: 16
            anchors.bottomMargin: hint.visible ? hint.height + 20 : 16
            clip: true
            interactive: false
            spacing: 10
            model: captions
            onCountChanged: Qt.callLater(positionViewAtEnd)
            onContentHeightChanged: Qt.callLater(positionViewAtEnd)
            onHeightChanged: Qt.callLater(positionViewAtEnd)
            delegate: Column {
                required property int index
                required property string source
                required property string translation
                required property string sourceFamily
                required property string translationFamily
                required property bool sourceIsPrimary
                required property bool isDraft
                // The last two blocks only.
                visible: index >= lines.count - 2
                height: visible ? implicitHeight : 0
                width: ListView.view.width
                spacing: 2
                Text {
                    width: parent.width
                    visible: source.length > 0
                    text: source
                    font.family: sourceFamily
                    font.pixelSize: (sourceIsPrimary ? 22 : 15) * compact.textScale
                    font.weight: sourceIsPrimary ? Font.Medium : Font.Normal
                    color: sourceIsPrimary ? "#FFFFFF" : "#B8BECC"
                    wrapMode: Text.Wrap
                }
                Text {
                    width: parent.width
                    visible: translation.length > 0
                    text: translation
                    font.family: translationFamily
                    font.pixelSize: (!sourceIsPrimary ? 22 : 15) * compact.textScale
                    font.weight: !sourceIsPrimary ? Font.Medium : Font.Normal
                    color: isDraft ? "#9AA0AE" : (!sourceIsPrimary ? "#FFFFFF" : "#B8BECC")
                    wrapMode: Text.Wrap
                }
            }
        }

        Text {
            anchors.centerIn: parent
            visible: lines.count === 0
            text: "字幕会显示在这里"
            color: "#9AA0AE"
            font.pixelSize: 18 * compact.textScale
            font.family: theme.chineseFamily
        }

        Text {
            id: hint
            objectName: "pinHint"
            visible: !compact.onX11 && !compact.hintDismissed
            anchors.left: parent.left
            anchors.bottom: parent.bottom
            anchors.margins: 12
            anchors.right: parent.right
            anchors.rightMargin: 28
            text: "要让小窗总在最前：按 Alt+Space 打开窗口菜单，选“置顶”（GNOME、KDE 都有）。"
            color: "#C8CDD8"
            font.pixelSize: 12
            font.family: theme.chineseFamily
            wrapMode: Text.Wrap
            TapHandler { onTapped: compact.hintDismissed = true }
        }

        Row {
            id: tools
            anchors.right: parent.right
            anchors.top: parent.top
            anchors.margins: 8
            spacing: 4
            opacity: hover.hovered ? 1 : 0.35
            HoverHandler { id: hover }
            Repeater {
                model: [
                    { label: "A−", act: function() { compact.textScale = Math.max(0.8, compact.textScale - 0.1) } },
                    { label: "A+", act: function() { compact.textScale = Math.min(3.0, compact.textScale + 0.1) } },
                    { label: "✕", act: function() { compact.visible = false } }
                ]
                delegate: Rectangle {
                    required property var modelData
                    width: 30; height: 26; radius: 6
                    color: Qt.rgba(1, 1, 1, 0.12)
                    Text { anchors.centerIn: parent; text: modelData.label; color: "#FFFFFF"; font.pixelSize: 13 }
                    TapHandler { onTapped: modelData.act() }
                }
            }
        }

        // Resize from the lower right corner.
        MouseArea {
            width: 16; height: 16
            anchors.right: parent.right
            anchors.bottom: parent.bottom
            cursorShape: Qt.SizeFDiagCursor
            onPressed: compact.startSystemResize(Qt.RightEdge | Qt.BottomEdge)
        }
    }
}
