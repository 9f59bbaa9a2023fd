#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <ostream>

#include "cli/Cli.h"
#include "cli/CliJson.h"
#include "cli/CliStores.h"
#include "core/JsonWriter.h"
#include "core/Paths.h"
#include "core/Uuid.h"
#include "live/LiveController.h"
#include "recordings/RecordingEntryJson.h"
#include "recordings/RecordingLibrary.h"
#include "services/ServiceEndpoints.h"
#include "wiring/DemoSession.h"
#include "wiring/LiveRuntime.h"

namespace osv::cli {
namespace {

namespace fs = std::filesystem;
using json::Json;

constexpr const char* kLiveUsage =
    "usage: ossevra-cli live [--system FILE] [--microphone FILE] [--separate] [--seconds N] [--tail S] [--json]\n"
    "       ossevra-cli live --demo [--json]\n";

struct LiveOptions {
    std::optional<fs::path> systemFile;
    std::optional<fs::path> microphoneFile;
    bool separate = false;
    std::optional<double> seconds;
    double tail = 3.0;
    bool json = false;
    bool demo = false;
};

std::optional<double> positiveNumber(const std::string& text) {
    try {
        std::size_t used = 0;
        const double v = std::stod(text, &used);
        if (used == text.size() && v > 0 && v < 1e7) return v;
    } catch (...) {
    }
    return std::nullopt;
}

// Signals reach the event loop through a socket pair: a handler may only write.
int signalPipe[2] = {-1, -1};
void onSignal(int) {
    const char byte = 1;
    [[maybe_unused]] auto n = ::write(signalPipe[0], &byte, 1);
}

Json debugJson(const DebugEvent& e) {
    Json record = Json::object();
    record["level"] = DebugEvent::rawValue(e.level);
    record["category"] = DebugEvent::rawValue(e.category);
    record["title"] = e.title;
    record["details"] = e.details;
    record["code"] = e.code ? Json(*e.code) : Json(nullptr);
    Json line = Json::object();
    line["debug"] = std::move(record);
    return line;
}

Json stateJson(const LiveState& s) {
    Json j = Json::object();
    j["statusText"] = s.statusText;
    j["lastError"] = s.lastError;
    j["liveNotice"] = s.liveNotice;
    j["degradedCapture"] = s.degradedCapture;
    j["isStartingSession"] = s.isStartingSession;
    j["isLiveInterpreting"] = s.isLiveInterpreting;
    j["isLivePaused"] = s.isLivePaused;
    j["isFinishingLiveSession"] = s.isFinishingLiveSession;
    Json channels = Json::array();
    for (CaptureChannel c : s.activeChannels) channels.push_back(rawValue(c));
    j["activeChannels"] = std::move(channels);
    j["activeRecordingID"] = s.activeRecordingID ? Json(s.activeRecordingID->text()) : Json(nullptr);
    j["engine"] = s.engine == LiveInterpretationEngine::realtimeTranslation ? "realtimeTranslation" : "chunkedFallback";
    Json line = Json::object();
    line["state"] = std::move(j);
    return line;
}

// Prints what a person or a script watches while the session runs, and decides when it ends.
class LiveSession {
public:
    LiveSession(LiveRuntime& runtime, const LiveOptions& options, int filesFed, std::ostream& out, std::ostream& err)
        : runtime_(runtime), controller_(runtime.controller()), options_(options), filesFed_(filesFed), out_(out),
          err_(err) {
        controller_.onDebug = [this](const DebugEvent& e) { debug(e); };
        subscription_ = controller_.subscribe([this](const LiveState& s) { changed(s); });
        captionTimer_.setSingleShot(true);
        QObject::connect(&captionTimer_, &QTimer::timeout, [this] { printCaptions(false); });
    }
    ~LiveSession() { controller_.unsubscribe(subscription_); }

    // Starts as the start button does; false when no session could begin.
    bool start() {
        controller_.startLiveInterpretation();
        if (!controller_.state().activeRecordingID) {
            err_ << "ossevra-cli: " << controller_.state().lastError << "\n";
            return false;
        }
        recordingID_ = *controller_.state().activeRecordingID;
        if (options_.seconds)
            QTimer::singleShot(int(*options_.seconds * 1000), [this] { requestStop("时间到"); });
        return true;
    }

    void command(const std::string& line) {
        if (line == "pause") controller_.pauseLiveInterpretation();
        else if (line == "resume") controller_.resumeLiveInterpretation();
        else if (line == "stop") requestStop("收到 stop");
        else if (!line.empty()) err_ << "ossevra-cli: 不认识的命令 \"" << line << "\"（可用：pause、resume、stop）\n";
    }

    void requestStop(const std::string& why) {
        if (stopRequested_) return;
        stopRequested_ = true;
        if (!options_.json) err_ << "ossevra-cli: " << why << "，正在结束并保存…\n";
        controller_.stopLiveInterpretation();
    }

