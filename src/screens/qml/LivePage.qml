import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts

Item {
    id: page
    signal enterKeyRequested()

    readonly property bool showsFirstRun: !app.hasKey && !app.demoMode && !live.sessionActive && captions.count === 0

    FirstRunPage {
        anchors.fill: parent
        visible: page.showsFirstRun
        onEnterKey: page.enterKeyRequested()
    }

    CaptionStream {
        id: stream
        objectName: "captionStream"
        anchors.fill: parent
        visible: !page.showsFirstRun
        model: captions
        emptyText: live.sessionActive ? "正在听…说话后字幕会出现在这里。" : "按“开始同传”（Ctrl+Enter）开始。字幕会出现在这里。"
        showRetry: live.hasFailedTranslations
    }
}
