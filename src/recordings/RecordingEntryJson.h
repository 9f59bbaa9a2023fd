#pragma once

// The index's JSON. Entries are written with a fixed key order and no document in
// between (an index of thousands of entries encodes at memory speed), and read forgivingly
// per field: one malformed field degrades that field, and an element that is not an
// object is skipped and counted, never lost from the file (see SerialIndexWriter).
// Reading finds each element's bounds with a scanner of its own and decodes the small
// fields with simdjson; transcripts written as this build writes them stay encoded.

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

// An element of a stored index as compact JSON, with its id (the "id" text, or the derived
// one) when it is an object.
struct IndexElement {
    std::optional<Uuid> id;
    std::string json;
};

struct LossyRecordingEntryList {
    std::vector<RecordingEntry> entries;
    std::size_t skippedCount = 0;
    // The skipped elements, compact, in file order: what a save carries over.
    std::vector<IndexElement> unreadable;
};

// Error "recording_index_undecodable" when the bytes are no JSON array. Defaults that
// depend on the time (a missing createdAt) take `now`. Entries whose transcript stands as
// this build writes it keep it encoded (see EncodedTranscript), holding on to `owner` of
// `text`; the others are decoded whole, forgiving each field as always.
Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view text, std::shared_ptr<const void> owner,
                                                           Date now);
Expected<LossyRecordingEntryList> decodeRecordingEntryList(std::string_view bytes, Date now);
// One entry, decoded whole; none when the text is no JSON object.
std::optional<RecordingEntry> decodeRecordingEntry(std::string_view json, Date now);

// An encoded index as the pieces of its text, in order: what this build wrote, and the
// transcripts kept as they were read, referred to rather than copied, so a save of a long
// history copies little more than what changed. The pieces stay valid while this and the
// encoded entries live.
class EncodedIndex {
public:
    std::vector<std::string_view> pieces() const;
    std::size_t size() const;
    std::string joined() const;

    // For the encoder: the text it writes into, and a kept text that follows what is
    // written so far.
    std::string& text() { return text_; }
    void keep(std::string_view text);

private:
    struct Piece {
        bool written;  // a stretch of text_, or a kept text
        std::size_t offset, length;
        std::string_view kept;
    };
    std::string text_;
    std::vector<Piece> pieces_;
    std::size_t cut_ = 0;   // where the stretch of text_ not yet in pieces_ begins
    std::size_t size_ = 0;  // of the kept texts
};

// With `filedLogs`, the form the index stores: the inline log is left out for the ids in
// it and compacted for the rest. Numbers that are not finite are written as 0 (JSON
// cannot hold them). `carried` follows the entries.
EncodedIndex encodeRecordingIndex(const std::vector<RecordingEntry>& entries, const std::unordered_set<Uuid>* filedLogs,
                                  const std::vector<IndexElement>& carried);
std::string encodeRecordingEntries(const std::vector<RecordingEntry>& entries,
                                   const std::unordered_set<Uuid>* filedLogs = nullptr);
void writeRecordingEntry(JsonWriter& w, const RecordingEntry& entry, const std::unordered_set<Uuid>* filedLogs = nullptr);

// An element of a stored index that has no usable "id" is given one derived from its
// content, so that reading it twice gives the same entry: carrying over then recognises it
// as the entry this build wrote back, instead of keeping a second copy on every save.
Uuid derivedRecordingID(std::string_view minifiedElement);

// The elements of `file` (a JSON array) that `SerialIndexWriter` must carry over
// because this build does not write them: each object whose id is in neither
// `writtenIDs` nor `knownIDs`, and every element that is no object. None when the bytes
// are no JSON array; otherwise the kept elements in file order.
std::optional<std::vector<IndexElement>> unknownIndexElements(std::string_view file,
                                                              const std::unordered_set<Uuid>& writtenIDs,
                                                              const std::unordered_set<Uuid>& knownIDs);

}  // namespace osv
