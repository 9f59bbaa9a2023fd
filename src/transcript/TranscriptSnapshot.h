#pragma once

// What the read model yields: sentences and utterances in timeline order with their
// translations, revisions, failures and readings bound to them. Immutable values; a
// snapshot is cheap to copy and shares its closed part with the fold that made it.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/Date.h"
#include "core/PersistentList.h"
#include "core/SharedText.h"
#include "transcript/CaptureChannel.h"
#include "transcript/GlossaryTerm.h"
#include "transcript/TranscriptEvent.h"
#include "transcript/TranscriptIds.h"
#include "transcript/TranscriptSegment.h"

namespace osv {

namespace TranscriptReadModel {
class Fold;
}

struct Translation {
    std::string text;
    TranslationOrigin origin = TranslationOrigin::streamed;
    Date at;
    bool operator==(const Translation&) const = default;
};

struct SourceRevision {
    std::string text;
    SourceRevisionOrigin origin = SourceRevisionOrigin::repaired;
    Date at;
    // How many characters of the source the revision was made from; the source's
    // characters beyond it are still valid and follow the revised text.
    std::optional<int> sourceCharacterCount;
    bool operator==(const SourceRevision&) const = default;
};

struct Sentence {
    SentenceID id;  // the id of its first delta event
    CaptureChannel channel = CaptureChannel::system;
    Date startedAt;  // `at` of the first delta
    Date endedAt;    // `at` of the last delta, or the closing time if it has none
    // Trimmed, simplified if Chinese; empty for a sentence built from the translation stream.
    std::string text;
    std::vector<UtteranceID> utteranceIDs;
    bool isClosed = false;
    std::vector<Translation> translations;  // in order of arrival
    std::vector<SourceRevision> revisions;  // in order of arrival
    std::optional<std::string> translationFailure;  // while it stands
    std::optional<std::string> furigana;

    // The only ways to read a sentence's current text and translation.
    std::string bestText() const;
    std::string readableText() const;
    // The last translation that isn't a draft, else the last one; null for an empty list.
    // Points into `list`.
    static const Translation* standing(const std::vector<Translation>& list);

    // What a caption shows: after endedAt + settle it keeps what was known by then.
    std::string captionText(Date now, double settle) const;
    const Translation* captionTranslation(Date now, double settle) const;

    bool operator==(const Sentence&) const = default;
};

struct Utterance {
    UtteranceID id;
    CaptureChannel channel = CaptureChannel::system;
    Date startedAt;
    Date endedAt;
    std::string text;
    bool isClosed = false;
    bool operator==(const Utterance&) const = default;
};

// A timeline list: the shared closed part plus at most one open item per channel,
// inserted by start time. Copying is O(1); reading an element is O(log n).
template <class T>
class TimelineList {
public:
    TimelineList() = default;
    explicit TimelineList(PersistentList<T> closed) : closed_(std::move(closed)) {}

    std::size_t size() const { return closed_.size() + inserted_.size(); }
    bool empty() const { return size() == 0; }
    const T& operator[](std::size_t index) const {
        std::size_t before = 0;
        for (const auto& ins : inserted_) {
            if (ins.position == index) return *ins.item;
            if (ins.position < index) ++before;
        }
        return closed_[index - before];
    }
    const T& back() const { return (*this)[size() - 1]; }

    // Inserts before the first element that starts strictly later (at the end if none).
    void insertByStart(T item) {
        std::size_t lo = 0, hi = size();
        while (lo < hi) {
            const std::size_t mid = (lo + hi) / 2;
            if (item.startedAt < (*this)[mid].startedAt) hi = mid;
            else lo = mid + 1;
        }
        for (auto& ins : inserted_)
            if (ins.position >= lo) ++ins.position;
        inserted_.push_back({lo, std::make_shared<const T>(std::move(item))});
    }

    std::vector<T> toVector() const {
        std::vector<T> out;
        out.reserve(size());
        for (std::size_t i = 0; i < size(); ++i) out.push_back((*this)[i]);
        return out;
    }

    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = const T*;
        using reference = const T&;
        const_iterator() = default;
        const_iterator(const TimelineList* list, std::size_t index) : list_(list), index_(index) {}
        const T& operator*() const { return (*list_)[index_]; }
        const T* operator->() const { return &(*list_)[index_]; }
        const_iterator& operator++() {
            ++index_;
            return *this;
        }
        const_iterator operator++(int) {
            auto copy = *this;
            ++index_;
            return copy;
        }
        bool operator==(const const_iterator& o) const { return index_ == o.index_; }

    private:
        const TimelineList* list_ = nullptr;
        std::size_t index_ = 0;
    };
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, size()); }

private:
    struct Inserted {
        std::size_t position;  // in the merged list
        std::shared_ptr<const T> item;
    };
    PersistentList<T> closed_;
    std::vector<Inserted> inserted_;
};

// A run of consecutive sentences that becomes one caption block.
struct ParagraphRange {
    std::size_t first = 0;
    std::size_t count = 0;
    bool operator==(const ParagraphRange&) const = default;
};

class TranscriptSnapshot {
public:
    using UnboundTranslations = std::map<SentenceID, Translation>;

    TranscriptSnapshot() = default;
    TranscriptSnapshot(TimelineList<Utterance> utterances, TimelineList<Sentence> sentences,
                       std::map<CaptureChannel, SharedText> streams,
                       std::shared_ptr<const UnboundTranslations> unbound,
                       std::shared_ptr<const std::vector<GlossaryTerm>> glossary, bool usesMultipleChannels);

    // Timeline order, closed and open mixed.
    const TimelineList<Utterance>& utterances() const { return utterances_; }
    const TimelineList<Sentence>& sentences() const { return sentences_; }
    // All streamed translation text of each channel so far.
    const std::map<CaptureChannel, SharedText>& unattributedTranslationStream() const { return streams_; }
    // For each id with translations but no closed sentence, the last one.
    const UnboundTranslations& unboundTranslations() const;
    // In order of first appearance.
    const std::vector<GlossaryTerm>& glossary() const;

    // Two sentences differ in channel.
    bool usesMultipleChannels() const { return usesMultipleChannels_; }
    // Per channel, the streamed translation of the utterance under way while the source
    // builds the sentences (see ChannelState::translationTail).
    const std::map<CaptureChannel, std::string>& translationTails() const { return translationTails_; }
    std::string glossaryLines() const;
    std::vector<TranscriptSegment> transcriptSegments(bool labelsChannels) const;

    // Groups sentences from `start` on into paragraphs, one caption block each.
    static std::vector<ParagraphRange> paragraphs(std::size_t start, const TimelineList<Sentence>& sentences);

private:
    friend class TranscriptReadModel::Fold;
    std::map<CaptureChannel, std::string> translationTails_;
    TimelineList<Utterance> utterances_;
    TimelineList<Sentence> sentences_;
    std::map<CaptureChannel, SharedText> streams_;
    std::shared_ptr<const UnboundTranslations> unbound_;
    std::shared_ptr<const std::vector<GlossaryTerm>> glossary_;
    bool usesMultipleChannels_ = false;
};

}  // namespace osv
