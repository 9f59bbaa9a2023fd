#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <limits>

#include "FakeSecretBackend.h"
#include "core/Uuid.h"
#include "settings/TranslatorSettings.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using testing::FakeSecretBackend;

class Settings : public ::testing::Test {
protected:
    void TearDown() override {
        ::unsetenv("OSV_KEYCHAIN_TESTS");
        fs::remove_all(dir);
    }
    TranslatorSettings load() { return store.load(std::nullopt); }

    fs::path dir = fs::temp_directory_path() / ("osv-settings-" + Uuid::random().text());
    MemoryUserDefaults defaults;
    FakeSecretBackend backend;
    SecretStore secrets{&backend, dir};
    SettingsStore store{defaults, secrets};
};

TEST_F(Settings, DefaultsWhenNothingIsStored) {
    const auto s = load();
    EXPECT_EQ(s, TranslatorSettings{});
    EXPECT_TRUE(s.showFurigana);
    EXPECT_FALSE(s.nameFromCalendar);
    EXPECT_EQ(s.chunkSeconds, 0.8);
}

TEST_F(Settings, LegacyRatesPerspectiveAndScene) {
    defaults.set("speech_rate", 0.0);
    defaults.set("google_speaking_rate", 0.92);
    EXPECT_EQ(load().speechRate, 1.0);
    defaults.set("google_speaking_rate", 1.2);
    EXPECT_EQ(load().speechRate, 1.2);
    defaults.set("speech_rate", 0.8);
    EXPECT_EQ(load().speechRate, 0.8);

    defaults.set("bidirectional_translation", false);
    EXPECT_EQ(load().perspective, Perspective::solo);
    defaults.set("perspective", std::string("shared"));
    EXPECT_EQ(load().perspective, Perspective::shared);

    defaults.set("conversation_scene", std::string("coach"));
    EXPECT_EQ(load().activeMode, AppMode::coach);
    defaults.set("conversation_scene", std::string("party"));
    EXPECT_EQ(load().activeMode, AppMode::interpret);
    defaults.set("target_language", std::string("Japanese"));  // only "japanese" selects it
    EXPECT_EQ(load().targetLanguage, TargetLanguage::simplifiedChinese);
    defaults.set("capture_mode", std::string("radio"));
    EXPECT_EQ(load().captureMode, AudioCaptureMode::mixed);
}

TEST_F(Settings, ChunkSecondsAreClampedAndBooleansDefaultOnlyWhenAbsent) {
    for (auto [stored, expected] : {std::pair{0.1, 0.5}, {20.0, 8.0}, {1.5, 1.5}}) {
        defaults.set("chunk_seconds", stored);
        EXPECT_EQ(load().chunkSeconds, expected);
    }
    defaults.set("chunk_seconds", std::string("fast"));
    EXPECT_EQ(load().chunkSeconds, 0.8);
    EXPECT_EQ(TranslatorSettings::normalizedChunkSeconds(std::numeric_limits<double>::infinity()), 0.8);

    defaults.set("show_furigana", false);
    defaults.set("name_from_calendar", true);
    defaults.set("refine_sentences", std::string("YES"));  // an older build's text form
    const auto s = load();
    EXPECT_FALSE(s.showFurigana);
    EXPECT_TRUE(s.nameFromCalendar);
    EXPECT_TRUE(s.refineFinishedSentences);
    EXPECT_TRUE(s.repairSource);
}

TEST_F(Settings, VendorFollowsAStoredGoogleKeyOnlyWhenNoneIsChosen) {
    ASSERT_TRUE(secrets.setAPIKey("g-key", SecretLocation::google()));
    EXPECT_EQ(load().speechVendor, SpeechVendor::google);
    defaults.set("speech_vendor", std::string("openAI"));
    EXPECT_EQ(load().speechVendor, SpeechVendor::openAI);
    defaults.set("speech_vendor", std::string("acme"));
    EXPECT_EQ(load().speechVendor, SpeechVendor::google);
}

TEST_F(Settings, SaveWritesBackNormalisedAndLeavesTheKeyAloneUntilItLoaded) {
    ::setenv("OSV_KEYCHAIN_TESTS", "1", 1);
    backend.items[{"com.ossevra.app", "openai-api-key-v2"}] = "stored-key";
    TranslatorSettings s = store.load(std::string("from-environment"));
    EXPECT_EQ(s.apiKey, "from-environment");
    s.chunkSeconds = 30;
    auto report = store.save(s);  // the stored key hasn't loaded yet
    EXPECT_TRUE(report.errors.empty());
    EXPECT_EQ(backend.items.at({"com.ossevra.app", "openai-api-key-v2"}), "stored-key");
    EXPECT_EQ(s.chunkSeconds, 8.0);
    EXPECT_EQ(defaults.number("chunk_seconds"), 8.0);
    EXPECT_EQ(defaults.string("perspective"), "shared");

    store.loadStoredKey(s);
    EXPECT_EQ(s.apiKey, "stored-key");
    s.apiKey = "";
    store.save(s);  // clearing the field removes the item
    EXPECT_TRUE(backend.items.empty());

    // A failed key write is reported without the key, and the rest is still saved.
    s.googleAPIKey = "secret-google-value";
    backend.failWrites = true;
    ::unsetenv("OSV_KEYCHAIN_TESTS");  // no secret store, and the Google file is blocked
    fs::create_directories(dir / "google.key" / "blocked");
    s.glossary = "术语";
    report = store.save(s);
    ASSERT_EQ(report.errors.size(), 1u);
    EXPECT_EQ(report.errors[0], "Google Key 没能保存下来，现在用的还是上一把。");
    EXPECT_EQ(report.events[0].code, "google_key_write_failed");
    EXPECT_EQ(report.events[0].details.find("secret-google-value"), std::string::npos);
    EXPECT_EQ(defaults.string("glossary"), "术语");
}

// What the save writes, a person can set: each key is known, with the type it is read as,
// and an enumeration's value is one of the names its key lists.
TEST(SettingKeys, EveryStoredValueIsAKnownKeyOfItsType) {
    MemoryUserDefaults written;
    writeSettingValues(TranslatorSettings{}, written);
    ASSERT_GE(written.values().size(), 28u);
    for (const auto& [key, value] : written.values()) {
        const auto known = std::find_if(settingKeys().begin(), settingKeys().end(),
                                        [&](const SettingKey& k) { return k.key == key; });
        ASSERT_NE(known, settingKeys().end()) << key;
        switch (known->type) {
            case SettingType::text:
            case SettingType::baseURL: {
                ASSERT_TRUE(std::holds_alternative<std::string>(value)) << key;
                const auto& text = std::get<std::string>(value);
                if (!known->names.empty()) {
                    EXPECT_NE(std::find(known->names.begin(), known->names.end(), text), known->names.end()) << key;
                }
                break;
            }
            case SettingType::number: EXPECT_TRUE(std::holds_alternative<double>(value)) << key; break;
            case SettingType::boolean: EXPECT_TRUE(std::holds_alternative<bool>(value)) << key; break;
            case SettingType::data: EXPECT_TRUE(std::holds_alternative<UserDefaults::Data>(value)) << key; break;
        }
    }
}

}  // namespace
}  // namespace osv
