#include "rDxsd/pdata.h"

#include "common/memory.h"
#include "tests/support/assertion.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/request.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

extern "C" {
int __real_TempFileName(char* name);
int __wrap_TempFileName(char* name);
}

namespace {

// What the next results are printed through: a name that a test chose; empty for a name of the system's own.
std::string chosenName;
bool refuseNames = false;

} // namespace

int __wrap_TempFileName(char* name) {
    if (refuseNames) return -1;
    if (chosenName.empty()) return __real_TempFileName(name);
    std::strcpy(name, chosenName.c_str());
    return 0;
}

namespace rdx {
namespace {

using test::Assertion;
using test::FailCall;
using test::GuardedBytes;

constexpr const char* kSource = "rDxsd/pdata.cpp";

struct OwnedResponse : TavrinResponse {
    OwnedResponse() : TavrinResponse{} {}
    ~OwnedResponse() { FreeTnResponse(this); }
    OwnedResponse(const OwnedResponse&) = delete;
    OwnedResponse& operator=(const OwnedResponse&) = delete;
};

char* Copy(std::string_view text) { return CopyText(text).release(); }

// ---------------------------------------------------------------------------------------- multipart calls

// ------------------------------------------------------------------------------------------------ results

const std::string kPacketBegin =
    "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>";
const std::string kHeader = "<header><comment></comment></header>";

// The length of a result packet that holds a string of no characters.
const std::size_t kFrameLength =
    (kPacketBegin + kHeader + "<data><string></string></data></wddxPacket>").size();

// Results are printed through a file in a folder of the test's own.
class Result : public testing::Test {
protected:
    void SetUp() override {
        std::string folder = testing::TempDir() + "pdata_test.XXXXXX";
        ASSERT_NE(mkdtemp(folder.data()), nullptr);
        folder_ = folder;
        chosenName = folder_ / "result";
        response_.iCallNumber = 5;
        response_.ucFlag = 1;
        response_.iStatus = -99;
        response_.pszWddxResult = Copy("before");
    }

    void TearDown() override {
        chosenName.clear();
        std::filesystem::remove_all(folder_);
    }

    void ExpectUnchanged() {
        EXPECT_EQ(response_.iCallNumber, 5);
        EXPECT_EQ(response_.ucFlag, 1);
        EXPECT_EQ(response_.iStatus, -99);
        EXPECT_STREQ(response_.pszWddxResult, "before");
    }

    void ExpectNoFile() { EXPECT_TRUE(std::filesystem::is_empty(folder_)); }

    void ExpectFailure(int code) {
        EXPECT_EQ(AssignWddxResult(&response_, value_.get(), "comment"), code);
        ExpectUnchanged();
        ExpectNoFile();
    }

    // Assigns a packet of `length` characters.
    int AssignLong(std::size_t length) {
        const test::Tree text(wddxCreateString(std::string(length - kFrameLength, 'x').c_str()));
        return AssignResult(&response_, text.get());
    }

