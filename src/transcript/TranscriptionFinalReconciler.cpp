#include "transcript/TranscriptionFinalReconciler.h"

#include <algorithm>
#include <cstdint>
#include <deque>

#include "core/Text.h"
#include "transcript/TranscriptSegmenter.h"

namespace osv::TranscriptionFinalReconciler {
namespace {

constexpr std::size_t kMaximumCharacters = 1024;

std::vector<std::string_view> nonWhitespaceCharacters(std::string_view s) {
    std::vector<std::string_view> out;
    text::GraphemeWalker walker(s);
    std::string_view c;
    while (walker.next(c))
        if (!text::isWhitespaceCharacter(c)) out.push_back(c);
    return out;
}

std::size_t lettersAndDigits(std::string_view s) {
    std::size_t n = 0;
    text::forEachScalar(s, [&](char32_t c) {
        if (text::isLetterOrDigit(c)) ++n;
    });
    return n;
}

// Sentences of the turn, oldest first, with the characters that are compared.
struct Taken {
    const Sentence* sentence;
    std::string best;
    std::vector<std::string_view> characters;  // non-white-space characters of `best`
};

}  // namespace

std::vector<Revision> revisions(std::string_view previous, std::string_view final,
                                const TimelineList<Sentence>& sentences, CaptureChannel channel,
                                bool preserveOmitted) {
    const std::vector<std::string_view> prev = nonWhitespaceCharacters(previous);
    const std::vector<std::string_view> finalAll = text::graphemes(final);
    std::vector<std::size_t> finalIndex;  // positions in finalAll of its non-white-space characters
    for (std::size_t i = 0; i < finalAll.size(); ++i)
        if (!text::isWhitespaceCharacter(finalAll[i])) finalIndex.push_back(i);
    const std::size_t P = prev.size();
    const std::size_t F = finalIndex.size();
    if (P == 0 || F == 0 || P > kMaximumCharacters || F > kMaximumCharacters) return {};

    // The turn must be the tail of the channel's newest sentences.
    std::deque<Taken> taken;
    std::size_t total = 0;
    for (std::size_t i = sentences.size(); i-- > 0 && total < P;) {
        const Sentence& s = sentences[i];
        if (s.channel != channel) continue;
        const Translation* standing = Sentence::standing(s.translations);
        if (s.text.empty() && standing && standing->origin == TranslationOrigin::streamed) continue;
        // The views point into `best`: made only once it sits in the deque, whose elements
        // never move.
        Taken& t = taken.emplace_front(Taken{&s, s.bestText(), {}});
        t.characters = nonWhitespaceCharacters(t.best);
        total += t.characters.size();
    }
    if (total < P) return {};
    {
        std::size_t k = total - P;  // characters ahead of the turn, all in the oldest sentence taken
        std::size_t p = 0;
        for (const Taken& t : taken) {
            for (std::string_view c : t.characters) {
                if (k > 0) {
                    --k;
                    continue;
                }
                if (c != prev[p++]) return {};
            }
        }
    }
    const std::size_t ahead = total - P;
    if (!taken.empty() && ahead >= taken.front().characters.size() && ahead > 0) return {};

    // Edit distance between what was delivered and the final text, without white space.
    std::vector<std::uint16_t> d((P + 1) * (F + 1));
    auto at = [&](std::size_t i, std::size_t j) -> std::uint16_t& { return d[i * (F + 1) + j]; };
    for (std::size_t i = 0; i <= P; ++i) at(i, 0) = std::uint16_t(i);
    for (std::size_t j = 0; j <= F; ++j) at(0, j) = std::uint16_t(j);
    for (std::size_t i = 1; i <= P; ++i)
        for (std::size_t j = 1; j <= F; ++j) {
            const int substitution = prev[i - 1] == finalAll[finalIndex[j - 1]] ? 0 : 1;
            at(i, j) = std::uint16_t(std::min({at(i - 1, j) + 1, at(i, j - 1) + 1, at(i - 1, j - 1) + substitution}));
        }
    if (preserveOmitted && double(at(P, F)) > double(std::max(P, F)) / 2.0) return {};

    // Where each boundary of `previous` falls in the final text. Walking back, the diagonal
    // is preferred, then an insertion: text the final adds at a boundary (typically the
    // punctuation that ends a sentence) stays with the sentence before it.
    std::vector<std::size_t> boundary(P + 1, 0);
    boundary[P] = F;
    for (std::size_t i = P, j = F; i > 0 || j > 0;) {
        if (i > 0 && j > 0 &&
            at(i, j) == at(i - 1, j - 1) + (prev[i - 1] == finalAll[finalIndex[j - 1]] ? 0 : 1)) {
            --i, --j;
            boundary[i] = j;
        } else if (j > 0 && at(i, j) == at(i, j - 1) + 1) {
            --j;
        } else {
            --i;
            boundary[i] = j;
        }
    }
    boundary[0] = 0;

    // The final text between two non-white-space positions, its white space restored.
    auto finalText = [&](std::size_t from, std::size_t to) {
        const std::size_t begin = from < F ? finalIndex[from] : finalAll.size();
        const std::size_t end = to < F ? finalIndex[to] : finalAll.size();
        std::string out;
        for (std::size_t i = begin; i < end; ++i) out += finalAll[i];
        return out;
    };

    std::vector<Revision> out;
    std::size_t start = 0;  // in `previous`
    for (std::size_t n = 0; n < taken.size(); ++n) {
        const Taken& t = taken[n];
        const std::size_t lead = n == 0 ? ahead : 0;
        const std::size_t end = start + t.characters.size() - lead;
        std::string candidate;
        if (lead > 0) {
            // Characters ahead of the turn stay as the sentence shows them.
            std::size_t seen = 0;
            text::GraphemeWalker walker(t.best);
            std::string_view c;
            while (walker.next(c)) {
                const bool space = text::isWhitespaceCharacter(c);
                if (seen == lead && !space) break;  // the white space after them stays too
                candidate += c;
                if (!space) ++seen;
            }
        }
        candidate += finalText(boundary[start], boundary[end]);
        start = end;

        const Sentence& s = *t.sentence;
        if (preserveOmitted) {
            // The final text left out what the sentence held: what it held stands.
            const std::size_t mapped = lettersAndDigits(candidate);
            if (mapped == 0 || double(mapped) < 0.35 * double(lettersAndDigits(s.text))) continue;
            const std::string_view held = text::trimmed(s.text);
            const std::string_view mark = text::lastCharacter(held);
            // The ASCII full stop ends no sentence while text streams in (it stands inside
            // numbers), but as the last mark of a closed one it is kept like the others.
            const bool endMark = TranscriptSegmenter::isSentenceEnder(mark) || mark == ".";
            const std::string_view last = text::lastCharacter(text::trimmed(candidate));
            if (endMark && text::isLetterOrDigit(text::firstScalar(last)))
                candidate = std::string(text::trimmed(candidate)) + std::string(mark);
        }
        // White space doesn't count here either: a final that only spaces the words
        // differently changes nothing.
        const std::string revised(text::trimmed(candidate));
        if (nonWhitespaceCharacters(revised) != t.characters) out.push_back(Revision{s.id, revised});
    }
    return out;
}

}  // namespace osv::TranscriptionFinalReconciler
