#include "services/HttpTransport.h"

#include <algorithm>
#include <cctype>

namespace osv {

std::optional<std::string> HttpResponse::header(std::string_view name) const {
    for (const auto& [key, value] : headers)
        if (std::equal(key.begin(), key.end(), name.begin(), name.end(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
            }))
            return value;
    return std::nullopt;
}

}  // namespace osv
