#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "cli/Cli.h"
#include "core/AtomicFile.h"
#include "core/Json.h"
#include "core/Uuid.h"
#include "transcript/TranscriptEventJson.h"

namespace osv::cli {
namespace {

namespace fs = std::filesystem;
using json::Json;

struct Result {
    int status;
    std::string out, err;
};

Result runCli(std::vector<std::string> args, const std::string& input = "") {
    std::istringstream in(input);
    std::ostringstream out, err;
    const int status = run(args, in, out, err);
    return {status, out.str(), err.str()};
}

std::string example(const std::string& name) { return (fs::path(OSV_SOURCE_DIR) / "examples" / name).string(); }

// Builds a script's log and folds it, as `build SCRIPT | fold -` does.
Json buildAndFold(const std::string& script) {
    const Result built = runCli({"transcript", "build", "--deterministic-ids", example(script)});
    EXPECT_EQ(built.status, kOk) << built.err;
    const Result folded = runCli({"transcript", "fold", "-"}, built.out);
    EXPECT_EQ(folded.status, kOk) << folded.err;
    return *json::parse(folded.out);
}

std::vector<std::string> sentenceTexts(const Json& snapshot) {
    std::vector<std::string> out;
    for (const Json& s : snapshot["sentences"])
        out.push_back(s["text"].get<std::string>() + (s["isClosed"].get<bool>() ? "" : "…"));
    return out;
}

using Strings = std::vector<std::string>;

TEST(Cli, BuildThenFoldShowsTheSegmenterRulesAsAUserSeesThem) {
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/ender-then-text.jsonl")), (Strings{"你好。", "吃了吗…"}));
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/leading-enders.jsonl")), (Strings{"你好。！", "吃了吗…"}));
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/two-sentences-one-delta.jsonl")), (Strings{"はい。", "そうです。…"}));
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/language-switch-space.jsonl")),
              (Strings{"今天天气", "おはようございます…", "はい そうです…"}));
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/lone-ender.jsonl")), (Strings{"。你好…"}));
    EXPECT_EQ(sentenceTexts(buildAndFold("segmenter/sentence-outlives-utterance.jsonl")),
              (Strings{"好的我们开始吧。"}));
    const Json lost = buildAndFold("segmenter/source-lost-and-restored.jsonl");
    EXPECT_EQ(sentenceTexts(lost), (Strings{"先说一句", "", "", "源语言回来了。"}));
    EXPECT_EQ(lost["sentences"][1]["readableText"], "Now the translation!");
    EXPECT_EQ(lost["unattributedTranslationStream"]["system"], "FirstNow the translation! It builds");

