#include "common/text.h"

#include "common/memory.h"
#include "tests/support/faults.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <limits>
#include <string>

namespace rdx {
namespace {

constexpr std::int32_t kLeast = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMost = std::numeric_limits<std::int32_t>::max();

TEST(ParseDecimal, TakesLeadingDigitsOnly) {
    const struct {
        const char* text;
        std::int32_t number;
    } rows[] = {{"12", 12}, {" \t\n\v\f\r7", 7}, {"-5x", -5}, {"+3", 3},   {"", 0},    {"x1", 0},
                {"- 1", 0}, {"+-1", 0},          {"--1", 0},  {"0x10", 0}, {"1.9", 1}, {"007", 7}};
    for (const auto& row : rows) EXPECT_EQ(ParseDecimal(row.text), row.number) << '"' << row.text << '"';
}

TEST(ParseDecimal, SaturatesAtThirtyTwoBits) {
    EXPECT_EQ(ParseDecimal("2147483647"), kMost);
    EXPECT_EQ(ParseDecimal("2147483648"), kMost);
    EXPECT_EQ(ParseDecimal("99999999999999999999999999"), kMost);
    EXPECT_EQ(ParseDecimal("-2147483648"), kLeast);
    EXPECT_EQ(ParseDecimal("-2147483649"), kLeast);
    EXPECT_EQ(ParseDecimal("-99999999999999999999999999"), kLeast);
}

TEST(ParseDecimal, EndsAtANul) { EXPECT_EQ(ParseDecimal(std::string_view("1\0002", 3)), 1); }

TEST(ParseLeadingDigits, TakesNothingButDigitsAndSaturates) {
    const struct {
        std::string_view text;
        std::int32_t number;
    } rows[] = {{"12", 12},
                {"007x", 7},
                {"", 0},
                {" 1", 0},
                {"\t1", 0},
                {"+1", 0},
                {"-1", 0},
                {"x", 0},
                {"2147483647", INT32_MAX},
                {"2147483648", INT32_MAX},
                {"4294967297", INT32_MAX},
                {"99999999999999999999", INT32_MAX},
                {std::string_view("1\0002", 3), 1}};
    for (const auto& row : rows) EXPECT_EQ(ParseLeadingDigits(row.text), row.number) << row.text;
}

TEST(ParseUnsignedDecimal, SaturatesAndNegatesAsStrtoulDoes) {
    EXPECT_EQ(ParseUnsignedDecimal("42"), 42U);
    EXPECT_EQ(ParseUnsignedDecimal("4294967295"), 4294967295U);
    EXPECT_EQ(ParseUnsignedDecimal("4294967296"), 4294967295U);
    EXPECT_EQ(ParseUnsignedDecimal("-1"), 4294967295U);
    EXPECT_EQ(ParseUnsignedDecimal("-4294967295"), 1U);
    EXPECT_EQ(ParseUnsignedDecimal("-4294967296"), 4294967295U);
    EXPECT_EQ(ParseUnsignedDecimal("ticket"), 0U);
}

TEST(EqualsIgnoringCase, KnowsAsciiLettersOnly) {
    EXPECT_TRUE(EqualsIgnoringCase("Content-Type", "CONTENT-type"));
    EXPECT_FALSE(EqualsIgnoringCase("Content", "Content-Type"));
    EXPECT_FALSE(EqualsIgnoringCase("\xe4", "\xc4"));
    EXPECT_FALSE(EqualsIgnoringCase("[", "{"));
}

TEST(StartsWithIgnoringCase, NeedsTheWholePrefix) {
    EXPECT_TRUE(StartsWithIgnoringCase("basic xyz", "Basic "));
    EXPECT_TRUE(StartsWithIgnoringCase("x", ""));
    EXPECT_FALSE(StartsWithIgnoringCase("Basi", "Basic "));
}

TEST(UpToNul, CutsAtTheFirstNul) {
    EXPECT_EQ(UpToNul(std::string_view("ab\0cd", 5)), "ab");
    EXPECT_EQ(UpToNul("ab"), "ab");
}

TEST(Reader, NeverLeavesItsText) {
    Reader reader("ab, cd");
    EXPECT_EQ(reader.TakeUntil(",;"), "ab");
    EXPECT_FALSE(reader.Take(";"));
    EXPECT_TRUE(reader.Take(","));
    reader.Skip(" ");
    EXPECT_FALSE(reader.TakeUntilText("ce"));
    EXPECT_EQ(reader.TakeUntilText("d"), "c");
    EXPECT_EQ(reader.TakeBytes(9), "d");
    EXPECT_TRUE(reader.AtEnd());
    EXPECT_EQ(reader.TakeUntil(","), std::nullopt);
    reader.Skip(" ");
    EXPECT_TRUE(reader.TakeBytes(1).empty());
}

TEST(CopyBounded, CutsAndTerminates) {
    char buffer[4] = "xyz";
    EXPECT_TRUE(CopyBounded(buffer, "abc"));
    EXPECT_STREQ(buffer, "abc");
    EXPECT_FALSE(CopyBounded(buffer, "wxyz"));
    EXPECT_STREQ(buffer, "wxy");
    EXPECT_FALSE(CopyBounded({}, ""));
}

TEST(Appender, RefusesWhatDoesNotFitAndAllThatFollows) {
    char buffer[6];
    Appender appender(buffer);
    EXPECT_EQ(appender.Add("abc").Add("").Add("de").Text(), "abcde");
    EXPECT_TRUE(appender.Fits());
    EXPECT_EQ(appender.Add("f").Text(), "abcde");
    EXPECT_FALSE(appender.Fits());
    EXPECT_EQ(appender.Add("").Text(), "abcde");
    EXPECT_FALSE(appender.Fits());
    EXPECT_STREQ(buffer, "abcde");
}

TEST(Appender, HasNoRoomInAnEmptyBuffer) { EXPECT_FALSE(Appender({}).Add("").Fits()); }

TEST(Appender, WritesEveryNumber) {
    for (const std::int64_t number :
         {std::int64_t{0}, std::int64_t{7}, std::int64_t{-10}, std::int64_t{kLeast},
          std::numeric_limits<std::int64_t>::min(), std::numeric_limits<std::int64_t>::max()}) {
        char buffer[32];
        EXPECT_EQ(Appender(buffer).AddDecimal(number).Text(), std::to_string(number));
    }
}

TEST(OwnedText, IsACopyWithANul) {
    EXPECT_STREQ(CopyText("abc").get(), "abc");
    EXPECT_STREQ(JoinText("abc", "def").get(), "abcdef");
    EXPECT_STREQ(JoinText("", "").get(), "");
}

TEST(OwnedText, IsNullWhenMemoryIsShort) {
    const test::FailCall noMemory("malloc");
    EXPECT_EQ(CopyText("abc"), nullptr);
    EXPECT_TRUE(noMemory.Struck());
}

} // namespace
} // namespace rdx
