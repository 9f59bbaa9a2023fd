#include "platform/storage/FileUserDefaults.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "core/AtomicFile.h"
#include "core/Base64.h"
#include "core/Json.h"

namespace osv {
namespace {

namespace fs = std::filesystem;
using json::Json;

}  // namespace

struct FileUserDefaults::Document {
    Json values = Json::object();
};

FileUserDefaults::FileUserDefaults(fs::path directory)
    : path_(directory / "defaults.json"), doc_(std::make_unique<Document>()) {
    auto bytes = readWholeFile(path_);
    if (bytes) {
        auto parsed = json::parse(*bytes);
        if (parsed && parsed->is_object()) {
            doc_->values = std::move(*parsed);
            return;
        }
    } else if (bytes.error().code == "file_missing") {
        return;
    }
    // Never write over what can't be read. A hard link keeps the very bytes aside without
    // reading them (the file may not be readable at all) and never replaces an earlier
    // copy; the file itself is then free to be written anew.
    const auto stamp = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch()).count();
    const fs::path aside = path_.string() + ".corrupt-" + std::to_string(stamp);
    if (::link(path_.c_str(), aside.c_str()) == 0) {
        loadProblem_ = "设置文件无法读取，已另存为 " + aside.filename().string() + "，这次用默认设置启动。";
        return;
    }
    const std::string why = std::strerror(errno);
    writable_ = false;
    loadProblem_ = "设置文件无法读取，也没能另存（" + why + "）：这次只在内存里用默认设置，不会写回 " +
                   path_.filename().string() + "。";
}

FileUserDefaults::~FileUserDefaults() = default;

std::optional<UserDefaults::Value> FileUserDefaults::object(std::string_view key) const {
    const Json* v = json::member(doc_->values, key);
    if (!v) return std::nullopt;
    if (v->is_string()) return Value(v->get<std::string>());
    if (v->is_boolean()) return Value(v->get<bool>());
    if (v->is_number()) return Value(v->get<double>());
    if (v->is_object()) {
        if (auto text = json::readOptional<std::string>(*v, "data"))
            if (auto data = base64Decode(*text)) return Value(std::move(*data));
    }
    return std::nullopt;  // a shape this build doesn't know: kept in the file, not read
}

void FileUserDefaults::set(std::string_view key, Value value) {
    Json& slot = doc_->values[std::string(key)];
    std::visit(
        [&](auto&& v) {
            using V = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<V, Data>) {
                Json wrapped = Json::object();
                wrapped["data"] = base64Encode(v);
                slot = std::move(wrapped);
            } else {
                slot = v;
            }
        },
        value);
}

void FileUserDefaults::remove(std::string_view key) { doc_->values.erase(std::string(key)); }

bool FileUserDefaults::synchronize() {
    if (!writable_) return false;
    return writeFileAtomically(path_, json::dumpPretty(doc_->values) + "\n").ok();
}

}  // namespace osv
