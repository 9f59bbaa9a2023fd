#pragma once

// The final text of a whole turn against the sentences already closed from its deltas: the
// corrections it implies, sentence by sentence.

#include <string>
#include <string_view>
#include <vector>

#include "transcript/CaptureChannel.h"
#include "transcript/TranscriptIds.h"
#include "transcript/TranscriptSnapshot.h"

namespace osv::TranscriptionFinalReconciler {

struct Revision {
    SentenceID id;
    std::string text;
    bool operator==(const Revision&) const = default;
};

// Aligns the final text of a whole turn with the sentences already closed from its deltas
// (`previous` is what was delivered so far) and returns a corrected source for each
// sentence of `channel` whose text the final text says differently. Sentence boundaries
// stay; only their contents change. Empty when the turn can't be matched safely.
std::vector<Revision> revisions(std::string_view previous, std::string_view final,
                                const TimelineList<Sentence>& sentences, CaptureChannel channel,
                                bool preserveOmitted);

}  // namespace osv::TranscriptionFinalReconciler
