#pragma once

#include <map>

#include "settings/SecretStore.h"

namespace osv::testing {

// An in-memory secret store whose writes can be made to fail.
class FakeSecretBackend : public SecretBackend {
public:
    std::map<std::pair<std::string, std::string>, std::string> items;
    bool available = true;
    bool failWrites = false;
    bool loseWrites = false;  // writes report success and store nothing
    int calls = 0;

    bool isAvailable() override { return available; }
    std::optional<std::string> read(const std::string& s, const std::string& a, int& status) override {
        ++calls;
        auto it = items.find({s, a});
        status = it == items.end() ? kItemNotFound : kSuccess;
        if (it == items.end()) return std::nullopt;
        return it->second;
    }
    int update(const std::string& s, const std::string& a, const std::string& v) override {
        ++calls;
        if (failWrites) return -61;
        if (loseWrites) return kSuccess;
        auto it = items.find({s, a});
        if (it == items.end()) return kItemNotFound;
        it->second = v;
        return kSuccess;
    }
    int add(const std::string& s, const std::string& a, const std::string& v) override {
        ++calls;
        if (failWrites) return -61;
        if (loseWrites) return kSuccess;
        items[{s, a}] = v;
        return kSuccess;
    }
    int remove(const std::string& s, const std::string& a) override {
        ++calls;
        return items.erase({s, a}) ? kSuccess : kItemNotFound;
    }
    std::string statusText(int status) override { return "status " + std::to_string(status); }
};

}  // namespace osv::testing
