#include "rDxsd/pdata.h"

#include "common/memory.h"
#include "tests/support/assertion.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/request.h"
#include "tests/support/wddx.h"

#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
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

static_assert(offsetof(TavrinRequest, iCallNumber) == 0);
static_assert(offsetof(TavrinRequest, szFunctionName) == 4);
static_assert(sizeof(TavrinRequest::szFunctionName) == 33);
static_assert(sizeof(void*) != 8 || offsetof(TavrinRequest, pszWddxArgs) == 40);
static_assert(sizeof(void*) != 8 || offsetof(TavrinRequest, pHttpRequest) == 48);
static_assert(sizeof(void*) != 8 || sizeof(TavrinRequest) == 56);
static_assert(offsetof(TavrinResponse, iCallNumber) == 0);
static_assert(offsetof(TavrinResponse, ucFlag) == 4);
static_assert(offsetof(TavrinResponse, iStatus) == 8);
static_assert(sizeof(void*) != 8 || offsetof(TavrinResponse, pszWddxResult) == 16);
static_assert(sizeof(void*) != 8 || sizeof(TavrinResponse) == 24);

constexpr const char* kSource = "rDxsd/pdata.cpp";

struct OwnedCall : TavrinRequest {
    OwnedCall() : TavrinRequest{} {}
    ~OwnedCall() { FreeTnRequest(this); }
    OwnedCall(const OwnedCall&) = delete;
    OwnedCall& operator=(const OwnedCall&) = delete;
};

struct OwnedResponse : TavrinResponse {
    OwnedResponse() : TavrinResponse{} {}
    ~OwnedResponse() { FreeTnResponse(this); }
    OwnedResponse(const OwnedResponse&) = delete;
    OwnedResponse& operator=(const OwnedResponse&) = delete;
};

char* Copy(std::string_view text) { return CopyText(text).release(); }

// ---------------------------------------------------------------------------------------- multipart calls

// A part of a body whose boundary is "B", up to the line end behind its data.
std::string Part(const std::string& name, const std::string& data) {
    return "--B\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + data + "\r\n";
}

const std::string kEnd = "--B--\r\n";
const std::string kName = Part("FunctionName", "rdxGetVersion");
const std::string kArgs = Part("FunctionArgs", "<packet/>");

struct BodyCase {
    const char* why;
    std::string body;
    int code;
    std::string function = {};
    const char* args = nullptr;
};

const BodyCase kGoodBodies[] = {
    {"only a name", kName + kEnd, 0, "rdxGetVersion"},
    {"only arguments", kArgs + kEnd, 0, "", "<packet/>"},
    {"name and arguments", kName + kArgs + kEnd, 0, "rdxGetVersion", "<packet/>"},
    {"arguments and name", kArgs + kName + kEnd, 0, "rdxGetVersion", "<packet/>"},
    {"a button", kName + Part("PostIt", "Send") + kEnd, 0, "rdxGetVersion"},
    {"a button of no text", Part("PostIt", "") + kName + kEnd, 0, "rdxGetVersion"},
    {"empty arguments", kName + Part("FunctionArgs", "") + kEnd, 0, "rdxGetVersion"},
    {"a name of 32 characters", Part("FunctionName", std::string(32, 'n')) + kEnd, 0, std::string(32, 'n')},
    {"a header in other letter case",
     "--B\r\ncontent-disposition: FORM-DATA; Name=\"FunctionName\"\r\n\r\nx\r\n" + kEnd, 0, "x"},
    {"another header line",
     "--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"\r\nContent-type: text/xml\r\n\r\nx\r\n" +
         kEnd,
     0, "", "x"},
    {"another parameter",
     "--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"; filename=\"a\"\r\n\r\nx\r\n" + kEnd, 0,
     "", "x"},
    {"line ends and blanks in the data", Part("FunctionArgs", " a\r\nb\r\n\r\nc ") + kEnd, 0, "",
     " a\r\nb\r\n\r\nc "},
    {"a field given twice", kName + kArgs + Part("FunctionName", "x") + Part("FunctionArgs", "y") + kEnd, 0,
     "x", "y"},
    {"arguments taken back by empty ones", kArgs + Part("FunctionArgs", "") + kEnd, 0, ""},
    {"no line end behind the last boundary", kName + "--B--", 0, "rdxGetVersion"},
    {"the body ends with a boundary", kName + "--B", 0, "rdxGetVersion"},
    {"text behind the end", kName + "--B--\r\n" + kArgs, 0, "rdxGetVersion"},
    {"two bytes for a separator, whichever they are", "--Bxx" + kName.substr(5) + kEnd, 0, "rdxGetVersion"},
};

