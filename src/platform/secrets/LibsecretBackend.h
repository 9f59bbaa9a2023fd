#pragma once

// The secret store over the Secret Service (GNOME Keyring, KWallet) through libsecret.
// Items carry the attributes "service" and "account". Calls block; run them off the main
// thread where a prompt could appear.

#include <optional>
#include <string>

#include "settings/SecretStore.h"

namespace osv {

class LibsecretBackend final : public SecretBackend {
public:
    bool isAvailable() override;
    std::optional<std::string> read(const std::string& service, const std::string& account, int& status) override;
    int update(const std::string& service, const std::string& account, const std::string& secret) override;
    int add(const std::string& service, const std::string& account, const std::string& secret) override;
    int remove(const std::string& service, const std::string& account) override;
    std::string statusText(int status) override;

private:
    int failed(const std::string& message);
    std::string lastMessage_;
    // The first answer stands for the process: asking D-Bus on every key read would cost a
    // round trip (or an activation attempt) each time.
    std::optional<bool> available_;
};

}  // namespace osv
