// The index decoder on arbitrary bytes: it never crashes, whatever it reads it writes back
// as an index that reads again to the same entries, with nothing skipped, and transcripts
// it keeps as read are written exactly as decoding and encoding them would write them.

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "recordings/RecordingEntryJson.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace osv;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    auto first = decodeRecordingEntryList(bytes, Date(0));
    if (!first) return 0;
    const std::string written = encodeRecordingEntries(first->entries);
    // A transcript kept as read is written back as encoding it in full would write it.
    std::vector<RecordingEntry> decoded;
    for (const RecordingEntry& e : first->entries) decoded.push_back(e.withDecodedTranscript());
    if (encodeRecordingEntries(decoded) != written) std::abort();
    auto second = decodeRecordingEntryList(written, Date(0));
    if (!second || second->skippedCount != 0 || second->entries.size() != first->entries.size()) std::abort();
    if (encodeRecordingEntries(second->entries) != written) std::abort();
    return 0;
}
