#include "common/portability.h"

#include "tests/support/assertion.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace rdx {
namespace {

using test::Assertion;
using test::GuardedBytes;

constexpr const char* kSource = "common/portability.cpp";

// Death tests start the program anew: what is checked in one has a month table that nobody has touched.
class Portability : public testing::Test {
protected:
    Portability() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
class FreshProcess : public Portability {};

#define EXPECT_IN_A_FRESH_PROCESS(condition)                                                                 \
    EXPECT_EXIT(std::_Exit((condition) ? 0 : 1), testing::ExitedWithCode(0), "")

// --- case -------------------------------------------------------------------------------------------------

// --- the current time -------------------------------------------------------------------------------------

std::string AscTime() {
    const time_t now = time(nullptr);
    tm local;
    char text[32];
    std::string line = asctime_r(localtime_r(&now, &local), text);
    line.pop_back();
    return line;
}

TEST(Now, IsTheLocalTimeWithoutALineFeed) {
    char now[64];
    std::string before;
    std::string after;
    do { // until no second has passed meanwhile
        before = AscTime();
        EXPECT_EQ(Now(now, sizeof now - 1), now);
        after = AscTime();
    } while (before != after);
    EXPECT_EQ(now, before);
    EXPECT_TRUE(std::regex_match(now, std::regex("[A-Z][a-z]{2} [A-Z][a-z]{2} [ 1-3]\\d "
                                                 "\\d\\d:\\d\\d:\\d\\d \\d{4}")))
        << now;
}

TEST(Now, CutsToItsSizeAndTerminatesBehindIt) {
    char cut[8] = "#######";
    EXPECT_EQ(std::string(Now(cut, 3)).size(), 3U);
    EXPECT_EQ(cut[4], '#');
    cut[1] = '#';
    EXPECT_STREQ(Now(cut, 0), "");
    EXPECT_EQ(cut[1], '#') << "one byte was written";
}

TEST(Now, WritesNoMoreThanTheTimeWhateverItsSize) {
    char now[26];
    EXPECT_EQ(std::string(Now(now, UINT_MAX)).size(), 24U);
}

TEST(Now, IsEmptyWhenTheTimeIsUnknown) {
    char now[32] = "before";
    const test::FailCall fault("localtime_r", 1, EOVERFLOW);
    EXPECT_STREQ(Now(now, sizeof now - 1), "");
    EXPECT_TRUE(fault.Struck());
}

// --- days -------------------------------------------------------------------------------------------------

TEST(IsLeapYear, FollowsTheGregorianCalendar) {
    EXPECT_EQ(IsLeapYear(1900), 0);
    EXPECT_EQ(IsLeapYear(2000), 1);
    EXPECT_EQ(IsLeapYear(2024), 1);
    EXPECT_EQ(IsLeapYear(2023), 0);
    EXPECT_EQ(IsLeapYear(2100), 0);
    EXPECT_EQ(IsLeapYear(0), 1);
    EXPECT_EQ(IsLeapYear(-4), 1);
    EXPECT_EQ(IsLeapYear(-100), 0);
    EXPECT_EQ(IsLeapYear(INT_MAX), 0);
    EXPECT_EQ(IsLeapYear(INT_MIN), 1);
}

constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};

// True when the first of each month is its day in a year whose February has 28 + `leapDays` days.
bool CountsEveryMonth(int year, int leapDays) {
    for (int i = 0; i < 12; ++i) {
        const int expected = kDaysBefore[i] + 1 + (i > 1 ? leapDays : 0);
        if (DayOfYear(year, kMonths[i], 1) != expected) return false;
    }
    return true;
}

TEST_F(FreshProcess, CountsTheDaysOfTheMonthsBefore) {
    EXPECT_IN_A_FRESH_PROCESS(CountsEveryMonth(2023, 0));
    EXPECT_IN_A_FRESH_PROCESS(CountsEveryMonth(2024, 1));
}

TEST_F(FreshProcess, KeepsTheLeapDayOnceItWasSeen) {
    EXPECT_IN_A_FRESH_PROCESS(DayOfYear(2023, "mar", 1) == 60 && DayOfYear(2024, "jan", 1) == 1 &&
                              DayOfYear(2023, "mar", 1) == 61 && CountsEveryMonth(2023, 1));
}

TEST_F(FreshProcess, SeesALeapYearAlsoInATimeText) {
    EXPECT_IN_A_FRESH_PROCESS(SecondsBetween("Sat Jan  1 00:00:00 2000", "Sat Jan  1 00:00:00 2000") == 0 &&
                              DayOfYear(2023, "Mar", 1) == 61);
}

TEST_F(FreshProcess, TakesTheMonthsNameInAnyCase) {
    EXPECT_IN_A_FRESH_PROCESS(DayOfYear(2023, "DEC", 31) == 365 && DayOfYear(2023, "dec", 31) == 365);
}

TEST_F(FreshProcess, CountsAllMonthsForAnUnknownOne) {
    EXPECT_IN_A_FRESH_PROCESS(DayOfYear(2023, "Mrz", 1) == 366 && DayOfYear(2023, "", 1) == 366 &&
                              DayOfYear(2023, "March", 1) == 366 && DayOfYear(2023, nullptr, 1) == 366);
}

TEST(DayOfYear, AddsWhateverDayIsGiven) {
    EXPECT_EQ(DayOfYear(2023, "Jan", 0), 0);
    EXPECT_EQ(DayOfYear(2023, "Feb", -32), -1);
    EXPECT_EQ(DayOfYear(2023, "Feb", INT_MAX), INT_MIN + 30) << "wraps round";
}

TEST(DayOfYear, MayBeAskedFromSeveralThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([i] {
            for (int n = 0; n < 500; ++n) DayOfYear(2020 + i, "Dec", 1);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(DayOfYear(2021, "Mar", 1), 61);
}

// --- seconds between times --------------------------------------------------------------------------------

constexpr unsigned kNoEvent = 4294967295; // -1
constexpr unsigned kNoLater = 4294967294; // -2
constexpr const char* kEpoch = "Thu Jan  1 00:00:00 1970";
constexpr unsigned kDay = 24 * 60 * 60;

TEST(SecondsBetween, CountsFromTheFirstToTheSecond) {
    EXPECT_EQ(SecondsBetween("Thu Jan  1 00:00:10 1970", "Thu Jan  1 00:01:10 1970"), 60U);
    EXPECT_EQ(SecondsBetween(kEpoch, "Thu Jan  1 01:02:03 1970"), 3723U);
    EXPECT_EQ(SecondsBetween(kEpoch, "Fri Jan  2 00:00:00 1970"), kDay);
    EXPECT_EQ(SecondsBetween(kEpoch, kEpoch), 0U);
}

TEST(SecondsBetween, WrapsRoundBelowZero) {
    EXPECT_EQ(SecondsBetween("Thu Jan  1 00:00:10 1970", kEpoch), 0U - 10U);
}

TEST(SecondsBetween, AgreesWithTheCalendarOfTheCLibrary) {
    for (int year = 1970; year < 2200; ++year) {
        const std::string text = "Sat Feb 28 12:34:56 " + std::to_string(year);
        tm calendar{};
        calendar.tm_year = year - 1900;
        calendar.tm_mon = 1;
        calendar.tm_mday = 28;
        calendar.tm_hour = 12;
        calendar.tm_min = 34;
        calendar.tm_sec = 56;
        EXPECT_EQ(SecondsBetween(kEpoch, text.c_str()), static_cast<unsigned>(timegm(&calendar))) << text;
    }
}

TEST(SecondsBetween, CountsNoLeapDaysBefore1970) {
    EXPECT_EQ(SecondsBetween("Fri Jan  1 00:00:00 1960", kEpoch), 10 * 365 * kDay);
}

TEST_F(FreshProcess, CountsALeapDayTooManyAfterALeapYear) {
    const char* const newYear = "Mon Jan  1 00:00:00 2001";
    const char* const march = "Thu Mar  1 00:00:00 2001";
    EXPECT_IN_A_FRESH_PROCESS(SecondsBetween(newYear, march) == 59 * kDay &&
                              SecondsBetween("Sat Jan  1 00:00:00 2000", newYear) == 366 * kDay &&
                              SecondsBetween(newYear, march) == 60 * kDay);
}

TEST(SecondsBetween, TakesAnyWhiteSpaceSignsAndWhatFollowsTheYear) {
    for (const char* const text :
         {"\t Thu\nJan\r1\v00:00:10\f1970", "Thu Jan 01 0:0:10 1970 CET", "Thu Jan +1 +0:+0:+10 +1970",
          "Thu Jan 1 00: 00:\t10 1970x", "1 jan 1 00:00:10 1970", "Thu JAN 1 -1:60:10 1970"}) {
        EXPECT_EQ(SecondsBetween(text, "Thu Jan  1 00:01:10 1970"), 60U) << text;
    }
}

TEST(SecondsBetween, TakesAWordOfAnyLength) {
    const std::string longWord(5000, 'x');
    EXPECT_EQ(SecondsBetween((longWord + " Jan 1 00:00:10 1970").c_str(), "Thu Jan  1 00:01:10 1970"), 60U);
    const unsigned unknownMonth = SecondsBetween(kEpoch, ("Thu " + longWord + " 0 00:00:00 1970").c_str());
    EXPECT_TRUE(unknownMonth == 364 * kDay || unknownMonth == 365 * kDay) << unknownMonth;
}

TEST(SecondsBetween, RefusesATimeWithAFieldMissing) {
    for (const char* const text : {" ",
                                   "x",
                                   "Thu",
                                   "Thu Jan",
                                   "Thu Jan x",
                                   "Thu Jan 1",
                                   "Thu Jan 1 00",
                                   "Thu Jan 1 00:",
                                   "Thu Jan 1 00:00",
                                   "Thu Jan 1 00:00:",
                                   "Thu Jan 1 00:00:10",
                                   "Thu Jan 1 00:00:10 x",
                                   "Thu Jan 1 00 :00:10 1970",
                                   "Thu Jan 1 00:00 :10 1970",
                                   "Thu Jan 1 00.00:10 1970",
                                   "Thu Jan 1 00:00.10 1970",
                                   "Thu Jan - 00:00:10 1970",
                                   "Thu Jan + 00:00:10 1970",
                                   "Thu Jan -+1 00:00:10 1970",
                                   "Jan 1 00:00:10 1970"}) {
        EXPECT_EQ(SecondsBetween(text, kEpoch), kNoEvent) << text;
        EXPECT_EQ(SecondsBetween(kEpoch, text), kNoLater) << text;
        EXPECT_EQ(SecondsBetween(text, text), kNoEvent) << text;
    }
    EXPECT_EQ(SecondsBetween(kEpoch, ""), kNoLater);
}

TEST(SecondsBetween, ReadsNothingBehindItsText) {
    const std::string good = kEpoch;
    const std::size_t year = good.rfind(' ') + 1;
    for (std::size_t length = 1; length <= good.size(); ++length) {
        const GuardedBytes prefix({good.substr(0, length).c_str(), length + 1});
        const bool failed = SecondsBetween(prefix.begin(), kEpoch) == kNoEvent;
        EXPECT_EQ(failed, length <= year) << length;
    }
}

TEST(SecondsBetween, SaturatesNumbersBeyond32Bits) {
    const char* const fields[][2] = {
        {"Thu Jan 99999999999 00:00:00 1970", "Thu Jan 2147483647 00:00:00 1970"},
        {"Thu Jan -99999999999 00:00:00 1970", "Thu Jan -2147483648 00:00:00 1970"},
        {"Thu Jan 1 99999999999:00:00 1970", "Thu Jan 1 2147483647:00:00 1970"},
        {"Thu Jan 1 00:99999999999:00 1970", "Thu Jan 1 00:2147483647:00 1970"},
        {"Thu Jan 1 00:00:99999999999 1970", "Thu Jan 1 00:00:2147483647 1970"},
        {"Thu Jan 1 00:00:00 99999999999", "Thu Jan 1 00:00:00 2147483647"},
        {"Thu Jan 1 00:00:00 -99999999999", "Thu Jan 1 00:00:00 -2147483648"},
    };
    for (const auto& [beyond, limit] : fields) {
        EXPECT_EQ(SecondsBetween(beyond, limit), 0U) << beyond;
        EXPECT_EQ(SecondsBetween(limit, beyond), 0U) << beyond;
    }
}

TEST(SecondsBetween, CountsToTheLastYearWithoutOverflow) {
    // Every 400 years are 146097 days; the difference is taken modulo 2^32.
    const unsigned cycles = (2147483600U - 2000U) / 400U;
    EXPECT_EQ(SecondsBetween("Sat Jan  1 00:00:00 2000", "Sat Jan  1 00:00:00 2147483600"),
              cycles * 146097U * kDay);
}

// The seconds from now as Now tells it to now; in a fresh process, since the event counts by the month table.
unsigned SecondsSinceNow() {
    char now[32];
    return SecondsBetween(Now(now, sizeof now - 1), nullptr);
}

// How far the seconds from 1970 are beyond the clock's, which may have gone on meanwhile.
unsigned SecondsBeyondTheClock() {
    const auto before = static_cast<unsigned>(time(nullptr));
    return SecondsBetween(kEpoch, nullptr) - before;
}

TEST_F(FreshProcess, MeasuresAgainstTheCurrentLocalTime) {
    EXPECT_IN_A_FRESH_PROCESS(SecondsSinceNow() <= 5);
    EXPECT_IN_A_FRESH_PROCESS((setenv("TZ", "UTC-14", 1), tzset(), SecondsSinceNow() <= 5));
    EXPECT_IN_A_FRESH_PROCESS((setenv("TZ", "UTC", 1), tzset(), SecondsBeyondTheClock() <= 5));
}

TEST(SecondsBetween, ReportsAnUnknownCurrentTime) {
    const test::FailCall fault("localtime_r", 1, EOVERFLOW);
    EXPECT_EQ(SecondsBetween(kEpoch, nullptr), kNoLater);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Portability, SecondsBetweenAssertsAnEvent) {
    EXPECT_DEATH(SecondsBetween(nullptr, kEpoch), Assertion(kSource, "SecondsBetween", "szEvent != __null"));
    EXPECT_DEATH(SecondsBetween("", kEpoch), Assertion(kSource, "SecondsBetween", "strlen( szEvent ) != 0"));
}

} // namespace
} // namespace rdx
