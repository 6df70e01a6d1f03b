#include "common/portability.h"

#include "common/portability_internal.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

// What the look for a free temporary name finds on this thread: so many names taken first, then the error.
namespace {
thread_local int namesTaken = 0;
thread_local int lookError = 0;
thread_local bool randomFails = false;
} // namespace

extern "C" {
int __real_lstat(const char* path, struct stat* status);
int __wrap_lstat(const char* path, struct stat* status);
ssize_t __real_getrandom(void* bytes, std::size_t size, unsigned flags);
ssize_t __wrap_getrandom(void* bytes, std::size_t size, unsigned flags);

int __wrap_lstat(const char* path, struct stat* status) {
    if (namesTaken > 0) {
        --namesTaken;
        return 0;
    }
    if (lookError == 0) return __real_lstat(path, status);
    errno = lookError;
    return -1;
}

ssize_t __wrap_getrandom(void* bytes, std::size_t size, unsigned flags) {
    return randomFails ? -1 : __real_getrandom(bytes, size, flags);
}
}

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

std::string AllBytes() {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) bytes += static_cast<char>(byte);
    return bytes;
}

TEST(Strupr, MapsTheLettersOfAsciiAndNoOtherByte) {
    std::string text = AllBytes();
    EXPECT_EQ(strupr(text.data()), text.data());
    for (int byte = 1; byte < 256; ++byte) {
        const int expected = byte >= 'a' && byte <= 'z' ? byte - 32 : byte;
        EXPECT_EQ(static_cast<unsigned char>(text[static_cast<std::size_t>(byte - 1)]), expected);
    }
}

TEST(Strlwr, MapsTheLettersOfAsciiAndNoOtherByte) {
    std::string text = AllBytes();
    EXPECT_EQ(strlwr(text.data()), text.data());
    for (int byte = 1; byte < 256; ++byte) {
        const int expected = byte >= 'A' && byte <= 'Z' ? byte + 32 : byte;
        EXPECT_EQ(static_cast<unsigned char>(text[static_cast<std::size_t>(byte - 1)]), expected);
    }
}

TEST(StruprAndStrlwr, TakeNullAndEmptyTexts) {
    EXPECT_EQ(strupr(nullptr), nullptr);
    EXPECT_EQ(strlwr(nullptr), nullptr);
    const GuardedBytes empty({"", 1});
    EXPECT_EQ(strupr(empty.begin()), empty.begin());
    EXPECT_EQ(strlwr(empty.begin()), empty.begin());
}

TEST(Stricmp, IgnoresCase) {
    EXPECT_EQ(stricmp("Content-Type", "content-type"), 0);
    EXPECT_EQ(stricmp("", ""), 0);
    EXPECT_NE(stricmp("Content-Type", "Content_Type"), 0);
}

TEST(Stricmp, SortsNullFirst) {
    EXPECT_EQ(stricmp(nullptr, "a"), -1);
    EXPECT_EQ(stricmp(nullptr, ""), -1);
    EXPECT_EQ(stricmp("a", nullptr), 1);
    EXPECT_EQ(stricmp("", nullptr), 1);
    EXPECT_EQ(stricmp(nullptr, nullptr), 0);
}

TEST(Stricmp, GivesTheDifferenceOfTheFirstBytesThatDiffer) {
    EXPECT_EQ(stricmp("abc", "abd"), -1);
    EXPECT_EQ(stricmp("ABD", "abc"), 1);
    EXPECT_EQ(stricmp("ab", "abc"), -'C');
    EXPECT_EQ(stricmp("abc", "ab"), 'C');
    EXPECT_EQ(stricmp("_", "a"), '_' - 'A') << "compared in upper case";
}

TEST(Stricmp, ComparesBytesAsUnsigned) {
    EXPECT_EQ(stricmp("\xff", "a"), 0xff - 'A');
    EXPECT_EQ(stricmp("\xe4", "\xc4"), 0xe4 - 0xc4) << "letters of no alphabet but ASCII have case";
}

