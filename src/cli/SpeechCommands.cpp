// source probe, transcribe, voices, speak: the speech vendors' clients driven from the
// command line, for a person checking a key or a vendor, and for tests.

#include <QCoreApplication>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <ostream>
#include <sstream>

#include "cli/Cli.h"
#include "cli/CliStores.h"
#include "cli/SourceProbe.h"
#include "core/Json.h"
#include "core/Text.h"
#include "platform/ffmpeg/AacFileWriter.h"
#include "platform/ffmpeg/AudioFileDecoder.h"
#include "platform/qt/QtHttpTransport.h"
#include "platform/qt/QtScheduler.h"
#include "platform/qt/QtWebSocketTransport.h"
#include "services/GeminiTranscriptionClient.h"
#include "services/GoogleSpeechClient.h"
#include "services/LocalModelTranscriptionClient.h"
#include "services/OpenAIClient.h"
#include "services/ServiceEndpoints.h"

namespace osv::cli {
namespace {

using json::Json;

constexpr const char* kSourceUsage =
    "usage: ossevra-cli source probe --audio FILE [--vendor openai|gemini] [--model NAME]\n"
    "           [--language auto|chinese|japanese] [--speed 1|max]\n";
constexpr const char* kTranscribeUsage =
    "usage: ossevra-cli transcribe FILE [--vendor openai|gemini|local] [--language auto|chinese|japanese] [--json]\n";
constexpr const char* kVoicesUsage = "usage: ossevra-cli voices [--vendor google|openai] [--json]\n";
constexpr const char* kSpeakUsage =
    "usage: ossevra-cli speak TEXT --language chinese|japanese [--vendor openai|google] [--voice NAME] --out FILE\n";

constexpr const char* kGeminiFileDefault = "gemini-3.5-transcribe";
constexpr double kLocalTimeoutSeconds = 300.0;


// Where the services live: the one place the commands read it. Environment, then the
// settings, then the default; what the settings file had to say was said with the settings.
ServiceEndpoints endpoints() {
    std::ostringstream quiet;
    Stores stores(quiet);
    return ServiceEndpoints::resolve(stores.defaults);
}

// The stores as at launch, with the stored OpenAI key in place.
TranslatorSettings launchSettings(std::ostream& err) {
    Stores stores(err);
    TranslatorSettings settings = stores.settings.load(environmentKey());
    stores.settings.loadStoredKey(settings);
    return settings;
}

// The application object, made before anything that needs it; a host that has one
// already lends it.
class Application {
public:
    Application() {
        if (!QCoreApplication::instance()) {
            static int argc = 1;
            static char name[] = "ossevra-cli";
            static char* argv[] = {name, nullptr};
            app_ = std::make_unique<QCoreApplication>(argc, argv);
        }
    }

private:
    std::unique_ptr<QCoreApplication> app_;
};

// The event loop of one command, with the adapters its clients run over.
class Loop {
public:
    void quit(int status) {
        status_ = status;
        done_ = true;
        QCoreApplication::quit();
    }
    int exec() {
        if (!done_) QCoreApplication::exec();
        return status_;
    }

private:
    Application application_;  // first: the adapters need it

public:
    QtScheduler scheduler;
    QtWebSocketTransport sockets;
    QtHttpTransport http;

private:
    bool done_ = false;
    int status_ = kFailed;
};

std::optional<RecognitionLanguage> languageArgument(const std::string& value) {
    return recognitionLanguageFromRaw(value);
}

// Parses "--flag value" pairs and bare flags; positional arguments are collected in order.
struct Arguments {
    std::map<std::string, std::string> values;
    std::set<std::string> flags;
    std::vector<std::string> positional;
    std::string problem;

