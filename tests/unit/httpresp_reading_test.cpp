#include "http/httpresp.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/broken_requests.h"
#include "tests/support/classifier.h"
#include "tests/support/exchange.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/header_lists.h"
#include "tests/support/responses.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace rdx::test;

using ConsumeHttpResponseTest = ResponseTest;
using ConsumeHttpResponseDeathTest = ResponseTest;
using ParseHttpStatusLineTest = ResponseTest;
using ParseHttpStatusLineDeathTest = ResponseTest;

// Reading -----------------------------------------------------------------------------------------------

struct Read {
    int code = 0;
    std::size_t taken = 0;
    Response response;
};

Read ReadCut(const Cut& cut) {
    Wire wire(cut.pieces);
    HttpResponse garbage{};
    HttpResponse* response = &garbage;
    const int code = ConsumeHttpResponse(wire.Socket(), &response);
    EXPECT_EQ(response != nullptr, code == 0) << "no response after a failure";
    return {code, wire.Taken(), Response(response)};
}

Read ReadWhole(std::string_view bytes) { return ReadCut({"whole", {bytes}}); }
int CodeOf(std::string_view bytes) { return ReadWhole(bytes).code; }

template <typename Check>
void AtEveryCut(std::string_view bytes, Check check) {
    for (const Cut& cut : CutsOf(bytes)) {
        SCOPED_TRACE(cut.name);
        const Read read = ReadCut(cut);
        check(read);
    }
}

TEST_F(ConsumeHttpResponseTest, ReadsAResponse) {
    constexpr Bytes kResponse = "HTTP/1.0 404 Not at all\nDate: d\nServer: s\nContent-length: 4\n"
                                "Set-Cookie: c\nVia: v\n\nbo\0y";
    const std::string stream = std::string(kResponse) + "HTTP/1.1 200 OK\r\n";
    AtEveryCut(stream, [&](const Read& read) {
        ASSERT_EQ(read.code, 0);
        const HttpResponse& response = *read.response;
        EXPECT_EQ(response.ucHttpVersion, 10);
        EXPECT_EQ(response.usStatusCode, 404);
        EXPECT_STREQ(response.pszReason, "Not at all");
        EXPECT_STREQ(response.pszSeparator, "\n");
        EXPECT_EQ(Headers(response.aGeneralHeaders, response.ucNumOfGeneralHeaders),
                  (Texts{"Date=d", "Via=v"}));
        EXPECT_EQ(Headers(response.aResponseHeaders, response.ucNumOfResponseHeaders),
                  (Texts{"Server=s", "Set-Cookie=c"}));
        EXPECT_EQ(Headers(response.aEntityHeaders, response.ucNumOfEntityHeaders), Texts{"Content-length=4"});
        ASSERT_EQ(response.uiBodyLength, 4U);
        EXPECT_EQ(std::string_view(response.pEntityBody, 4), std::string_view("bo\0y", 4));
        EXPECT_EQ(read.taken, kResponse.size()) << "what follows stays in the socket";
    });
}

TEST_F(ConsumeHttpResponseTest, ReadsWhatTheServerWrites) {
    // Last-modified and Accept-Ranges are no general headers to a reader.
    AtEveryCut(kWritten, [](const Read& read) {
        ASSERT_EQ(read.code, 0);
        const HttpResponse& response = *read.response;
        EXPECT_EQ(response.ucNumOfGeneralHeaders, 1);
        EXPECT_EQ(response.ucNumOfResponseHeaders, 2);
        EXPECT_EQ(response.ucNumOfEntityHeaders, 3);
        EXPECT_EQ(std::string_view(response.pEntityBody, response.uiBodyLength), "abc");
        EXPECT_STREQ(response.pszSeparator, "\r\n");
    });
}

TEST_F(ConsumeHttpResponseTest, SortsEveryNameOfTheTablesIntoItsList) {
    const auto count = [](const std::string& name) {
        const Read read = ReadWhole("HTTP/1.1 200 OK\r\n" + name + ": 1\r\n\r\nb");
        EXPECT_EQ(read.code, 0) << name;
        return std::vector<int>{read.response->ucNumOfGeneralHeaders, read.response->ucNumOfResponseHeaders,
                                read.response->ucNumOfEntityHeaders};
    };
    for (const char* name : apszGeneralHeaders) EXPECT_EQ(count(name), (std::vector<int>{1, 0, 0})) << name;
    for (const char* name : apszResponseHeaders) EXPECT_EQ(count(name), (std::vector<int>{0, 1, 0})) << name;
    for (const char* name : apszEntityHeaders) EXPECT_EQ(count(name), (std::vector<int>{0, 0, 1})) << name;
    EXPECT_EQ(count("X"), (std::vector<int>{1, 0, 0})) << "a short name is a general header";
}

