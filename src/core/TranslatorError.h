#pragma once

// Recording and API failures, each with the text the user reads and a stable code.

#include <string>

#include "core/Expected.h"

namespace osv {

class TranslatorError {
public:
    enum class Kind { recordingFailed, apiError, invalidResponse, missingAPIKey, microphoneUnavailable, emptyTranscript };

    static TranslatorError recordingFailed(std::string text) { return {Kind::recordingFailed, std::move(text)}; }
    static TranslatorError apiError(std::string text) { return {Kind::apiError, std::move(text)}; }
    static TranslatorError invalidResponse(std::string text) { return {Kind::invalidResponse, std::move(text)}; }
    static TranslatorError missingAPIKey() { return {Kind::missingAPIKey, {}}; }
    static TranslatorError microphoneUnavailable() { return {Kind::microphoneUnavailable, {}}; }
    static TranslatorError emptyTranscript() { return {Kind::emptyTranscript, {}}; }

    Kind kind() const { return kind_; }
    // The case's own text, where it has one.
    const std::string& detail() const { return detail_; }
    // What the user reads.
    std::string userText() const;
    // snake_case, for logs and tests: "recording_failed", "api_error", ...
    std::string code() const;
    // As a failure value: the code and the user text.
    Error asError() const { return Error{code(), userText()}; }

    bool operator==(const TranslatorError&) const = default;

private:
    TranslatorError(Kind kind, std::string detail) : kind_(kind), detail_(std::move(detail)) {}
    Kind kind_;
    std::string detail_;
};

}  // namespace osv
