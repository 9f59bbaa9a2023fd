#include "screens/AppShell.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QQmlContext>
#include <QTimer>

#include <cstdlib>

#include "core/Uuid.h"
#include "live/LiveController.h"
#include "platform/secrets/LibsecretBackend.h"
#include "platform/storage/FileUserDefaults.h"
#include "recordings/RecordingLibrary.h"
#include "screens/DebugModel.h"
#include "screens/HistoryModel.h"
#include "screens/LiveModel.h"
#include "screens/SettingsModel.h"
#include "screens/ThemeModel.h"
#include "wiring/DemoSession.h"
#include "wiring/LiveRuntime.h"

namespace osv {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kGeometryKey = "main_window_frame";
// After both files of the demo ended, the last replies get this long before the stop.
constexpr int kDemoTailMilliseconds = 3000;

std::optional<std::string> environmentKey() {
    const char* v = std::getenv("OPENAI_API_KEY");
    if (!v || !*v) return std::nullopt;
    return std::string(v);
}

}  // namespace

AppShell::AppShell(Options options, QObject* parent)
    : QObject(parent),
      options_(std::move(options)),
      defaults_(std::make_unique<FileUserDefaults>(options_.configDirectory)),
      backend_(std::make_unique<LibsecretBackend>()),
      secrets_(std::make_unique<SecretStore>(backend_.get(), options_.supportDirectory)),
      store_(std::make_unique<SettingsStore>(*defaults_, *secrets_)),
      theme_(new ThemeModel(this)),
      live_(new LiveModel(this)),
      history_(new HistoryModel(this)),
      settingsModel_(nullptr),
      debug_(new DebugModel(this)) {
    // A stored skin other than the default is the user's choice; the default follows the
    // desktop, so that a dark desktop gets the dark skin until the user picks one.
    const auto storedSkin = defaults_->string("skin");
    settingsValue_ = store_->load(environmentKey());
    store_->loadStoredKey(settingsValue_);
    skinFollowsDesktop_ = !storedSkin || settingsValue_.skin == Skin::indigo;
    theme_->setDesktopDark(ThemeModel::desktopPrefersDark());

    settingsModel_ = new SettingsModel({*defaults_, *secrets_, *store_, environmentKey()}, settingsValue_, this);
    settingsModel_->onApplied = [this] { settingsApplied(); };
    connect(settingsModel_, &SettingsModel::keysChanged, this, &AppShell::keyChanged);
    connect(live_, &LiveModel::stateObserved, this, &AppShell::observed);
    settingsApplied();

    runtime_ = makeRuntime(options_.supportDirectory, std::nullopt, std::nullopt, {}, false);
    attach(*runtime_);
}

AppShell::~AppShell() {
    live_->attach(nullptr);
    history_->attach(nullptr);
    demoRuntime_.reset();
    demo_.reset();
    runtime_.reset();
}

std::unique_ptr<LiveRuntime> AppShell::makeRuntime(const fs::path& support, std::optional<fs::path> systemFile,
                                                   std::optional<fs::path> microphoneFile, std::string openAIBase,
                                                   bool demo) {
    LiveRuntime::Options o;
    o.supportDirectory = support;
    o.systemFile = std::move(systemFile);
    o.microphoneFile = std::move(microphoneFile);
    o.openAIBase = std::move(openAIBase);
    // The library's own troubles (an index set aside, a failed save) reach the debug panel.
    o.onLibraryError = [this](const std::string& text) {
        debug_->append(DebugEvent{Uuid::random(), Date::now(), DebugEvent::Level::error, DebugEvent::Category::app,
                                  text, "", std::nullopt});
    };
    o.onLibraryDebug = [this](const DebugEvent& e) { debug_->append(e); };
    if (demo) return std::make_unique<LiveRuntime>(o, [this] { return demoSettings_; });
    return std::make_unique<LiveRuntime>(o, [this] { return settingsValue_; });
}

void AppShell::attach(LiveRuntime& runtime) {
    LiveController& controller = runtime.controller();
    controller.onDebug = [this](const DebugEvent& e) { debugEvent(e); };
    debug_->reset(controller.debugEvents());
    live_->attach(&controller);
    history_->attach(&runtime.library());
    lastActiveRecording_.reset();
}

LiveRuntime& AppShell::runtime() { return demoRuntime_ ? *demoRuntime_ : *runtime_; }

void AppShell::expose(QQmlContext& context) {
    context.setContextProperty(QStringLiteral("app"), this);
    context.setContextProperty(QStringLiteral("theme"), theme_);
    context.setContextProperty(QStringLiteral("live"), live_);
    context.setContextProperty(QStringLiteral("captions"), live_->captions());
    context.setContextProperty(QStringLiteral("history"), history_);
    context.setContextProperty(QStringLiteral("settingsModel"), settingsModel_);
    context.setContextProperty(QStringLiteral("debugLog"), debug_);
}

bool AppShell::hasKey() const { return settingsModel_ && settingsModel_->hasOpenAIKey(); }