#define OK "HTTP/1.1 200 OK\r\n"

TEST_F(ConsumeHttpResponseTest, AnswersEveryBrokenResponseWithItsCodeAtEveryCut) {
    const struct {
        int outcome;
        const char* why;
        Bytes bytes;
    } rows[] = {
        {-400, "nothing at all", ""},
        {-400, "an empty first line", "\r\n" OK "Date: d\r\n\r\n"},
        {-400, "two carriage returns", "HTTP/1.1 200 OK\r\r\n"},
        {-10, "another protocol", "HTTPS/1.1 200 OK\r\nDate: d\r\n\r\n"},
        {-10, "small letters", "http/1.1 200 OK\r\nDate: d\r\n\r\n"},
        {-10, "a request", "GET /x HTTP/1.1\r\nHost: a\r\n\r\n"},
        {-10, "no blank", "HTTP/1.1\r\nDate: d\r\n\r\n"},
        {-10, "a blank too late", "HTTP/1.1.1.1 200 OK\r\nDate: d\r\n\r\n"},
        {-90, "another version", "HTTP/1.2 200 OK\r\nDate: d\r\n\r\n"},
        {-90, "an empty version", "HTTP/ 200 OK\r\nDate: d\r\n\r\n"},
        {-11, "nothing behind the version", "HTTP/1.1 \r\nDate: d\r\n\r\n"},
        {-13, "no reason and no blank", "HTTP/1.1 200\r\nDate: d\r\n\r\n"},
        {-13, "no reason", "HTTP/1.1 200 \r\nDate: d\r\n\r\n"},
        {-7, "a status too low", "HTTP/1.1 99 X\r\nDate: d\r\n\r\n"},
        {-7, "a status too high", "HTTP/1.1 600 X\r\nDate: d\r\n\r\n"},
        {-7, "a status of 16 bits and more", "HTTP/1.1 65736 X\r\nDate: d\r\n\r\n"},
        {-7, "a status of 32 bits and more", "HTTP/1.1 4294967496 X\r\nDate: d\r\n\r\n"},
        {-7, "a negative status", "HTTP/1.1 -200 X\r\nDate: d\r\n\r\n"},
        {-7, "no number", "HTTP/1.1 two hundred\r\nDate: d\r\n\r\n"},
        {-7, "two blanks before the status", "HTTP/1.1  200 OK\r\nDate: d\r\n\r\n"},
        {-98, "no header", OK "\r\n"},
        {-98, "closed behind the status line", OK},
        {-98, "an unknown header", OK "X-Custom: 1\r\n\r\n"},
        {-98, "a header of requests", OK "Date: d\r\nHost: a\r\n\r\n"},
        {-98, "a blank behind the name", OK "Date : d\r\n\r\n"},
        {-98, "a NUL behind the name", OK "Date\0: d\r\n\r\n"},
        {-400, "two carriage returns in a header", OK "Date: d\r\r\n\r\n"},
        {-400, "a length of 0", OK "Content-length: 0\r\n\r\n"},
        {-400, "an empty length", OK "Content-length:\r\n\r\n"},
        {-400, "a length in words", OK "Content-length: four\r\n\r\nbody"},
        {-500, "a negative length", OK "Content-length: -1\r\n\r\nbody"},
        {-98, "no body", OK "Content-length: 4\r\n\r\n"},
        {-98, "a body that is a byte short", OK "Content-length: 4\r\n\r\nbod"},
        {-98, "a longer body that is short", OK "Content-length: 64\r\n\r\n0123456789abcdef0123456789abcdef"},
        {0, "a good response", OK "Content-length: 4\r\n\r\nbody"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        AtEveryCut(row.bytes, [&](const Read& read) { EXPECT_EQ(read.code, row.outcome); });
    }
}

TEST_F(ConsumeHttpResponseTest, KnowsEveryPrefixOfAGoodResponse) {
    constexpr int kLethal = 1;
    const struct {
        std::string_view piece;
        int outcome; // of a response that ends within this piece or with it
    } pieces[] = {
        {"HTTP/", kLethal},          // a status line of five characters and less
        {"1.1", -10},                // no blank
        {" ", -11},                  // nothing behind it
        {"200", -13},                // no reason
        {" ", -13},                  //
        {"OK\r\n", -98},             // no header
        {"Content-Length", kLethal}, // no colon
        {": ", -400},                // a length of 0
        {"4\r\n\r\nbod", -98},       // a short body
        {"y", 0},
    };
    std::string prefix;
    EXPECT_EQ(CodeOf(prefix), -400);
    for (const auto& row : pieces) {
        for (const char c : row.piece) {
            prefix += c;
            if (row.outcome == kLethal) continue;
            SCOPED_TRACE("\"" + prefix + "\"");
            AtEveryCut(prefix, [&](const Read& read) { EXPECT_EQ(read.code, row.outcome); });
        }
    }
}

TEST_F(ConsumeHttpResponseTest, Takes511CharactersOfALine) {
    const std::string status = "HTTP/1.1 200 " + std::string(511 - 13, 'r');
    const std::string header = "Date: " + std::string(511 - 6, 'd');
    const Read read = ReadWhole(status + "\r\n" + header + "\r\n\r\n");
    ASSERT_EQ(read.code, 0);
    EXPECT_EQ(read.response->pszReason, std::string(511 - 13, 'r'));
    EXPECT_EQ(CodeOf(status + "r\r\n" + header + "\r\n\r\n"), -400);
    EXPECT_EQ(CodeOf(status + "\r\n" + header + "d\r\n\r\n"), -400);
}

TEST_F(ConsumeHttpResponseTest, ReadsALengthAsADecimalNumber) {
    for (const std::string length : {"4", " 4", "\t4", " +4", "0004", "4 ", "4;", "4abc"}) {
        const Read read = ReadWhole(OK "content-LENGTH:" + length + "\r\n\r\nbody and more");
        ASSERT_EQ(read.code, 0) << length;
        EXPECT_EQ(read.response->uiBodyLength, 4U);
    }
    for (const std::string length : {"x4", "", "0"}) {
        EXPECT_EQ(CodeOf(OK "content-LENGTH:" + length + "\r\n\r\nbody and more"), -400) << length;
    }
    const Read other = ReadWhole(OK "Content-len: 0\r\n\r\nbody");
    ASSERT_EQ(other.code, 0) << "known by its whole name only";
    EXPECT_EQ(other.response->uiBodyLength, 0U);
}

TEST_F(ConsumeHttpResponseTest, CountsHeadersBehindAFullListWithoutAnyEffect) {
    const Read read = ReadWhole(OK + Repeat("Via: v\r\n", 300) + Repeat("Age: 1\r\n", 300) +
                                Repeat("Allow: a\r\n", 16) + "Content-length: 0\r\n\r\n");
    ASSERT_EQ(read.code, 0);
    EXPECT_EQ(read.response->ucNumOfGeneralHeaders, 255) << "the count does not go round";
    EXPECT_EQ(read.response->ucNumOfResponseHeaders, 255);
    EXPECT_EQ(read.response->ucNumOfEntityHeaders, 17);
    EXPECT_EQ(read.response->uiBodyLength, 0U);
}

TEST_F(ConsumeHttpResponseTest, ReportsAFailureAlsoBehindAnOverflowingList) {
    EXPECT_EQ(CodeOf(OK + Repeat("Age: 1\r\n", 9) + "X-Custom: 1\r\n\r\n"), -98)
        << "a partial response is released without meeting the count assertions";
    EXPECT_EQ(CodeOf(OK + Repeat("Via: 1\r\n", 17) + "Content-length: 4\r\n\r\nbod"), -98);
}

TEST_F(ConsumeHttpResponseTest, SurvivesEveryFailingAllocation) {
    {
        const FailCall noMemory("calloc");
        EXPECT_EQ(CodeOf(OK "Content-length: 4\r\n\r\nbody"), -1);
        EXPECT_TRUE(noMemory.Struck());
    }
    const struct {
        const char* what;
        int outcome;
    } rows[] = {
        {"the reason", -1},
        {"the header's name: the header is ignored", 0},
        {"the header's value: the header is ignored", 0},
        {"the body", -500},
    };
    int nth = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        const FailCall noMemory("malloc", ++nth);
        const Read read = ReadWhole(OK "Content-length: 4\r\n\r\nbody");
        EXPECT_TRUE(noMemory.Struck());
        ASSERT_EQ(read.code, row.outcome);
        if (read.code != 0) continue;
        EXPECT_EQ(read.response->ucNumOfEntityHeaders, 1);
        EXPECT_EQ(read.response->uiBodyLength, 0U);
    }
    const FailCall never("malloc", ++nth);
    EXPECT_EQ(CodeOf(OK "Content-length: 4\r\n\r\nbody"), 0);
    EXPECT_FALSE(never.Struck()) << "the rows above are all there is";
}

