#include "common/portability.h"

#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/guarded.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <sys/mman.h>

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

} // namespace
} // namespace rdx
