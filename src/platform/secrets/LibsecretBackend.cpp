#include "platform/secrets/LibsecretBackend.h"

#include <libsecret/secret.h>

#include <cstdlib>

namespace osv {
namespace {

constexpr int kFailure = -1;

const SecretSchema* schema() {
    static const SecretSchema s = {
        "com.ossevra.app.ApiKey",
        SECRET_SCHEMA_NONE,
        {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING}, {"account", SECRET_SCHEMA_ATTRIBUTE_STRING}, {nullptr, {}}},
        0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
    return &s;
}

}  // namespace

bool LibsecretBackend::isAvailable() {
    if (available_) return *available_;
    // Without a session bus there is nothing to ask; with one, a Secret Service must answer.
    const char* bus = std::getenv("DBUS_SESSION_BUS_ADDRESS");
    if (!bus || !*bus) return *(available_ = false);
    GError* error = nullptr;
    SecretService* service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, &error);
    if (error) {
        lastMessage_ = error->message;
        g_error_free(error);
        return *(available_ = false);
    }
    if (service) g_object_unref(service);
    return *(available_ = service != nullptr);
}

int LibsecretBackend::failed(const std::string& message) {
    lastMessage_ = message;
    return kFailure;
}

std::optional<std::string> LibsecretBackend::read(const std::string& service, const std::string& account, int& status) {
    GError* error = nullptr;
    gchar* secret = secret_password_lookup_sync(schema(), nullptr, &error, "service", service.c_str(), "account",
                                                account.c_str(), nullptr);
    if (error) {
        status = failed(error->message);
        g_error_free(error);
        return std::nullopt;
    }
    if (!secret) {
        status = kItemNotFound;
        return std::nullopt;
    }
    std::string value(secret);
    secret_password_free(secret);
    status = kSuccess;
    return value;
}

int LibsecretBackend::update(const std::string& service, const std::string& account, const std::string& secret) {
    int status = kSuccess;
    read(service, account, status);
    if (status != kSuccess) return status;  // no item to update, or the store failed
    return add(service, account, secret);   // storing under the same attributes replaces it
}

int LibsecretBackend::add(const std::string& service, const std::string& account, const std::string& secret) {
    GError* error = nullptr;
    const std::string label = "Ossevra (" + account + ")";
    const gboolean stored = secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), secret.c_str(),
                                                       nullptr, &error, "service", service.c_str(), "account",
                                                       account.c_str(), nullptr);
    if (error) {
        const int status = failed(error->message);
        g_error_free(error);
        return status;
    }
    return stored ? kSuccess : failed("the Secret Service did not store the item");
}

int LibsecretBackend::remove(const std::string& service, const std::string& account) {
    GError* error = nullptr;
    const gboolean removed =
        secret_password_clear_sync(schema(), nullptr, &error, "service", service.c_str(), "account", account.c_str(), nullptr);
    if (error) {
        const int status = failed(error->message);
        g_error_free(error);
        return status;
    }
    return removed ? kSuccess : kItemNotFound;
}

std::string LibsecretBackend::statusText(int status) {
    if (status == kSuccess) return "成功";
    if (status == kItemNotFound) return "没有这一项";
    return lastMessage_.empty() ? "Secret Service 出错" : lastMessage_;
}

}  // namespace osv
