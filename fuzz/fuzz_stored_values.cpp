// The forgiving readers of stored values (segments, usage, model preferences) take any JSON
// without crashing, and what they read writes back to something they read the same way.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "core/Json.h"
#include "metering/UsageTally.h"
#include "settings/ModelPreferences.h"
#include "transcript/TranscriptEventJson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (auto prefs = osv::ModelPreferences::fromJsonText(text)) {
        if (osv::ModelPreferences::fromJsonText(prefs->toJsonText()) != prefs) std::abort();
        for (auto job : osv::allModelJobs)
            if (prefs->resolved(job, osv::AppMode::assist).empty()) std::abort();
    }
    const auto json = osv::json::parse(text);
    if (!json) return 0;
    const osv::UsageTally tally = osv::usageTallyFromJson(*json);
    if (osv::usageTallyFromJson(osv::toJson(tally)) != tally) std::abort();
    (void)tally.estimate({"gpt-realtime-translate"}, std::nullopt);
    if (auto segment = osv::transcriptSegmentFromJson(*json))
        if (osv::transcriptSegmentFromJson(osv::toJson(*segment)).value() != *segment) std::abort();
    return 0;
}