const BodyCase kBadBodies[] = {
    {"an empty body", "", -1},
    {"a boundary and no separator", "--B", -1},
    {"half a separator", "--B\r", -1},
    {"another boundary", "--C" + kName.substr(3) + kEnd, -1},
    {"text before the boundary", "\r\n" + kName + kEnd, -1},
    {"no part at all", "--B\r\n", -2},
    {"nothing but the end", "--B--", -2},
    {"another header", "--B\r\nContent-type: form-data; name=\"FunctionName\"\r\n\r\nx\r\n" + kEnd, -2},
    {"another blank", "--B\r\nContent-Disposition:  form-data; name=\"FunctionName\"\r\n\r\nx\r\n" + kEnd,
     -2},
    {"a name without quotes", "--B\r\nContent-Disposition: form-data; name=FunctionName\r\n\r\nx\r\n" + kEnd,
     -2},
    {"a name without its end",
     "--B\r\nContent-Disposition: form-data; name=\"FunctionName\r\n\r\nx\r\n" + kEnd, -2},
    {"a name of 65 characters", Part(std::string(65, 'n'), "x") + kEnd, -2},
    {"a name of 64 characters", Part(std::string(64, 'n'), "x") + kEnd, 400},
    {"a name in other letter case", Part("functionname", "x") + kEnd, 400},
    {"a longer name", Part("FunctionNames", "x") + kEnd, 400},
    {"a shorter name", Part("FunctionNam", "x") + kEnd, 400},
    {"an empty method name", Part("FunctionName", "") + kEnd, 400},
    {"a method name of 33 characters", Part("FunctionName", std::string(33, 'n')) + kEnd, -5},
    {"no data of the method name", "--B\r\nContent-Disposition: form-data; name=\"FunctionName\"" + kEnd, -3},
    {"no end of the method name", kName.substr(0, kName.size() - 2), -3},
    {"no data of the arguments", "--B\r\nContent-Disposition: form-data; name=\"FunctionArgs\"" + kEnd, -5},
    {"no end of the arguments", kArgs.substr(0, kArgs.size() - 2), -5},
    {"no boundary behind a part", Part("PostIt", "x"), -7},
    {"less than a boundary behind a part", "--B\r\nContent-Disposition: form-data; name=\"PostIt\"", -7},
    {"a second part without header", kName + "--B\r\n", -2},
    {"a second part in the wrong place", kName + "--B-\r\n" + kArgs.substr(5) + kEnd, -2},
    {"a second part of one byte", kName + "--Bx", -2},
    {"a second part that is unknown", kName + Part("x", "y") + kEnd, 400},
};

int Take(HttpRequest* request, OwnedCall& call) { return GetMultipartCallData(request, &call); }

void ExpectTaken(const BodyCase& sample) {
    test::Request request;
    request.Multipart("B").Body(sample.body);
    OwnedCall call;
    EXPECT_EQ(Take(request.get(), call), sample.code) << sample.why;
    if (sample.code != 0) return;
    EXPECT_EQ(call.szFunctionName, sample.function) << sample.why;
    if (sample.args == nullptr) {
        EXPECT_EQ(call.pszWddxArgs, nullptr) << sample.why;
    } else {
        EXPECT_STREQ(call.pszWddxArgs, sample.args) << sample.why;
    }
}

TEST(GetMultipartCallData, TakesNameAndArguments) {
    for (const BodyCase& sample : kGoodBodies) ExpectTaken(sample);
}

TEST(GetMultipartCallData, TellsWhatIsWrong) {
    for (const BodyCase& sample : kBadBodies) ExpectTaken(sample);
}

TEST(GetMultipartCallData, TakesLineFeedsForSeparators) {
    test::Request request;
    request.Multipart("B").Separator("\n").Body(
        "--B\nContent-Disposition: form-data; name=\"FunctionName\"\n\nrdxGetVersion\n--B--\n");
    OwnedCall call;
    EXPECT_EQ(Take(request.get(), call), 0);
    EXPECT_STREQ(call.szFunctionName, "rdxGetVersion");
}

