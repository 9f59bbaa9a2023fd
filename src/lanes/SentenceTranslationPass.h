#pragma once

// The text-model passes that improve on the streamed translation: a whole-sentence
// refinement of a closed sentence, the reverse direction for what the user says, and a
// draft of a long sentence still open. It decides when a claimed request is sent, sends
// it through the sentence lanes, and files the result (or the failure) as an event: into
// the live session while the recording is on air, into the stored recording after that,
// so a late reply is never lost. Nothing marks a sentence "in progress": what was claimed
// is the live session's bookkeeping, what was filed is the event log.
//
// The controller drives it from outside through the narrow Host below. Thread contract:
// main thread; replies come back there through the transport and the Scheduler.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/Expected.h"
#include "core/Scheduler.h"
#include "core/Uuid.h"
#include "lanes/LaneRunner.h"
#include "metering/DebugEvent.h"
#include "metering/UsageTally.h"
#include "settings/ModelPreferences.h"
#include "settings/TranslatorSettings.h"
#include "transcript/TranslationRouter.h"

namespace osv {

class LiveTranscriptSession;
class OpenAIClient;
class RecordingLibrary;

class SentenceTranslationPass {
public:
    // What the pass needs of the controller, and nothing more.
    struct Host {
        virtual ~Host() = default;
        // The session on air for this recording; null unless it holds the live transcript.
        virtual LiveTranscriptSession* liveTranscript(const Uuid& recordingID) = 0;
        // Something was filed into the live session: re-project the captions.
        virtual void transcriptChanged(const Uuid& recordingID) = 0;
        virtual TranslatorSettings settings() = 0;
        virtual ModelPreferences modelPreferences() = 0;
        // The tally of the session's usage.
        virtual UsageTally& usageTally() = 0;
        virtual void debug(DebugEvent event) = 0;
        // A tracked job of this recording ended: the session may now be able to finish.
        virtual void trackedWorkFinished(const Uuid& recordingID) = 0;
    };

    // The lanes that later work will add to dispatchPendingTranslations. Until a hook is
    // set, its step does nothing and claims nothing (a claim without a job would lose the
    // work).
    struct LaterLanes {
        std::function<void(const Uuid&)> glossaryScan;
        std::function<void(const Uuid&)> summary;
        std::function<void(const Uuid&, bool finishing)> contextRepair;
        std::function<void(const Uuid&)> sourceRepairs;  // claimPendingRepairs and their jobs
        std::function<void(const Uuid&)> furigana;       // dispatchPendingFurigana
    };

    static constexpr double kGraceMarginSeconds = 0.05;
    static constexpr std::size_t kFailureSummaryCharacters = 40;

    SentenceTranslationPass(Host& host, LaneRunner& lanes, OpenAIClient& client, RecordingLibrary& library,
                            Scheduler& scheduler);
    ~SentenceTranslationPass();
    SentenceTranslationPass(const SentenceTranslationPass&) = delete;
    SentenceTranslationPass& operator=(const SentenceTranslationPass&) = delete;

    LaterLanes laterLanes;

    // After each ingested delta and each finalised segment: claims what is due and
    // drafts of open sentences, and submits them.
    void submitClaimed(const Uuid& recordingID);
    // The main sweep over the live session: later lanes, due requests, the grace timer.
    void dispatchPendingTranslations(const Uuid& recordingID);
    // Submits a given list (retry, the end-of-session sweep), then logs "重试整句翻译".
    void dispatch(const std::vector<TranslationRouter::Request>& requests, const Uuid& recordingID);
    // The user's retry: the live session's failed sentences, or what a stored recording's
    // log still lacks.
    void retryFailedTranslations(const Uuid& recordingID, bool isLive);
    // Once per recording, when a finished recording goes idle.
    void sweepOutstandingTranslations(const Uuid& recordingID);

    // Wakes the sweep 0.05 s after the earliest held request falls due.
    void armGraceTimer(const Uuid& recordingID);
    void cancelGrace() { graceTimer_.cancel(); }
    bool isGraceArmed() const { return graceTimer_.isPending(); }

    // Sentence-pass jobs of this recording that have not ended.
    bool hasTrackedWork(const Uuid& recordingID) const;
    // For the screens: a sentence shows its failure words.
    static bool hasFailedTranslations(const TimelineList<Sentence>& sentences);
    // For the screens: jobs under way, or sentences the router owes a pass at `now` (due, or
    // held for their repair).
    bool hasOutstandingTranslations(const Uuid& recordingID, const TimelineList<Sentence>& sentences,
                                    const TranslationRouter::Config& config, Date now) const;

    // The words a sentence shows on failure: 40 characters at most, then "…".
    static std::string translationFailureSummary(const Error& error);
    // The user's glossary with the session's learned lines appended.
    static TranslatorSettings settingsWithGlossary(TranslatorSettings settings, const std::string& learnedLines);
    // The router's configuration for a session with these settings.
    static TranslationRouter::Config routingConfig(const TranslatorSettings& settings, bool separatedChannels);

    // The two prompts.
    static std::string chineseToJapaneseInstruction();
    static std::string refinementInstruction(TargetLanguage target);
    // The instruction a request is sent with: C→J for reverse, and for a draft that looks
    // Chinese; the refinement otherwise.
    static bool usesChineseToJapanese(const TranslationRouter::Request& request);

    // Sends one request with its prompt, the context, the settings' glossary and `model`;
    // trims the reply, and fails on an empty one. What a pass sends, for any caller.
    static std::unique_ptr<HttpCall> requestTranslation(OpenAIClient& client, const TranslationRouter::Request& request,
                                                        const TranslatorSettings& settings, const std::string& model,
                                                        std::function<void(const OpenAIDebugLog&)> onDebug,
                                                        std::function<void(const std::string&, std::int64_t, std::int64_t)> onUsage,
                                                        std::function<void(Expected<std::string>)> done);

private:
    void submit(const TranslationRouter::Request& request, const Uuid& recordingID, const std::string& learnedLines);
    void dispatch(const std::vector<TranslationRouter::Request>& requests, const Uuid& recordingID,
                  const std::string& learnedLines);
    std::unique_ptr<HttpCall> performSentencePass(const TranslationRouter::Request& request, const Uuid& recordingID,
                                                  const TranslatorSettings& settings,
                                                  const std::shared_ptr<LaneTicket>& ticket, LaneRunner::Finish finish);
    void file(const TranslationRouter::Request& request, const Uuid& recordingID, TranscriptEvent::Payload payload);
    void fileIntoStoredRecording(const Uuid& recordingID, TranscriptEvent event);
    std::optional<std::vector<TranslationRouter::Request>> storedPendingRequests(const Uuid& recordingID,
                                                                                 std::string& learnedLines,
                                                                                 std::vector<std::string>* texts);
    void debug(DebugEvent::Level level, DebugEvent::Category category, std::string title, std::string details,
               std::optional<std::string> code = {});

    Host& host_;
    LaneRunner& lanes_;
    OpenAIClient& client_;
    RecordingLibrary& library_;
    Scheduler& scheduler_;
    TimerHandle graceTimer_;
    std::set<Uuid> sweptRecordings_;
    std::map<Uuid, int> trackedJobs_;
    // The jobs under way, cancelled when the pass goes away with its session.
    std::vector<LaneTask> tasks_;
    Lifetime lifetime_;
};

}  // namespace osv