    const Json capped = buildAndFold("segmenter/length-cap.jsonl");
    ASSERT_EQ(capped["sentences"].size(), 2u);
    const Json anchors = buildAndFold("segmenter/anchors.jsonl");
    EXPECT_EQ(anchors["sentences"][0]["startedAt"], 8.5);
    EXPECT_EQ(anchors["sentences"][0]["endedAt"], 15.0);
}

TEST(Cli, FoldPrintsEveryFieldWithIdsAsTextAndAbsentValuesAsNull) {
    const Json s = buildAndFold("conversation.jsonl");
    const Json& first = s["sentences"][0];
    std::vector<std::string> keys;
    for (auto it = first.begin(); it != first.end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (Strings{"id", "channel", "startedAt", "endedAt", "text", "bestText", "readableText",
                             "utteranceIDs", "isClosed", "translations", "revisions", "translationFailure",
                             "furigana"}));
    EXPECT_EQ(first["id"], "00000000-0000-4000-8000-000000000001");
    EXPECT_TRUE(first["translationFailure"].is_null());
    EXPECT_EQ(first["startedAt"], 0.2);
    EXPECT_EQ(s["sentences"][2]["text"], "好的，请您先介绍一下价格。");  // folded to simplified
    std::vector<std::string> top;
    for (auto it = s.begin(); it != s.end(); ++it) top.push_back(it.key());
    EXPECT_EQ(top, (Strings{"sentences", "utterances", "unattributedTranslationStream", "unboundTranslations",
                            "glossary"}));
}

TEST(Cli, BuildRefusesAMalformedScriptWholeAndSaysWhere) {
    const std::string script =
        R"({"op":"ingest","kind":"source","channel":"system","text":"好","at":1})" "\n"
        R"({"op":"ingest","kind":"source","channel":"radio","text":"好","at":2})" "\n"
        R"({"op":"jump","at":3})" "\n"
        R"({"op":"finish","reason":"sessionEnd"})" "\n";
    const Result r = runCli({"transcript", "build", "-"}, script);
    EXPECT_EQ(r.status, kUsage);
    EXPECT_TRUE(r.out.empty());
    EXPECT_NE(r.err.find("-:2: \"channel\""), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("-:3: unknown op \"jump\""), std::string::npos);
    EXPECT_NE(r.err.find("-:4: \"at\" must be a number"), std::string::npos);
}

TEST(Cli, FoldSkipsBadLinesAndFailsOnlyWhenNothingDecodes) {
    const Result built = runCli({"transcript", "build", example("segmenter/ender-then-text.jsonl")});
    const Result partly = runCli({"transcript", "fold", "-"}, "not json\n" + built.out + "{\"id\":");
    EXPECT_EQ(partly.status, kOk);
    EXPECT_NE(partly.err.find("-:1: skipped"), std::string::npos);
    EXPECT_NE(partly.err.find("-:6: skipped"), std::string::npos);
    EXPECT_EQ(sentenceTexts(*json::parse(partly.out)).size(), 2u);

    const Result nothing = runCli({"transcript", "fold", "-"}, "garbage\n");
    EXPECT_EQ(nothing.status, kFailed);
    EXPECT_NE(nothing.err.find("no event could be read"), std::string::npos);
    EXPECT_EQ(runCli({"transcript", "fold", "/nonexistent/log.jsonl"}).status, kFailed);
    EXPECT_EQ(runCli({"transcript", "fold"}).status, kUsage);
    EXPECT_EQ(runCli({"transcript", "shuffle"}).status, kUsage);
    EXPECT_EQ(runCli({"nonsense"}).status, kUsage);
    EXPECT_EQ(runCli({"help"}).status, kOk);
}

TEST(Cli, CompactWritesTheCompactedLog) {
    const fs::path dir = fs::temp_directory_path() / ("osv-cli-" + Uuid::random().text());
    const Result built = runCli({"transcript", "build", example("conversation.jsonl")});
    ASSERT_TRUE(writeFileAtomically(dir / "in.jsonl", built.out));
    const Result r = runCli({"transcript", "compact", (dir / "in.jsonl").string(), (dir / "out.jsonl").string()});
    EXPECT_EQ(r.status, kOk) << r.err;
    const auto full = decodeJsonLines(built.out).log;
    const auto compact = decodeJsonLines(readWholeFile(dir / "out.jsonl").value()).log;
    EXPECT_EQ(compact, full.compacted());
    EXPECT_LT(compact.size(), full.size());
    EXPECT_EQ(runCli({"transcript", "compact", (dir / "in.jsonl").string()}).status, kUsage);
    fs::remove_all(dir);
}

TEST(Cli, PreviewShowsTheSampleConversationAsCaptions) {
    const Result text = runCli({"preview"});
    ASSERT_EQ(text.status, kOk) << text.err;
    EXPECT_NE(text.out.find("[对方 00:00] 本日はお忙しいところありがとうございます。"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("感谢您今天在百忙之中抽出时间。"), std::string::npos);
    EXPECT_NE(text.out.find("⚠ 翻译超时"), std::string::npos);
    EXPECT_NE(text.out.find("（草稿）"), std::string::npos);
    const Result asJson = runCli({"preview", "--json"});
    const Json blocks = *json::parse(asJson.out);
    ASSERT_EQ(blocks.size(), 8u);
    std::vector<std::string> keys;
    for (auto it = blocks[0].begin(); it != blocks[0].end(); ++it) keys.push_back(it.key());
    EXPECT_EQ(keys, (Strings{"source", "translation", "sentenceIDs", "furigana", "channel", "translationFailure",
                             "isAwaitingTranslation", "isProvisional", "pendingSource", "startOffset",
                             "lateCorrection", "lateTranslation"}));
    EXPECT_EQ(blocks[2]["channel"], "microphone");
    EXPECT_EQ(runCli({"preview", "--loud"}).status, kUsage);
}

TEST(Cli, CaptionsOfAStoredLogAtAGivenTime) {
    const Result built = runCli({"transcript", "build", "--deterministic-ids", example("conversation.jsonl")});
    const Result r = runCli({"transcript", "captions", "-", "--now", "100", "--labels"}, built.out);
    ASSERT_EQ(r.status, kOk) << r.err;
    const Json blocks = *json::parse(r.out);
    ASSERT_GE(blocks.size(), 3u);
    // The first two sentences share an utterance and fit one paragraph.
    EXPECT_EQ(blocks[0]["source"], "本日はお時間をいただきありがとうございます。さっそくですが、新しい見積もりについてご説明します。");
    EXPECT_EQ(blocks[0]["sentenceIDs"][0], "00000000-0000-4000-8000-000000000001");
    EXPECT_EQ(blocks[0]["channel"], "system");
    EXPECT_TRUE(blocks[0]["translation"].is_null());
    EXPECT_TRUE(blocks[0]["isAwaitingTranslation"].get<bool>());
    const Json plain = *json::parse(runCli({"transcript", "captions", "-", "--now", "100", "--no-translate"}, built.out).out);
    EXPECT_TRUE(plain[0]["channel"].is_null());
    EXPECT_FALSE(plain[0]["isAwaitingTranslation"].get<bool>());
    EXPECT_EQ(runCli({"transcript", "captions", "-", "--now", "soon"}, built.out).status, kUsage);
    EXPECT_EQ(runCli({"transcript", "captions", "-"}, built.out).status, kUsage);
}

TEST(Cli, RequestsExplainWhatIsDueAndWhatWaits) {
    const Result built = runCli({"transcript", "build", "--deterministic-ids", example("conversation.jsonl")});
    const Json due = *json::parse(runCli({"transcript", "requests", "-", "--now", "20"}, built.out).out);
    // Japanese from the other side is refined; the user's Chinese goes back to Japanese.
    ASSERT_EQ(due["pending"].size(), 5u);
    EXPECT_EQ(due["pending"][0]["origin"], "refined");
    EXPECT_EQ(due["pending"][2]["origin"], "reverseToJapanese");
    EXPECT_EQ(due["pending"][1]["context"].size(), 1u);
    EXPECT_TRUE(due["nextDeadline"].is_null());

    // With a long grace, sentences that ended less than 10 s ago wait for their repair;
    // the user's own sentence, going back to Japanese, never waits.
    const Json held = *json::parse(
        runCli({"transcript", "requests", "-", "--now", "14", "--repairs", "--grace", "10"}, built.out).out);
    EXPECT_DOUBLE_EQ(held["nextDeadline"].get<double>(), 4.4 + 10);
    ASSERT_EQ(held["pending"].size(), 2u);
    EXPECT_EQ(held["pending"][1]["origin"], "reverseToJapanese");
    EXPECT_EQ(held["repairs"].size(), 5u);
    const Json solo = *json::parse(
        runCli({"transcript", "requests", "-", "--now", "20", "--perspective", "solo"}, built.out).out);
    EXPECT_EQ(solo["pending"].size(), 4u);  // the user's Chinese is not translated back
    EXPECT_EQ(runCli({"transcript", "requests", "-", "--now", "20", "--target", "korean"}, built.out).status, kUsage);
}

// Settings and keys in folders of the test's own, as a restart of the CLI sees them.
class CliSettings : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("OSV_SUPPORT_DIR", (dir / "support").c_str(), 1);
        ::unsetenv("OPENAI_API_KEY");
    }
    void TearDown() override {
        ::unsetenv("XDG_CONFIG_HOME");
        ::unsetenv("OSV_SUPPORT_DIR");
        fs::remove_all(dir);
    }
    fs::path dir = fs::temp_directory_path() / ("osv-cli-settings-" + Uuid::random().text());
};

