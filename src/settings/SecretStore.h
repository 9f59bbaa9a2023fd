#pragma once

// API keys: in the platform's secret store (the Secret Service on Linux), with owner-only
// fallback files in the support folder where the secret store can't be used. A key never
// appears in a log line, a debug event or an error text: only where it went.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "settings/UserDefaults.h"

namespace osv {

// The port to the platform's secret store. Its status codes are those of the macOS
// keychain, which the stored keys and the failure reports ("OSStatus: …") were first
// written against: 0 success, kItemNotFound (-25300) when there is no such item, anything
// else a failure that statusText() explains.
class SecretBackend {
public:
    static constexpr int kSuccess = 0;
    static constexpr int kItemNotFound = -25300;

    virtual ~SecretBackend() = default;
    // A secret store answers (on Linux: a Secret Service on the session bus).
    virtual bool isAvailable() = 0;
    virtual std::optional<std::string> read(const std::string& service, const std::string& account, int& status) = 0;
    virtual int update(const std::string& service, const std::string& account, const std::string& secret) = 0;
    virtual int add(const std::string& service, const std::string& account, const std::string& secret) = 0;
    virtual int remove(const std::string& service, const std::string& account) = 0;
    virtual std::string statusText(int status) = 0;
};

struct SecretLocation {
    std::string service;
    std::string account;
    std::optional<std::string> fallbackFile;  // in the support folder

    static SecretLocation openAI();        // "openai-api-key-v2", "openai.key"
    static SecretLocation openAILegacy();  // "openai-api-key", no file
    static SecretLocation google();        // "google-cloud-api-key", "google.key"
    static SecretLocation gemini();        // "gemini-api-key", "gemini.key"
    static SecretLocation jev();           // "typesafe-jev-api-key", "jev.key"
};

class SecretStore {
public:
    static constexpr std::string_view kService = "com.ossevra.app";
    static constexpr std::string_view kLegacyOpenAIDefaultsKey = "openai_api_key";

    // `backend` may be null (no secret store on this platform). Fallback files live in
    // `supportDirectory`.
    SecretStore(SecretBackend* backend, std::filesystem::path supportDirectory);

    // OSV_KEYCHAIN_TESTS=1: yes. Otherwise no under the test suite (a secret store would
    // touch the user's real keys) or when no secret store answers; yes otherwise.
    bool keychainIsReachable() const;

    std::optional<std::string> apiKey(const SecretLocation& location);
    // Stores the trimmed key, an empty text removes it. True when it is stored somewhere.
    bool setAPIKey(std::string_view text, const SecretLocation& location);
    // The key, found where it is now or moved from where older builds kept it (the legacy
    // account, then the user defaults, whose entry is removed whatever it held).
    std::optional<std::string> adoptedKey(std::string_view legacyDefaultsKey, const SecretLocation& location,
                                          UserDefaults& defaults);

    enum class Placement { none, secretStore, fallbackFile, removed };
    // Where the last setAPIKey put the key, and the secret store's last status.
    Placement lastPlacement() const { return lastPlacement_; }
    int lastStatus() const { return lastStatus_; }
    std::string lastStatusText() const;

    std::filesystem::path fallbackPath(const SecretLocation& location) const;

private:
    bool writeFallback(const SecretLocation& location, const std::string& key);
    void deleteFallback(const SecretLocation& location);

    SecretBackend* backend_;
    std::filesystem::path supportDirectory_;
    int lastStatus_ = 0;
    Placement lastPlacement_ = Placement::none;
};

// The process runs under the test suite: OSV_TEST_RUN is set (every test program sets it
// for itself and its children).
bool runningUnderTestSuite();

}  // namespace osv