    Arguments(const std::vector<std::string>& args, const std::set<std::string>& withValue,
              const std::set<std::string>& bare) {
        for (std::size_t i = 0; i < args.size(); ++i) {
            const std::string& a = args[i];
            if (withValue.contains(a)) {
                if (i + 1 >= args.size()) {
                    problem = a + " takes a value";
                    return;
                }
                values[a] = args[++i];
            } else if (bare.contains(a)) {
                flags.insert(a);
            } else if (a.rfind("--", 0) == 0) {
                problem = "unexpected argument \"" + a + "\"";
                return;
            } else {
                positional.push_back(a);
            }
        }
    }
    std::optional<std::string> value(const std::string& key) const {
        auto it = values.find(key);
        if (it == values.end()) return std::nullopt;
        return it->second;
    }
};

bool isGeminiModel(ModelJob job, const TranslatorSettings& settings) {
    return settings.models.resolved(job, settings.activeMode).rfind("gemini-", 0) == 0;
}

int usage(std::ostream& err, const std::string& problem, const char* text) {
    if (!problem.empty()) err << "ossevra-cli: " << problem << "\n";
    err << text;
    return kUsage;
}

void printFailure(std::ostream& err, const GeminiFailure& f) {
    err << "ossevra-cli: " << f.error.message << "\n";
    if (f.rateLimited) {
        err << "ossevra-cli: rate limited";
        if (f.rateLimited->isDailyQuota) err << " (daily quota)";
        if (f.rateLimited->retryAfter) err << ", retry after " << *f.rateLimited->retryAfter << " s";
        err << "\n";
    }
}

Json debugLine(const OpenAIDebugLog& log) {
    Json record = Json::object();
    record["level"] = DebugEvent::rawValue(log.level);
    record["category"] = DebugEvent::rawValue(log.category);
    record["title"] = log.title;
    record["details"] = log.details;
    record["code"] = log.code ? Json(*log.code) : Json(nullptr);
    return Json{{"debug", record}};
}

// Debug records go to standard error, so that standard output holds only the result.
std::function<void(const OpenAIDebugLog&)> debugTo(std::ostream& err) {
    return [&err](const OpenAIDebugLog& log) { err << json::dumpLine(debugLine(log)) << "\n"; };
}

int sourceProbe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const Arguments a(args, {"--audio", "--vendor", "--model", "--language", "--speed"}, {});
    if (!a.problem.empty() || !a.positional.empty() || !a.value("--audio"))
        return usage(err, a.problem.empty() && !a.positional.empty() ? "unexpected argument \"" + a.positional[0] + "\"" : a.problem,
                     kSourceUsage);
    SourceProbe::Options options;
    const auto vendor = a.value("--vendor");
    if (vendor && *vendor != "openai" && *vendor != "gemini")
        return usage(err, "--vendor takes openai or gemini", kSourceUsage);
    const std::string speed = a.value("--speed").value_or("1");
    if (speed != "1" && speed != "max") return usage(err, "--speed takes 1 (real time) or max", kSourceUsage);
    options.realTime = speed == "1";
    std::optional<RecognitionLanguage> language;
    if (auto l = a.value("--language")) {
        language = languageArgument(*l);
        if (!language) return usage(err, "--language takes auto, chinese or japanese", kSourceUsage);
    }

    auto pcm = decodePCM16Mono24k(*a.value("--audio"));
    if (!pcm) {
        err << "ossevra-cli: " << pcm.error().message << "\n";
        return kFailed;
    }
    const TranslatorSettings settings = launchSettings(err);
    // Without --vendor, the vendor of the configured source model.
    const bool gemini = vendor ? *vendor == "gemini" : isGeminiModel(ModelJob::realtimeTranscribe, settings);
    options.vendor = gemini ? SourceVendor::gemini : SourceVendor::openAI;
    options.model = sourceProbeModel(options.vendor, a.value("--model"), settings);
    options.language = language.value_or(settings.recognitionLanguage);

