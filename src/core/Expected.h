#pragma once

#include <string>
#include <utility>
#include <variant>

namespace osv {

// A failure as a value: a stable snake_case code for logs and tests, and a text for people.
struct Error {
    std::string code;
    std::string message;
};

template <class T>
class [[nodiscard]] Expected {
public:
    Expected(T value) : v_(std::move(value)) {}  // NOLINT: implicit by design
    Expected(Error error) : v_(std::move(error)) {}  // NOLINT

    bool ok() const { return v_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(v_); }
    const T& value() const& { return std::get<0>(v_); }
    T&& value() && { return std::get<0>(std::move(v_)); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }

    const Error& error() const { return std::get<1>(v_); }

private:
    std::variant<T, Error> v_;
};

template <>
class [[nodiscard]] Expected<void> {
public:
    Expected() = default;
    Expected(Error error) : error_(std::move(error)), ok_(false) {}  // NOLINT

    bool ok() const { return ok_; }
    explicit operator bool() const { return ok_; }
    const Error& error() const { return error_; }

private:
    Error error_;
    bool ok_ = true;
};

}  // namespace osv