TEST_F(CliSettings, SetMigratesAndClampsAndShowSurvivesARestart) {
    // Each legacy key decides while its successor isn't stored yet; the save that follows
    // stores the successor, as a launch would.
    ASSERT_EQ(runCli({"settings", "set", "bidirectional_translation", "false"}).status, kOk);
    EXPECT_EQ((*json::parse(runCli({"settings", "show"}).out))["perspective"], "solo");
    fs::remove_all(dir / "config");
    ASSERT_EQ(runCli({"settings", "set", "google_speaking_rate", "1.3"}).status, kOk);
    ASSERT_EQ(runCli({"settings", "set", "chunk_seconds", "20"}).status, kOk);
    const Json shown = *json::parse(runCli({"settings", "show"}).out);
    EXPECT_EQ(shown["speech_rate"], 1.3);
    EXPECT_EQ(shown["chunk_seconds"], 8.0);
    EXPECT_EQ(shown["openai_api_key"], "absent");
    EXPECT_TRUE(shown["model_preferences"].contains("base"));

    const Result wrongType = runCli({"settings", "set", "chunk_seconds", "fast"});
    EXPECT_EQ(wrongType.status, kUsage);
    EXPECT_NE(wrongType.err.find("takes a number"), std::string::npos);
    EXPECT_EQ(runCli({"settings", "set", "no_such_key", "1"}).status, kUsage);
    EXPECT_EQ(runCli({"settings", "set", "show_furigana", "maybe"}).status, kUsage);
    EXPECT_EQ((*json::parse(runCli({"settings", "show"}).out))["chunk_seconds"], 8.0);  // nothing changed
}

