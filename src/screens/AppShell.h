#pragma once

// The window's root object: the stores and settings loaded as at launch, the live runtime
// over the real capture (or, for the demo, over the spoken sample conversation and the
// loopback fake), and the adapters the QML sees. Swaps the runtime between the two only
// while no session is active.
//
// Thread contract: main thread, with a QGuiApplication.

#include <QObject>
#include <QRect>
#include <QString>

#include <filesystem>
#include <memory>
#include <optional>

#include "settings/TranslatorSettings.h"

class QQmlContext;

namespace osv {

class DebugModel;
class DemoSession;
class FileUserDefaults;
class HistoryModel;
class LibsecretBackend;
class LiveModel;
class LiveRuntime;
class SettingsModel;
class ThemeModel;
struct DebugEvent;
struct LiveState;

class AppShell : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool hasKey READ hasKey NOTIFY keyChanged)
    Q_PROPERTY(bool demoMode READ demoMode NOTIFY demoChanged)
    Q_PROPERTY(bool demoPreparing READ demoPreparing NOTIFY demoChanged)
    Q_PROPERTY(QString demoMessage READ demoMessage NOTIFY demoChanged)
    Q_PROPERTY(QString supportDirectory READ supportDirectoryText NOTIFY demoChanged)

public:
    struct Options {
        std::filesystem::path supportDirectory;
        std::filesystem::path configDirectory;
        // Where the demo keeps its recordings; empty: a new temporary folder per demo.
        std::filesystem::path demoSupportDirectory;
        // The demo stops by itself once its conversation has been played.
        bool demoStopsItself = true;
    };

    explicit AppShell(Options options, QObject* parent = nullptr);
    ~AppShell() override;

    // Names the adapters in `context`: app, theme, live, captions, history, settingsModel, debugLog.
    void expose(QQmlContext& context);

    ThemeModel& theme() { return *theme_; }
    LiveModel& live() { return *live_; }
    HistoryModel& history() { return *history_; }
    SettingsModel& settings() { return *settingsModel_; }
    DebugModel& debug() { return *debug_; }
    LiveRuntime& runtime();
    const TranslatorSettings& currentSettings() const { return settingsValue_; }

    bool hasKey() const;
    bool demoMode() const { return demoRuntime_ != nullptr; }
    bool demoPreparing() const { return demoPreparing_; }
    QString demoMessage() const { return demoMessage_; }
    QString supportDirectoryText() const;

    // The start button: the demo plays again in demo mode; otherwise a live session.
    Q_INVOKABLE void start();
    Q_INVOKABLE void startDemo();
    Q_INVOKABLE void leaveDemo();
    Q_INVOKABLE void copyText(const QString& text) const;
    // The main window's frame as last saved; empty when none is stored.
    Q_INVOKABLE QRect savedGeometry() const;
    Q_INVOKABLE void saveGeometry(const QRect& frame);

signals:
    void keyChanged();
    void demoChanged();
    // A window in another process asked to be shown.
    void raiseRequested();

private:
    void attach(LiveRuntime& runtime);
    void prepareDemo();
    void settingsApplied();
    void observed(const LiveState& state);
    void debugEvent(const DebugEvent& event);
    std::unique_ptr<LiveRuntime> makeRuntime(const std::filesystem::path& support,
                                             std::optional<std::filesystem::path> systemFile,
                                             std::optional<std::filesystem::path> microphoneFile,
                                             std::string openAIBase, bool demo);

    Options options_;
    std::unique_ptr<FileUserDefaults> defaults_;
    std::unique_ptr<LibsecretBackend> backend_;
    std::unique_ptr<SecretStore> secrets_;
    std::unique_ptr<SettingsStore> store_;
    TranslatorSettings settingsValue_;
    TranslatorSettings demoSettings_;
    bool skinFollowsDesktop_ = true;

    ThemeModel* theme_;
    LiveModel* live_;
    HistoryModel* history_;
    SettingsModel* settingsModel_;
    DebugModel* debug_;

    std::unique_ptr<LiveRuntime> runtime_;
    std::unique_ptr<DemoSession> demo_;
    std::unique_ptr<LiveRuntime> demoRuntime_;
    bool demoPreparing_ = false;
    QString demoMessage_;
    int demoFilesEnded_ = 0;
    int demoGeneration_ = 0;
    std::optional<std::string> lastActiveRecording_;
};

}  // namespace osv
