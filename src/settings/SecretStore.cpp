#include "settings/SecretStore.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/AtomicFile.h"
#include "core/Text.h"

namespace osv {
namespace {

namespace fs = std::filesystem;

SecretLocation location(const char* account, std::optional<std::string> file) {
    return SecretLocation{std::string(SecretStore::kService), account, std::move(file)};
}

}  // namespace

SecretLocation SecretLocation::openAI() { return location("openai-api-key-v2", "openai.key"); }
SecretLocation SecretLocation::openAILegacy() { return location("openai-api-key", std::nullopt); }
SecretLocation SecretLocation::google() { return location("google-cloud-api-key", "google.key"); }
SecretLocation SecretLocation::gemini() { return location("gemini-api-key", "gemini.key"); }
SecretLocation SecretLocation::jev() { return location("typesafe-jev-api-key", "jev.key"); }

bool runningUnderTestSuite() {
    const char* flag = std::getenv("OSV_TEST_RUN");
    return flag && *flag;
}

SecretStore::SecretStore(SecretBackend* backend, fs::path supportDirectory)
    : backend_(backend), supportDirectory_(std::move(supportDirectory)) {}

bool SecretStore::keychainIsReachable() const {
    const char* forced = std::getenv("OSV_KEYCHAIN_TESTS");
    if (forced && std::strcmp(forced, "1") == 0) return backend_ != nullptr;
    if (runningUnderTestSuite()) return false;
    return backend_ != nullptr && backend_->isAvailable();
}

fs::path SecretStore::fallbackPath(const SecretLocation& location) const {
    return supportDirectory_ / location.fallbackFile.value_or("");
}

std::string SecretStore::lastStatusText() const {
    if (!backend_) return "no secret store";
    return backend_->statusText(lastStatus_);
}

std::optional<std::string> SecretStore::apiKey(const SecretLocation& location) {
    const bool reachable = keychainIsReachable();
    // A key in a file means a secret-store write failed after it: the file is the newer copy.
    if (location.fallbackFile) {
        if (auto bytes = readWholeFile(fallbackPath(location))) {
            const std::string key(text::trimmed(*bytes));
            if (!key.empty()) return key;
        }
        if (!reachable) return std::nullopt;
    }
    if (!reachable) return std::nullopt;
    int status = 0;
    auto secret = backend_->read(location.service, location.account, status);
    lastStatus_ = status;
    if (status != SecretBackend::kSuccess || !secret || secret->empty()) return std::nullopt;
    return secret;
}

bool SecretStore::setAPIKey(std::string_view text, const SecretLocation& location) {
    const std::string key(text::trimmed(text));
    lastPlacement_ = Placement::none;
    if (!keychainIsReachable()) {
        if (!location.fallbackFile) return false;
        if (key.empty()) {
            deleteFallback(location);
            lastPlacement_ = Placement::removed;
            return true;
        }
        const bool written = writeFallback(location, key);
        if (written) lastPlacement_ = Placement::fallbackFile;
        return written;
    }
    if (key.empty()) {
        lastStatus_ = backend_->remove(location.service, location.account);
        deleteFallback(location);
        const bool ok = lastStatus_ == SecretBackend::kSuccess || lastStatus_ == SecretBackend::kItemNotFound;
        if (ok) lastPlacement_ = Placement::removed;
        return ok;
    }
    lastStatus_ = backend_->update(location.service, location.account, key);
    if (lastStatus_ == SecretBackend::kSuccess) {
        deleteFallback(location);
        lastPlacement_ = Placement::secretStore;
        return true;
    }
    if (lastStatus_ != SecretBackend::kItemNotFound) backend_->remove(location.service, location.account);
    lastStatus_ = backend_->add(location.service, location.account, key);
    if (lastStatus_ == SecretBackend::kSuccess) {
        deleteFallback(location);
        lastPlacement_ = Placement::secretStore;
        return true;
    }
    if (!location.fallbackFile) return false;
    const bool written = writeFallback(location, key);
    if (written) lastPlacement_ = Placement::fallbackFile;
    return written;
}

std::optional<std::string> SecretStore::adoptedKey(std::string_view legacyDefaultsKey, const SecretLocation& location,
                                                   UserDefaults& defaults) {
    if (auto key = apiKey(location)) return key;
    // An old place is emptied only once the new one is seen to hold the key: a failed or
    // lost write must leave the key where it was, for the next launch to try again.
    const auto storedAndRead = [&](const std::string& key) {
        return setAPIKey(key, location) && apiKey(location) == key;
    };
    if (location.account == SecretLocation::openAI().account) {
        if (auto legacy = apiKey(SecretLocation::openAILegacy())) {
            if (storedAndRead(*legacy)) setAPIKey("", SecretLocation::openAILegacy());
            return legacy;
        }
    }
    // Older builds kept the key in the defaults. An entry with no key in it goes at once.
    if (!defaults.object(legacyDefaultsKey)) return std::nullopt;
    const std::string key(text::trimmed(defaults.string(legacyDefaultsKey).value_or("")));
    if (!key.empty() && !storedAndRead(key)) return key;
    defaults.remove(legacyDefaultsKey);
    defaults.synchronize();
    if (key.empty()) return std::nullopt;
    return key;
}

bool SecretStore::writeFallback(const SecretLocation& location, const std::string& key) {
    if (!location.fallbackFile) return false;
    return writeFileAtomically(fallbackPath(location), key, 0600).ok();
}

void SecretStore::deleteFallback(const SecretLocation& location) {
    if (!location.fallbackFile) return;
    std::error_code ec;
    fs::remove(fallbackPath(location), ec);
}

}  // namespace osv