TEST(GetMultipartCallData, KeepsBytesBehindANulOutOfSight) {
    test::Request request;
    request.Multipart("B").Body(Part("FunctionName", std::string("ab\0cd", 5)) +
                                Part("FunctionArgs", std::string("x\0--B", 5)) + kEnd);
    OwnedCall call;
    EXPECT_EQ(Take(request.get(), call), -2) << "a NUL ends no search";
    EXPECT_STREQ(call.szFunctionName, "ab");
    EXPECT_EQ(std::memcmp(call.szFunctionName, "ab\0cd", 6), 0);
}

TEST(GetMultipartCallData, RefusesARequestThatIsNotMultipartFirstOfAll) {
    test::Request request;
    request.Separator("");
    OwnedCall call;
    call.pszWddxArgs = Copy("before");
    EXPECT_EQ(Take(request.get(), call), -99);
    EXPECT_STREQ(call.pszWddxArgs, "before");
}

TEST(GetMultipartCallData, FreesTheArgumentsWhenALaterFieldFails) {
    for (const std::string& last : {Part("x", "y"), Part("FunctionName", ""), Part("PostIt", "y"),
                                    std::string("--B\r\nContent-Disposition: form-data; name=\"Fun")}) {
        test::Request request;
        request.Multipart("B").Body(kArgs + last);
        OwnedCall call;
        EXPECT_NE(Take(request.get(), call), 0) << last;
        EXPECT_EQ(call.pszWddxArgs, nullptr) << last;
    }
}

TEST(GetMultipartCallData, LeavesTheArgumentsToTheCallerWhenALaterHeaderFails) {
    test::Request request;
    request.Multipart("B").Body(kArgs + "--B\r\nnothing");
    OwnedCall call;
    EXPECT_EQ(Take(request.get(), call), -2);
    EXPECT_STREQ(call.pszWddxArgs, "<packet/>");
}

TEST(GetMultipartCallData, LeavesTheArgumentsToTheCallerWhenItReturnsAtOnce) {
    const std::pair<std::string, int> cases[] = {
        {Part(std::string(65, 'n'), "x") + kEnd, -2},
        {"--B\r\nContent-Disposition: form-data; name=\"PostIt\"", -7},
    };
    for (const auto& [last, code] : cases) {
        test::Request request;
        request.Multipart("B").Body(kArgs + last);
        OwnedCall call;
        EXPECT_EQ(Take(request.get(), call), code) << last;
        EXPECT_STREQ(call.pszWddxArgs, "<packet/>") << last;
    }
}

TEST(GetMultipartCallData, StaysInsideTheBodyAtEveryLength) {
    for (const BodyCase& sample : kGoodBodies) {
        for (std::size_t length = 0; length <= sample.body.size(); ++length) {
            test::Request request;
            request.Multipart("B").Body(std::string_view(sample.body).substr(0, length));
            OwnedCall call;
            const int code = Take(request.get(), call);
            const bool known =
                code == 0 || code == -1 || code == -2 || code == -3 || code == -5 || code == -7;
            EXPECT_TRUE(known) << code << " " << sample.why << " " << length;
        }
    }
}

TEST(GetMultipartCallData, IsContentWithABodyThatEndsBehindABoundary) {
    const std::string body = kName + kArgs + kEnd;
    for (std::size_t length = 0; length <= body.size(); ++length) {
        test::Request request;
        const std::string_view prefix = std::string_view(body).substr(0, length);
        request.Multipart("B").Body(prefix);
        OwnedCall call;
        const bool complete = length > 3 && (prefix.ends_with("--B") || prefix.find("--B--") != prefix.npos);
        EXPECT_EQ(Take(request.get(), call) == 0, complete) << length;
    }
}

class GetMultipartCallDataDeathTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        request_.Multipart("B").Body(kName + kEnd);
    }

    void ExpectAssertion(const std::string& text) {
        EXPECT_DEATH(Take(request_.get(), call_), test::Assertion(kSource, "GetMultipartCallData", text));
    }

    test::Request request_;
    OwnedCall call_;
};

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessWithoutABody) {
    request_->pEntityBody = nullptr;
    request_->uiBodyLength = 0;
    ExpectAssertion("p != __null");
}

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessWithoutABoundary) {
    request_->pszBoundary[0] = '\0';
    ExpectAssertion("blen > 0");
    request_->pszBoundary = nullptr;
    ExpectAssertion("blen > 0");
}

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessOnABoundaryOfAnotherLength) {
    request_->ucBoundaryLen = 4;
    ExpectAssertion("blen == pRequest->ucBoundaryLen");
}

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessOnABoundaryWhoseLengthOverflowed) {
    request_.Multipart(std::string(254, 'B'));
    ExpectAssertion("blen == pRequest->ucBoundaryLen");
}

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessOnASeparatorOfNoneOrThreeCharacters) {
    request_->pszSeparator[0] = '\0';
    ExpectAssertion("(slen > 0) && (slen <= 2)");
    std::memcpy(request_->pszSeparator, "abc", 3);
    ExpectAssertion("(slen > 0) && (slen <= 2)");
}

TEST_F(GetMultipartCallDataDeathTest, EndsTheProcessOnAnEmptyFieldName) {
    request_.Body(kArgs + Part("", "x") + kEnd);
    ExpectAssertion("siz > 0");
}

// ------------------------------------------------------------------------------------------- other calls

constexpr const char* kDefaultArgs = "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM "
                                     "'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.dtd'>"
                                     "<wddxPacket version='1.0'><header/><data/></wddxPacket>";

TEST(GetStandardCallData, TakesTheNameFromTheQueryAndTheArgumentsFromTheBody) {
    test::Request request("rdxGetVersion&x=1", "<packet/>");
    OwnedCall call;
    EXPECT_EQ(GetStandardCallData(request.get(), &call), 0);
    EXPECT_STREQ(call.szFunctionName, "rdxGetVersion");
    EXPECT_STREQ(call.pszWddxArgs, "<packet/>");
}

TEST(GetStandardCallData, GivesTheDefaultPacketToACallWithoutBody) {
    test::Request request("rdxGetVersion", "");
    OwnedCall call;
    EXPECT_EQ(GetStandardCallData(request.get(), &call), 0);
    EXPECT_STREQ(call.pszWddxArgs, kDefaultArgs);
    EXPECT_EQ(std::strlen(call.pszWddxArgs), 160U);
}

TEST(GetStandardCallData, GivesTheDefaultPacketWhenTheBodyIsMissing) {
    test::Request request("rdxGetVersion", "");
    request->uiBodyLength = 5;
    OwnedCall call;
    EXPECT_EQ(GetStandardCallData(request.get(), &call), 0);
    EXPECT_STREQ(call.pszWddxArgs, kDefaultArgs);
}

TEST(GetStandardCallData, CopiesEveryByteOfTheBody) {
    test::Request request("x", std::string_view("a\0\xFF", 3));
    OwnedCall call;
    EXPECT_EQ(GetStandardCallData(request.get(), &call), 0);
    EXPECT_EQ(std::memcmp(call.pszWddxArgs, "a\0\xFF", 4), 0);
}

TEST(GetStandardCallData, TakesANameOfThirtyTwoCharacters) {
    const std::string name(32, 'n');
    test::Request request(name, "");
    OwnedCall call;
    EXPECT_EQ(GetStandardCallData(request.get(), &call), 0);
    EXPECT_EQ(call.szFunctionName, name);
}

TEST(GetStandardCallData, RefusesACallWithoutAUsableName) {
    for (const char* uri :
         {"/rDx", "/rDx?", "/rDx?FunctionName", "/rDx?FunctionName=", "/rDx?FunctionName=&x=1",
          "/rDx?functionname=x", "/rDx?FunctionName=123456789012345678901234567890123"}) {
        test::Request request(uri);
        request.Body("<packet/>");
        OwnedCall call;
        std::strcpy(call.szFunctionName, "before");
        EXPECT_EQ(GetStandardCallData(request.get(), &call), 400) << uri;
        EXPECT_STREQ(call.szFunctionName, "before") << uri;
        EXPECT_EQ(call.pszWddxArgs, nullptr) << uri;
    }
}

TEST(GetStandardCallData, FailsWhenMemoryIsShort) {
    for (const char* body : {"", "<packet/>"}) {
        test::Request request("rdxGetVersion", body);
        OwnedCall call;
        const test::FailCall fault("malloc");
        EXPECT_EQ(GetStandardCallData(request.get(), &call), -2);
        EXPECT_TRUE(fault.Struck());
        EXPECT_EQ(call.pszWddxArgs, nullptr);
    }
}

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
