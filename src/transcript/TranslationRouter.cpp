#include "transcript/TranslationRouter.h"

#include <algorithm>
#include <deque>

#include "core/Text.h"
#include "transcript/CaptionGrouping.h"

namespace osv::TranslationRouter {
namespace {

bool hasRepairedRevision(const Sentence& s) {
    return std::any_of(s.revisions.begin(), s.revisions.end(),
                       [](const SourceRevision& r) { return r.origin == SourceRevisionOrigin::repaired; });
}

// The last `limit` texts seen so far, oldest first. Holds sentences, not strings, so that
// a walk over hours of sentences copies text only for the requests it makes.
class Context {
public:
    Context(int limit, bool best) : limit_(std::size_t(std::max(limit, 0))), best_(best) {}
    void add(const Sentence& s) {
        if (limit_ == 0) return;
        if (recent_.size() == limit_) recent_.pop_front();
        recent_.push_back(&s);
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        out.reserve(recent_.size());
        for (const Sentence* s : recent_) out.push_back(best_ ? s->bestText() : s->text);
        return out;
    }

private:
    std::size_t limit_;
    bool best_;
    std::deque<const Sentence*> recent_;
};

// Where a walk from `from` begins: far enough back that the context of the first sentence
// it considers is complete.
std::size_t contextStart(const TimelineList<Sentence>& sentences, std::size_t from, int contextSentences) {
    from = std::min(from, sentences.size());
    std::size_t start = from;
    for (int found = 0; start > 0 && found < contextSentences;) {
        --start;
        if (sentences[start].isClosed) ++found;
    }
    return start;
}

enum class Due { skip, heldForRepair, due };

// The tests of pendingRequests for one closed sentence; `text` receives the text to send.
Due dueness(const Sentence& s, const Config& config, Date now, std::optional<TranslationOrigin>& origin,
            std::string& text) {
    // A real translation is redone only if the source was revised after it.
    if (const Translation* standing = Sentence::standing(s.translations);
        standing && standing->origin != TranslationOrigin::provisional) {
        const bool revisedSince = std::any_of(s.revisions.begin(), s.revisions.end(),
                                              [&](const SourceRevision& r) { return r.at > standing->at; });
        if (!revisedSince) return Due::skip;
    }
    text = s.bestText();
    if (text::graphemeCount(text) < std::size_t(std::max(config.minimumCharacters, 0))) return Due::skip;
    origin = TranslationRouter::origin(s, config);
    if (!origin) return Due::skip;
    // A reverse translation never waits for a repair.
    if (*origin != TranslationOrigin::reverseToJapanese && config.repairsSource && !hasRepairedRevision(s) &&
        now - s.endedAt < config.repairGraceSeconds)
        return Due::heldForRepair;
    return Due::due;
}

}  // namespace

std::optional<TranslationOrigin> origin(const Sentence& sentence, const Config& config) {
    const auto ownSpeech = [&]() -> std::optional<TranslationOrigin> {
        if (config.perspective == Perspective::shared) return TranslationOrigin::reverseToJapanese;
        return std::nullopt;
    };
    if (!config.separatedChannels) {
        // The user's own Chinese, already in the session's target language.
        if (CaptionGrouping::looksChinese(sentence.text) && config.target == TargetLanguage::simplifiedChinese)
            return ownSpeech();
    } else if (sentence.channel == CaptureChannel::microphone) {
        // On separated channels the microphone is the user, whatever the language looks like.
        return ownSpeech();
    }
    if (!config.translates) return std::nullopt;
    const std::string text = sentence.bestText();
    const bool inTarget = config.target == TargetLanguage::simplifiedChinese ? CaptionGrouping::looksChinese(text)
                                                                             : CaptionGrouping::looksJapanese(text);
    if (inTarget) return std::nullopt;
    if (config.refineFinishedSentences) return TranslationOrigin::refined;
    return std::nullopt;
}

std::vector<Request> pendingRequests(const TimelineList<Sentence>& sentences, const Config& config, Date now,
                                     std::size_t from) {
    std::vector<Request> out;
    Context context(config.contextSentences, true);
    for (std::size_t i = contextStart(sentences, from, config.contextSentences); i < sentences.size(); ++i) {
        const Sentence& s = sentences[i];
        if (!s.isClosed) continue;
        if (i < from) {
            context.add(s);
            continue;
        }
        std::optional<TranslationOrigin> o;
        std::string text;
        if (dueness(s, config, now, o, text) == Due::due)
            out.push_back(Request{s.id, std::move(text), context.texts(), *o, s.channel});
        context.add(s);
    }
    return out;
}

std::vector<Request> provisionalRequests(const TimelineList<Sentence>& sentences, const Config& config,
                                         std::size_t from) {
    std::vector<Request> out;
    if (!config.translates) return out;
    Context context(config.contextSentences, false);
    Config drafting = config;
    drafting.refineFinishedSentences = true;
    for (std::size_t i = contextStart(sentences, from, config.contextSentences); i < sentences.size(); ++i) {
        const Sentence& s = sentences[i];
        if (s.isClosed) {
            context.add(s);
            continue;
        }
        if (const Translation* standing = Sentence::standing(s.translations);
            standing && standing->origin != TranslationOrigin::provisional)
            continue;
        if (text::graphemeCount(s.text) < std::size_t(std::max(config.minimumProvisionalCharacters, 0))) continue;
        if (!origin(s, drafting)) continue;
        out.push_back(Request{s.id, s.text, context.texts(), TranslationOrigin::provisional, s.channel});
    }
    return out;
}

std::vector<Request> repairRequests(const TimelineList<Sentence>& sentences, const Config& config) {
    std::vector<Request> out;
    if (!config.repairsSource) return out;
    Context context(config.contextSentences, true);
    for (const Sentence& s : sentences) {
        if (!s.isClosed) continue;
        if (text::graphemeCount(s.text) >= std::size_t(std::max(config.minimumCharacters, 0)) && !hasRepairedRevision(s))
            out.push_back(Request{s.id, s.text, context.texts(), TranslationOrigin::refined, s.channel});
        context.add(s);
    }
    return out;
}

std::optional<Date> nextDeadline(const TimelineList<Sentence>& sentences, const Config& config, Date now,
                                 std::size_t from) {
    if (!config.repairsSource) return std::nullopt;
    std::optional<Date> earliest;
    for (std::size_t i = std::min(from, sentences.size()); i < sentences.size(); ++i) {
        const Sentence& s = sentences[i];
        if (!s.isClosed) continue;
        std::optional<TranslationOrigin> o;
        std::string text;
        if (dueness(s, config, now, o, text) != Due::heldForRepair) continue;
        const Date due = s.endedAt + config.repairGraceSeconds;
        if (due > now && (!earliest || due < *earliest)) earliest = due;
    }
    return earliest;
}

}  // namespace osv::TranslationRouter