TEST_F(ConsumeHttpResponseTest, ReportsAFailingReceive) {
    constexpr std::string_view kResponse = OK "Content-length: 4\r\n\r\nbody";
    const auto consume = [&] {
        const Exchange wire(kResponse);
        HttpResponse* response = nullptr;
        const int code = ConsumeHttpResponse(wire.Socket(), &response);
        if (code == 0) Response(response).reset();
        return code;
    };
    const int before = CallsOf("recv");
    ASSERT_EQ(consume(), 0);
    const int calls = CallsOf("recv") - before;
    ASSERT_GE(calls, 4) << "three lines and a body";
    for (int nth = 1; nth <= calls; ++nth) {
        const FailCall reset("recv", nth, ECONNRESET);
        EXPECT_EQ(consume(), nth == calls ? -98 : -400) << nth;
        EXPECT_TRUE(reset.Struck());
    }
}

TEST_F(ConsumeHttpResponseDeathTest, AssertsItsOutputAndWhatItMeets) {
    EXPECT_DEATH(ConsumeHttpResponse(-1, nullptr), Assertion("ConsumeHttpResponse", "ppResponse != __null"));
    const auto consume = [](std::string_view bytes) {
        const Exchange wire(bytes);
        HttpResponse* response = nullptr;
        if (ConsumeHttpResponse(wire.Socket(), &response) == 0) FreeHttpResponse(response);
    };
    EXPECT_DEATH(consume("HTTP/\r\n"), Assertion("ParseHttpStatusLine", "len < (q - p)"));
    EXPECT_DEATH(consume("x"), Assertion("ParseHttpStatusLine", "len < (q - p)"));
    for (const char* headers : {"Date\r\n\r\n", "Date: d\r\nVia\r\n\r\n", "Date: d\r\n folded\r\n\r\n"}) {
        EXPECT_DEATH(consume(std::string(OK) + headers),
                     rdx::test::Assertion("http/http.cpp", "AssignHeaderData", "pcolon != __null"));
    }
    EXPECT_DEATH(consume(OK + Repeat("Via: v\r\n", 17) + "\r\n"),
                 Assertion("FreeHttpResponse", "pResponse->ucNumOfGeneralHeaders <= 16"));
    EXPECT_DEATH(consume(OK + Repeat("Age: 1\r\n", 9) + "\r\n"),
                 Assertion("FreeHttpResponse", "pResponse->ucNumOfResponseHeaders <= 8"));
    EXPECT_DEATH(consume(OK + Repeat("Allow: a\r\n", 300) + "\r\n"),
                 Assertion("FreeHttpResponse", "pResponse->ucNumOfEntityHeaders <= 16"));
}

