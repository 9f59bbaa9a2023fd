#pragma once

// The index's JSON. Entries are written with a fixed key order and no document in
// between (an index of thousands of entries encodes at memory speed), and read forgivingly
// per field: one malformed field degrades that field, and an element that is not an
// object is skipped and counted, never lost from the file (see SerialIndexWriter).

#include <cstddef>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "core/Expected.h"
#include "core/JsonWriter.h"
#include "recordings/RecordingEntry.h"

namespace osv {

struct LossyRecordingEntryList {
    std::vector<RecordingEntry> entries;
    std::size_t skippedCount = 0;
};

// A file's bytes followed by the zero padding the JSON parser reads past the end, so an
// index of hundreds of megabytes is parsed where it was read, without a copy.
class IndexBytes {
public:
    static constexpr std::size_t kPadding = 64;
    // Errors "file_missing" and "file_unreadable".
    static Expected<IndexBytes> read(const std::filesystem::path& path);
    static IndexBytes copy(std::string_view bytes);
    std::string_view view() const { return {data_.get(), size_}; }

private:
    std::unique_ptr<char[]> data_;
    std::size_t size_ = 0;
};

// Error "recording_index_undecodable" when the bytes are no JSON array. Defaults that
// depend on the time (a missing createdAt) take `now`.
Expected<LossyRecordingEntryList> decodeRecordingEntryList(const IndexBytes& bytes, Date now);
Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view bytes, Date now);
// One entry; none when the text is no JSON object.
std::optional<RecordingEntry> decodeRecordingEntry(std::string_view json, Date now);

std::string encodeRecordingEntries(const std::vector<RecordingEntry>& entries);
void writeRecordingEntry(JsonWriter& w, const RecordingEntry& entry);

// An element of a stored index that has no usable "id" is given one derived from its
// content, so that reading it twice gives the same entry: carrying over then recognises it
// as the entry this build wrote back, instead of keeping a second copy on every save.
Uuid derivedRecordingID(std::string_view minifiedElement);

// The elements of `fileBytes` (a JSON array) that `SerialIndexWriter` must carry over
// because this build does not write them: each element whose id (the "id" text, or the
// derived one) is in neither `writtenIDs` nor `knownIDs`. Elements that are no objects are
// always kept. None when the bytes are no JSON array or nothing is to be kept; otherwise
// the kept elements as compact JSON texts, in file order.
std::optional<std::vector<std::string>> unknownIndexElements(const IndexBytes& fileBytes,
                                                             const std::unordered_set<Uuid>& writtenIDs,
                                                             const std::unordered_set<Uuid>& knownIDs);

}  // namespace osv
