// The fake server's WebSocket rules for protocols beyond the translation session: rules
// limited to a path, messages without a "type", large frames.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Scenario.h"
#include "core/Json.h"

namespace osv::fake {
namespace {

using json::Json;
using Names = std::vector<std::string>;

TEST(FakeSocketTriggers, TypelessMessagesTriggerByTheirKeysAndTypedOnesByTheirType) {
    EXPECT_EQ(triggersOf(*json::parse(R"({"type":"input_audio_buffer.commit","x":{"y":1}})")),
              Names{"input_audio_buffer.commit"});
    EXPECT_EQ(triggersOf(*json::parse(R"({"realtimeInput":{"audio":{"data":"AA=="}}})")),
              (Names{"realtimeInput", "realtimeInput.audio"}));
    EXPECT_EQ(triggersOf(*json::parse(R"({"setup":{"model":"m","generationConfig":{}},"n":1})")),
              (Names{"setup", "setup.model", "setup.generationConfig", "n"}));
    EXPECT_TRUE(triggersOf(*json::parse("[1]")).empty());
}

TEST(FakeSocketTriggers, PathsLimitRulesAndPaddingMakesLargeFrames) {
    const auto scenario = parseScenario(R"(
{"path": "/ws/*", "on": "setup", "send": {"setupComplete": {}}}
{"path": "/v1/realtime", "on": "input_audio_buffer.commit", "pad": 1000, "send": {"type": "x"}}
{"on": "connect", "send": {"type": "hello"}}
)");
    ASSERT_TRUE(scenario) << scenario.error().message;
    const auto& r = scenario->socketRules;
    ASSERT_EQ(r.size(), 3u);
    EXPECT_TRUE(r[0].appliesTo("/ws/google.ai.generativelanguage.v1beta.GenerativeService.BidiGenerateContent"));
    EXPECT_FALSE(r[0].appliesTo("/v1/realtime"));
    EXPECT_TRUE(r[1].appliesTo("/v1/realtime"));
    EXPECT_FALSE(r[1].appliesTo("/v1/realtime/translations"));
    EXPECT_TRUE(r[2].appliesTo("/anything"));
    const Json padded = *json::parse(r[1].frames.at(0));
    EXPECT_EQ(padded["type"], "x");
    EXPECT_EQ(padded["padding"].get<std::string>().size(), 1000u);

    const auto bad = parseScenario(R"({"path": "ws", "send": {"a": 1}}
{"pad": 10, "raw": "x"})");
    ASSERT_FALSE(bad);
    EXPECT_NE(bad.error().message.find("line 1: \"path\" takes a path"), std::string::npos) << bad.error().message;
    EXPECT_NE(bad.error().message.find("line 2: \"pad\" goes with \"send\""), std::string::npos) << bad.error().message;
}

TEST(FakeSocketTriggers, EveryShippedScenarioReads) {
    const std::filesystem::path folder = std::filesystem::path(OSV_SOURCE_DIR) / "tools" / "fake-realtime" / "scenarios";
    int read = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (entry.path().extension() != ".jsonl") continue;
        std::ifstream in(entry.path());
        const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const auto scenario = parseScenario(text, folder.string());
        EXPECT_TRUE(scenario) << entry.path() << ": " << scenario.error().message;
        ++read;
    }
    EXPECT_GE(read, 14);
}

}  // namespace
}  // namespace osv::fake
