// Recovering a journal must never crash on whatever a killed process or a damaged disk
// left, and must keep every line that decodes.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "transcript/TranscriptEventJson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const osv::JsonLinesReading reading = osv::decodeJsonLines(bytes);
    if (reading.log.size() + reading.skipped.size() != reading.lineCount) std::abort();
    // What was recovered writes back and reads again whole.
    if (osv::decodeJsonLines(osv::encodeJsonLines(reading.log)).log.size() != reading.log.size()) std::abort();
    return 0;
}
