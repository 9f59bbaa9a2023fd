#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <thread>

#include "audio/ChannelGates.h"
#include "cli/Cli.h"
#include "core/Json.h"
#include "platform/pulse/ChunkRecorders.h"
#include "settings/TranslatorSettings.h"

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

    std::mutex outLock;
    std::vector<fs::path> chunks;
    auto keepChunk = [&](const fs::path& chunk) {
        const fs::path target = outDir / chunk.filename();
        std::error_code moveError;
        fs::rename(chunk, target, moveError);
        if (moveError) {  // another file system
            fs::copy_file(chunk, target, fs::copy_options::overwrite_existing, moveError);
            fs::remove(chunk, moveError);
        }
        std::lock_guard guard(outLock);
        chunks.push_back(target);
    };
    auto onEvent = [&](const std::string& title, const std::string& details, const std::string& code) {
        std::lock_guard guard(outLock);
        out << "  · " << title << "（" << code << "）" << details << "\n";
    };
    ChannelWatch system, microphone;
    constexpr std::size_t kMinimumChunkBytes = 1024;

    MixedAudioChunkRecorder mixed;
    SystemAudioChunkRecorder systemOnly;
    AudioChunkRecorder microphoneOnly;
    if (mode == "mixed") {
        MixedAudioChunkRecorder::Callbacks callbacks;
        callbacks.onChunk = keepChunk;
        callbacks.onSystemPCM = [&](const PCMBytes& pcm) { system.feed(pcm); };
        callbacks.onMicrophonePCM = [&](const PCMBytes& pcm) { microphone.feed(pcm); };
        callbacks.onEvent = onEvent;
        auto report = mixed.start(chunkSeconds, kMinimumChunkBytes, callbacks, separate);
        if (!report) {
            err << "ossevra-cli: " << report.error().message << "\n";
            return kFailed;
        }
        if (auto degraded = MixedAudioChunkRecorder::degradedCapture(*report))
            out << "降级：" << *degraded << "（" << report->systemFailure.value_or(report->microphoneFailure.value_or(""))
                << "）\n";
    } else {
        RecorderCallbacks callbacks;
        callbacks.onChunk = keepChunk;
        callbacks.onEvent = onEvent;
        ChannelWatch& watch = mode == "systemAudio" ? system : microphone;
        callbacks.onRealtimePCM = [&](const PCMBytes& pcm) { watch.feed(pcm); };
        auto started = mode == "systemAudio" ? systemOnly.start(chunkSeconds, kMinimumChunkBytes, callbacks, true)
                                             : microphoneOnly.start(chunkSeconds, callbacks, true);
        if (!started) {
            err << "ossevra-cli: " << started.error().message << "\n";
            return kFailed;
        }
    }

    const int whole = int(*seconds);
    for (int second = 1; second <= whole; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        std::lock_guard guard(outLock);
        out << second << "s  ";
        if (mode != "microphone") out << system.line("电脑声音") << "  ";
        if (mode != "systemAudio") out << microphone.line("麦克风");
        out << "\n" << std::flush;
    }
    if (*seconds > whole) std::this_thread::sleep_for(std::chrono::duration<double>(*seconds - whole));

    std::optional<fs::path> last;
    if (mode == "mixed") last = mixed.stop(true);
    else if (mode == "systemAudio") last = systemOnly.stop(true);
    else last = microphoneOnly.stop(true);
    if (last) keepChunk(*last);
    std::lock_guard guard(outLock);
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