    Loop loop;
    SourceProbe probe(loop.scheduler, loop.sockets, loop.http, endpoints(), out, err);
    probe.run(settings, std::move(*pcm), options, [&](int status) { loop.quit(status); });
    const int status = loop.exec();
    err << "ossevra-cli: sent " << probe.chunksSent() << " chunks, " << probe.bytesSent() << " bytes of audio\n";
    return status;
}

int transcribeGemini(const std::string& file, RecognitionLanguage language, bool asJSON,
                     const TranslatorSettings& settings, std::ostream& out, std::ostream& err) {
    Loop loop;
    GeminiTranscriptionClient client(loop.sockets, loop.http, loop.scheduler, endpoints().gemini);
    const std::string configured = settings.models.resolved(ModelJob::fileTranscribe, settings.activeMode);
    const std::string model = isGeminiModel(ModelJob::fileTranscribe, settings) ? configured : kGeminiFileDefault;
    const GeminiRecognition recognition = GeminiRecognition::from(language, settings.glossary);
    const auto onDebug = debugTo(err);
    client.upload(file, settings.geminiAPIKey, onDebug, [&](GeminiOutcome<GeminiTranscriptionClient::Uploaded> up) {
        if (!up.ok()) {
            printFailure(err, up.failure);
            return loop.quit(kFailed);
        }
        client.transcribe(model, *up.value, recognition, true, settings.geminiAPIKey, onDebug,
                          [&](GeminiOutcome<GeminiTranscriptionClient::FileResult> result) {
                              if (!result.ok()) {
                                  printFailure(err, result.failure);
                                  return loop.quit(kFailed);
                              }
                              if (asJSON) {
                                  Json j = Json::object();
                                  j["vendor"] = "gemini";
                                  j["model"] = model;
                                  j["text"] = result.value->text;
                                  j["speakers"] = result.value->speakers;
                                  out << json::dumpLine(j) << "\n";
                              } else {
                                  out << result.value->text << "\n";
                              }
                              loop.quit(kOk);
                          });
    });
    return loop.exec();
}

int transcribeLocal(const std::string& file, RecognitionLanguage language, bool asJSON, std::ostream& out,
                    std::ostream& err) {
    Loop loop;
    LocalModelTranscriptionClient client(loop.http, loop.scheduler, endpoints().localModel);
    client.transcribe(file, language, kLocalTimeoutSeconds, [&](Expected<LocalTranscription> result) {
        if (!result) {
            err << "ossevra-cli: " << result.error().message << "\n";
            return loop.quit(kFailed);
        }
        if (asJSON) {
            Json j = Json::object();
            j["vendor"] = "local";
            j["text"] = result->text;
            j["model"] = result->model ? Json(*result->model) : Json(nullptr);
            j["revision"] = result->revision ? Json(*result->revision) : Json(nullptr);
            out << json::dumpLine(j) << "\n";
        } else {
            out << result->text << "\n";
        }
        loop.quit(kOk);
    });
    return loop.exec();
}


int writeSpeech(const std::vector<std::uint8_t>& audio, const std::string& path, std::ostream& out, std::ostream& err);

int transcribeOpenAI(const std::string& file, RecognitionLanguage language, bool asJSON,
                     const TranslatorSettings& settings, std::ostream& out, std::ostream& err) {
    Loop loop;
    OpenAIClient client(loop.http, loop.scheduler, endpoints().openAI);
    const std::string model = settings.models.resolved(ModelJob::fileTranscribe, settings.activeMode);
    auto call = client.transcribe(file, settings, language, debugTo(err), {}, [&](Expected<std::string> text) {
        if (!text) {
            err << "ossevra-cli: " << text.error().message << "\n";
            return loop.quit(kFailed);
        }
        if (asJSON) {
            Json j = Json::object();
            j["vendor"] = "openai";
            j["model"] = model;
            j["text"] = *text;
            out << json::dumpLine(j) << "\n";
        } else {
            out << *text << "\n";
        }
        loop.quit(kOk);
    });
    return loop.exec();
}

int speakOpenAI(const std::string& text, SpeechLanguage language, const std::optional<std::string>& voice,
                TranslatorSettings settings, const std::string& path, std::ostream& out, std::ostream& err) {
    if (voice) (language == SpeechLanguage::chinese ? settings.chineseVoice : settings.japaneseVoice) = *voice;
    Loop loop;
    OpenAIClient client(loop.http, loop.scheduler, endpoints().openAI);
    const TargetLanguage target =
        language == SpeechLanguage::chinese ? TargetLanguage::simplifiedChinese : TargetLanguage::japanese;
    auto call = client.speak(text, target, settings, debugTo(err), [&](Expected<std::string> audio) {
        if (!audio) {
            err << "ossevra-cli: " << audio.error().message << "\n";
            return loop.quit(kFailed);
        }
        loop.quit(writeSpeech(std::vector<std::uint8_t>(audio->begin(), audio->end()), path, out, err));
    });
    return loop.exec();
}

int transcribe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const Arguments a(args, {"--vendor", "--language"}, {"--json"});
    if (!a.problem.empty() || a.positional.size() != 1) return usage(err, a.problem, kTranscribeUsage);
    const auto vendorArg = a.value("--vendor");
    if (vendorArg && *vendorArg != "openai" && *vendorArg != "gemini" && *vendorArg != "local")
        return usage(err, "--vendor takes openai, gemini or local", kTranscribeUsage);
    std::optional<RecognitionLanguage> language;
    if (auto l = a.value("--language")) {
        language = languageArgument(*l);
        if (!language) return usage(err, "--language takes auto, chinese or japanese", kTranscribeUsage);
    }
    const std::string& file = a.positional[0];
    if (!std::filesystem::is_regular_file(file)) {
        err << "ossevra-cli: no such file: " << file << "\n";
        return kFailed;
    }
    const TranslatorSettings settings = launchSettings(err);
    // Without --vendor, the vendor of the configured file transcription model.
    const std::string vendor =
        vendorArg.value_or(isGeminiModel(ModelJob::fileTranscribe, settings) ? "gemini" : "openai");
    const RecognitionLanguage lang = language.value_or(settings.recognitionLanguage);
    const bool asJSON = a.flags.contains("--json");
    if (vendor == "gemini") return transcribeGemini(file, lang, asJSON, settings, out, err);
    if (vendor == "local") return transcribeLocal(file, lang, asJSON, out, err);
    return transcribeOpenAI(file, lang, asJSON, settings, out, err);
}