// A value typed by a person is checked: a wrong one is named with the values that exist,
// and nothing is written.
TEST_F(CliSettings, UnknownValuesAreRefusedWithTheKnownOnes) {
    ASSERT_EQ(runCli({"settings", "set", "capture_mode", "microphone"}).status, kOk);
    const Result banana = runCli({"settings", "set", "capture_mode", "banana"});
    EXPECT_EQ(banana.status, kUsage);
    EXPECT_NE(banana.err.find("\"banana\""), std::string::npos);
    EXPECT_NE(banana.err.find("mixed, systemAudio, microphone"), std::string::npos);
    EXPECT_EQ((*json::parse(runCli({"settings", "show"}).out))["capture_mode"], "microphone");
    for (const char* key : {"skin", "target_language", "perspective", "live_engine", "speech_vendor",
                            "local_asr_policy", "recognition_language", "caption_text_size", "conversation_scene"})
        EXPECT_EQ(runCli({"settings", "set", key, "banana"}).status, kUsage) << key;

    const Result mode = runCli({"models", "--mode", "xyz"});
    EXPECT_EQ(mode.status, kUsage);
    EXPECT_NE(mode.err.find("unknown mode \"xyz\""), std::string::npos);
    EXPECT_NE(mode.err.find("interpret, record, assist, coach"), std::string::npos);
    EXPECT_NE(runCli({"models", "--mode"}).err.find("--mode needs a mode"), std::string::npos);
    const Result capture = runCli({"audio", "record", "--mode", "banana", "--seconds", "1", "--out", "x"});
    EXPECT_EQ(capture.status, kUsage);
    EXPECT_NE(capture.err.find("unknown capture mode \"banana\""), std::string::npos);
    EXPECT_NE(runCli({"recordings", "export-md", "--out"}).err.find("--out needs a file name"), std::string::npos);
    const Result url = runCli({"realtime", "probe", "--audio", "a.wav", "--url", "ftp://h/v1"});
    EXPECT_EQ(url.status, kUsage);
    EXPECT_NE(url.err.find("http or https"), std::string::npos);
    EXPECT_NE(runCli({"realtime", "probe", "--audio"}).err.find("--audio needs a value"), std::string::npos);
}