TEST(Stricmp, ReadsNothingBehindTheEndOfEitherText) {
    const GuardedBytes a({"Basic", 6});
    const GuardedBytes b({"BASIC", 6});
    EXPECT_EQ(stricmp(a.begin(), b.begin()), 0);
    EXPECT_GT(stricmp("Basic realm", b.begin()), 0);
    EXPECT_LT(stricmp(a.begin(), "BASIC REALM"), 0);
}

TEST(Strnicmp, ComparesABeginningIgnoringCase) {
    EXPECT_EQ(strnicmp("Basic xyz", "BASIC", 5), 0);
    EXPECT_NE(strnicmp("Basic xyz", "BASIC", 6), 0);
    EXPECT_EQ(strnicmp("abcd", "abxd", 4), 'C' - 'X');
    EXPECT_EQ(strnicmp("abcd", "abxd", 2), 0);
}

TEST(Strnicmp, FindsNoDifferenceInNoBytes) {
    EXPECT_EQ(strnicmp("a", "b", 0), 0);
    EXPECT_EQ(strnicmp("a", "b", -1), 0);
    EXPECT_EQ(strnicmp("a", "b", INT_MIN), 0);
}

TEST(Strnicmp, SortsNullFirst) {
    EXPECT_EQ(strnicmp(nullptr, "a", 1), -1);
    EXPECT_EQ(strnicmp("a", nullptr, 1), 1);
    EXPECT_EQ(strnicmp(nullptr, nullptr, 1), 0);
    EXPECT_EQ(strnicmp(nullptr, "a", 0), -1);
    EXPECT_EQ(strnicmp("a", nullptr, 0), 1);
}

TEST(Strnicmp, GoesOnBehindANulThatBothTextsShare) {
    EXPECT_EQ(strnicmp("ab\0x", "ab\0y", 3), 0);
    EXPECT_EQ(strnicmp("ab\0x", "ab\0y", 4), -1);
}

TEST(Strnicmp, ReadsNothingBehindItsBytes) {
    const GuardedBytes a("BASIC");
    const GuardedBytes b("basic");
    EXPECT_EQ(strnicmp(a.begin(), b.begin(), 5), 0);
    const GuardedBytes shorter({"BAS", 4});
    EXPECT_EQ(strnicmp(shorter.begin(), b.begin(), 5), -'I') << "differs before its end";
}

// --- name=value -------------------------------------------------------------------------------------------

// What SplitEnvStr makes of a text with two buffers in the middle of bytes that must stay.
struct Split {
    explicit Split(const char* text, int givenNameSize = 16, int givenValueSize = 16)
        : nameSize(givenNameSize), valueSize(givenValueSize) {
        result = SplitEnvStr(text, nameBytes.data() + 16, &nameSize, valueBytes.data() + 16, &valueSize);
    }

    std::string Name() const { return nameBytes.substr(16, 16).c_str(); }
    std::string Value() const { return valueBytes.substr(16, 16).c_str(); }

    std::string nameBytes = std::string(48, '#');
    std::string valueBytes = std::string(48, '#');
    int nameSize;
    int valueSize;
    int result;
};

TEST(SplitEnvStr, SplitsAtTheFirstEqualSign) {
    const Split split("A=B=C");
    EXPECT_EQ(split.result, 0);
    EXPECT_EQ(split.Name(), "A");
    EXPECT_EQ(split.nameSize, 1);
    EXPECT_EQ(split.Value(), "B=C");
    EXPECT_EQ(split.valueSize, 3);
}

TEST(SplitEnvStr, TakesAnEmptyNameAndAnEmptyValue) {
    const Split split("=");
    EXPECT_EQ(split.result, 0);
    EXPECT_EQ(split.Name(), "");
    EXPECT_EQ(split.nameSize, 0);
    EXPECT_EQ(split.Value(), "");
    EXPECT_EQ(split.valueSize, 0);
}

