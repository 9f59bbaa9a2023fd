#include "metering/LiveMonitor.h"

#include "core/Format.h"

namespace osv {

std::string LiveMonitor::headline() const {
    if (inputs.empty() && streams.empty()) return "没有进行中的会话。";

    std::int64_t sentBytes = 0, rate = 0;
    for (const Input& i : inputs) {
        sentBytes += i.totalBytes;
        rate += i.bytesPerSecond;
    }
    std::string silentStreams;
    for (const Stream& s : streams) {
        const bool quiet = s.isConnected && sentBytes > 0 && s.secondsSinceEvent &&
                           *s.secondsSinceEvent >= kSilentStreamSeconds;
        if (!quiet) continue;
        if (!silentStreams.empty()) silentStreams += "；";
        silentStreams += s.job + " 已连接但没有返回";
    }
    if (!silentStreams.empty()) return silentStreams;

    std::string silentInputs;
    for (const Input& i : inputs) {
        if (!i.secondsSinceFrame || *i.secondsSinceFrame < kSilentInputSeconds) continue;
        if (!silentInputs.empty()) silentInputs += "；";
        silentInputs += i.name + " 没有收到音频";
    }
    if (!silentInputs.empty()) return silentInputs;

    return std::to_string(streams.size()) + " 条连接正常 · 上行 " + rateText(rate);
}

}  // namespace osv
