#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "FakeSecretBackend.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "settings/SecretStore.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using testing::FakeSecretBackend;

class SecretStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("osv-secrets-" + Uuid::random().text());
        ::setenv("OSV_KEYCHAIN_TESTS", "1", 1);
    }
    void TearDown() override {
        ::unsetenv("OSV_KEYCHAIN_TESTS");
        fs::remove_all(dir);
    }
    std::string fileText(const std::string& name) { return readWholeFile(dir / name).value(); }
    fs::path dir;
    FakeSecretBackend backend;
};

TEST_F(SecretStoreTest, UnderTheTestSuiteOnlyFallbackFilesAreUsed) {
    ::unsetenv("OSV_KEYCHAIN_TESTS");
    SecretStore store(&backend, dir);
    EXPECT_FALSE(store.keychainIsReachable());
    EXPECT_TRUE(store.setAPIKey("  sk-abc \n", SecretLocation::gemini()));
    EXPECT_EQ(store.lastPlacement(), SecretStore::Placement::fallbackFile);
    EXPECT_EQ(fileText("gemini.key"), "sk-abc");
    struct stat st {};
    ASSERT_EQ(::stat((dir / "gemini.key").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(store.apiKey(SecretLocation::gemini()), "sk-abc");
    EXPECT_FALSE(store.setAPIKey("x", SecretLocation::openAILegacy()));  // no file to fall back on
    EXPECT_TRUE(store.setAPIKey("", SecretLocation::gemini()));
    EXPECT_FALSE(fs::exists(dir / "gemini.key"));
    EXPECT_EQ(backend.calls, 0);  // the secret store was never touched
}

// Only the environment tells: the program's own name decides nothing.
TEST_F(SecretStoreTest, ATestRunIsKnownByTheEnvironmentAlone) {
    ::unsetenv("OSV_KEYCHAIN_TESTS");
    ASSERT_TRUE(runningUnderTestSuite());  // set by every test program for itself
    const std::string saved = std::getenv("OSV_TEST_RUN");
    ::unsetenv("OSV_TEST_RUN");
    const bool underTests = runningUnderTestSuite();
    SecretStore store(&backend, dir);
    const bool reachable = store.keychainIsReachable();
    ::setenv("OSV_TEST_RUN", saved.c_str(), 1);
    EXPECT_FALSE(underTests);
    EXPECT_TRUE(reachable);
}

TEST_F(SecretStoreTest, WritesGoToTheSecretStoreAndFallBackToAFileWhenItFails) {
    SecretStore store(&backend, dir);
    ASSERT_TRUE(store.keychainIsReachable());
    ASSERT_TRUE(store.setAPIKey("first", SecretLocation::openAI()));  // add
    EXPECT_EQ(store.lastPlacement(), SecretStore::Placement::secretStore);
    ASSERT_TRUE(store.setAPIKey("second", SecretLocation::openAI()));  // update
    EXPECT_EQ(backend.items.at({"com.ossevra.app", "openai-api-key-v2"}), "second");

    backend.failWrites = true;
    ASSERT_TRUE(store.setAPIKey("third", SecretLocation::openAI()));
    EXPECT_EQ(store.lastPlacement(), SecretStore::Placement::fallbackFile);
    EXPECT_EQ(store.lastStatus(), -61);
    // The file is the newer copy and is read first.
    EXPECT_EQ(store.apiKey(SecretLocation::openAI()), "third");

    backend.failWrites = false;
    ASSERT_TRUE(store.setAPIKey("fourth", SecretLocation::openAI()));
    EXPECT_FALSE(fs::exists(dir / "openai.key"));  // removed once the secret store has it
    EXPECT_EQ(store.apiKey(SecretLocation::openAI()), "fourth");

    // Clearing removes the item and any file.
    ASSERT_TRUE(writeFileAtomically(dir / "openai.key", "stale", 0600));
    ASSERT_TRUE(store.setAPIKey("  ", SecretLocation::openAI()));
    EXPECT_TRUE(backend.items.empty());
    EXPECT_FALSE(fs::exists(dir / "openai.key"));
    EXPECT_EQ(store.apiKey(SecretLocation::openAI()), std::nullopt);
}

TEST_F(SecretStoreTest, AdoptsKeysFromTheLegacyAccountAndTheDefaults) {
    SecretStore store(&backend, dir);
    MemoryUserDefaults defaults;
    backend.items[{"com.ossevra.app", "openai-api-key"}] = "legacy-account";
    EXPECT_EQ(store.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "legacy-account");
    EXPECT_EQ(backend.items.count({"com.ossevra.app", "openai-api-key"}), 0u);
    EXPECT_EQ(backend.items.at({"com.ossevra.app", "openai-api-key-v2"}), "legacy-account");

    backend.items.clear();
    defaults.set("openai_api_key", std::string(" from-defaults "));
    EXPECT_EQ(store.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "from-defaults");
    EXPECT_FALSE(defaults.object("openai_api_key"));
    EXPECT_EQ(store.apiKey(SecretLocation::openAI()), "from-defaults");

    // A blank legacy entry is removed too, and gives nothing.
    backend.items.clear();
    defaults.set("openai_api_key", std::string("   "));
    EXPECT_EQ(store.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), std::nullopt);
    EXPECT_FALSE(defaults.object("openai_api_key"));
}

TEST_F(SecretStoreTest, ALegacyKeyStaysWhereItIsUntilItsNewPlaceHoldsIt) {
    MemoryUserDefaults defaults;
    defaults.set("openai_api_key", std::string("from-defaults"));
    backend.items[{"com.ossevra.app", "openai-api-key"}] = "legacy-account";

    // Neither the secret store nor the fallback file (its folder is a file) takes the key.
    ASSERT_TRUE(writeFileAtomically(dir / "in-the-way", ""));
    SecretStore blocked(&backend, dir / "in-the-way");
    backend.failWrites = true;
    EXPECT_EQ(blocked.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "legacy-account");
    EXPECT_EQ(backend.items.at({"com.ossevra.app", "openai-api-key"}), "legacy-account");
    backend.items.clear();
    EXPECT_EQ(blocked.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "from-defaults");
    EXPECT_EQ(defaults.string("openai_api_key"), "from-defaults");

    // A store that says yes and keeps nothing is found out by reading the key back.
    backend.failWrites = false;
    backend.loseWrites = true;
    backend.items[{"com.ossevra.app", "openai-api-key"}] = "legacy-account";
    SecretStore lossy(&backend, dir);
    EXPECT_EQ(lossy.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "legacy-account");
    EXPECT_EQ(backend.items.at({"com.ossevra.app", "openai-api-key"}), "legacy-account");
    backend.items.clear();
    EXPECT_EQ(lossy.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "from-defaults");
    EXPECT_EQ(defaults.string("openai_api_key"), "from-defaults");

    // Once the key is stored, the next launch moves it.
    backend.loseWrites = false;
    EXPECT_EQ(lossy.adoptedKey("openai_api_key", SecretLocation::openAI(), defaults), "from-defaults");
    EXPECT_FALSE(defaults.object("openai_api_key"));
    EXPECT_EQ(lossy.apiKey(SecretLocation::openAI()), "from-defaults");
}

}  // namespace
}  // namespace osv
