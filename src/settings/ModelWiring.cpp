#include "settings/ModelWiring.h"

#include <algorithm>
#include <cstdio>

#include "core/Text.h"

namespace osv {

ModelJob modelJob(UsageTally::Kind kind) {
    using K = UsageTally::Kind;
    switch (kind) {
        case K::furigana:
        case K::suggestion: return ModelJob::strongText;
        case K::transcription: return ModelJob::fileTranscribe;
        case K::coach: return ModelJob::coachAnswer;
        case K::speech: return ModelJob::speech;
        default: return ModelJob::fastText;  // sentence passes, repairs, glossary, summary, drafts
    }
}

std::optional<double> estimatedUSD(UsageTally::Kind kind, std::int64_t inputTokens, std::int64_t outputTokens,
                                   const TranslatorSettings& settings, AppMode mode) {
    double input = 0, output = 0;
    if (settings.usageRates.hasTokenRates()) {
        input = settings.usageRates.inputPerMillionUSD;
        output = settings.usageRates.outputPerMillionUSD;
    } else {
        const auto rate = Pricing::rate(settings.models.resolved(modelJob(kind), mode));
        if (!rate) return std::nullopt;
        input = rate->inputPerMillion;
        output = rate->outputPerMillion;
    }
    return double(inputTokens) / 1e6 * input + double(outputTokens) / 1e6 * output;
}

namespace ModelWiring {

std::optional<std::string> priceText(const std::optional<Pricing::Rate>& rate) {
    if (!rate) return std::nullopt;
    char buffer[96];
    if (rate->perMinute > 0) std::snprintf(buffer, sizeof buffer, "$%.3f/分钟", rate->perMinute);
    else if (rate->inputPerMillion > 0 || rate->outputPerMillion > 0)
        std::snprintf(buffer, sizeof buffer, "$%.2f / $%.2f 每百万 token", rate->inputPerMillion, rate->outputPerMillion);
    else if (rate->perMillionCharacters > 0) std::snprintf(buffer, sizeof buffer, "$%.0f/百万字符", rate->perMillionCharacters);
    else return std::nullopt;
    std::string out = buffer;
    if (!rate->verified) out += "（未核实）";
    return out;
}

std::vector<Row> rows(const TranslatorSettings& settings, Keys keys) {
    std::vector<Row> out;
    const AppMode mode = settings.activeMode;
    for (ModelJob job : allModelJobs) {
        Row row{job, settings.models.resolved(job, mode), "", std::nullopt, std::nullopt, false};
        const auto stored = settings.models.stored(job, mode);
        row.isOverridden = stored && !text::isBlank(*stored);
        const std::string voice(text::trimmed(settings.googleJapaneseVoice));
        if (job == ModelJob::speech && !voice.empty() && settings.speechVendor == SpeechVendor::google) {
            row.vendorName = "Google 语音";
            row.price = priceText(Pricing::rate("google:" + text::asciiLowercase(voice)));
            out.push_back(std::move(row));
            continue;
        }
        const std::string name = text::asciiLowercase(row.model);
        const bool gemini = name.rfind("gemini-", 0) == 0;
        row.vendorName = gemini ? "Gemini" : "OpenAI";
        row.price = priceText(Pricing::rate(row.model));
        const bool live = name.size() >= 5 && name.compare(name.size() - 5, 5, "-live") == 0;
        if (!gemini && !keys.openAI) row.problem = "没填 OpenAI Key";
        else if (gemini && !keys.gemini) row.problem = "没填 Gemini Key";
        else if (gemini && job == ModelJob::fileTranscribe && live) row.problem = "文件转写要用不带 -live 的模型";
        else if (gemini && job == ModelJob::realtimeTranscribe && !live) row.problem = "实时原文要用带 -live 的流式模型";
        else if (gemini && job == ModelJob::realtimeTranslate) row.problem = "实时同传只有 OpenAI 有边听边译的端点";
        out.push_back(std::move(row));
    }
    return out;
}

std::string summary(const std::vector<Row>& rows) {
    std::vector<const Row*> problems;
    std::vector<std::string> vendors;
    for (const Row& r : rows) {
        if (r.problem) problems.push_back(&r);
        if (std::find(vendors.begin(), vendors.end(), r.vendorName) == vendors.end()) vendors.push_back(r.vendorName);
    }
    if (problems.empty()) {
        std::string joined;
        for (const auto& v : vendors) joined += (joined.empty() ? "" : " + ") + v;
        return joined + "，" + std::to_string(rows.size()) + " 项都能用";
    }
    if (problems.size() == 1) return std::string(label(problems[0]->job)) + "：" + *problems[0]->problem;
    return std::to_string(problems.size()) + " 项用不了，第一项是「" + std::string(label(problems[0]->job)) + "」";
}

}  // namespace ModelWiring

}  // namespace osv