TEST(SplitEnvStr, LogsAMissingEqualSignAndLeavesTheOutputs) {
    const test::CaptureStdout capture;
    const Split split("ABC");
    EXPECT_EQ(split.result, -1);
    EXPECT_EQ(split.nameBytes, std::string(48, '#'));
    EXPECT_EQ(split.valueBytes, std::string(48, '#'));
    EXPECT_EQ(split.nameSize, 16);
    EXPECT_EQ(split.valueSize, 16);
    EXPECT_EQ(test::WithoutTimes(capture.Text()),
              "\n[TIME],SplitEnvStr(): missing equal sign in environment string (-1)");
}

TEST(SplitEnvStr, CutsToTheBufferAndTellsTheWholeLength) {
    const Split split("LONGNAME=longer value", 5, 7);
    EXPECT_EQ(split.Name(), "LONG");
    EXPECT_EQ(split.nameSize, 8);
    EXPECT_EQ(split.Value(), "longer");
    EXPECT_EQ(split.valueSize, 12);
    EXPECT_EQ(split.nameBytes.substr(21), std::string(27, '#')) << "nothing behind the 5 bytes";
    EXPECT_EQ(split.valueBytes.substr(23), std::string(25, '#'));
}

TEST(SplitEnvStr, FillsABufferThatFitsExactly) {
    const Split split("NAME=value", 5, 6);
    EXPECT_EQ(split.Name(), "NAME");
    EXPECT_EQ(split.Value(), "value");
}

TEST(SplitEnvStr, WritesNothingIntoABufferWithoutRoom) {
    for (const int size : {0, -1, INT_MIN}) {
        const Split split("NAME=value", size, size);
        EXPECT_EQ(split.result, 0);
        EXPECT_EQ(split.nameBytes, std::string(48, '#')) << size;
        EXPECT_EQ(split.valueBytes, std::string(48, '#')) << size;
        EXPECT_EQ(split.nameSize, 4);
        EXPECT_EQ(split.valueSize, 5);
    }
}

TEST(SplitEnvStr, WritesTheNulAloneIntoOneByte) {
    const Split split("NAME=value", 1, 1);
    EXPECT_EQ(split.nameBytes, std::string(16, '#') + '\0' + std::string(31, '#'));
    EXPECT_EQ(split.valueBytes, std::string(16, '#') + '\0' + std::string(31, '#'));
}

TEST_F(Portability, SplitEnvStrAssertsATextThatIsNotEmpty) {
    char name[4];
    char value[4];
    int size = 4;
    EXPECT_DEATH(SplitEnvStr(nullptr, name, &size, value, &size),
                 Assertion(kSource, "SplitEnvStr", "szEnvStr != __null"));
    EXPECT_DEATH(SplitEnvStr("", name, &size, value, &size), Assertion(kSource, "SplitEnvStr", "len != 0"));
}

// --- paths ------------------------------------------------------------------------------------------------

TEST(MakeAbsolutePathName, JoinsWithOneSeparator) {
    for (const char* const prefix : {"/etc/", "/etc"}) {
        for (const char* const suffix : {"/tnd.ini", "tnd.ini"}) {
            char path[64];
            EXPECT_EQ(MakeAbsolutePathName(prefix, suffix, path, sizeof path), 0);
            EXPECT_STREQ(path, "/etc/tnd.ini") << prefix << " " << suffix;
        }
    }
}

TEST(MakeAbsolutePathName, LooksAtOneSeparatorOfEach) {
    char path[64];
    EXPECT_EQ(MakeAbsolutePathName("/etc//", "//tnd.ini", path, sizeof path), 0);
    EXPECT_STREQ(path, "/etc///tnd.ini");
    EXPECT_EQ(MakeAbsolutePathName("/etc", "", path, sizeof path), 0);
    EXPECT_STREQ(path, "/etc/");
    EXPECT_EQ(MakeAbsolutePathName("/", "/", path, sizeof path), 0);
    EXPECT_STREQ(path, "/");
}

