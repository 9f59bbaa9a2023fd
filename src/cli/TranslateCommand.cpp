#include "cli/TranslateCommand.h"

#include <QCoreApplication>

#include <memory>
#include <ostream>

#include "cli/Cli.h"
#include "cli/CliStores.h"
#include "core/Json.h"
#include "lanes/SentenceTranslationPass.h"
#include "platform/qt/QtHttpTransport.h"
#include "platform/qt/QtScheduler.h"
#include "services/ServiceEndpoints.h"

namespace osv::cli {
namespace {

using json::Json;

Json debugLine(const OpenAIDebugLog& log) {
    Json record = Json::object();
    record["level"] = DebugEvent::rawValue(log.level);
    record["category"] = DebugEvent::rawValue(log.category);
    record["title"] = log.title;
    record["details"] = log.details;
    record["code"] = log.code ? Json(*log.code) : Json(nullptr);
    Json line = Json::object();
    line["debug"] = std::move(record);
    return line;
}

}  // namespace

Expected<TranslateCommand::Options> TranslateCommand::parse(const std::vector<std::string>& args) {
    Options o;
    bool hasText = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--json") {
            o.json = true;
            continue;
        }
        if (a == "--origin" || a == "--context" || a == "--target") {
            if (i + 1 >= args.size()) return Error{"usage", a + " takes a value"};
            const std::string& value = args[++i];
            if (a == "--context") {
                o.context.push_back(value);
            } else if (a == "--target") {
                if (value == "simplifiedChinese") o.target = TargetLanguage::simplifiedChinese;
                else if (value == "japanese") o.target = TargetLanguage::japanese;
                else return Error{"usage", "--target takes simplifiedChinese or japanese"};
            } else {
                const auto origin = translationOriginFromRaw(value);
                if (!origin || *origin == TranslationOrigin::streamed)
                    return Error{"usage", "--origin takes refined, reverseToJapanese or provisional"};
                o.origin = *origin;
            }
            continue;
        }
        if (a.rfind("--", 0) == 0 || hasText) return Error{"usage", "unexpected argument \"" + a + "\""};
        o.text = a;
        hasText = true;
    }
    if (!hasText) return Error{"usage", "the text to translate is missing"};
    return o;
}

TranslateCommand::TranslateCommand(Scheduler& scheduler, HttpTransport& transport, std::string openAIBase,
                                   std::ostream& out, std::ostream& err)
    : scheduler_(scheduler), client_(transport, scheduler, std::move(openAIBase)), lanes_(scheduler), out_(out), err_(err) {}

void TranslateCommand::run(TranslatorSettings settings, Options options, std::function<void(int)> finished) {
    if (options.target) settings.targetLanguage = *options.target;
    TranslationRouter::Request request;
    request.sentenceID = SentenceID{Uuid::random()};
    request.text = options.text;
    request.context = options.context;
    request.origin = options.origin;
    const std::string model = settings.models.resolved(ModelJob::fastText, settings.activeMode);
    const LaneID lane = options.origin == TranslationOrigin::provisional ? LaneID::provisionalTranslation
                                                                         : LaneID::sentenceTranslation;
    struct Result {
        std::optional<std::string> translation;
        std::optional<Error> failure;
    };
    auto result = std::make_shared<Result>();
    const auto guard = lifetime_.guard();
    const std::string key = request.sentenceID.raw.text();
    lanes_.submit(
        lane, key,
        [this, guard, request, settings, model, result, json = options.json](const std::shared_ptr<LaneTicket>& ticket,
                                                                             LaneRunner::Finish finish) {
            auto onDebug = [this, guard, json](const OpenAIDebugLog& log) {
                if (!guard.expired() && json) out_ << json::dumpLine(debugLine(log)) << "\n" << std::flush;
            };
            auto onUsage = [ticket](const std::string&, std::int64_t in, std::int64_t out) { ticket->add(in, out); };
            return SentenceTranslationPass::requestTranslation(
                client_, request, settings, model, onDebug, onUsage,
                [result, finish = std::move(finish)](Expected<std::string> reply) {
                    if (reply) {
                        result->translation = std::move(*reply);
                        return finish(LaneOutcome::done());
                    }
                    result->failure = reply.error();
                    finish(LaneOutcome::failed(SentenceTranslationPass::translationFailureSummary(reply.error())));
                });
        },
        [this, guard, key, lane, model, settings, result, options, finished = std::move(finished)] {
            if (guard.expired()) return;
            if (!result->translation) {
                const Error failure = result->failure.value_or(Error{"cancelled", "已取消"});
                err_ << SentenceTranslationPass::translationFailureSummary(failure) << "\n" << std::flush;
                return finished(kFailed);
            }
            if (!options.json) {
                out_ << *result->translation << "\n" << std::flush;
                return finished(kOk);
            }
            const auto runs = lanes_.runs(key);
            const LaneRun* run = runs.count(lane) ? &runs.at(lane) : nullptr;
            Json line = Json::object();
            line["translation"] = *result->translation;
            line["origin"] = rawValue(options.origin);
            line["model"] = model;
            line["inputTokens"] = run ? run->inputTokens : 0;
            line["outputTokens"] = run ? run->outputTokens : 0;
            const auto usd = run ? run->estimatedUSD(settings) : std::nullopt;
            line["estimatedUSD"] = usd ? Json(*usd) : Json(nullptr);
            out_ << json::dumpLine(line) << "\n" << std::flush;
            finished(kOk);
        });
}

int runTranslate(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
    auto options = TranslateCommand::parse(args);
    if (!options) {
        err << "ossevra-cli: " << options.error().message << "\n" << TranslateCommand::kUsage;
        return kUsage;
    }
    Stores stores(err);
    TranslatorSettings settings = stores.settings.load(environmentKey());
    stores.settings.loadStoredKey(settings);

    std::unique_ptr<QCoreApplication> app;
    if (!QCoreApplication::instance()) {
        static int argc = 1;
        static char name[] = "ossevra-cli";
        static char* argv[] = {name, nullptr};
        app = std::make_unique<QCoreApplication>(argc, argv);
    }
    QtScheduler scheduler;
    QtHttpTransport transport;
    TranslateCommand command(scheduler, transport, ServiceEndpoints::resolve(stores.defaults).openAI, out, err);
    int status = kFailed;
    bool done = false;
    command.run(std::move(settings), std::move(*options), [&](int s) {
        status = s;
        done = true;
        QCoreApplication::quit();
    });
    if (!done) QCoreApplication::exec();
    return status;
}

}  // namespace osv::cli