// The status line ---------------------------------------------------------------------------------------

int Parse(std::string_view line, HttpResponse* response) {
    const GuardedBytes bytes(line);
    return ParseHttpStatusLine(bytes.begin(), bytes.end(), response);
}

TEST_F(ParseHttpStatusLineTest, CutsVersionStatusAndReason) {
    const struct {
        Bytes line;
        int version;
        int status;
        const char* reason;
    } rows[] = {
        {"HTTP/1.1 200 OK", 11, 200, "OK"},           {"HTTP/1.0 100 c", 10, 100, "c"},
        {"HTTP/1.1 599 a b  c ", 11, 599, "a b  c "}, {"HTTP/1.1 200  OK", 11, 200, " OK"},
        {"HTTP/1.1 +200 OK", 11, 200, "OK"},          {"HTTP/1.1 0200 OK", 11, 200, "OK"},
        {"HTTP/1.1 200abc OK", 11, 200, "OK"},        {"HTTP/1.1 \t200 OK", 11, 200, "OK"},
        {"HTTP/1.1 200 O\0K", 11, 200, "O"},
    };
    for (const auto& row : rows) {
        const Response response = EmptyResponse();
        ASSERT_EQ(Parse(row.line, response.get()), 0) << row.line;
        EXPECT_EQ(response->ucHttpVersion, row.version);
        EXPECT_EQ(response->usStatusCode, row.status);
        EXPECT_STREQ(response->pszReason, row.reason);
    }
}

