// Decoding of one journal line must never crash, and whatever decodes must encode back to
// a line that decodes to the same event.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "transcript/TranscriptEventJson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    auto decoded = osv::decodeEventLine(line);
    if (!decoded) return 0;
    auto again = osv::decodeEventLine(osv::encodeEventLine(*decoded));
    // Invalid UTF-8 inside strings is replaced on encoding, so only require a decode.
    if (!again) std::abort();
    return 0;
}
