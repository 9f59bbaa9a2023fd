#include "metering/UsageTally.h"

#include <algorithm>

#include "core/Json.h"
#include "core/Text.h"

namespace osv {
namespace Pricing {
namespace {

struct Entry {
    std::string_view prefix;
    Rate rate;
};

// Tried in this order: the first prefix that matches wins ("gpt-4o-mini-tts" before
// "gpt-4o-mini", "gpt-5-mini" before "gpt-5"). The Gemini 3.5 prices are announced, not
// yet billed, so they are marked unverified.
constexpr Entry kTable[] = {
    {"gemini-3.5-transcribe-live", {3.5, 21, 0.009, 0, false}},
    {"gemini-3.5-live-translate", {3.5, 21, 0.0368, 0, false}},
    {"gemini-3.5-transcribe", {2, 12, 0.005, 0, false}},
    {"gpt-4o-mini-transcribe", {1.25, 5, 0.003, 0, true}},
    {"gpt-4o-transcribe", {2.5, 10, 0.006, 0, true}},
    {"gpt-4o-mini-tts", {0.6, 12, 0, 0, true}},
    {"gpt-realtime-translate", {0, 0, 0.034, 0, true}},
    {"gpt-realtime-whisper", {0, 0, 0.017, 0, true}},
    {"gpt-live-transcribe", {0, 0, 0.017, 0, true}},
    {"gpt-transcribe", {0, 0, 0.0045, 0, true}},
    {"gpt-realtime-mini", {10, 20, 0, 0, true}},
    {"gpt-realtime", {32, 64, 0, 0, true}},
    {"gpt-5-mini", {0.25, 2, 0, 0, true}},
    {"gpt-5", {1.25, 10, 0, 0, true}},
    {"gpt-4.1-mini", {0.4, 1.6, 0, 0, true}},
    {"gpt-4.1", {2, 8, 0, 0, true}},
    {"gpt-4o-mini", {0.15, 0.6, 0, 0, true}},
};

std::string normalized(std::string_view model) {
    return text::asciiLowercase(text::trimmed(model));
}

}  // namespace

std::optional<Rate> rate(std::string_view model) {
    const std::string name = normalized(model);
    if (name.rfind("google:", 0) == 0) {
        // Google voices are priced by tier, per million characters.
        const auto has = [&](std::string_view part) { return name.find(part) != std::string::npos; };
        double perMillion = 4;
        if (has("chirp3-hd") || has("chirp-hd")) perMillion = 30;
        else if (has("studio")) perMillion = 160;
        else if (has("neural2") || has("wavenet")) perMillion = 16;
        return Rate{0, 0, 0, perMillion, true};
    }
    for (const Entry& e : kTable)
        if (name.rfind(e.prefix, 0) == 0) return e.rate;
    return std::nullopt;
}

}  // namespace Pricing

namespace {

constexpr std::string_view kKindNames[] = {"refine",        "reverse",      "provisional",   "furigana", "suggestion",
                                           "transcription", "sourceRepair", "glossary",      "suggestionDraft",
                                           "summary",       "contextRepair", "coach",        "speech"};
constexpr std::string_view kKindLabels[] = {"整句翻译", "反向翻译", "草稿翻译", "假名注音", "回答建议",
                                            "转写",     "原文修正", "术语",     "快速回答", "摘要",
                                            "上下文修正", "陪练",   "语音"};

// Cost of tokens and characters of one model; none when it can't be priced.
std::optional<double> spendUSD(const std::string& model, const ModelSpend& spend, const std::optional<UsageRates>& rates) {
    const auto table = Pricing::rate(model);
    double input = 0, output = 0, characters = 0;
    if (rates && rates->hasTokenRates()) {
        input = rates->inputPerMillionUSD;
        output = rates->outputPerMillionUSD;
        if (table) characters = table->perMillionCharacters;
    } else if (table) {
        input = table->inputPerMillion;
        output = table->outputPerMillion;
        characters = table->perMillionCharacters;
    } else {
        return std::nullopt;
    }
    return double(spend.inputTokens) / 1e6 * input + double(spend.outputTokens) / 1e6 * output +
           double(spend.characters) / 1e6 * characters;
}

double realtimeUSD(double seconds, const std::vector<std::string>& models, const std::optional<UsageRates>& rates,
                   std::vector<std::string>& unpriced) {
    const double minutes = seconds / 60.0;
    if (rates && rates->realtimePerMinuteUSD > 0) return rates->realtimePerMinuteUSD * minutes;
    double usd = 0;
    for (const std::string& m : models) {
        if (auto r = Pricing::rate(m)) usd += r->perMinute * minutes;
        else unpriced.push_back(m);
    }
    return usd;
}

void addUnique(std::vector<std::string>& list, const std::string& value) {
    if (std::find(list.begin(), list.end(), value) == list.end()) list.push_back(value);
}

}  // namespace

std::string_view UsageTally::rawValue(Kind kind) { return kKindNames[std::size_t(kind)]; }
std::string_view UsageTally::label(Kind kind) { return kKindLabels[std::size_t(kind)]; }
std::optional<UsageTally::Kind> UsageTally::kindFromRaw(std::string_view raw) {
    for (std::size_t i = 0; i < std::size(kKindNames); ++i)
        if (kKindNames[i] == raw) return Kind(i);
    return std::nullopt;
}

void UsageTally::add(Kind kind, bool request, std::int64_t input, std::int64_t output,
                     const std::optional<std::string>& model, std::int64_t characters) {
    const std::string k(rawValue(kind));
    if (request) requests[k] += 1;
    inputTokens += input;
    outputTokens += output;
    if (!model) return;
    for (ModelSpend* spend : {&byModel[*model], &byKind[k][*model]}) {
        spend->inputTokens += input;
        spend->outputTokens += output;
        spend->characters += characters;
    }
}

void UsageTally::addSourceAudioReview(const std::string& model, double seconds) {
    sourceReviewSecondsByModel[model] += seconds;
}

int UsageTally::totalRequests() const {
    int n = 0;
    for (const auto& [kind, count] : requests) n += count;
    return n;
}

UsageTally::Estimate UsageTally::estimate(const std::vector<std::string>& realtimeModels,
                                          const std::optional<UsageRates>& rates) const {
    Estimate e;
    if (realtimeSeconds > 0) e.usd += realtimeUSD(realtimeSeconds, realtimeModels, rates, e.unpricedModels);
    for (const auto& [model, spend] : byModel) {
        if (auto usd = spendUSD(model, spend, rates)) e.usd += *usd;
        else addUnique(e.unpricedModels, model);
    }
    for (const auto& [model, seconds] : sourceReviewSecondsByModel) {
        if (auto r = Pricing::rate(model)) e.usd += seconds / 60.0 * r->perMinute;
        else addUnique(e.unpricedModels, model);
    }
    return e;
}

std::vector<UsageTally::Line> UsageTally::breakdown(const std::vector<std::string>& realtimeModels,
                                                    const std::optional<UsageRates>& rates) const {
    std::vector<Line> lines;
    if (realtimeSeconds > 0) {
        Line l;
        l.label = "实时音频";
        l.usd = realtimeUSD(realtimeSeconds, realtimeModels, rates, l.unpricedModels);
        if (!l.unpricedModels.empty() && l.usd == 0.0) l.usd.reset();
        lines.push_back(std::move(l));
    }
    for (Kind kind : allKinds) {
        const std::string k(rawValue(kind));
        const auto count = requests.find(k);
        if (count == requests.end() || count->second == 0) continue;
        Line l;
        l.label = std::string(label(kind));
        l.requests = count->second;
        if (auto models = byKind.find(k); models != byKind.end()) {
            double usd = 0;
            bool priced = false;
            for (const auto& [model, spend] : models->second) {
                l.inputTokens += spend.inputTokens;
                l.outputTokens += spend.outputTokens;
                if (auto cost = spendUSD(model, spend, rates)) {
                    usd += *cost;
                    priced = true;
                } else {
                    l.unpricedModels.push_back(model);
                }
            }
            if (priced) l.usd = usd;
        }
        lines.push_back(std::move(l));
    }
    return lines;
}

namespace {

using json::Json;

Json spendJson(const ModelSpend& s) {
    Json j = Json::object();
    j["inputTokens"] = s.inputTokens;
    j["outputTokens"] = s.outputTokens;
    j["characters"] = s.characters;
    return j;
}

ModelSpend spendFromJson(const Json& j) {
    return ModelSpend{json::read<std::int64_t>(j, "inputTokens", 0), json::read<std::int64_t>(j, "outputTokens", 0),
                      json::read<std::int64_t>(j, "characters", 0)};
}

template <class T, class Read>
std::map<std::string, T> mapFromJson(const Json& object, std::string_view key, Read read) {
    std::map<std::string, T> out;
    const Json* m = json::member(object, key);
    if (!m || !m->is_object()) return out;
    for (auto it = m->begin(); it != m->end(); ++it)
        if (auto v = read(it.value())) out.emplace(it.key(), std::move(*v));
    return out;
}

}  // namespace

Json toJson(const UsageTally& t) {
    Json j = Json::object();
    j["realtimeSeconds"] = t.realtimeSeconds;
    j["sourceReviewSecondsByModel"] = Json::object();
    for (const auto& [m, s] : t.sourceReviewSecondsByModel) j["sourceReviewSecondsByModel"][m] = s;
    j["inputTokens"] = t.inputTokens;
    j["outputTokens"] = t.outputTokens;
    j["requests"] = Json::object();
    for (const auto& [k, n] : t.requests) j["requests"][k] = n;
    j["byModel"] = Json::object();
    for (const auto& [m, s] : t.byModel) j["byModel"][m] = spendJson(s);
    j["byKind"] = Json::object();
    for (const auto& [k, models] : t.byKind) {
        Json inner = Json::object();
        for (const auto& [m, s] : models) inner[m] = spendJson(s);
        j["byKind"][k] = std::move(inner);
    }
    return j;
}

UsageTally usageTallyFromJson(const Json& j) {
    UsageTally t;
    t.realtimeSeconds = json::read<double>(j, "realtimeSeconds", 0);
    t.sourceReviewSecondsByModel = mapFromJson<double>(j, "sourceReviewSecondsByModel", json::as<double>);
    t.inputTokens = json::read<std::int64_t>(j, "inputTokens", 0);
    t.outputTokens = json::read<std::int64_t>(j, "outputTokens", 0);
    t.requests = mapFromJson<int>(j, "requests", [](const Json& v) -> std::optional<int> {
        if (auto n = json::as<std::int64_t>(v)) return int(*n);
        return std::nullopt;
    });
    t.byModel = mapFromJson<ModelSpend>(j, "byModel", [](const Json& v) -> std::optional<ModelSpend> {
        if (!v.is_object()) return std::nullopt;
        return spendFromJson(v);
    });
    t.byKind = mapFromJson<std::map<std::string, ModelSpend>>(
        j, "byKind", [](const Json& v) -> std::optional<std::map<std::string, ModelSpend>> {
            if (!v.is_object()) return std::nullopt;
            std::map<std::string, ModelSpend> models;
            for (auto it = v.begin(); it != v.end(); ++it)
                if (it.value().is_object()) models.emplace(it.key(), spendFromJson(it.value()));
            return models;
        });
    return t;
}

}  // namespace osv
