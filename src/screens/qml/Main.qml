import QtQuick
import QtQuick.Controls.Basic
import QtQuick.Layouts
import QtQuick.Window

ApplicationWindow {
    id: window
    objectName: "mainWindow"
    width: 1180
    height: 760
    minimumWidth: 720
    minimumHeight: 480
    visible: true
    title: "Ossevra 同传"
    color: theme.background
    font.family: theme.chineseFamily
    font.pixelSize: theme.fontBody

    // "live", "history", "settings", "debug"
    property string currentPage: "live"
    property alias compactWindow: compact

    palette.window: theme.background
    palette.windowText: theme.text
    palette.base: theme.surface
    palette.text: theme.text
    palette.button: theme.surface
    palette.buttonText: theme.text
    palette.highlight: theme.accent
    palette.highlightedText: theme.onAccent
    palette.mid: theme.border
    palette.light: theme.surface
    palette.dark: theme.border
    palette.placeholderText: theme.mutedText
    palette.toolTipBase: theme.surface
    palette.toolTipText: theme.text

    Component.onCompleted: {
        const frame = app.savedGeometry()
        if (frame.width > 0) {
            x = frame.x; y = frame.y; width = frame.width; height = frame.height
        }
    }
    onClosing: app.saveGeometry(Qt.rect(x, y, width, height))

    Connections {
        target: app
        function onRaiseRequested() { window.showNormal(); window.raise(); window.requestActivate() }
    }

    Shortcut { sequences: ["Ctrl+Return", "Ctrl+Enter"]; onActivated: live.sessionActive || live.onAir ? live.startOrStop() : app.start() }
    Shortcut { sequence: "Ctrl+P"; onActivated: live.pauseOrResume() }
    Shortcut { sequence: "Ctrl+Shift+C"; onActivated: compact.visible = !compact.visible }
    Shortcut { sequence: "Ctrl+F"; onActivated: { window.currentPage = "history"; historyPage.focusSearch() } }
    Shortcut { sequence: "Ctrl+1"; onActivated: window.currentPage = "live" }
    Shortcut { sequence: "Ctrl+2"; onActivated: window.currentPage = "history" }
    Shortcut { sequence: "Ctrl+3"; onActivated: window.currentPage = "settings" }
    Shortcut { sequence: "Ctrl+4"; onActivated: window.currentPage = "debug" }

    header: TopBar {
        id: topBar
        currentPage: window.currentPage
        onPageRequested: (page) => window.currentPage = page
        onCompactRequested: compact.visible = !compact.visible
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 0

        NoticeLine {
            Layout.fillWidth: true
        }

        StackLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            currentIndex: ["live", "history", "settings", "debug"].indexOf(window.currentPage)

            LivePage {
                id: livePage
                onEnterKeyRequested: window.currentPage = "settings"
            }
            HistoryPage {
                id: historyPage
                active: window.currentPage === "history"
            }
            SettingsPage {
                id: settingsPage
                active: window.currentPage === "settings"
            }
            DebugPage {
                id: debugPage
            }
        }
    }

    CompactWindow {
        id: compact
        objectName: "compactWindow"
        onReturnRequested: { window.showNormal(); window.raise(); window.requestActivate(); window.currentPage = "live" }
    }
}
