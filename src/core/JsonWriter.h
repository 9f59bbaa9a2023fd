#pragma once

// A fast JSON writer that appends compact text to a string: no document is built, so a
// large index encodes at memory speed. Output is always valid JSON: invalid UTF-8 in a
// string becomes U+FFFD, and a number that is not finite is written as null.

#include <cstdint>
#include <string>
#include <string_view>

#include "core/Date.h"
#include "core/Uuid.h"

namespace osv {

class JsonWriter {
public:
    explicit JsonWriter(std::string& out) : out_(out) {}

    void beginObject();
    void endObject();
    void beginArray();
    void endArray();
    // The key of the next member.
    void key(std::string_view name);

    void string(std::string_view text);
    void number(double value);
    void integer(std::int64_t value);
    void boolean(bool value);
    void null();
    // Text that already is one JSON value, written as it stands.
    void raw(std::string_view json);
    void uuid(const Uuid& id);
    void date(Date date) { number(date.seconds); }

private:
    void separate();
    std::string& out_;
    bool needsComma_ = false;
};

// `text` as a JSON string literal, quotes included, appended to `out`.
void appendJsonString(std::string& out, std::string_view text);
// The shortest text that reads back as exactly `value`; plain decimal notation where that
// stays readable (dates, durations), exponent notation only for extreme magnitudes.
void appendJsonNumber(std::string& out, double value);

}  // namespace osv