    std::filesystem::path folder_;
    OwnedResponse response_;
    test::Tree value_{wddxCreateInteger(7)};
};

TEST_F(Result, IsAPacketWithAComment) {
    EXPECT_EQ(AssignWddxResult(&response_, value_.get(), "rdxReleaseDevice"), 0);
    EXPECT_EQ(response_.pszWddxResult, kPacketBegin + "<header><comment>rdxReleaseDevice</comment></header>"
                                                      "<data><number>7</number></data></wddxPacket>");
    EXPECT_EQ(response_.iCallNumber, 5);
    EXPECT_EQ(response_.ucFlag, 0);
    EXPECT_EQ(response_.iStatus, 0);
    ExpectNoFile();
}

TEST_F(Result, HasAnEmptyCommentWhenNoneIsGiven) {
    const std::string expected = kPacketBegin + kHeader + "<data><number>7</number></data></wddxPacket>";
    EXPECT_EQ(AssignWddxResult(&response_, value_.get(), nullptr), 0);
    EXPECT_EQ(response_.pszWddxResult, expected);
    EXPECT_EQ(AssignResult(&response_, value_.get()), 0);
    EXPECT_EQ(response_.pszWddxResult, expected);
}

TEST_F(Result, IsPrintedThroughAFileOfTheSystemsChoice) {
    chosenName.clear();
    EXPECT_EQ(AssignResult(&response_, value_.get()), 0);
    EXPECT_EQ(response_.pszWddxResult,
              kPacketBegin + kHeader + "<data><number>7</number></data></wddxPacket>");
}

TEST_F(Result, HoldsEveryByteOfItsTexts) {
    std::string bytes;
    for (int value = 1; value < 256; ++value) bytes += static_cast<char>(value);
    const test::Tree text(wddxCreateString(bytes.c_str()));
    ASSERT_EQ(AssignResult(&response_, text.get()), 0);
    const std::string result = response_.pszWddxResult;
    EXPECT_NE(result.find("\xFD\xFE\xFF</string></data></wddxPacket>"), result.npos);
}

TEST_F(Result, MayHaveOneCharacterLessThanTheBuffer) {
    EXPECT_EQ(AssignLong(131071), 0);
    EXPECT_EQ(std::strlen(response_.pszWddxResult), 131071U);
    ExpectNoFile();
}

TEST_F(Result, IsRefusedWhenItIsLonger) {
    for (const std::size_t length : {131073U, 131074U, 1000000U}) {
        EXPECT_EQ(AssignLong(length), -7) << length;
        ExpectUnchanged();
        ExpectNoFile();
    }
}

TEST_F(Result, EndsTheProcessWhenItJustFillsTheBuffer) {
    GTEST_FLAG_SET(death_test_style, "fast"); // the child shares the folder
    EXPECT_DEATH(AssignLong(131072), test::Assertion(kSource, "AssignWddxResult", "i < 131072"));
    ExpectNoFile();
}

TEST_F(Result, NeedsAName) {
    refuseNames = true;
    ExpectFailure(-1);
    refuseNames = false;
}

TEST_F(Result, NeedsAFolder) {
    chosenName = folder_ / "missing" / "result";
    ExpectFailure(-2);
}

TEST_F(Result, NeedsAFile) {
    const test::FailCall fault("open", 1, EMFILE);
    ExpectFailure(-2);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Result, NeedsAStreamToWriteTo) {
    const int closed = test::CallsOf("close");
    const test::FailCall fault("fdopen");
    ExpectFailure(-2);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(test::CallsOf("close"), closed + 1);
}

TEST_F(Result, NeverGoesToAFileThatExists) {
    std::ofstream(chosenName) << "precious";
    EXPECT_EQ(AssignResult(&response_, value_.get()), -2);
    ExpectUnchanged();
    std::string content;
    std::ifstream(chosenName) >> content;
    EXPECT_EQ(content, "precious");
}

TEST_F(Result, NeverFollowsALink) {
    const std::filesystem::path target = folder_ / "target";
    std::filesystem::create_symlink(target, chosenName);
    EXPECT_EQ(AssignResult(&response_, value_.get()), -2);
    EXPECT_FALSE(std::filesystem::exists(target));
    EXPECT_TRUE(std::filesystem::is_symlink(chosenName));
    std::ofstream(target) << "precious";
    EXPECT_EQ(AssignResult(&response_, value_.get()), -2);
    EXPECT_EQ(std::filesystem::file_size(target), 8U);
}

TEST_F(Result, PassesThroughAFileForTheOwnersEyesOnly) {
    const mode_t before = umask(0);
    const test::FailCall fault("remove");
    EXPECT_EQ(AssignResult(&response_, value_.get()), 0) << "a file that cannot be removed is no failure";
    umask(before);
    EXPECT_TRUE(fault.Struck());
    struct stat file {};
    ASSERT_EQ(stat(chosenName.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777U, 0600U);
}

TEST_F(Result, NeedsAValueThatCanBePrinted) {
    value_->type = 99;
    ExpectFailure(-3);
    value_.reset();
    ExpectFailure(-3);
}

TEST_F(Result, FailsWhenTheFileCannotBeClosed) {
    const test::FailCall fault("fclose", 1, EIO);
    EXPECT_EQ(AssignResult(&response_, value_.get()), -4);
    EXPECT_TRUE(fault.Struck());
    ExpectUnchanged();
    ExpectNoFile();
}

TEST_F(Result, FailsWhenTheFileCannotGrow) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{10, before.rlim_max};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    const int code = AssignResult(&response_, value_.get());
    setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(code, -4);
    ExpectUnchanged();
    ExpectNoFile();
}

TEST_F(Result, FailsWhenTheFileCannotBeOpenedAgain) {
    const test::FailCall fault("fopen", 1, EMFILE);
    ExpectFailure(-5);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Result, FailsWhenTheFileCannotBeRead) {
    const test::FailCall fault("ferror", 1, EIO);
    ExpectFailure(-5);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Result, FailsWithoutMemoryForItsText) {
    const test::FailCall fault("malloc");
    ExpectFailure(-6);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Result, FailsWhenItsMemoryCannotBeShrunk) {
    const test::FailCall fault("realloc");
    ExpectFailure(-8);
    EXPECT_TRUE(fault.Struck());
}

// --------------------------------------------------------------------------------------------------- HTML

struct HtmlCase {
    std::string text;
    unsigned int size;
    int code;
    std::string html;
};

TEST(Wddx2Html, EscapesTagsAndStopsWhereTheBufferIsFull) {
    const HtmlCase cases[] = {
        {"<a>", 64, 0, "&lt;a&gt;"},
        {"<a>", 10, 0, "&lt;a&gt;"},
        {"<a>", 9, -2, "&lt;a"},
        {"<a>", 6, -2, "&lt;a"},
        {"<a>", 5, -3, "&lt;"},
        {"<a>", 4, -1, ""},
        {"<a>", 1, -1, ""},
        {"a", 1, -3, ""},
        {">", 1, -2, ""},
        {"a", 2, 0, "a"},
        {">", 5, 0, "&gt;"},
        {"&\"'\xFF", 5, 0, "&\"'\xFF"},
    };
    for (const HtmlCase& sample : cases) {
        const test::GuardedBytes buffer(std::string(sample.size, '?'));
        EXPECT_EQ(Wddx2Html(sample.text.c_str(), buffer.begin(), sample.size), sample.code)
            << sample.text << " " << sample.size;
        EXPECT_STREQ(buffer.begin(), sample.html.c_str()) << sample.text << " " << sample.size;
    }
}

TEST(Wddx2Html, LeavesTheBufferAloneForAnEmptyText) {
    char buffer[] = "before";
    EXPECT_EQ(Wddx2Html("", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "before");
}

TEST(Wddx2HtmlDeathTest, EndsTheProcessWithoutATextOrABuffer) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char buffer[8];
    EXPECT_DEATH(Wddx2Html(nullptr, buffer, 8), test::Assertion(kSource, "Wddx2Html", "szWddx != __null"));
    EXPECT_DEATH(Wddx2Html("a", nullptr, 8), test::Assertion(kSource, "Wddx2Html", "szBuf != __null"));
    EXPECT_DEATH(Wddx2Html("a", buffer, 0), test::Assertion(kSource, "Wddx2Html", "uiBufsiz > 0"));
}

// ------------------------------------------------------------------------------------------------ records

TEST(FreeTnRequest, FreesTheArgumentsOnce) {
    TavrinRequest call{};
    call.pszWddxArgs = Copy("text");
    FreeTnRequest(&call);
    EXPECT_EQ(call.pszWddxArgs, nullptr);
    FreeTnRequest(&call);
    FreeTnRequest(nullptr);
}

TEST(FreeTnResponse, FreesTheResultOnce) {
    TavrinResponse response{};
    response.pszWddxResult = Copy("text");
    FreeTnResponse(&response);
    EXPECT_EQ(response.pszWddxResult, nullptr);
    FreeTnResponse(&response);
    FreeTnResponse(nullptr);
}

class CopiedResponse : public testing::Test {
protected:
    void SetUp() override {
        source_.iCallNumber = 5;
        source_.ucFlag = 1;
        source_.iStatus = 400;
        source_.pszWddxResult = Copy("new");
        copy_.pszWddxResult = Copy("old");
    }

