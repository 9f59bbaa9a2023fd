#include "wiring/DemoSession.h"

#include <QProcess>
#include <QStandardPaths>

#include <sys/prctl.h>

#include <csignal>
#include <fstream>
#include <map>
#include <sstream>

#include "audio/PCM16WavWriter.h"
#include "audio/RealtimePCMEncoder.h"
#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/Uuid.h"
#include "platform/ffmpeg/AudioFileDecoder.h"

namespace osv {

namespace fs = std::filesystem;

struct DemoSession::Server {
    QProcess process;
    ~Server() {
        process.kill();
        process.waitForFinished(2000);
    }
};

namespace {

std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

fs::path firstExisting(const std::vector<fs::path>& candidates) {
    for (const auto& c : candidates)
        if (!c.empty() && fs::exists(c)) return c;
    return candidates.empty() ? fs::path() : candidates.back();
}

}  // namespace

fs::path DemoSession::conversationFile() {
    return fs::path(OSV_SOURCE_DIR) / "examples" / "demo" / "conversation.jsonl";
}

fs::path DemoSession::scenarioFile() {
    return fs::path(OSV_SOURCE_DIR) / "tools" / "fake-realtime" / "scenarios" / "demo.jsonl";
}

fs::path DemoSession::fakeServerProgram() {
    if (const char* given = std::getenv("OSV_FAKE_REALTIME"); given && *given) return given;
    return firstExisting({fs::path(OSV_BINARY_DIR) / "tools" / "fake-realtime" / "fake-realtime"});
}

Expected<double> DemoSession::makeAudio(const fs::path& conversation, const fs::path& directory) {
    const std::string text = readAll(conversation);
    if (text.empty()) return Error{"demo_unavailable", "找不到示例对话：" + conversation.string()};
    std::map<std::string, std::vector<std::int16_t>> tracks{{"system", {}}, {"microphone", {}}};
    double length = 0;
    std::istringstream lines(text);
    std::string line;
    const fs::path spoken = directory / ("line-" + Uuid::random().text() + ".wav");
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        auto parsed = json::parse(line);
        if (!parsed || !parsed->is_object()) return Error{"demo_unavailable", "示例对话有一行读不懂：" + line};
        const std::string channel = json::read<std::string>(*parsed, "channel", "");
        const double start = json::read<double>(*parsed, "start", 0.0);
        const std::string voice = json::read<std::string>(*parsed, "voice", "");
        const std::string speech = json::read<std::string>(*parsed, "speech", "");
        if (!tracks.count(channel) || voice.empty() || speech.empty())
            return Error{"demo_unavailable", "示例对话有一行缺少内容：" + line};
        QProcess espeak;
        espeak.start("espeak-ng", {"-v", QString::fromStdString(voice), "-s", "150", "-w",
                                   QString::fromStdString(spoken.string()), QString::fromStdString(speech)});
        if (!espeak.waitForFinished(30000) || espeak.exitStatus() != QProcess::NormalExit || espeak.exitCode() != 0)
            return Error{"demo_unavailable", "示例需要 espeak-ng 来朗读对话（scripts/bootstrap 会安装它）。"};
        auto pcm = decodePCM16Mono24k(spoken);
        std::error_code ec;
        fs::remove(spoken, ec);
        if (!pcm) return Error{"demo_unavailable", "无法读取合成的语音：" + pcm.error().message};
        auto& track = tracks[channel];
        const auto at = std::size_t(start * kWorkingSampleRate);
        const std::size_t samples = pcm->size() / 2;
        if (track.size() < at + samples) track.resize(at + samples, 0);
        for (std::size_t i = 0; i < samples; ++i)
            track[at + i] = std::int16_t(std::uint16_t((*pcm)[2 * i]) | std::uint16_t((*pcm)[2 * i + 1]) << 8);
        length = std::max(length, start + double(samples) / kWorkingSampleRate);
    }
    for (const auto& [channel, track] : tracks) {
        PCMBytes bytes(track.size() * 2);
        for (std::size_t i = 0; i < track.size(); ++i) {
            bytes[2 * i] = std::uint8_t(std::uint16_t(track[i]) & 0xFF);
            bytes[2 * i + 1] = std::uint8_t(std::uint16_t(track[i]) >> 8);
        }
        const PCMBytes wav = PCM16WavWriter::data(bytes, kWorkingSampleRate, 1);
        auto written = writeFileAtomically(directory / (channel + ".wav"),
                                           std::string_view(reinterpret_cast<const char*>(wav.data()), wav.size()));
        if (!written) return Error{"demo_unavailable", "无法写入示例音频：" + written.error().message};
    }
    return length;
}

Expected<std::unique_ptr<DemoSession>> DemoSession::start() {
    std::unique_ptr<DemoSession> demo(new DemoSession());
    const fs::path conversation = conversationFile();
    const std::string text = readAll(conversation);
    if (text.empty()) return Error{"demo_unavailable", "找不到示例对话：" + conversation.string()};

    // The audio is made once per version of the conversation.
    const std::string cacheRoot = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation).toStdString();
    const fs::path cache = fs::path(cacheRoot.empty() ? fs::temp_directory_path().string() : cacheRoot) / "Ossevra" /
                           "demo" / std::to_string(std::hash<std::string>{}(text));
    std::error_code ec;
    fs::create_directories(cache, ec);
    demo->systemFile_ = cache / "system.wav";
    demo->microphoneFile_ = cache / "microphone.wav";
    const fs::path lengthFile = cache / "length";
    if (fs::exists(demo->systemFile_) && fs::exists(demo->microphoneFile_) && fs::exists(lengthFile)) {
        demo->length_ = std::atof(readAll(lengthFile).c_str());
    } else {
        auto made = makeAudio(conversation, cache);
        if (!made) return made.error();
        demo->length_ = *made;
        (void)writeFileAtomically(lengthFile, std::to_string(*made));
    }

    const fs::path program = fakeServerProgram();
    if (!fs::exists(program))
        return Error{"demo_unavailable", "找不到示例用的本地服务 fake-realtime（先构建它）：" + program.string()};
    demo->serverRecord_ = fs::temp_directory_path() / ("ossevra-demo-" + Uuid::random().text() + ".jsonl");
    demo->server_ = std::make_unique<Server>();
    QProcess& process = demo->server_->process;
    // The server goes with the program, however the program ends.
    process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGTERM); });
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QString::fromStdString(program.string()),
                  {"--scenario", QString::fromStdString(scenarioFile().string()), "--port", "0", "--record",
                   QString::fromStdString(demo->serverRecord_.string())});
    if (!process.waitForStarted(5000)) return Error{"demo_unavailable", "示例用的本地服务没有启动。"};
    std::string portLine;
    for (int waited = 0; waited < 50 && !process.canReadLine(); ++waited) process.waitForReadyRead(100);
    portLine = process.readLine().trimmed().toStdString();
    const int port = std::atoi(portLine.c_str());
    if (port <= 0) return Error{"demo_unavailable", "示例用的本地服务没有给出端口。"};
    demo->openAIBase_ = "http://127.0.0.1:" + std::to_string(port) + "/v1";
    return demo;
}

DemoSession::~DemoSession() {
    server_.reset();
    std::error_code ec;
    if (!serverRecord_.empty()) fs::remove(serverRecord_, ec);
}

}  // namespace osv