// Each service's base: the environment, then the settings, then the vendor's own host.
TEST_F(CliSettings, BaseURLsComeFromTheEnvironmentTheSettingsOrTheDefault) {
    ::unsetenv("OSV_OPENAI_BASE_URL");
    ::unsetenv("OSV_GEMINI_BASE_URL");
    const Result stored = runCli({"settings", "set", "openai_base_url", "http://127.0.0.1:8123/v1"});
    ASSERT_EQ(stored.status, kOk) << stored.err;
    Json shown = *json::parse(runCli({"settings", "show"}).out);
    EXPECT_EQ(shown["openai_base_url"], (Json{{"value", "http://127.0.0.1:8123/v1"}, {"source", "settings"}}));
    EXPECT_EQ(shown["gemini_base_url"],
              (Json{{"value", "https://generativelanguage.googleapis.com"}, {"source", "default"}}));
    EXPECT_EQ(shown["jev_base_url"]["source"], "default");
    EXPECT_EQ(shown["google_tts_base_url"]["source"], "default");

    ::setenv("OSV_OPENAI_BASE_URL", "http://localhost:9/v1", 1);
    shown = *json::parse(runCli({"settings", "show"}).out);
    ::unsetenv("OSV_OPENAI_BASE_URL");
    EXPECT_EQ(shown["openai_base_url"], (Json{{"value", "http://localhost:9/v1"}, {"source", "environment"}}));

    for (const char* bad : {"api.openai.com/v1", "ftp://h/v1", "wss://h/v1", "https://h/v1?x=1", ""}) {
        const Result refused = runCli({"settings", "set", "gemini_base_url", bad});
        EXPECT_EQ(refused.status, kUsage) << bad;
        EXPECT_NE(refused.err.find("http or https URL"), std::string::npos) << bad;
    }
    EXPECT_EQ((*json::parse(runCli({"settings", "show"}).out))["gemini_base_url"]["source"], "default");
}

TEST_F(CliSettings, KeysComeFromStandardInputAndGoToAnOwnerOnlyFile) {
    const Result stored = runCli({"keys", "set", "gemini"}, "gm-secret-value\n");
    ASSERT_EQ(stored.status, kOk) << stored.err;
    EXPECT_EQ(stored.out.find("gm-secret-value"), std::string::npos);
    EXPECT_NE(stored.out.find("gemini.key"), std::string::npos);
    EXPECT_EQ(fs::status(dir / "support" / "gemini.key").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ((*json::parse(runCli({"settings", "show"}).out))["gemini_api_key"], "present");
    const Json wiring = *json::parse(runCli({"models", "--mode", "coach", "--json"}).out);
    EXPECT_EQ(wiring["rows"].size(), 7u);
    EXPECT_EQ(wiring["rows"][5]["model"], "gpt-4.1");
    EXPECT_EQ(wiring["summary"], "7 项用不了，第一项是「实时同传」");  // no OpenAI key yet
    EXPECT_EQ(runCli({"keys", "set", "gemini"}, "").status, kUsage);
    EXPECT_EQ(runCli({"keys", "set", "gemini", "sk-on-the-command-line"}).status, kUsage);
    EXPECT_EQ(runCli({"keys", "set", "gemini", "--clear"}).status, kOk);
    EXPECT_FALSE(fs::exists(dir / "support" / "gemini.key"));
}

using CliRecordings = CliSettings;

TEST_F(CliRecordings, ListShowExportRenameAndDeleteWorkOnTheStoredIndex) {
    const fs::path support = dir / "support";
    const std::string older = "11111111-1111-4111-8111-111111111111", newer = "22222222-2222-4222-8222-222222222222";
    ASSERT_TRUE(writeFileAtomically(support / "recordings.json",
                                    R"([{"id":")" + older + R"(","title":"周会","kind":"live","createdAt":100,"duration":75,
                                         "relativeAudioPath":"Recordings/)" + older + R"(.m4a",
                                         "segments":[{"id":"33333333-3333-4333-8333-333333333333","sequence":1,
                                                      "sourceText":"本日は","translatedText":"今天"}]},
                                        {"id":")" + newer + R"(","title":"录音 · 采访","createdAt":200}])"));
    const Result listed = runCli({"recordings", "list"});
    ASSERT_EQ(listed.status, kOk) << listed.err;
    EXPECT_EQ(listed.out, newer + "  录音 · 采访  manual  record  ready  0:00  0 句\n" +
                              older + "  周会  live  interpret  complete  1:15  1 句\n");

    EXPECT_EQ((*json::parse(runCli({"recordings", "show", "1111"}).out))["title"], "周会");  // a unique prefix will do
    const Result unknown = runCli({"recordings", "show", "44444444-4444-4444-8444-444444444444"});
    EXPECT_EQ(unknown.status, kFailed);
    EXPECT_NE(unknown.err.find("no recording has the id"), std::string::npos);

    const Result md = runCli({"recordings", "export-md", older, "--out", (dir / "周会.md").string()});
    ASSERT_EQ(md.status, kOk) << md.err;
    const std::string exported = *readWholeFile(dir / "周会.md");
    EXPECT_TRUE(exported.starts_with("# 周会\n\n创建时间：")) << exported;
    EXPECT_TRUE(exported.ends_with("\n类型：同传\n语言：自动\n\n本日は\n> 今天\n")) << exported;

    ASSERT_EQ(runCli({"recordings", "rename", newer, "  采访稿 "}).status, kOk);
    EXPECT_EQ(runCli({"recordings", "rename", newer, " "}).status, kUsage);
    ASSERT_TRUE(writeFileAtomically(support / "Recordings" / (older + ".m4a"), "audio"));
    const Result deleted = runCli({"recordings", "delete", older});
    ASSERT_EQ(deleted.status, kOk) << deleted.err;
    EXPECT_FALSE(fs::exists(support / "Recordings" / (older + ".m4a")));
    EXPECT_EQ(runCli({"recordings", "list"}).out, newer + "  采访稿  manual  record  ready  0:00  0 句\n");
    EXPECT_EQ(runCli({"recordings", "delete", older}).status, kFailed);
    EXPECT_EQ(runCli({"recordings", "frobnicate"}).status, kUsage);
}