TEST(MakeAbsolutePathName, AsksForRoomForBothTextsAndTwoBytes) {
    constexpr unsigned kNeeded = sizeof "/etc" - 1 + sizeof "tnd.ini" - 1 + 2;
    char path[kNeeded + 1] = "before";
    EXPECT_EQ(MakeAbsolutePathName("/etc", "tnd.ini", path, kNeeded - 1), -1);
    EXPECT_STREQ(path, "before");
    path[kNeeded] = '#';
    EXPECT_EQ(MakeAbsolutePathName("/etc", "tnd.ini", path, kNeeded), 0);
    EXPECT_STREQ(path, "/etc/tnd.ini");
    EXPECT_EQ(path[kNeeded], '#');
    EXPECT_EQ(MakeAbsolutePathName("/etc/", "/tnd.ini", path, kNeeded), -1) << "also where less would do";
}

TEST(MakeAbsolutePathName, ClearsTheBufferBehindThePath) {
    char path[32];
    std::fill(path, path + sizeof path, '#');
    EXPECT_EQ(MakeAbsolutePathName("/a", "b", path, sizeof path), 0);
    EXPECT_EQ(std::string(path, sizeof path), "/a/b" + std::string(28, '\0'));
}

TEST(MakeAbsolutePathName, ReadsNothingBeforeAnEmptyPrefix) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    void* const mapping = mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(mapping, MAP_FAILED);
    char* const prefix = static_cast<char*>(mapping) + page; // an empty text right behind the unreadable page
    ASSERT_EQ(mprotect(prefix, page, PROT_READ), 0);
    char path[16];
    EXPECT_EQ(MakeAbsolutePathName(prefix, "tnd.ini", path, sizeof path), 0);
    EXPECT_STREQ(path, "/tnd.ini");
    EXPECT_EQ(MakeAbsolutePathName(prefix, "/tnd.ini", path, sizeof path), 0);
    EXPECT_STREQ(path, "/tnd.ini");
    munmap(mapping, 2 * page);
}

TEST_F(Portability, MakeAbsolutePathNameAssertsItsArguments) {
    char path[16];
    const char* const name = "MakeAbsolutePathName";
    EXPECT_DEATH(MakeAbsolutePathName(nullptr, "b", path, sizeof path),
                 Assertion(kSource, name, "szAbsolutePrefix != __null"));
    EXPECT_DEATH(MakeAbsolutePathName("/a", nullptr, path, sizeof path),
                 Assertion(kSource, name, "szRelativeSuffix != __null"));
    EXPECT_DEATH(MakeAbsolutePathName("/a", "b", nullptr, sizeof path),
                 Assertion(kSource, name, "szBuf != __null"));
    EXPECT_DEATH(MakeAbsolutePathName("/a", "b", path, 0), Assertion(kSource, name, "uiBufSize > 0"));
}

TEST(IsAbsolutePathName, LooksAtTheFirstCharacter) {
    EXPECT_EQ(IsAbsolutePathName("/"), 1);
    EXPECT_EQ(IsAbsolutePathName("/etc/tnd.ini"), 1);
    EXPECT_EQ(IsAbsolutePathName("etc/tnd.ini"), 0);
    EXPECT_EQ(IsAbsolutePathName(""), 0);
}

TEST_F(Portability, IsAbsolutePathNameAssertsAPath) {
    EXPECT_DEATH(IsAbsolutePathName(nullptr),
                 Assertion(kSource, "IsAbsolutePathName", "szPathName != __null"));
}

TEST(IsDirSeparator, LooksAtTheLowByte) {
    for (int c = -1; c < 256; ++c) EXPECT_EQ(IsDirSeparator(c), c == '/' ? 1 : 0) << c;
    EXPECT_EQ(IsDirSeparator(0x1200 + '/'), 1);
    EXPECT_EQ(IsDirSeparator('/' - 256), 1);
}

