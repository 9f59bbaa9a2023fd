#include <gtest/gtest.h>

#include "core/Json.h"

namespace osv::json {
namespace {

TEST(Json, ForgivingReadersFallBackOnMissingNullOrWrongTypes) {
    const auto j = parse(R"({"a": "text", "n": 2.5, "i": 3, "b": true, "z": null, "d": 700000000.5,
                             "u": "e621e1f8-c36c-495a-93fc-0c247a3e6e5f", "bad": "not-a-uuid"})");
    ASSERT_TRUE(j);
    EXPECT_EQ(read<std::string>(*j, "a", "x"), "text");
    EXPECT_EQ(read<std::string>(*j, "n", "x"), "x");
    EXPECT_EQ(read<double>(*j, "a", -1.0), -1.0);
    EXPECT_EQ(read<double>(*j, "i", -1.0), 3.0);
    EXPECT_EQ(read<std::int64_t>(*j, "n", 9), 9);
    EXPECT_EQ(read<std::int64_t>(*j, "i", 9), 3);
    EXPECT_EQ(read<bool>(*j, "z", false), false);
    EXPECT_EQ(read<bool>(*j, "b", false), true);
    EXPECT_EQ(readOptional<Date>(*j, "d"), Date(700000000.5));
    EXPECT_EQ(readOptional<Date>(*j, "missing"), std::nullopt);
    EXPECT_EQ(readOptional<Uuid>(*j, "u")->text(), "E621E1F8-C36C-495A-93FC-0C247A3E6E5F");
    EXPECT_EQ(readOptional<Uuid>(*j, "bad"), std::nullopt);
    EXPECT_EQ(read<std::string>(Json::array(), "a", "fallback"), "fallback");
}

TEST(Json, KeepsKeyOrderAndNeverThrowsOnBadText) {
    Json j;
    j["zeta"] = 1;
    j["alpha"] = 2;
    EXPECT_EQ(dumpLine(j), R"({"zeta":1,"alpha":2})");
    EXPECT_FALSE(parse("{\"a\": "));
    EXPECT_FALSE(parse(""));
    Json s = std::string("bad \xFF byte");
    EXPECT_EQ(dumpLine(s), "\"bad \xEF\xBF\xBD byte\"");
}

TEST(Json, WritesFractionalSecondsThatReadBackExactly) {
    for (double d : {0.1, 712345678.123456, 1e-7, 700000000.0, -3.25}) {
        Json j = d;
        EXPECT_EQ(parse(dumpLine(j))->get<double>(), d);
    }
}

}  // namespace
}  // namespace osv::json

#include "core/Base64.h"

namespace osv {
namespace {

TEST(Base64, RoundTripsEveryLengthAndRejectsForeignText) {
    std::vector<std::uint8_t> data;
    for (int n = 0; n < 10; ++n) {
        EXPECT_EQ(base64Decode(base64Encode(data)), data) << n;
        data.push_back(std::uint8_t(250 - n * 7));
    }
    EXPECT_EQ(base64Encode(std::vector<std::uint8_t>{'M', 'a'}), "TWE=");
    EXPECT_FALSE(base64Decode("TW*="));
}

}  // namespace
}  // namespace osv
