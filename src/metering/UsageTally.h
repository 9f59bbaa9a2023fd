#pragma once

// What a session used, per model and per kind of work, and what that cost: the built-in
// price table, the user's own rates, the breakdown and the estimate.

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Expected.h"

namespace osv {

// The user's own prices; a value above 0 replaces the table's.
struct UsageRates {
    double realtimePerMinuteUSD = 0;
    double inputPerMillionUSD = 0;
    double outputPerMillionUSD = 0;

    bool hasTokenRates() const { return inputPerMillionUSD > 0 || outputPerMillionUSD > 0; }
    bool operator==(const UsageRates&) const = default;
};

namespace Pricing {

struct Rate {
    double inputPerMillion = 0;       // USD per million tokens
    double outputPerMillion = 0;
    double perMinute = 0;             // USD per minute of realtime audio
    double perMillionCharacters = 0;  // USD per million characters (speech)
    bool verified = true;
    bool operator==(const Rate&) const = default;
};

// The rate of a model (trimmed and lower-cased here), or of "google:{voice}"; none for a
// model the table doesn't know.
std::optional<Rate> rate(std::string_view model);

// The date the built-in table was last checked against the vendors' price pages.
inline constexpr std::string_view kCheckedOn = "2026-11-01";

}  // namespace Pricing

struct ModelSpend {
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    std::int64_t characters = 0;
    bool operator==(const ModelSpend&) const = default;
};

struct UsageTally {
    enum class Kind {
        refine, reverse, provisional, furigana, suggestion, transcription, sourceRepair, glossary, suggestionDraft,
        summary, contextRepair, coach, speech
    };
    static constexpr std::array<Kind, 13> allKinds{
        Kind::refine,   Kind::reverse,         Kind::provisional, Kind::furigana,      Kind::suggestion,
        Kind::transcription, Kind::sourceRepair, Kind::glossary, Kind::suggestionDraft, Kind::summary,
        Kind::contextRepair, Kind::coach, Kind::speech};
    static std::string_view rawValue(Kind kind);
    static std::optional<Kind> kindFromRaw(std::string_view raw);
    static std::string_view label(Kind kind);

    struct Line {
        std::string label;
        std::optional<double> usd;  // none when nothing in it could be priced
        int requests = 0;
        std::int64_t inputTokens = 0;
        std::int64_t outputTokens = 0;
        std::vector<std::string> unpricedModels;
        bool operator==(const Line&) const = default;
    };

    struct Estimate {
        double usd = 0;
        std::vector<std::string> unpricedModels;  // the total is partial when any
        bool isPartial() const { return !unpricedModels.empty(); }
    };

    double realtimeSeconds = 0;
    std::map<std::string, double> sourceReviewSecondsByModel;
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    std::map<std::string, int> requests;  // by kind raw value
    std::map<std::string, ModelSpend> byModel;
    std::map<std::string, std::map<std::string, ModelSpend>> byKind;

    void add(Kind kind, bool request, std::int64_t inputTokens, std::int64_t outputTokens,
             const std::optional<std::string>& model, std::int64_t characters = 0);
    void addSourceAudioReview(const std::string& model, double seconds);
    int totalRequests() const;

    // `rates` set: the user's own prices replace the table.
    std::vector<Line> breakdown(const std::vector<std::string>& realtimeModels,
                                const std::optional<UsageRates>& rates) const;
    Estimate estimate(const std::vector<std::string>& realtimeModels, const std::optional<UsageRates>& rates) const;

    bool operator==(const UsageTally&) const = default;
};

// JSON keys are the field names; decoding tolerates absent or bad keys (empty values).
nlohmann::ordered_json toJson(const UsageTally& tally);
UsageTally usageTallyFromJson(const nlohmann::ordered_json& json);

}  // namespace osv
