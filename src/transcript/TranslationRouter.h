#pragma once

// Decides, from the sentences and a configuration, which sentences are owed which
// language work now. Pure functions: no state, no service calls; the session remembers
// what was already claimed.

#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "transcript/Languages.h"
#include "transcript/TranscriptSnapshot.h"

namespace osv::TranslationRouter {

struct Config {
    bool translates = true;
    Perspective perspective = Perspective::shared;
    TargetLanguage target = TargetLanguage::simplifiedChinese;
    bool separatedChannels = false;        // channels are truly different speakers
    bool refineFinishedSentences = true;   // run the text-model pass on closed sentences
    int contextSentences = 3;              // earlier sentences passed along as context
    int minimumCharacters = 2;             // shorter sentences get no translation and no repair
    int minimumProvisionalCharacters = 8;  // shorter open sentences get no draft
    bool repairsSource = false;            // a source repair runs before the translation
    double repairGraceSeconds = 2.0;       // how long a translation waits for the repair

    bool operator==(const Config&) const = default;
};

struct Request {
    SentenceID sentenceID;
    std::string text;
    std::vector<std::string> context;  // oldest first
    TranslationOrigin origin = TranslationOrigin::refined;
    CaptureChannel channel = CaptureChannel::system;

    bool operator==(const Request&) const = default;
};

// The kind of work a sentence calls for, if any.
std::optional<TranslationOrigin> origin(const Sentence& sentence, const Config& config);

// Each walk may start at `from`: the sentences before it are known to be settled (closed,
// and claimed or owed nothing), and serve only as context. A long session's claims then
// cost its live tail, not its hours.

// Requests for closed sentences due for translation at `now`.
std::vector<Request> pendingRequests(const TimelineList<Sentence>& sentences, const Config& config, Date now,
                                     std::size_t from = 0);
// Requests for drafts of open sentences.
std::vector<Request> provisionalRequests(const TimelineList<Sentence>& sentences, const Config& config,
                                         std::size_t from = 0);
// Requests for source repair of closed sentences.
std::vector<Request> repairRequests(const TimelineList<Sentence>& sentences, const Config& config);
// The earliest moment after `now` at which a sentence held back for its repair is due.
std::optional<Date> nextDeadline(const TimelineList<Sentence>& sentences, const Config& config, Date now,
                                 std::size_t from = 0);

}  // namespace osv::TranslationRouter
