#pragma once

// Records of other subsystems that a recording keeps: the session summary, the coach's
// cards, assist answers and the post-processing trace. Their behaviour lives with their
// subsystems; here are the values and what the index needs of them.

#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/Uuid.h"

namespace osv {

struct SessionSummary {
    struct Topic {
        std::string title;
        std::vector<std::string> points;
        bool operator==(const Topic&) const = default;
    };
    std::string overview;
    std::vector<Topic> topics;
    std::vector<std::string> actions;
    Date createdAt;
    int basedOnSentenceCount = 0;

    bool isEmpty() const { return overview.empty() && topics.empty() && actions.empty(); }
    std::vector<std::string> points() const;
    bool operator==(const SessionSummary&) const = default;
};

struct CoachReview {
    Uuid id;
    std::string heard;   // what the recogniser took the user to say
    std::string answer;  // the teacher's text, Japanese in 「」
    Date createdAt;
    bool operator==(const CoachReview&) const = default;
};

// Stored as a one-key object: {"quick":{}}, {"considered":{}}, {"expansion":{"_0":label}}.
struct AnswerKind {
    enum class Case { quick, considered, expansion };
    Case kind = Case::quick;
    std::string label;  // the button's label, for an expansion
    bool operator==(const AnswerKind&) const = default;
};

enum class ResolvedReplyLanguage { japanese, chinese };

struct SuggestedReply {
    Uuid id;
    std::string text;         // say this
    std::string translation;  // what it means; empty when already in the reading language
    bool operator==(const SuggestedReply&) const = default;
};

struct ResponseSuggestion {
    Uuid id;
    std::vector<std::string> keyPoints;
    std::vector<SuggestedReply> replies;
    Date createdAt;
    int basedOnLineCount = 0;
    AnswerKind kind;
    ResolvedReplyLanguage language = ResolvedReplyLanguage::japanese;
    int round = 0;
    bool isUnclear = false;
    std::optional<std::string> question;
    std::optional<std::string> questionTranslation;
    bool questionIsMine = false;
    bool questionJudgedUnclear = false;
    bool operator==(const ResponseSuggestion&) const = default;
};

enum class RecordingProcessingStage { transcribing, translating, summarizing };

struct RecordingProcessingTrace {
    Date startedAt;
    std::optional<Date> sourceReadyAt;
    std::optional<Date> translationReadyAt;
    std::optional<Date> summaryReadyAt;
    std::optional<Date> finishedAt;
    std::string sourceText;
    std::string translatedText;
    std::optional<SessionSummary> summary;
    std::optional<std::string> errorMessage;
    bool operator==(const RecordingProcessingTrace&) const = default;
};

}  // namespace osv
