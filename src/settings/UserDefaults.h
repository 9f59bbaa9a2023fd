#pragma once

// The user-defaults port: a typed key-value store of plain settings (never secrets).
// Adapters: FileUserDefaults on disk; MemoryUserDefaults for tests and isolated workers.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace osv {

class UserDefaults {
public:
    using Data = std::vector<std::uint8_t>;
    using Value = std::variant<std::string, double, bool, Data>;  // text, number, boolean, data

    virtual ~UserDefaults() = default;
    virtual std::optional<Value> object(std::string_view key) const = 0;
    virtual void set(std::string_view key, Value value) = 0;
    virtual void remove(std::string_view key) = 0;
    // Makes the changes durable; false when they could not be written.
    virtual bool synchronize() = 0;

    // Typed reads: none when the key is absent or holds another type. A boolean also reads
    // from a number (non-zero) or a text ("true", "yes", "1"), as stored booleans of older
    // builds may be.
    std::optional<std::string> string(std::string_view key) const;
    std::optional<double> number(std::string_view key) const;
    std::optional<bool> boolean(std::string_view key) const;
    std::optional<Data> data(std::string_view key) const;
};

class MemoryUserDefaults final : public UserDefaults {
public:
    std::optional<Value> object(std::string_view key) const override;
    void set(std::string_view key, Value value) override { values_[std::string(key)] = std::move(value); }
    void remove(std::string_view key) override { values_.erase(std::string(key)); }
    bool synchronize() override { return true; }
    const std::map<std::string, Value, std::less<>>& values() const { return values_; }

private:
    std::map<std::string, Value, std::less<>> values_;
};

}  // namespace osv
