#include "core/Json.h"

namespace osv::json {

std::optional<Json> parse(std::string_view text) {
    Json j = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
    if (j.is_discarded()) return std::nullopt;
    return j;
}

std::string dumpLine(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string dumpPretty(const Json& value) {
    return value.dump(2, ' ', false, Json::error_handler_t::replace);
}

const Json* member(const Json& object, std::string_view key) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(key);
    if (it == object.end()) return nullptr;
    return &*it;
}

}  // namespace osv::json
