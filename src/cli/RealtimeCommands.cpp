#include <QCoreApplication>

#include <ostream>

#include "cli/Cli.h"
#include "cli/CliStores.h"
#include "cli/RealtimeProbe.h"
#include "platform/ffmpeg/AudioFileDecoder.h"
#include "platform/qt/QtScheduler.h"
#include "platform/qt/QtWebSocketTransport.h"
#include "services/ServiceEndpoints.h"

namespace osv::cli {
namespace {

constexpr const char* kProbeUsage =
    "usage: ossevra-cli realtime probe --audio FILE [--speed 1|max] [--url BASE] [--target LANG]\n";

int probe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    std::string audio;
    std::optional<std::string> url;
    RealtimeProbe::Options options;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a != "--audio" && a != "--speed" && a != "--url" && a != "--target") {
            err << "ossevra-cli: unexpected argument \"" << a << "\"\n" << kProbeUsage;
            return kUsage;
        }
        if (i + 1 == args.size()) {
            err << "ossevra-cli: " << a << " needs a value\n" << kProbeUsage;
            return kUsage;
        }
        const std::string& value = args[++i];
        if (a == "--audio") {
            audio = value;
        } else if (a == "--url") {
            if (!isServiceBaseURL(value)) {
                err << "ossevra-cli: --url takes an http or https URL with a host, not \"" << value << "\"\n";
                return kUsage;
            }
            url = value;
        } else if (a == "--target") {
            options.targetLanguage = value;
        } else if (value == "1" || value == "max") {
            options.realTime = value == "1";
        } else {
            err << "ossevra-cli: --speed takes 1 (real time) or max\n" << kProbeUsage;
            return kUsage;
        }
    }
    if (audio.empty() || options.targetLanguage.empty()) {
        err << kProbeUsage;
        return kUsage;
    }
    auto pcm = decodePCM16Mono24k(audio);
    if (!pcm) {
        err << "ossevra-cli: " << pcm.error().message << "\n";
        return kFailed;
    }

    Stores stores(err);
    TranslatorSettings settings = stores.settings.load(environmentKey());
    stores.settings.loadStoredKey(settings);
    const std::string base = url ? *url : ServiceEndpoints::resolve(stores.defaults).openAI;

    // The probe needs an event loop; a host that has one already lends it.
    std::unique_ptr<QCoreApplication> app;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "ossevra-cli";
        static char* argv[] = {name, nullptr};
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QtScheduler scheduler;
    QtWebSocketTransport transport;
    RealtimeProbe run(scheduler, transport, base, out, err);
    int status = kFailed;
    bool done = false;
    run.run(settings, std::move(*pcm), options, [&](int s) {
        status = s;
        done = true;
        QCoreApplication::quit();
    });
    if (!done) QCoreApplication::exec();
    err << "ossevra-cli: sent " << run.chunksSent() << " chunks, " << run.bytesSent() << " bytes of audio\n";
    return status;
}

}  // namespace

int runRealtime(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (!args.empty() && args[0] == "probe") return probe(std::vector<std::string>(args.begin() + 1, args.end()), out, err);
    err << kProbeUsage;
    return kUsage;
}

}  // namespace osv::cli