    OwnedResponse source_;
    OwnedResponse copy_;
};

TEST_F(CopiedResponse, HasATextOfItsOwn) {
    EXPECT_EQ(CopyTnResponse(&copy_, &source_), 0);
    EXPECT_EQ(copy_.iCallNumber, 5);
    EXPECT_EQ(copy_.ucFlag, 1);
    EXPECT_EQ(copy_.iStatus, 400);
    EXPECT_STREQ(copy_.pszWddxResult, "new");
    EXPECT_NE(copy_.pszWddxResult, source_.pszWddxResult);
}

TEST_F(CopiedResponse, HasNoTextWhenItsSourceHasNone) {
    FreeTnResponse(&source_);
    EXPECT_EQ(CopyTnResponse(&copy_, &source_), 0);
    EXPECT_EQ(copy_.pszWddxResult, nullptr);
}

TEST_F(CopiedResponse, HasNoTextWhenMemoryIsShort) {
    const test::FailCall fault("malloc");
    EXPECT_EQ(CopyTnResponse(&copy_, &source_), -1);
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(copy_.iStatus, 400);
    EXPECT_EQ(copy_.pszWddxResult, nullptr);
}

TEST_F(CopiedResponse, MayBeItsOwnSource) {
    EXPECT_EQ(CopyTnResponse(&source_, &source_), 0);
    EXPECT_STREQ(source_.pszWddxResult, "new");
}

TEST_F(CopiedResponse, NeedsBothRecords) {
    EXPECT_EQ(CopyTnResponse(nullptr, &source_), -1);
    EXPECT_EQ(CopyTnResponse(&copy_, nullptr), -1);
    EXPECT_STREQ(copy_.pszWddxResult, "old");
}

} // namespace
} // namespace rdx
