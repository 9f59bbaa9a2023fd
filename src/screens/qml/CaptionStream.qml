import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

// Cards of caption blocks, newest at the bottom. Follows the newest card unless the user
// scrolled up; then offers the way back.
Item {
    id: stream
    property alias model: list.model
    property string emptyText: ""
    property bool showRetry: false
    property bool followLatest: true
    readonly property alias list: list

    function jumpToLatest() {
        followLatest = true
        list.positionViewAtEnd()
    }

    Shortcut { sequence: "End"; enabled: stream.visible; onActivated: stream.jumpToLatest() }

    Label {
        anchors.centerIn: parent
        visible: list.count === 0
        text: stream.emptyText
        color: theme.mutedText
        font.pixelSize: theme.fontTitle
    }

    ListView {
        id: list
        objectName: "captionList"
        anchors.fill: parent
        anchors.leftMargin: theme.unit * 6
        anchors.rightMargin: theme.unit * 6
        topMargin: theme.unit * 4
        bottomMargin: theme.unit * 6
        spacing: theme.unit * 3
        clip: true
        boundsBehavior: Flickable.StopAtBounds
        cacheBuffer: 800
        reuseItems: true
        ScrollBar.vertical: ScrollBar { }

        delegate: CaptionCard {
            width: ListView.view.width
        }

        onCountChanged: if (stream.followLatest) Qt.callLater(list.positionViewAtEnd)
        onContentHeightChanged: if (stream.followLatest) Qt.callLater(list.positionViewAtEnd)
        onMovementEnded: stream.followLatest = list.atYEnd
        onFlickStarted: stream.followLatest = false
        onVisibleChanged: if (visible && stream.followLatest) Qt.callLater(list.positionViewAtEnd)
        Connections {
            target: list.ScrollBar.vertical
            function onPressedChanged() { if (!list.ScrollBar.vertical.pressed) stream.followLatest = list.atYEnd }
        }
        WheelHandler {
            onWheel: (event) => { if (event.angleDelta.y > 0) stream.followLatest = false; else Qt.callLater(function() { stream.followLatest = list.atYEnd }) }
        }
    }

    AccentButton {
        objectName: "jumpToLatest"
        visible: !stream.followLatest && list.count > 0 && !list.atYEnd
        anchors.horizontalCenter: parent.horizontalCenter
        anchors.bottom: parent.bottom
        anchors.bottomMargin: theme.unit * 4
        primary: true
        text: "↓ 回到最新"
        onClicked: stream.jumpToLatest()
    }

    AccentButton {
        objectName: "retryButton"
        visible: stream.showRetry
        anchors.right: parent.right
        anchors.bottom: parent.bottom
        anchors.margins: theme.unit * 4
        tone: theme.error
        text: "重试失败的翻译"
        onClicked: live.retry()
    }
}
