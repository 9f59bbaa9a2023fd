#include <QCoreApplication>
#include <QTimer>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <thread>

#include "audio/CaptureRecorder.h"
#include "audio/ChannelGates.h"
#include "audio/SerialChunkWriter.h"
#include "cli/Cli.h"
#include "core/Json.h"
#include "platform/pulse/PulseCapture.h"
#include "platform/pulse/PulseFrameSource.h"
#include "platform/qt/QtScheduler.h"
#include "settings/TranslatorSettings.h"
#include "audio/AudioLevel.h"

namespace osv::cli {
namespace {

namespace fs = std::filesystem;

int devices(std::ostream& out, std::ostream& err) {
    const auto list = listAudioDevices();
    if (!list) {
        err << "ossevra-cli: " << list.error().message << "\n";
        return kFailed;
    }
    out << "输入（麦克风与监听源）：\n";
    for (const auto& s : list->sources) {
        out << (s.isDefault ? "  * " : "    ") << s.name << "  " << s.sampleRate << " Hz " << s.channels << " ch";
        if (s.isMonitor) out << "  [监听：电脑声音]";
        if (s.isEchoCancel) out << "  [回声消除]";
        if (!s.description.empty()) out << "  " << s.description;
        out << "\n";
    }
    out << "输出：\n";
    for (const auto& s : list->sinks)
        out << (s.isDefault ? "  * " : "    ") << s.name << "  " << s.sampleRate << " Hz " << s.channels << " ch  "
            << s.description << "\n";
    out << "默认输出：" << list->defaultSink << "（电脑声音从 " << list->defaultSink << ".monitor 采集）\n";
    out << "默认输入：" << list->defaultSource << "\n";
    out << "回声消除输入：" << (list->hasEchoCancelSource() ? "有" : "没有") << "\n";
    return kOk;
}

// What one channel did during the last second, through the same gates as a live session.
struct ChannelWatch {
    std::mutex lock;
    double level = 0;
    float peak = 0;
    SpeechWitness witness;
    ChannelWakeup wakeup;