// Around the range, and the same again 16 bits further on.
std::vector<int> Statuses() {
    std::vector<int> statuses;
    for (int status = -1; status <= 700; ++status) {
        statuses.push_back(status);
        statuses.push_back(status + 65536);
    }
    return statuses;
}

TEST_F(ParseHttpStatusLineTest, TakesEveryStatusInRange) {
    for (const int status : Statuses()) {
        const Response response = EmptyResponse();
        const bool known = status >= 100 && status <= 599;
        ASSERT_EQ(Parse("HTTP/1.1 " + std::to_string(status) + " r", response.get()), known ? 0 : -7)
            << status;
        ASSERT_EQ(response->usStatusCode, known ? status : 0);
    }
}

TEST_F(ParseHttpStatusLineTest, NeverReadsPastTheLine) {
    constexpr std::string_view kLine = "HTTP/1.1 200 OK";
    for (std::size_t length = 6; length <= kLine.size(); ++length) {
        const Response response = EmptyResponse();
        const int expected = length < 9 ? -10 : length < 10 ? -11 : length < 14 ? -13 : 0;
        EXPECT_EQ(Parse(kLine.substr(0, length), response.get()), expected) << kLine.substr(0, length);
    }
    // What lies at and behind the end is not looked at.
    char line[] = "HTTP/1.1 2000 OK";
    const Response response = EmptyResponse();
    EXPECT_EQ(ParseHttpStatusLine(line, line + 12, response.get()), -13);
    char version[] = "HTTP/1.1 200 OK";
    EXPECT_EQ(ParseHttpStatusLine(version, version + 8, response.get()), -10);
}

TEST_F(ParseHttpStatusLineTest, FindsTheBlankWithinFiveCharacters) {
    const struct {
        const char* line;
        int result;
    } rows[] = {{"HTTP/ 200 OK", -90},     {"HTTP/1 200 OK", -90},     {"HTTP/1. 200 OK", -90},
                {"HTTP/1.10 200 OK", -90}, {"HTTP/1.100 200 OK", -10}, {"HTTP/1.1\t200 OK", -10},
                {"HTTP/2.0 200 OK", -90},  {"HTTP/1.2 ", -90},         {"HTTP /1.1 200 OK", -10},
                {"HTTX/1.1 200 OK", -10},  {" HTTP/1.1 200 OK", -10}};
    for (const auto& row : rows) {
        const Response response = EmptyResponse();
        EXPECT_EQ(Parse(row.line, response.get()), row.result) << row.line;
    }
}

TEST_F(ParseHttpStatusLineTest, KeepsWhatItParsedBeforeAFailure) {
    const Response response = EmptyResponse();
    EXPECT_EQ(Parse("HTTP/1.0 404 ", response.get()), -13);
    EXPECT_EQ(response->ucHttpVersion, 10);
    EXPECT_EQ(response->usStatusCode, 404);
    EXPECT_EQ(response->pszReason, nullptr);
    EXPECT_EQ(Parse("HTTP/1.1 200 OK", response.get()), 0);
    EXPECT_EQ(Parse("HTTP/1.1 200 again", response.get()), 0);
    EXPECT_STREQ(response->pszReason, "again") << "an earlier reason is released";
    const FailCall noMemory("malloc");
    EXPECT_EQ(Parse("HTTP/1.1 200 OK", response.get()), -1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(response->pszReason, nullptr);
}

TEST_F(ParseHttpStatusLineDeathTest, AssertsALineOfMoreThanFiveCharacters) {
    const Response response = EmptyResponse();
    for (const std::string_view line : {"", "H", "HTTP/"}) {
        EXPECT_DEATH(Parse(line, response.get()), Assertion("ParseHttpStatusLine", "len < (q - p)")) << line;
    }
}

TEST(IsResponseHeader, KnowsItsTable) {
    rdx::test::ExpectKnowsItsTable(IsResponseHeader, apszResponseHeaders);
}

TEST(IsResponseHeader, RefusesMalformedLines) { rdx::test::ExpectRefusesMalformedLines(IsResponseHeader); }

} // namespace
