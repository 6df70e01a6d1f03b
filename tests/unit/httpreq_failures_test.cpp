#include "http/httpreq.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/broken_requests.h"
#include "tests/support/exchange.h"
#include "tests/support/faults.h"
#include "tests/support/request_reading.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using namespace rdx::test;

using ConsumeHttpRequestTest = RequestTest;
using ConsumeHttpRequestDeathTest = RequestTest;

TEST_F(ConsumeHttpRequestTest, AnswersEveryBrokenRequestWithItsCodeAtEveryCut) {
    for (const auto& row : rdx::test::kBrokenRequests) {
        SCOPED_TRACE(row.why);
        AtEveryCut(row.bytes, [&](const Read& read) { EXPECT_EQ(read.code, row.outcome); });
    }
}

TEST_F(ConsumeHttpRequestDeathTest, EndsTheProcessOnEveryLethalRequest) {
    for (const auto& row : rdx::test::kLethalRequests) {
        SCOPED_TRACE(row.why);
        EXPECT_DEATH(
            {
                const Exchange wire(row.bytes);
                HttpRequest* request = nullptr;
                if (ConsumeHttpRequest(wire.Socket(), &request) == 200) FreeHttpRequest(request);
            },
            testing::HasSubstr("Assertion `" + std::string(row.assertion) + "' failed."));
    }
}

// What a connection that closes within a request comes to, wherever it does.
constexpr int kLethal = 0;
const struct {
    std::string_view piece;
    int outcome; // of a request that ends within this piece or with it
} kPrefixes[] = {
    {"POST /x HTTP", -400}, // words are missing
    {"/1.", -505},          // half a version
    {"1\r\n", -400},        // no headers
    {"Host", kLethal},      // a header without a colon
    {": a\r\n", 200},       // the end of the connection is the end of the headers
    {"Content-Length", kLethal},
    {": ", -400},           // a length of 0
    {"4\r\n\r\nbod", -400}, // a short body
    {"y", 200},
};

std::vector<std::pair<std::string, int>> Prefixes() {
    std::vector<std::pair<std::string, int>> prefixes = {{"", 200}};
    for (const auto& row : kPrefixes) {
        for (const char c : row.piece) prefixes.emplace_back(prefixes.back().first + c, row.outcome);
    }
    return prefixes;
}

TEST_F(ConsumeHttpRequestTest, KnowsEveryPrefixOfAGoodRequest) {
    for (const auto& [prefix, outcome] : Prefixes()) {
        if (outcome == kLethal) continue;
        SCOPED_TRACE("\"" + prefix + "\"");
        AtEveryCut(prefix, [expected = outcome](const Read& read) { EXPECT_EQ(read.code, expected); });
    }
}

TEST_F(ConsumeHttpRequestDeathTest, EndsTheProcessWhereAHeaderNameIsCutOff) {
    for (const auto& [prefix, outcome] : Prefixes()) {
        if (outcome != kLethal) continue;
        const Exchange wire(prefix);
        HttpRequest* request = nullptr;
        EXPECT_DEATH(ConsumeHttpRequest(wire.Socket(), &request),
                     rdx::test::Assertion("http/http.cpp", "AssignHeaderData", "pcolon != __null"))
            << prefix;
    }
}

// Failures ----------------------------------------------------------------------------------------------

constexpr std::string_view kMultipartPost =
    "POST /x HTTP/1.1\r\nContent-type: multipart/form-data; boundary=b\r\nContent-length: 4\r\n\r\nbody";

TEST_F(ConsumeHttpRequestTest, ReportsMissingMemoryForTheRecord) {
    const FailCall noMemory("calloc");
    EXPECT_EQ(CodeOf(kMultipartPost), -500);
    EXPECT_TRUE(noMemory.Struck());
}

TEST_F(ConsumeHttpRequestTest, SurvivesEveryFailingAllocation) {
    const struct {
        const char* what;
        int outcome;
        unsigned int bodyLength;
        int multipart;
    } rows[] = {
        {"the target", -500, 0, 0},
        {"the first header's name: the header is ignored", 200, 4, 0},
        {"the first header's value: the header is ignored", 200, 4, 0},
        {"the boundary", -500, 0, 0},
        {"the second header's name: the header is ignored", 200, 0, 1},
        {"the second header's value: the header is ignored", 200, 0, 1},
        {"the body", -500, 0, 0},
    };
    int nth = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const FailCall noMemory("malloc", ++nth);
        const Read read = ReadWhole(kMultipartPost);
        EXPECT_TRUE(noMemory.Struck());
        ASSERT_EQ(read.code, row.outcome);
        if (read.code != 200) continue;
        EXPECT_EQ(read->uiBodyLength, row.bodyLength);
        EXPECT_EQ(read->ucMultipart, row.multipart);
        EXPECT_EQ(read->ucNumOfEntityHeaders, 2) << "an ignored header is counted";
    }
    const FailCall never("malloc", ++nth);
    EXPECT_EQ(CodeOf(kMultipartPost), 200);
    EXPECT_FALSE(never.Struck()) << "the rows above are all there is";
}

TEST_F(ConsumeHttpRequestTest, IgnoresAConnectionHeaderItHasNoMemoryFor) {
    for (const int nth : {2, 3}) {
        const FailCall noMemory("malloc", nth);
        const Read read = ReadWhole("GET /x HTTP/1.1\r\nConnection: close\r\n\r\n");
        EXPECT_TRUE(noMemory.Struck());
        ASSERT_EQ(read.code, 200);
        EXPECT_EQ(read->ucKeepAlive, 1);
        EXPECT_EQ(GetReqHeaderByName(read.request, "Connection"), nullptr);
    }
}

TEST_F(ConsumeHttpRequestTest, ReportsAFailingReceive) {
    const Exchange whole(kMultipartPost);
    Read counted;
    const int before = CallsOf("recv");
    ReadFrom(whole.Socket(), counted);
    const int calls = CallsOf("recv") - before;
    ASSERT_EQ(counted.code, 200);
    ASSERT_GE(calls, 5) << "four lines and a body";
    for (int nth = 1; nth <= calls; ++nth) {
        SCOPED_TRACE(nth);
        const Exchange wire(kMultipartPost);
        const FailCall reset("recv", nth, ECONNRESET);
        Read read;
        ReadFrom(wire.Socket(), read);
        EXPECT_TRUE(reset.Struck());
        EXPECT_EQ(read.code, nth == calls ? -400 : -1);
        EXPECT_EQ(read.request, nullptr);
        EXPECT_EQ(read.trace.ends_with("\nReadPostData: received just -1 bytes"), nth == calls);
    }
}

TEST_F(ConsumeHttpRequestTest, ReportsASocketThatIsNone) {
    Read read;
    ReadFrom(-1, read);
    EXPECT_EQ(read.code, -1);
    EXPECT_EQ(read.request, nullptr);
}

TEST_F(ConsumeHttpRequestDeathTest, AssertsItsOutput) {
    EXPECT_DEATH(ConsumeHttpRequest(-1, nullptr), Assertion("ConsumeHttpRequest", "ppRequest != __null"));
}

} // namespace