    int status() const { return status_; }

private:
    void debug(const DebugEvent& e) {
        if (finished_) return;  // the saved entry is the last line
        if (options_.json) out_ << json::dumpLine(debugJson(e)) << "\n" << std::flush;
        if (e.code == "capture_file_ended" && ++filesEnded_ >= filesFed_ && filesFed_ > 0)
            QTimer::singleShot(int(options_.tail * 1000), [this] { requestStop("音频文件已播完"); });
    }

    void changed(const LiveState& s) {
        if (finished_) return;
        if (options_.json) {
            const std::string line = json::dumpLine(stateJson(s));
            if (line != lastStateLine_) {
                lastStateLine_ = line;
                out_ << line << "\n" << std::flush;
            }
        } else if (s.statusText != lastStatus_) {
            lastStatus_ = s.statusText;
            if (!s.statusText.empty()) err_ << "【" << s.statusText << "】\n";
        }
        if (!options_.json && !s.lastError.empty() && s.lastError != lastError_) {
            lastError_ = s.lastError;
            err_ << "ossevra-cli: " << s.lastError << "\n";
        }
        captionsChanged(s);
        // Saved: the session is no longer active and its entry is in the index.
        if (started_ && !s.activeRecordingID && !s.isStartingSession && !s.isLiveInterpreting) finish(s);
        if (s.activeRecordingID) started_ = true;
    }

    void captionsChanged(const LiveState& s) {
        blocks_ = s.captions.toVector();
        frozen_ = s.captions.frozenCount();
        if (options_.json) {
            if (blocks_ == printedBlocks_) return;
            // At most ten a second: the throttle prints the newest when it runs out.
            const auto now = std::chrono::steady_clock::now();
            if (now - lastCaptionPrint_ >= std::chrono::milliseconds(100)) printCaptions(false);
            else if (!captionTimer_.isActive()) captionTimer_.start(100);
            return;
        }
        // Text: each block once it settled (frozen).
        if (frozen_ > textPrinted_) {
            std::vector<CaptionGrouping::CaptionBlock> settled(blocks_.begin() + std::ptrdiff_t(textPrinted_),
                                                              blocks_.begin() + std::ptrdiff_t(frozen_));
            printCaptionBlocks(settled, out_);
            out_ << std::flush;
            textPrinted_ = frozen_;
        }
    }

    void printCaptions(bool final) {
        if (!options_.json) {
            if (final && blocks_.size() > textPrinted_) {
                std::vector<CaptionGrouping::CaptionBlock> rest(blocks_.begin() + std::ptrdiff_t(textPrinted_),
                                                                blocks_.end());
                printCaptionBlocks(rest, out_);
                textPrinted_ = blocks_.size();
            }
            return;
        }
        if (!final && blocks_ == printedBlocks_) return;
        Json array = Json::array();
        for (const auto& b : blocks_) array.push_back(captionBlockJson(b));
        Json line = Json::object();
        line["captions"] = std::move(array);
        out_ << json::dumpLine(line) << "\n" << std::flush;
        printedBlocks_ = blocks_;
        lastCaptionPrint_ = std::chrono::steady_clock::now();
    }

    void finish(const LiveState& s) {
        if (finished_) return;
        finished_ = true;
        captionTimer_.stop();
        printCaptions(true);
        const RecordingEntry* entry = runtime_.library().recording(recordingID_);
        if (entry) {
            std::string compact;
            JsonWriter w(compact);
            writeRecordingEntry(w, *entry);
            if (options_.json) {
                out_ << "{\"recording\":" << compact << "}\n";
            } else {
                err_ << "ossevra-cli: 已保存 " << entry->title << "（" << recordingID_.text() << "），"
                     << entry->segmentCount << " 句\n";
            }
        }
        out_ << std::flush;
        status_ = entry && entry->status != RecordingStatus::failed ? kOk : kFailed;
        (void)s;
        QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    }

