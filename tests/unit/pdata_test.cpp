#include "rDxsd/pdata.h"

#include "common/memory.h"
#include "tests/support/assertion.h"
#include "tests/support/faults.h"
#include "tests/support/request.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>

namespace rdx {
namespace {

using test::Assertion;
using test::FailCall;

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

} // namespace
} // namespace rdx
