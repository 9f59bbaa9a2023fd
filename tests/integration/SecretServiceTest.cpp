// Runs against a real Secret Service: tests/integration/with-secret-service.sh starts a
// private session bus with an unlocked GNOME Keyring, and OSV_KEYCHAIN_TESTS=1 lets the
// store use it under the test suite.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "cli/Cli.h"
#include "core/AtomicFile.h"
#include "core/Uuid.h"
#include "platform/secrets/LibsecretBackend.h"
#include "settings/SecretStore.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

class SecretServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_STREQ(std::getenv("OSV_KEYCHAIN_TESTS"), "1") << "run through with-secret-service.sh";
        ASSERT_TRUE(backend.isAvailable()) << "no Secret Service on the session bus";
    }
    void TearDown() override { fs::remove_all(dir); }

    std::optional<std::string> lookUp(const SecretLocation& l) {
        int status = 0;
        return backend.read(l.service, l.account, status);
    }

    fs::path dir = fs::temp_directory_path() / ("osv-keyring-" + Uuid::random().text());
    LibsecretBackend backend;
};

TEST_F(SecretServiceTest, StoresUpdatesAndDeletesKeysAndDropsTheFallbackFile) {
    SecretStore store(&backend, dir);
    ASSERT_TRUE(store.keychainIsReachable());
    const SecretLocation location = SecretLocation::gemini();
    // A key left in a file by an earlier failed write is replaced by the real store.
    ASSERT_TRUE(writeFileAtomically(store.fallbackPath(location), "old-file-key", 0600));

    ASSERT_TRUE(store.setAPIKey("key-one", location));
    EXPECT_EQ(store.lastPlacement(), SecretStore::Placement::secretStore);
    EXPECT_FALSE(fs::exists(store.fallbackPath(location)));
    EXPECT_EQ(lookUp(location), "key-one");
    EXPECT_EQ(store.apiKey(location), "key-one");

    ASSERT_TRUE(store.setAPIKey("key-two", location));
    EXPECT_EQ(lookUp(location), "key-two");

    ASSERT_TRUE(store.setAPIKey("", location));
    EXPECT_EQ(lookUp(location), std::nullopt);
    EXPECT_EQ(store.apiKey(location), std::nullopt);
    EXPECT_EQ(backend.remove(location.service, location.account), SecretBackend::kItemNotFound);
}

TEST_F(SecretServiceTest, TheCommandLineStoresAKeyFromStandardInput) {
    ::setenv("OSV_SUPPORT_DIR", dir.c_str(), 1);
    std::istringstream in("sk-from-stdin\n");
    std::ostringstream out, err;
    ASSERT_EQ(cli::run({"keys", "set", "openai"}, in, out, err), cli::kOk) << err.str();
    EXPECT_NE(out.str().find("Secret Service"), std::string::npos) << out.str();
    EXPECT_EQ(out.str().find("sk-from-stdin"), std::string::npos);  // never the key itself
    EXPECT_EQ(lookUp(SecretLocation::openAI()), "sk-from-stdin");

    std::istringstream none;
    ASSERT_EQ(cli::run({"keys", "set", "openai", "--clear"}, none, out, err), cli::kOk);
    EXPECT_EQ(lookUp(SecretLocation::openAI()), std::nullopt);
}

}  // namespace
}  // namespace osv