    void feed(const PCMBytes& pcm) {
        std::lock_guard guard(lock);
        const float p = pcm16Peak(pcm);
        peak = std::max(peak, p);
        level = std::max(level, pcm16Level(pcm));
        witness.observe(p, Date::now());
        (void)wakeup.consider(pcm);
    }
    std::string line(const char* name) {
        std::lock_guard guard(lock);
        char buffer[128];
        std::snprintf(buffer, sizeof buffer, "%s 电平 %.2f 峰值 %.2f %s", name, level, double(peak),
                      wakeup.isAwake ? "已唤醒" : "未唤醒");
        level = 0;
        peak = 0;
        return buffer;
    }
};

int record(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    static const char* usage =
        "usage: ossevra-cli audio record --mode mixed|systemAudio|microphone --seconds N --out DIR [--separate]\n"
        "       [--chunk-seconds S]\n";
    std::string mode;
    std::optional<double> seconds;
    double chunkSeconds = 5.0;
    fs::path outDir;
    bool separate = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= args.size()) return std::nullopt;
            return args[++i];
        };
        if (a == "--separate") separate = true;
        else if (a == "--mode") mode = value().value_or("");
        else if (a == "--out") outDir = value().value_or("");
        else if (a == "--seconds" || a == "--chunk-seconds") {
            const auto text = value();
            const auto parsed = text ? json::parse(*text) : std::nullopt;
            const auto number = parsed ? json::as<double>(*parsed) : std::nullopt;
            if (!number || *number <= 0) {
                err << a << " takes a positive number of seconds\n" << usage;
                return kUsage;
            }
            if (a == "--seconds") seconds = *number;
            else chunkSeconds = *number;
        } else {
            err << "unexpected argument \"" << a << "\"\n" << usage;
            return kUsage;
        }
    }
    if (!mode.empty() && !captureModeFromRaw(mode)) {
        err << "ossevra-cli: unknown capture mode \"" << mode << "\"; the modes are mixed, systemAudio, microphone\n";
        return kUsage;
    }
    if (mode.empty() || !seconds || outDir.empty()) {
        err << usage;
        return kUsage;
    }
    std::error_code ec;
    fs::create_directories(outDir, ec);
    if (ec) {
        err << "ossevra-cli: cannot create " << outDir.string() << ": " << ec.message() << "\n";
        return kFailed;
    }

    std::unique_ptr<QCoreApplication> app;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "ossevra-cli";
        static char* argv[] = {name, nullptr};
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QtScheduler scheduler;
    PulseFrameSourceFactory sources;
    SerialChunkWriter writer(scheduler);
    CaptureRecorder recorder(scheduler, sources, writer);

    std::vector<fs::path> chunks;
    ChannelWatch system, microphone;
    CaptureRecorder::Options options;
    options.mode = mode == "mixed"         ? CaptureRecorder::Mode::mixed
                   : mode == "systemAudio" ? CaptureRecorder::Mode::systemAudio
                                           : CaptureRecorder::Mode::microphone;
    options.chunkSeconds = chunkSeconds;
    options.minimumChunkBytes = 1024;
    options.preserveRecordingChannels = separate;
    options.chunkDirectory = outDir;
    options.chunkPrefix = "osv-" + mode + "-";
    CaptureRecorder::Callbacks callbacks;
    callbacks.onChunk = [&](const fs::path& chunk) { chunks.push_back(chunk); };
    callbacks.onEvent = [&](const std::string& title, const std::string& details, const std::string& code) {
        out << "  · " << title << "（" << code << "）" << details << "\n";
    };
    if (mode == "mixed") {
        callbacks.onSystemPCM = [&](const PCMBytes& pcm) { system.feed(pcm); };
        callbacks.onMicrophonePCM = [&](const PCMBytes& pcm) { microphone.feed(pcm); };
    } else {
        ChannelWatch& watch = mode == "systemAudio" ? system : microphone;
        callbacks.onRealtimePCM = [&watch](const PCMBytes& pcm) { watch.feed(pcm); };
    }
    auto report = recorder.start(options, callbacks);
    if (!report) {
        err << "ossevra-cli: " << report.error().message << "\n";
        return kFailed;
    }
    if (auto degraded = CaptureRecorder::degradedCapture(*report))
        out << "降级：" << *degraded << "（" << report->systemFailure.value_or(report->microphoneFailure.value_or(""))
            << "）\n";

    // One line a second while the event loop runs the recorder.
    int second = 0;
    QTimer ticker;
    QObject::connect(&ticker, &QTimer::timeout, [&] {
        out << ++second << "s  ";
        if (mode != "microphone") out << system.line("电脑声音") << "  ";
        if (mode != "systemAudio") out << microphone.line("麦克风");
        out << "\n" << std::flush;
    });
    ticker.start(1000);
    QTimer::singleShot(int(*seconds * 1000), [&] {
        ticker.stop();
        recorder.stop([&](std::optional<fs::path> last) {
            if (last) chunks.push_back(*last);
            QCoreApplication::quit();
        });
    });
    QCoreApplication::exec();
    out << "写入 " << chunks.size() << " 个分段：\n";
    for (const auto& c : chunks) out << "  " << c.string() << "\n";
    return kOk;
}

}  // namespace

int runAudio(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const std::string sub = args.empty() ? "" : args[0];
    if (sub == "devices" && args.size() == 1) return devices(out, err);
    if (sub == "record") return record(std::vector<std::string>(args.begin() + 1, args.end()), out, err);
    err << "usage: ossevra-cli audio devices | audio record --mode mixed|systemAudio|microphone --seconds N --out DIR "
           "[--separate]\n";
    return kUsage;
}

}  // namespace osv::cli