QString AppShell::supportDirectoryText() const {
    const LiveRuntime& r = demoRuntime_ ? *demoRuntime_ : *runtime_;
    return QString::fromStdString(const_cast<LiveRuntime&>(r).library().paths().root.string());
}

void AppShell::settingsApplied() {
    theme_->setSkin(skinFollowsDesktop_ && settingsValue_.skin == Skin::indigo ? std::nullopt
                                                                                : std::optional<Skin>(settingsValue_.skin));
    if (settingsValue_.skin != Skin::indigo) skinFollowsDesktop_ = false;
    theme_->setCaptionTextSize(settingsValue_.captionTextSize);
    live_->captions()->setShowFurigana(settingsValue_.showFurigana);
    history_->selectedCaptions()->setShowFurigana(settingsValue_.showFurigana);
    emit keyChanged();
}

void AppShell::observed(const LiveState& state) {
    // A session that ended (or began) changed the library: the history reads it again.
    std::optional<std::string> active = state.activeRecordingID ? std::optional(state.activeRecordingID->text())
                                                                 : std::nullopt;
    if (active != lastActiveRecording_) {
        lastActiveRecording_ = active;
        history_->refresh();
    }
}

void AppShell::debugEvent(const DebugEvent& event) {
    debug_->append(event);
    if (demoRuntime_ && options_.demoStopsItself && event.code == "capture_file_ended" && ++demoFilesEnded_ == 2) {
        const int generation = demoGeneration_;
        QTimer::singleShot(kDemoTailMilliseconds, this, [this, generation] {
            if (generation == demoGeneration_ && demoRuntime_) demoRuntime_->controller().stopLiveInterpretation();
        });
    }
}

void AppShell::start() {
    if (demoMode()) startDemo();
    else live_->start();
}

void AppShell::startDemo() {
    if (demoPreparing_ || live_->sessionActive()) return;
    demoPreparing_ = true;
    demoMessage_ = QStringLiteral("正在准备示例对话…");
    emit demoChanged();
    // The first demo speaks its conversation with espeak-ng, which takes a few seconds:
    // the window shows that it is preparing before the work begins.
    QTimer::singleShot(30, this, [this] { prepareDemo(); });
}

void AppShell::prepareDemo() {
    // Leave the previous demo first: its server and runtime go before new ones start.
    ++demoGeneration_;
    demoFilesEnded_ = 0;
    if (demoRuntime_) attach(*runtime_);
    demoRuntime_.reset();
    demo_.reset();

    auto started = DemoSession::start();
    if (!started) {
        demoPreparing_ = false;
        demoMessage_ = QString::fromStdString(started.error().message);
        emit demoChanged();
        return;
    }
    demo_ = std::move(*started);
    demoSettings_ = settingsValue_;
    demoSettings_.apiKey = "sk-demo";  // the fake takes any key; nothing leaves the machine
    demoSettings_.captureMode = AudioCaptureMode::mixed;
    demoSettings_.separateChannels = true;
    demoSettings_.liveEngine = LiveInterpretationEngine::realtimeTranslation;
    fs::path support = options_.demoSupportDirectory;
    if (support.empty()) support = fs::temp_directory_path() / ("ossevra-demo-" + Uuid::random().text().substr(0, 8));
    demoRuntime_ = makeRuntime(support, demo_->systemFile(), demo_->microphoneFile(), demo_->openAIBase(), true);
    attach(*demoRuntime_);
    demoPreparing_ = false;
    demoMessage_ = QStringLiteral("示例：一段中日对话通过完整的同传流程播放，服务是本机模拟的，不会产生费用。");
    emit demoChanged();
    demoRuntime_->controller().startLiveInterpretation();
}

void AppShell::leaveDemo() {
    if (!demoRuntime_ || live_->sessionActive()) return;
    ++demoGeneration_;
    attach(*runtime_);
    demoRuntime_.reset();
    demo_.reset();
    demoMessage_.clear();
    emit demoChanged();
}

void AppShell::copyText(const QString& text) const {
    if (auto* c = QGuiApplication::clipboard()) c->setText(text);
}

QRect AppShell::savedGeometry() const {
    const auto text = defaults_->string(kGeometryKey);
    if (!text) return {};
    const QStringList parts = QString::fromStdString(*text).split(QLatin1Char(','));
    if (parts.size() != 4) return {};
    QRect r(parts[0].toInt(), parts[1].toInt(), parts[2].toInt(), parts[3].toInt());
    return r.width() >= 480 && r.height() >= 360 ? r : QRect();
}

void AppShell::saveGeometry(const QRect& frame) {
    if (frame.width() < 480 || frame.height() < 360) return;
    defaults_->set(kGeometryKey, QStringLiteral("%1,%2,%3,%4")
                                     .arg(frame.x())
                                     .arg(frame.y())
                                     .arg(frame.width())
                                     .arg(frame.height())
                                     .toStdString());
    (void)defaults_->synchronize();
}

}  // namespace osv
