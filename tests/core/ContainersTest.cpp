#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "core/PersistentList.h"
#include "core/SharedText.h"

namespace osv {
namespace {

// Random inserts and replacements against a plain vector; every earlier copy must still
// read exactly as it did when it was taken.
TEST(PersistentList, MatchesAVectorAndOldCopiesNeverChange) {
    std::mt19937 rng(11);
    PersistentList<std::string> list;
    std::vector<std::string> model;
    std::vector<std::pair<PersistentList<std::string>, std::vector<std::string>>> copies;
    for (int step = 0; step < 3000; ++step) {
        // Appended, not `"v" + std::to_string(…)`: GCC 12 at -O3 reports a false -Wrestrict
        // there (bug 105329).
        std::string value = "v";
        value += std::to_string(step);
        if (!model.empty() && rng() % 4 == 0) {
            const std::size_t at = rng() % model.size();
            list.replace(at, value);
            model[at] = value;
        } else {
            // Mostly near the end, as timeline inserts are.
            const std::size_t at = rng() % 3 == 0 ? rng() % (model.size() + 1) : model.size();
            list.insert(at, value);
            model.insert(model.begin() + std::ptrdiff_t(at), value);
        }
        if (step % 97 == 0) copies.emplace_back(list, model);
    }
    ASSERT_EQ(list.size(), model.size());
    EXPECT_EQ(list.toVector(), model);
    for (std::size_t i = 0; i < model.size(); i += 37) EXPECT_EQ(list[i], model[i]);
    for (const auto& [copy, expected] : copies) EXPECT_EQ(copy.toVector(), expected);
    EXPECT_EQ(PersistentList<int>::fromVector({1, 2, 3}).toVector(), (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(PersistentList<int>().empty());
}

TEST(SharedText, CopiesKeepTheirTextWhileTheOriginalGrows) {
    SharedText original;
    std::vector<std::pair<SharedText, std::string>> copies;
    std::string model;
    for (int i = 0; i < 500; ++i) {
        const std::string piece = "片" + std::to_string(i);
        original.append(piece);
        model += piece;
        if (i % 50 == 0) copies.emplace_back(original, model);
    }
    EXPECT_EQ(original.view(), model);
    for (const auto& [copy, expected] : copies) EXPECT_EQ(copy.view(), expected);

    // Two copies that both append must not write over each other.
    SharedText a("base");
    SharedText b = a;
    a.append("-a");
    b.append("-b");
    EXPECT_EQ(a.view(), "base-a");
    EXPECT_EQ(b.view(), "base-b");
}

}  // namespace
}  // namespace osv