int voices(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const Arguments a(args, {"--vendor"}, {"--json"});
    if (!a.problem.empty() || !a.positional.empty()) return usage(err, a.problem, kVoicesUsage);
    const TranslatorSettings settings = launchSettings(err);
    const std::string vendor =
        a.value("--vendor").value_or(settings.speechVendor == SpeechVendor::google ? "google" : "openai");
    if (vendor != "google" && vendor != "openai") return usage(err, "--vendor takes google or openai", kVoicesUsage);
    const bool asJSON = a.flags.contains("--json");
    if (vendor == "openai") {
        Json list = Json::array();
        for (const OpenAIVoice& v : OpenAIClient::voices()) {
            if (asJSON) list.push_back(Json{{"name", v.name}, {"note", v.note}});
            else out << v.name << "\t" << v.note << "\n";
        }
        if (asJSON) out << json::dumpLine(list) << "\n";
        return kOk;
    }
    Loop loop;
    GoogleSpeechClient client(loop.http, loop.scheduler, endpoints().googleTTS);
    client.allVoices(settings, debugTo(err), [&](Expected<std::vector<GoogleVoice>> result) {
        if (!result) {
            err << "ossevra-cli: " << result.error().message << "\n";
            return loop.quit(kFailed);
        }
        Json list = Json::array();
        for (const GoogleVoice& v : *result) {
            if (asJSON) {
                list.push_back(Json{{"name", v.name},
                                    {"gender", v.gender},
                                    {"tier", rawValue(v.tier())},
                                    {"languageCodes", v.languageCodes}});
            } else {
                std::string codes;
                for (const auto& c : v.languageCodes) codes += (codes.empty() ? "" : ",") + c;
                out << v.name << "\t" << (v.gender.empty() ? "-" : v.gender) << "\t" << rawValue(v.tier()) << "\t"
                    << codes << "\n";
            }
        }
        if (asJSON) out << json::dumpLine(list) << "\n";
        loop.quit(kOk);
    });
    return loop.exec();
}

// Writes the audio and prints where, how many bytes and how long FFmpeg finds it.
int writeSpeech(const std::vector<std::uint8_t>& audio, const std::string& path, std::ostream& out, std::ostream& err) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(audio.data()), std::streamsize(audio.size()));
    file.close();
    if (!file) {
        err << "ossevra-cli: cannot write " << path << "\n";
        return kFailed;
    }
    const auto seconds = mediaDurationSeconds(path);
    if (!seconds) {
        err << "ossevra-cli: " << seconds.error().message << "\n";
        return kFailed;
    }
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.3f", *seconds);
    out << path << "\t" << audio.size() << " bytes\t" << duration << " s\n";
    return kOk;
}

int speak(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    const Arguments a(args, {"--language", "--vendor", "--voice", "--out"}, {});
    if (!a.problem.empty() || a.positional.size() != 1 || !a.value("--out") || !a.value("--language"))
        return usage(err, a.problem, kSpeakUsage);
    const std::string languageText = *a.value("--language");
    if (languageText != "chinese" && languageText != "japanese")
        return usage(err, "--language takes chinese or japanese", kSpeakUsage);
    const SpeechLanguage language = languageText == "chinese" ? SpeechLanguage::chinese : SpeechLanguage::japanese;
    TranslatorSettings settings = launchSettings(err);
    const std::string vendor =
        a.value("--vendor").value_or(settings.speechVendor == SpeechVendor::google ? "google" : "openai");
    if (vendor != "google" && vendor != "openai") return usage(err, "--vendor takes openai or google", kSpeakUsage);
    const std::string text = a.positional[0];
    const std::string path = *a.value("--out");
    if (vendor == "openai") return speakOpenAI(text, language, a.value("--voice"), settings, path, out, err);

    if (auto voice = a.value("--voice"))
        (language == SpeechLanguage::chinese ? settings.googleChineseVoice : settings.googleJapaneseVoice) = *voice;
    Loop loop;
    GoogleSpeechClient client(loop.http, loop.scheduler, endpoints().googleTTS);
    client.speak(text, language, settings, debugTo(err), [&](Expected<std::vector<std::uint8_t>> audio) {
        if (!audio) {
            err << "ossevra-cli: " << audio.error().message << "\n";
            return loop.quit(kFailed);
        }
        loop.quit(writeSpeech(*audio, path, out, err));
    });
    return loop.exec();
}

}  // namespace

int runSource(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    if (!args.empty() && args[0] == "probe")
        return sourceProbe(std::vector<std::string>(args.begin() + 1, args.end()), out, err);
    err << kSourceUsage;
    return kUsage;
}

int runTranscribe(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    return transcribe(args, out, err);
}
int runVoices(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) { return voices(args, out, err); }
int runSpeak(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) { return speak(args, out, err); }

}  // namespace osv::cli