    LiveRuntime& runtime_;
    LiveController& controller_;
    const LiveOptions& options_;
    int filesFed_;
    std::ostream& out_;
    std::ostream& err_;
    LiveController::Subscription subscription_ = 0;
    Uuid recordingID_;
    bool started_ = false;
    bool stopRequested_ = false;
    bool finished_ = false;
    int filesEnded_ = 0;
    int status_ = kFailed;
    std::string lastStateLine_;
    std::string lastStatus_;
    std::string lastError_;
    std::vector<CaptionGrouping::CaptionBlock> blocks_;
    std::vector<CaptionGrouping::CaptionBlock> printedBlocks_;
    std::size_t frozen_ = 0;
    std::size_t textPrinted_ = 0;
    QTimer captionTimer_;
    std::chrono::steady_clock::time_point lastCaptionPrint_{};
};

}  // namespace

int runLive(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    LiveOptions options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= args.size()) return std::nullopt;
            return args[++i];
        };
        if (a == "--json") {
            options.json = true;
        } else if (a == "--demo") {
            options.demo = true;
        } else if (a == "--separate") {
            options.separate = true;
        } else if (a == "--system" || a == "--microphone") {
            const auto v = value();
            if (!v) {
                err << "ossevra-cli: " << a << " takes an audio file\n" << kLiveUsage;
                return kUsage;
            }
            if (!fs::exists(*v)) {
                err << "ossevra-cli: no such file: " << *v << "\n";
                return kUsage;
            }
            (a == "--system" ? options.systemFile : options.microphoneFile) = fs::path(*v);
        } else if (a == "--seconds" || a == "--tail") {
            const auto v = value();
            const auto number = v ? positiveNumber(*v) : std::nullopt;
            if (!number) {
                err << "ossevra-cli: " << a << " takes a number of seconds above 0\n" << kLiveUsage;
                return kUsage;
            }
            if (a == "--seconds") options.seconds = number;
            else options.tail = *number;
        } else {
            err << "ossevra-cli: unexpected argument \"" << a << "\"\n" << kLiveUsage;
            return kUsage;
        }
    }
    if (options.demo && (options.systemFile || options.microphoneFile || options.separate)) {
        err << "ossevra-cli: --demo plays its own conversation; it takes only --json\n" << kLiveUsage;
        return kUsage;
    }

    std::unique_ptr<QCoreApplication> app;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "ossevra-cli";
        static char* argv[] = {name, nullptr};
        app = std::make_unique<QCoreApplication>(argc, argv);
    }

    TranslatorSettings settings;
    std::unique_ptr<DemoSession> demo;
    fs::path support = supportDirectory();
    std::string openAIBase;
    if (options.demo) {
        auto started = DemoSession::start();
        if (!started) {
            err << "ossevra-cli: " << started.error().message << "\n";
            return kFailed;
        }
        demo = std::move(*started);
        options.systemFile = demo->systemFile();
        options.microphoneFile = demo->microphoneFile();
        options.separate = true;
        openAIBase = demo->openAIBase();
        settings.apiKey = "sk-demo";  // the fake takes any key; nothing leaves the machine
        if (!std::getenv("OSV_SUPPORT_DIR")) {
            support = fs::temp_directory_path() / ("ossevra-demo-" + Uuid::random().text().substr(0, 8));
            err << "ossevra-cli: 示例的记录保存在 " << support.string() << "\n";
        }
    } else {
        Stores stores(err);
        settings = stores.settings.load(environmentKey());
        stores.settings.loadStoredKey(settings);
        openAIBase = ServiceEndpoints::resolve(stores.defaults).openAI;  // environment, then settings, then default
    }
    const int filesFed = int(options.systemFile.has_value()) + int(options.microphoneFile.has_value());
    if (options.systemFile && options.microphoneFile) {
        settings.captureMode = AudioCaptureMode::mixed;
        settings.separateChannels = options.separate || settings.separateChannels;
    } else if (options.systemFile) {
        settings.captureMode = AudioCaptureMode::systemAudio;
    } else if (options.microphoneFile) {
        settings.captureMode = AudioCaptureMode::microphone;
    } else if (options.separate) {
        settings.separateChannels = true;
    }

    LiveRuntime::Options runtimeOptions;
    runtimeOptions.supportDirectory = support;
    runtimeOptions.systemFile = options.systemFile;
    runtimeOptions.microphoneFile = options.microphoneFile;
    runtimeOptions.openAIBase = openAIBase;
    runtimeOptions.onLibraryError = [&err](const std::string& text) { err << "ossevra-cli: " << text << "\n"; };
    LiveRuntime runtime(runtimeOptions, [&settings] { return settings; });
    LiveSession session(runtime, options, filesFed, out, err);

    ::socketpair(AF_UNIX, SOCK_STREAM, 0, signalPipe);
    QSocketNotifier signalNotifier(signalPipe[1], QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, [&] {
        char byte;
        [[maybe_unused]] auto n = ::read(signalPipe[1], &byte, 1);
        session.requestStop("收到结束信号");
    });
    struct sigaction action {};
    action.sa_handler = onSignal;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);

    // Commands on standard input, a line each; its end is not a stop.
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    std::string pending;
    QObject::connect(&input, &QSocketNotifier::activated, [&] {
        char buffer[256];
        const auto n = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (n <= 0) {
            input.setEnabled(false);
            return;
        }
        pending.append(buffer, std::size_t(n));
        for (auto at = pending.find('\n'); at != std::string::npos; at = pending.find('\n')) {
            std::string line = pending.substr(0, at);
            pending.erase(0, at + 1);
            while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
            session.command(line);
        }
    });

    if (!session.start()) return kFailed;
    QCoreApplication::exec();
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
    ::close(signalPipe[0]);
    ::close(signalPipe[1]);
    return session.status();
}

}  // namespace osv::cli
