#include <gtest/gtest.h>

#include "LogBuilder.h"
#include "RandomSession.h"
#include "transcript/TranscriptReadModel.h"

namespace osv {
namespace {

using namespace osv::testing;
using E = TranscriptEvent;

std::string textOf(const TranscriptEvent& e) {
    if (auto* d = std::get_if<E::SourceDelta>(&e.payload)) return "S:" + d->text;
    if (auto* t = std::get_if<E::StreamedTranslationDelta>(&e.payload)) return "T:" + t->text;
    return std::string(payloadName(e.payload));
}

std::vector<std::string> shape(const TranscriptEventLog& log) {
    std::vector<std::string> out;
    for (const auto& e : log.events) out.push_back(std::string(rawValue(e.channel)).substr(0, 1) + textOf(e));
    return out;
}

TEST(Compaction, JoinsRunsPerChannelAndStreamOnly) {
    LogBuilder b;
    b.source(kSystem, 1, "a", 1)
        .source(kSystem, 2, "b", 2)
        .streamed(kSystem, 2.5, "x", 3)
        .source(kSystem, 3, "c", 4)
        .source(kMic, 3.1, "m1", 5)
        .closeSentence(kSystem, 3.2, 1)    // a system boundary leaves the microphone run open
        .source(kMic, 3.3, "m2", 6)
        .add(kMic, 3.4, E::SourceStreamLost{})  // ends the microphone runs like any other event
        .source(kMic, 3.5, "m3", 7);
    b.log.events[1].receivedAt = Date(9);

    const TranscriptEventLog c = b.log.compacted();
    EXPECT_EQ(shape(c), (std::vector<std::string>{"sS:abc", "sT:x", "mS:m1m2", "ssentenceClosed", "msourceStreamLost",
                                                  "mS:m3"}));
    // The merged event keeps the first delta's id and times.
    EXPECT_EQ(c.events[0].id, uuidNumber(1));
    EXPECT_EQ(c.events[0].at, Date(1));
    EXPECT_EQ(c.events[0].receivedAt, std::nullopt);
    EXPECT_EQ(c.events[2].id, uuidNumber(5));
    EXPECT_EQ(c.compacted(), c);
    EXPECT_TRUE(TranscriptEventLog{}.compacted().empty());
}

TEST(Compaction, DeltasWithoutBoundariesBecomeOneEventPerChannelAndStream) {
    LogBuilder b;
    for (int i = 0; i < 20; ++i) {
        b.source(i % 2 ? kSystem : kMic, i, "s");
        b.streamed(i % 3 ? kSystem : kMic, i, "t");
    }
    EXPECT_EQ(b.log.compacted().size(), 4u);
}

struct FoldedSentence {
    std::string id, text, translation;
    bool closed;
    bool operator==(const FoldedSentence&) const = default;
};

std::vector<FoldedSentence> foldSentences(const TranscriptEventLog& log) {
    TranscriptReadModel::Fold fold;
    fold.advance(log);
    std::vector<FoldedSentence> out;
    const TranscriptSnapshot snapshot = fold.snapshot();
    for (const Sentence& s : snapshot.sentences()) {
        const Translation* t = Sentence::standing(s.translations);
        out.push_back({s.id.raw.text(), s.bestText(), t ? t->text : "", s.isClosed});
    }
    return out;
}

// Folding the compacted log must give the same sentences, ids and order as the full one,
// or a stored recording would disagree with what was on screen.
TEST(Compaction, PreservesWhatTheFoldSeesOnRandomSessions) {
    for (unsigned seed = 1; seed <= 60; ++seed) {
        std::mt19937 rng(seed);
        const TranscriptEventLog full = randomSession(rng, 300, seed % 3 != 0);
        const TranscriptEventLog compact = full.compacted();
        EXPECT_LE(compact.size(), full.size());
        EXPECT_EQ(compact.compacted(), compact) << "seed " << seed;
        EXPECT_EQ(foldSentences(compact), foldSentences(full)) << "seed " << seed;
    }
}

}  // namespace
}  // namespace osv
