#include <gtest/gtest.h>

#include <set>

#include "core/Date.h"
#include "core/Uuid.h"

namespace osv {
namespace {

TEST(Date, ConvertsBetweenReferenceDateUnixTimeAndTheSystemClock) {
    EXPECT_DOUBLE_EQ(Date(0).unixSeconds(), 978307200.0);
    EXPECT_EQ(Date::fromUnixMilliseconds(978307200123).seconds, 0.123);
    EXPECT_EQ(Date(700000000.25).unixMilliseconds(), 1678307200250);

    const Date d(712345678.125);
    EXPECT_NEAR(Date::fromSystemClock(d.toSystemClock()).seconds, d.seconds, 1e-6);
    EXPECT_LT(Date(1) , Date(2));
    EXPECT_DOUBLE_EQ(Date(5) - Date(2), 3.0);
    EXPECT_LT(Date::distantPast(), Date(-1e12));
}

TEST(Uuid, WritesCanonicalUpperCaseAndParsesEitherCase) {
    const auto u = Uuid::parse("e621e1f8-c36c-495a-93fc-0c247a3e6e5f");
    ASSERT_TRUE(u);
    EXPECT_EQ(u->text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(Uuid::parse(u->text()), u);

    for (const char* bad : {"", "E621E1F8C36C495A93FC0C247A3E6E5F", "E621E1F8-C36C-495A-93FC-0C247A3E6E5",
                            "E621E1F8-C36C-495A-93FC-0C247A3E6E5FF", "G621E1F8-C36C-495A-93FC-0C247A3E6E5F",
                            "E621E1F8-C36C4-95A-93FC-0C247A3E6E5F", "{E621E1F8-C36C-495A-93FC-0C247A3E6E5}"})
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
}

TEST(Uuid, RandomOnesAreVersionFourAndDistinct) {
    std::set<Uuid> seen;
    for (int i = 0; i < 1000; ++i) {
        const Uuid u = Uuid::random();
        EXPECT_EQ(u.bytes()[6] >> 4, 4);
        EXPECT_EQ(u.bytes()[8] & 0xC0, 0x80);
        EXPECT_EQ(u.text()[14], '4');
        seen.insert(u);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

TEST(Uuid, DeterministicSequenceCountsFromOneAndRestoresRandomness) {
    {
        Uuid::DeterministicSequence sequence;
        EXPECT_EQ(Uuid::random().text(), "00000000-0000-4000-8000-000000000001");
        {
            Uuid::DeterministicSequence nested;
            EXPECT_EQ(Uuid::random().text(), "00000000-0000-4000-8000-000000000001");
        }
        EXPECT_EQ(Uuid::random().text(), "00000000-0000-4000-8000-000000000002");
    }
    EXPECT_NE(Uuid::random().text().substr(0, 8), "00000000");
}

}  // namespace
}  // namespace osv
