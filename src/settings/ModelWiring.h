#pragma once

// What each job will really use in the settings' mode, what it costs, and what is wrong
// with it.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "metering/UsageTally.h"
#include "settings/ModelPreferences.h"
#include "settings/TranslatorSettings.h"

namespace osv {

// The job whose model prices a lane's tokens of this usage kind.
ModelJob modelJob(UsageTally::Kind kind);

// The cost of one lane run: the user's own token rates when either is above 0, else the
// table's price of the model the preferences give the kind's job in `mode`; none when
// neither is known (not 0: an unknown price is not a free one).
std::optional<double> estimatedUSD(UsageTally::Kind kind, std::int64_t inputTokens, std::int64_t outputTokens,
                                   const TranslatorSettings& settings, AppMode mode);

namespace ModelWiring {

struct Row {
    ModelJob job;
    std::string model;
    std::string vendorName;  // "OpenAI", "Gemini" or "Google 语音"
    std::optional<std::string> price;
    std::optional<std::string> problem;
    bool isOverridden = false;
    bool operator==(const Row&) const = default;
};

struct Keys {
    bool openAI = false;
    bool gemini = false;
};

std::vector<Row> rows(const TranslatorSettings& settings, Keys keys);
std::string summary(const std::vector<Row>& rows);
std::optional<std::string> priceText(const std::optional<Pricing::Rate>& rate);

}  // namespace ModelWiring

}  // namespace osv
