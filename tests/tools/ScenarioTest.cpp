// The fake realtime server's scenario files: hand-written, so every mistake is named.

#include <gtest/gtest.h>

#include "Scenario.h"
#include "core/Json.h"

namespace osv::fake {
namespace {

TEST(FakeRealtimeScenario, ReadsTriggersAndActionsAndSkipsCommentsAndBlankLines) {
    const auto rules = parseScenario(R"(# greeting
{"send": {"type": "session.created"}}

// every tenth chunk, as binary, a little later
{"on": "append", "every": 10, "after_ms": 25, "binary": true, "send": [{"type": "a"}, {"type": "b"}]}
{"on": "session.update", "nth": 2, "error": {"message": "bad model"}}
{"on": "session.close", "close": true}
{"on": "append", "nth": 3, "close": {"code": 1011, "reason": "overloaded"}}
{"on": "append", "nth": 4, "drop": true}
{"stall": true}
{"raw": "not json"}
)");
    ASSERT_TRUE(rules) << rules.error().message;
    ASSERT_EQ(rules->socketRules.size(), 8u);
    EXPECT_TRUE(rules->httpRules.empty());
    const auto& r = rules->socketRules;
    EXPECT_EQ(r[0].on, "connect");
    EXPECT_EQ(r[0].line, 2);
    EXPECT_EQ(r[1].on, "session.input_audio_buffer.append");
    EXPECT_EQ(r[1].afterMs, 25);
    EXPECT_TRUE(r[1].binary);
    EXPECT_EQ(r[1].frames, (std::vector<std::string>{R"({"type":"a"})", R"({"type":"b"})"}));
    EXPECT_TRUE(r[1].firesAt(20));
    EXPECT_FALSE(r[1].firesAt(15));
    EXPECT_TRUE(r[2].firesAt(2));
    EXPECT_FALSE(r[2].firesAt(4));
    EXPECT_EQ(*json::parse(r[2].frames[0]), *json::parse(R"({"type":"error","error":{"message":"bad model"}})"));
    EXPECT_EQ(r[3].action, Rule::Action::close);
    EXPECT_EQ(r[3].closeCode, 1000);
    EXPECT_EQ(r[4].closeCode, 1011);
    EXPECT_EQ(r[4].closeReason, "overloaded");
    EXPECT_EQ(r[5].action, Rule::Action::drop);
    EXPECT_EQ(r[6].action, Rule::Action::stall);
    EXPECT_EQ(r[7].frames, (std::vector<std::string>{"not json"}));
}

TEST(FakeRealtimeScenario, EveryBadLineIsNamed) {
    const auto rules = parseScenario(R"({"send": {"type": "ok"}}
{"send": {"type": "x"}, "drop": true}
{"on": "append", "nth": 0, "drop": true}
{"on": "connect", "every": 2, "drop": true}
{"sned": {"type": "typo"}}
not json
{"send": "text"}
)");
    ASSERT_FALSE(rules);
    const std::string& m = rules.error().message;
    for (int line = 2; line <= 7; ++line) EXPECT_NE(m.find("line " + std::to_string(line) + ":"), std::string::npos) << m;
    EXPECT_EQ(m.find("line 1:"), std::string::npos);
    EXPECT_NE(m.find("unknown key \"sned\""), std::string::npos);
}

}  // namespace
}  // namespace osv::fake
