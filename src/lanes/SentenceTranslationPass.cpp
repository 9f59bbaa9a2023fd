#include "lanes/SentenceTranslationPass.h"

#include <algorithm>

#include "core/Text.h"
#include "core/TranslatorError.h"
#include "recordings/RecordingLibrary.h"
#include "services/OpenAIClient.h"
#include "transcript/CaptionGrouping.h"
#include "transcript/LiveTranscriptSession.h"
#include "transcript/TranscriptReadModel.h"

namespace osv {
namespace {

using Level = DebugEvent::Level;
using Category = DebugEvent::Category;
using Request = TranslationRouter::Request;

std::string firstCharacters(std::string_view text, std::size_t count) {
    text::GraphemeWalker walker(text);
    std::string_view cluster;
    std::size_t taken = 0, bytes = 0;
    while (taken < count && walker.next(cluster)) {
        bytes = std::size_t(cluster.data() + cluster.size() - text.data());
        ++taken;
    }
    return std::string(text.substr(0, bytes));
}

UsageTally::Kind usageKindOf(TranslationOrigin origin) {
    switch (origin) {
        case TranslationOrigin::provisional: return UsageTally::Kind::provisional;
        case TranslationOrigin::reverseToJapanese: return UsageTally::Kind::reverse;
        default: return UsageTally::Kind::refine;
    }
}

}  // namespace

SentenceTranslationPass::SentenceTranslationPass(Host& host, LaneRunner& lanes, OpenAIClient& client,
                                                 RecordingLibrary& library, Scheduler& scheduler)
    : host_(host), lanes_(lanes), client_(client), library_(library), scheduler_(scheduler) {}

SentenceTranslationPass::~SentenceTranslationPass() {
    for (auto& task : tasks_) task.cancel();
}

// MARK: - Prompts and pure helpers

std::string SentenceTranslationPass::chineseToJapaneseInstruction() {
    return "请把下面这句中文会议发言翻译成自然、口语化的日语（です・ます体）。\n保留人名、产品名、数字、日期和待办事项。"
           "只输出日语译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";
}

std::string SentenceTranslationPass::refinementInstruction(TargetLanguage target) {
    // "只输出中文译文" is fixed wording, also when the target is Japanese.
    return std::string("请把下面这句会议发言翻译成自然、准确的") +
           (target == TargetLanguage::japanese ? "日语" : "简体中文") +
           "。\n这是对一句已经流式译过的话做整句重译，请给出更通顺、更准确的版本。\n保留人名、产品名、数字、日期和待办事项。"
           "只输出中文译文，不要解释、不要加引号。\n如果没有可翻译的实际内容，只返回空字符串。";
}

bool SentenceTranslationPass::usesChineseToJapanese(const Request& request) {
    switch (request.origin) {
        case TranslationOrigin::reverseToJapanese: return true;
        case TranslationOrigin::provisional: return CaptionGrouping::looksChinese(request.text);
        default: return false;
    }
}

std::string SentenceTranslationPass::translationFailureSummary(const Error& error) {
    const std::string& description = error.message;
    if (description.find("temperature") != std::string::npos ||
        description.find("Unsupported parameter") != std::string::npos)
        return "翻译模型不接受当前参数，请在设置里换一个模型";
    const std::string_view trimmed = text::trimmed(description);
    if (text::graphemeCount(trimmed) <= kFailureSummaryCharacters) return std::string(trimmed);
    return firstCharacters(trimmed, kFailureSummaryCharacters) + "…";
}

TranslatorSettings SentenceTranslationPass::settingsWithGlossary(TranslatorSettings settings,
                                                                 const std::string& learnedLines) {
    if (learnedLines.empty()) return settings;
    if (text::isBlank(settings.glossary)) settings.glossary = learnedLines;
    else settings.glossary = settings.glossary + "\n" + learnedLines;
    return settings;
}

TranslationRouter::Config SentenceTranslationPass::routingConfig(const TranslatorSettings& settings,
                                                                 bool separatedChannels) {
    TranslationRouter::Config c;
    switch (settings.recognitionLanguage) {
        case RecognitionLanguage::automatic: c.translates = true; break;
        case RecognitionLanguage::chinese: c.translates = settings.targetLanguage == TargetLanguage::japanese; break;
        case RecognitionLanguage::japanese:
            c.translates = settings.targetLanguage == TargetLanguage::simplifiedChinese;
            break;
    }
    c.perspective = settings.perspective;
    c.target = settings.targetLanguage;
    c.separatedChannels = separatedChannels;
    c.refineFinishedSentences = settings.refineFinishedSentences;
    c.contextSentences = 3;
    c.minimumCharacters = 2;
    c.minimumProvisionalCharacters = 8;
    c.repairsSource = settings.repairSource;
    c.repairGraceSeconds = 0.35;
    return c;
}

bool SentenceTranslationPass::hasFailedTranslations(const TimelineList<Sentence>& sentences) {
    return std::any_of(sentences.begin(), sentences.end(), [](const Sentence& s) { return s.translationFailure.has_value(); });
}

bool SentenceTranslationPass::hasTrackedWork(const Uuid& recordingID) const {
    const auto it = trackedJobs_.find(recordingID);
    return it != trackedJobs_.end() && it->second > 0;
}

bool SentenceTranslationPass::hasOutstandingTranslations(const Uuid& recordingID, const TimelineList<Sentence>& sentences,
                                                         const TranslationRouter::Config& config, Date now) const {
    // A sentence held for its repair is owed a pass too.
    return hasTrackedWork(recordingID) || !TranslationRouter::pendingRequests(sentences, config, now).empty() ||
           TranslationRouter::nextDeadline(sentences, config, now).has_value();
}

// MARK: - Dispatching

void SentenceTranslationPass::submitClaimed(const Uuid& recordingID) {
    LiveTranscriptSession* session = host_.liveTranscript(recordingID);
    if (!session) return;
    const std::string learned = session->snapshot().glossaryLines();
    for (const auto& request : session->claimPendingRequests(scheduler_.now())) submit(request, recordingID, learned);
    for (const auto& request : session->claimProvisionalRequests()) submit(request, recordingID, learned);
}

void SentenceTranslationPass::dispatchPendingTranslations(const Uuid& recordingID) {
    // Later lanes, in their order; each does nothing until it is wired.
    if (laterLanes.glossaryScan) laterLanes.glossaryScan(recordingID);
    if (laterLanes.summary) laterLanes.summary(recordingID);
    if (laterLanes.contextRepair) laterLanes.contextRepair(recordingID, false);
    if (laterLanes.sourceRepairs) laterLanes.sourceRepairs(recordingID);
    if (LiveTranscriptSession* session = host_.liveTranscript(recordingID)) {
        const std::string learned = session->snapshot().glossaryLines();
        for (const auto& request : session->claimPendingRequests(scheduler_.now())) submit(request, recordingID, learned);
    }
    if (laterLanes.furigana) laterLanes.furigana(recordingID);
    armGraceTimer(recordingID);
}

void SentenceTranslationPass::dispatch(const std::vector<Request>& requests, const Uuid& recordingID) {
    if (requests.empty()) return;
    std::string learned;
    if (LiveTranscriptSession* session = host_.liveTranscript(recordingID)) learned = session->snapshot().glossaryLines();
    else if (auto log = library_.loadEventLog(recordingID)) {
        TranscriptReadModel::Fold fold;
        fold.advance(*log);
        learned = fold.snapshot().glossaryLines();
    }
    dispatch(requests, recordingID, learned);
}

void SentenceTranslationPass::dispatch(const std::vector<Request>& requests, const Uuid& recordingID,
                                       const std::string& learnedLines) {
    if (requests.empty()) return;
    for (const auto& request : requests) submit(request, recordingID, learnedLines);
    debug(Level::info, Category::translation, "重试整句翻译", "count: " + std::to_string(requests.size()));
}

void SentenceTranslationPass::armGraceTimer(const Uuid& recordingID) {
    graceTimer_.cancel();
    LiveTranscriptSession* session = host_.liveTranscript(recordingID);
    if (!session) return;
    const Date now = scheduler_.now();
    const auto deadline = TranslationRouter::nextDeadline(session->snapshot().sentences(), session->routing(), now);
    if (!deadline) return;
    const auto guard = lifetime_.guard();
    graceTimer_ = scheduler_.after(std::max(0.0, *deadline - now) + kGraceMarginSeconds, [this, guard, recordingID] {
        if (!guard.expired()) dispatchPendingTranslations(recordingID);
    });
}

std::optional<std::vector<Request>> SentenceTranslationPass::storedPendingRequests(const Uuid& recordingID,
                                                                                   std::string& learnedLines,
                                                                                   std::vector<std::string>* texts) {
    const auto log = library_.loadEventLog(recordingID);
    if (!log) return std::nullopt;
    TranscriptReadModel::Fold fold;
    fold.advance(*log);
    const TranscriptSnapshot snapshot = fold.snapshot();
    learnedLines = snapshot.glossaryLines();
    // Recordings keep no perspective of their own: the current setting stands.
    const auto config = routingConfig(host_.settings(), snapshot.usesMultipleChannels());
    auto pending = TranslationRouter::pendingRequests(snapshot.sentences(), config, scheduler_.now());
    if (texts)
        for (const auto& r : pending) texts->push_back(r.text);
    return pending;
}

void SentenceTranslationPass::retryFailedTranslations(const Uuid& recordingID, bool isLive) {
    if (isLive) {
        if (LiveTranscriptSession* session = host_.liveTranscript(recordingID)) {
            dispatch(session->retryFailedTranslations(scheduler_.now()), recordingID);
            return;
        }
    }
    std::string learned;
    if (auto pending = storedPendingRequests(recordingID, learned, nullptr)) dispatch(*pending, recordingID, learned);
}

void SentenceTranslationPass::sweepOutstandingTranslations(const Uuid& recordingID) {
    if (!sweptRecordings_.insert(recordingID).second) return;
    std::string learned;
    std::vector<std::string> texts;
    const auto pending = storedPendingRequests(recordingID, learned, &texts);
    if (!pending || pending->empty()) return;
    std::string details;
    for (const auto& t : texts) details += (details.empty() ? "" : "\n") + t;
    debug(Level::warning, Category::translation, "会话结束后仍有未翻译的句子，已补发", details, "translation_sweep");
    dispatch(*pending, recordingID, learned);
}

void SentenceTranslationPass::submit(const Request& request, const Uuid& recordingID, const std::string& learnedLines) {
    if (request.origin == TranslationOrigin::streamed) return;
    const TranslatorSettings settings = settingsWithGlossary(host_.settings(), learnedLines);
    const LaneID lane =
        request.origin == TranslationOrigin::provisional ? LaneID::provisionalTranslation : LaneID::sentenceTranslation;
    ++trackedJobs_[recordingID];
    const auto guard = lifetime_.guard();
    std::erase_if(tasks_, [](const LaneTask& t) { return t.isFinished(); });
    tasks_.push_back(lanes_.submit(
        lane, request.sentenceID.raw.text(),
        [this, guard, request, recordingID, settings](const std::shared_ptr<LaneTicket>& ticket,
                                                      LaneRunner::Finish finish) -> std::unique_ptr<HttpCall> {
            if (guard.expired()) {
                finish(LaneOutcome::cancelled());
                return nullptr;
            }
            return performSentencePass(request, recordingID, settings, ticket, std::move(finish));
        },
        [this, guard, recordingID] {
            if (guard.expired()) return;
            if (--trackedJobs_[recordingID] <= 0) trackedJobs_.erase(recordingID);
            host_.trackedWorkFinished(recordingID);
        }));
}

// MARK: - One pass

std::unique_ptr<HttpCall> SentenceTranslationPass::requestTranslation(
    OpenAIClient& client, const Request& request, const TranslatorSettings& settings, const std::string& model,
    std::function<void(const OpenAIDebugLog&)> onDebug,
    std::function<void(const std::string&, std::int64_t, std::int64_t)> onUsage,
    std::function<void(Expected<std::string>)> done) {
    const bool chineseToJapanese = usesChineseToJapanese(request);
    const std::string instruction =
        chineseToJapanese ? chineseToJapaneseInstruction() : refinementInstruction(settings.targetLanguage);
    return client.sentencePass(instruction, request.text, request.context, settings,
                               chineseToJapanese ? "发送中→日翻译请求" : "发送整句精修请求", model, std::move(onDebug),
                               std::move(onUsage), [chineseToJapanese, done = std::move(done)](Expected<std::string> reply) {
                                   if (!reply) return done(reply.error());
                                   std::string text(text::trimmed(*reply));
                                   if (text.empty())
                                       return done(TranslatorError::apiError(chineseToJapanese ? "中→日整句翻译结果为空。"
                                                                                               : "整句精修翻译结果为空。")
                                                       .asError());
                                   done(std::move(text));
                               });
}

std::unique_ptr<HttpCall> SentenceTranslationPass::performSentencePass(const Request& request, const Uuid& recordingID,
                                                                       const TranslatorSettings& settings,
                                                                       const std::shared_ptr<LaneTicket>& ticket,
                                                                       LaneRunner::Finish finish) {
    if (request.origin == TranslationOrigin::streamed) {
        finish(LaneOutcome::done());
        return nullptr;
    }
    const std::string model = host_.modelPreferences().resolved(ModelJob::fastText, settings.activeMode);
    const UsageTally::Kind kind = usageKindOf(request.origin);
    const auto guard = lifetime_.guard();
    auto onDebug = [this, guard](const OpenAIDebugLog& l) {
        if (!guard.expired()) host_.debug(l.stamped(scheduler_.now()));
    };
    // Tokens go to the session's tally by kind and to the lane's ticket.
    auto onUsage = [this, guard, kind, ticket](const std::string& m, std::int64_t in, std::int64_t out) {
        ticket->add(in, out);
        if (!guard.expired()) host_.usageTally().add(kind, true, in, out, m);
    };
    return requestTranslation(
        client_, request, settings, model, onDebug, onUsage,
        [this, guard, request, recordingID, finish = std::move(finish)](Expected<std::string> reply) {
            // The pass may be gone with its controller: nothing is filed then.
            if (guard.expired()) return finish(LaneOutcome::done());
            std::optional<Error> failure;
            std::string translation;
            if (reply) translation = std::move(*reply);
            else failure = reply.error();
            const bool refined = request.origin == TranslationOrigin::refined;
            if (!failure) {
                file(request, recordingID, TranscriptEvent::SentenceTranslated{request.sentenceID, translation, request.origin});
                debug(Level::success, Category::translation, refined ? "整句精修完成" : "中→日翻译完成",
                      request.text + " → " + translation);
                return finish(LaneOutcome::done());
            }
            const std::string summary = translationFailureSummary(*failure);
            file(request, recordingID, TranscriptEvent::SentenceTranslationFailed{request.sentenceID, summary});
            debug(Level::warning, Category::translation, refined ? "整句精修失败" : "中→日翻译失败", failure->message,
                  refined ? "refine_failed" : "reverse_translation_failed");
            finish(LaneOutcome::failed(summary));
        });
}

void SentenceTranslationPass::file(const Request& request, const Uuid& recordingID, TranscriptEvent::Payload payload) {
    TranscriptEvent event;
    event.id = Uuid::random();
    event.at = scheduler_.now();
    event.channel = request.channel;
    event.payload = std::move(payload);
    if (LiveTranscriptSession* session = host_.liveTranscript(recordingID)) {
        session->append(std::move(event));
        host_.transcriptChanged(recordingID);
    } else {
        fileIntoStoredRecording(recordingID, std::move(event));
    }
    // A translation into Japanese may want readings.
    if (laterLanes.furigana) laterLanes.furigana(recordingID);
}

void SentenceTranslationPass::fileIntoStoredRecording(const Uuid& recordingID, TranscriptEvent event) {
    auto log = library_.loadEventLog(recordingID);
    if (!log) {
        debug(Level::warning, Category::translation, "迟到的翻译找不到录音", "recording: " + recordingID.text(),
              "late_translation_unfiled");
        return;
    }
    log->append(std::move(event));
    TranscriptReadModel::Fold fold;
    fold.advance(*log);
    const TranscriptSnapshot snapshot = fold.snapshot();
    const Date now = scheduler_.now();
    library_.updateRecording(recordingID, true, [&](RecordingEntry& entry) {
        entry.eventLog = std::move(*log);
        entry.segments = snapshot.transcriptSegments(snapshot.usesMultipleChannels());
        entry.refreshDerivedText();
        entry.updatedAt = now;
    });
}

void SentenceTranslationPass::debug(Level level, Category category, std::string title, std::string details,
                                    std::optional<std::string> code) {
    host_.debug(DebugEvent{Uuid::random(), scheduler_.now(), level, category, std::move(title), std::move(details),
                           std::move(code)});
}

}  // namespace osv