TEST(DirSeparator, IsASlash) { EXPECT_STREQ(DirSeparator(), "/"); }

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

// --- temporary names --------------------------------------------------------------------------------------

TEST(TempFileName, IsAFreshNameInTheTemporaryDirectory) {
    char path[TEMP_FILE_NAME_SIZE];
    ASSERT_EQ(TempFileName(path), 0);
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/tn[A-Za-z0-9]{6}"))) << path;
    EXPECT_NE(access(path, F_OK), 0) << "no file is created";
}

TEST(TempFileName, ReplacesAllSixCharacters) {
    std::set<char> seen[6];
    for (int i = 0; i < 200; ++i) {
        char path[TEMP_FILE_NAME_SIZE];
        ASSERT_EQ(TempFileName(path), 0);
        for (std::size_t c = 0; c < 6; ++c) seen[c].insert(path[sizeof "/tmp/tn" - 1 + c]);
    }
    for (const auto& characters : seen) EXPECT_GT(characters.size(), 20U);
}

TEST(TempFileName, DiffersFromThreadToThread) {
    std::mutex mutex;
    std::set<std::string> names;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                char path[TEMP_FILE_NAME_SIZE];
                EXPECT_EQ(TempFileName(path), 0);
                const std::lock_guard lock(mutex);
                names.insert(path);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(names.size(), 200U);
}

TEST(TempFileName, PassesOverNamesInUse) {
    char path[TEMP_FILE_NAME_SIZE];
    namesTaken = 3;
    EXPECT_EQ(TempFileName(path), 0);
    EXPECT_EQ(namesTaken, 0);
}

TEST(TempFileName, GivesUpWhenEveryNameIsInUse) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    namesTaken = INT_MAX;
    EXPECT_EQ(TempFileName(path), -1);
    namesTaken = 0;
    EXPECT_STREQ(path, "before");
}

TEST(TempFileName, FailsWhereTheDirectoryCannotBeLookedAt) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    lookError = EACCES;
    EXPECT_EQ(TempFileName(path), -1);
    lookError = 0;
    EXPECT_STREQ(path, "before");
}

TEST(TempFileName, FailsWithoutRandomBytes) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    randomFails = true;
    EXPECT_EQ(TempFileName(path), -1);
    randomFails = false;
    EXPECT_STREQ(path, "before");
}

TEST(PlaceTempName, RefusesAnEmptyName) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("", path), -1);
}

TEST(PlaceTempName, PutsANameBelowTheTemporaryDirectory) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/tnabcdef");
    EXPECT_EQ(PlaceTempName("/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/tnabcdef") << "a separator alone makes no folder";
    EXPECT_EQ(PlaceTempName("folder/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/folder/tnabcdef");
}

TEST(PlaceTempName, TakesANameWithItsFolderAsItIs) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("/var/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/var/tnabcdef");
    EXPECT_EQ(PlaceTempName("//", path), 0);
    EXPECT_STREQ(path, "//");
}

TEST(PlaceTempName, RefusesAPathOf256Characters) {
    char path[TEMP_FILE_NAME_SIZE];
    const std::string folder = "/var/";
    EXPECT_EQ(PlaceTempName(folder + std::string(250, 'x'), path), 0);
    EXPECT_EQ(std::string(path).size(), 255U);
    EXPECT_EQ(PlaceTempName(folder + std::string(251, 'x'), path), -2);
    EXPECT_EQ(PlaceTempName(std::string(250, 'x'), path), 0);
    EXPECT_EQ(std::string(path).size(), 255U);
    EXPECT_EQ(PlaceTempName(std::string(251, 'x'), path), -3);
    EXPECT_EQ(PlaceTempName("/" + std::string(250, 'x'), path), 0);
    EXPECT_EQ(PlaceTempName("/" + std::string(251, 'x'), path), -3);
}

} // namespace
} // namespace rdx