TEST_F(CliRecordings, ALoadNoticeGoesToStandardErrorAndLeavesEachCommandItsOwnStatus) {
    const fs::path support = dir / "support";
    const std::string id = "11111111-1111-4111-8111-111111111111";
    ASSERT_TRUE(writeFileAtomically(support / "recordings.json",
                                    "[7,{\"id\":\"" + id + "\",\"title\":\"周会\",\"createdAt\":100}]"));
    for (const Strings& args : {Strings{"recordings", "list"}, Strings{"recordings", "show", id},
                                Strings{"recordings", "export-md", id}, Strings{"recordings", "rename", id, "新"}}) {
        const Result r = runCli(args);
        EXPECT_EQ(r.status, kOk) << args[1] << ": " << r.err;
        EXPECT_NE(r.err.find("有历史记录读不出来，已原样保留"), std::string::npos) << args[1];
    }
    const Result deleted = runCli({"recordings", "delete", id});
    EXPECT_EQ(deleted.status, kOk) << deleted.err;
    EXPECT_EQ(deleted.out, "deleted " + id + "  新\n");
    EXPECT_EQ(*readWholeFile(support / "recordings.json"), "[7]");  // the unreadable element stays

    // An index that cannot be read at all leaves nothing to list: that is the command failing.
    ASSERT_TRUE(writeFileAtomically(support / "recordings.json", "[{"));
    EXPECT_EQ(runCli({"recordings", "list"}).status, kFailed);
}

TEST_F(CliRecordings, ThePreviewExportsItsSampleAndWritesNothing) {
    ::setenv("OSV_PREVIEW_TRANSCRIPT", "1", 1);
    const Result md = runCli({"recordings", "export-md"});
    ::unsetenv("OSV_PREVIEW_TRANSCRIPT");
    ASSERT_EQ(md.status, kOk) << md.err;
    EXPECT_NE(md.out.find("本日はお忙しいところありがとうございます。\n> 感谢您今天在百忙之中抽出时间。"), std::string::npos)
        << md.out;
    EXPECT_FALSE(fs::exists(dir / "support"));
}

}  // namespace
}  // namespace osv::cli
