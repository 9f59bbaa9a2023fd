#pragma once

// The user defaults as one JSON file, "defaults.json" in the config folder. Typed values:
// text as strings, numbers, booleans, and data as {"data": "<base64>"}. Written atomically
// on synchronize(). A file that can't be read or parsed is set aside as
// "defaults.json.corrupt-{time}" before anything is written over it, and the program starts
// with defaults. When it can't be set aside, the defaults live in memory only: synchronize()
// writes nothing and answers false, and loadProblem() says so.

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "settings/UserDefaults.h"

namespace osv {

class FileUserDefaults final : public UserDefaults {
public:
    explicit FileUserDefaults(std::filesystem::path directory);
    ~FileUserDefaults() override;

    std::optional<Value> object(std::string_view key) const override;
    void set(std::string_view key, Value value) override;
    void remove(std::string_view key) override;
    bool synchronize() override;

    const std::filesystem::path& path() const { return path_; }
    // What went wrong when the file was read, and where the unreadable copy went.
    const std::optional<std::string>& loadProblem() const { return loadProblem_; }
    // False when the file on disk must be left alone (see above).
    bool isWritable() const { return writable_; }

private:
    struct Document;
    std::filesystem::path path_;
    std::unique_ptr<Document> doc_;
    std::optional<std::string> loadProblem_;
    bool writable_ = true;
};

}  // namespace osv
