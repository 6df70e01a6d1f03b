#include "http/httpresp.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/broken_requests.h"
#include "tests/support/capture.h"
#include "tests/support/classifier.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using rdx::test::ArrivedWire;
using rdx::test::Bytes;
using rdx::test::CallsOf;
using rdx::test::CaptureStdout;
using rdx::test::Cut;
using rdx::test::CutsOf;
using rdx::test::FailCall;
using rdx::test::GuardedBytes;
using rdx::test::Wire;

// The record's layout is part of the interface; written down where a pointer has 64 bits.
static_assert(sizeof(void*) != 8 || sizeof(HttpResponse) == 704);
#define AT(field, offset) static_assert(sizeof(void*) != 8 || offsetof(HttpResponse, field) == (offset))
AT(ucHttpVersion, 0);
AT(usStatusCode, 2);
AT(pszReason, 8);
AT(pszReserved, 16);
AT(pszSeparator, 24);
AT(ucNumOfGeneralHeaders, 27);
AT(aGeneralHeaders, 32);
AT(ucNumOfResponseHeaders, 288);
AT(aResponseHeaders, 296);
AT(ucNumOfEntityHeaders, 424);
AT(aEntityHeaders, 432);
AT(uiBodyLength, 688);
AT(pEntityBody, 696);
#undef AT
static_assert(sizeof(HttpResponse::pszSeparator) == 3);
static_assert(sizeof(HttpResponse::aGeneralHeaders) == 16 * sizeof(HttpHeader));
static_assert(sizeof(HttpResponse::aResponseHeaders) == 8 * sizeof(HttpHeader));
static_assert(sizeof(HttpResponse::aEntityHeaders) == 16 * sizeof(HttpHeader));

auto Assertion(const std::string& function, const std::string& text) {
    return rdx::test::Assertion("http/httpresp.cpp", function, text);
}

// Frees record and contents, also of a list that has overflowed: its assertion is another test's matter.
struct FreeResponse {
    void operator()(HttpResponse* response) const {
        response->ucNumOfGeneralHeaders = std::min<unsigned char>(response->ucNumOfGeneralHeaders, 16);
        response->ucNumOfResponseHeaders = std::min<unsigned char>(response->ucNumOfResponseHeaders, 8);
        response->ucNumOfEntityHeaders = std::min<unsigned char>(response->ucNumOfEntityHeaders, 16);
        FreeHttpResponse(response);
        std::free(response);
    }
};
using Response = std::unique_ptr<HttpResponse, FreeResponse>;

Response EmptyResponse() {
    return Response(static_cast<HttpResponse*>(std::calloc(1, sizeof(HttpResponse))));
}

class ResponseTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::strcpy(szConfigAuthRealm, "Tavrin");
        ucEntityTerminator = 0;
        szEntityTerminator[0] = '\0';
    }
    void TearDown() override { SetUp(); }
};
using CreateHttpResponseTest = ResponseTest;
using SerializeHttpResponseTest = ResponseTest;
using ConsumeHttpResponseTest = ResponseTest;
using ConsumeHttpResponseDeathTest = ResponseTest;
using ParseHttpStatusLineTest = ResponseTest;
using ParseHttpStatusLineDeathTest = ResponseTest;
using FreeHttpResponseDeathTest = ResponseTest;

using Texts = std::vector<std::string>;

Texts Headers(const HttpHeader* headers, int count) {
    Texts texts;
    for (int i = 0; i < count; ++i) texts.push_back(headers[i].name + std::string("=") + headers[i].value);
    return texts;
}

std::string Repeat(const std::string& text, int times) {
    std::string repeated;
    for (int i = 0; i < times; ++i) repeated += text;
    return repeated;
}

// Creating ----------------------------------------------------------------------------------------------

Response Create(unsigned short status, const char* type = "text/html", const char* body = nullptr,
                unsigned int length = 0) {
    HttpResponse* response = nullptr;
    EXPECT_EQ(CreateHttpResponse(&response, status, type, body, length), 0);
    return Response(response);
}

// The failure of a creation, which leaves no response.
int CreateFails(unsigned short status, const char* type, const char* body = nullptr,
                unsigned int length = 0) {
    HttpResponse garbage{};
    HttpResponse* response = &garbage;
    const int result = CreateHttpResponse(&response, status, type, body, length);
    EXPECT_EQ(response, nullptr);
    return result;
}

TEST_F(CreateHttpResponseTest, FillsTheStandardHeaders) {
    const Response response = Create(200, "text/html", "a\0c", 3);
    EXPECT_EQ(response->ucHttpVersion, 11);
    EXPECT_EQ(response->usStatusCode, 200);
    EXPECT_STREQ(response->pszReason, "OK");
    EXPECT_EQ(response->pszReserved, nullptr);
    EXPECT_STREQ(response->pszSeparator, "");
    EXPECT_EQ(Headers(response->aGeneralHeaders, response->ucNumOfGeneralHeaders),
              (Texts{"Date=Tue, 30 April 2002 12:08:00 GMT", "Last-modified=Tue, 30 April 2002 12:08:00 GMT",
                     "Accept-Ranges=bytes"}));
    EXPECT_EQ(Headers(response->aResponseHeaders, response->ucNumOfResponseHeaders),
              Texts{"Server=Halvor Dx httpd/0.1"});
    EXPECT_EQ(Headers(response->aEntityHeaders, response->ucNumOfEntityHeaders),
              (Texts{"Content-type=text/html", "Content-length=3"}));
    EXPECT_EQ(response->uiBodyLength, 3U);
    EXPECT_EQ(std::string_view(response->pEntityBody, 3), std::string_view("a\0c", 3));
}

TEST_F(CreateHttpResponseTest, KnowsTheReasonOfEveryStatus) {
    const std::pair<int, std::string> reasons[] = {
        {200, "OK"},        {400, "Bad Request"},           {401, "Unauthorized"},
        {404, "Not found"}, {500, "Internal Server Error"},
    };
    for (int status = 0; status <= 65535; ++status) {
        const auto code = static_cast<unsigned short>(status);
        if (status < 100 || status > 599) {
            ASSERT_EQ(CreateFails(code, "text/html"), -7) << status;
            continue;
        }
        std::string expected = "Not implemented";
        for (const auto& [known, reason] : reasons) {
            if (known == status) expected = reason;
        }
        const Response response = Create(code);
        ASSERT_EQ(response->pszReason, expected) << status;
        ASSERT_EQ(response->usStatusCode, status);
        ASSERT_EQ(response->ucNumOfResponseHeaders, status == 401 ? 2 : 1) << status;
    }
}

TEST_F(CreateHttpResponseTest, ChallengesWithTheConfiguredRealm) {
    for (const std::string& realm : {std::string("Tavrin"), std::string(), std::string(32, 'r')}) {
        std::strcpy(szConfigAuthRealm, realm.c_str());
        const Response response = Create(401);
        EXPECT_EQ(Headers(response->aResponseHeaders, response->ucNumOfResponseHeaders),
                  (Texts{"Server=Halvor Dx httpd/0.1", "WWW-Authenticate=BASIC realm=\"" + realm + "\""}));
    }
}

TEST_F(CreateHttpResponseTest, KnowsBodiesByTheirLength) {
    const Response none = Create(200, "text/xml", "ignored", 0);
    EXPECT_EQ(none->ucNumOfEntityHeaders, 1);
    EXPECT_EQ(none->uiBodyLength, 0U);
    EXPECT_EQ(none->pEntityBody, nullptr);

    const Response lengthOnly = Create(200, "text/xml", nullptr, 7);
    EXPECT_EQ(Headers(lengthOnly->aEntityHeaders, lengthOnly->ucNumOfEntityHeaders),
              (Texts{"Content-type=text/xml", "Content-length=7"}));
    EXPECT_EQ(lengthOnly->uiBodyLength, 0U);
    EXPECT_EQ(lengthOnly->pEntityBody, nullptr);

    const Response widest = Create(200, "text/xml", nullptr, 4294967295U);
    EXPECT_STREQ(widest->aEntityHeaders[1].value, "-1") << "printed as a signed number";

    const GuardedBytes body(std::string(131071, 'b'));
    const Response longest = Create(200, "text/xml", body.begin(), 131071);
    EXPECT_STREQ(longest->aEntityHeaders[1].value, "131071");
    EXPECT_TRUE(std::equal(body.begin(), body.end(), longest->pEntityBody));
}

TEST_F(CreateHttpResponseTest, RefusesItsArgumentsInThisOrder) {
    EXPECT_EQ(CreateHttpResponse(nullptr, 99, nullptr, nullptr, 0), -1);
    EXPECT_EQ(CreateFails(99, nullptr), -7);
    EXPECT_EQ(CreateFails(600, nullptr), -7);
    EXPECT_EQ(CreateFails(100, nullptr), -3);
    EXPECT_EQ(CreateFails(599, ""), -3);
}

TEST_F(CreateHttpResponseTest, ReportsEveryFailingAllocation) {
    {
        const FailCall noMemory("calloc");
        EXPECT_EQ(CreateFails(401, "text/html", "abc", 3), -1);
        EXPECT_TRUE(noMemory.Struck());
    }
    const int before = CallsOf("malloc");
    Create(401, "text/html", "abc", 3);
    const int calls = CallsOf("malloc") - before;
    EXPECT_EQ(calls, 1 + 2 * 7 + 1) << "the reason, seven headers, the body";
    for (int nth = 1; nth <= calls; ++nth) {
        const FailCall noMemory("malloc", nth);
        EXPECT_EQ(CreateFails(401, "text/html", "abc", 3), -1) << nth;
        EXPECT_TRUE(noMemory.Struck());
    }
}

// Writing -----------------------------------------------------------------------------------------------

// The bytes written into a buffer of `size` that ends before an unreadable page, or the failure as "#-2".
std::string Serialize(HttpResponse* response, std::size_t size = 4096) {
    const GuardedBytes buffer(std::string(size, '#'));
    const int result = SerializeHttpResponse(response, buffer.begin(), static_cast<unsigned int>(size));
    if (result <= 0) return "#" + std::to_string(result);
    return {buffer.begin(), static_cast<std::size_t>(result)};
}

constexpr std::string_view kWritten =
    "HTTP/1.1 200 OK\r\nDate: Tue, 30 April 2002 12:08:00 GMT\r\n"
    "Last-modified: Tue, 30 April 2002 12:08:00 GMT\r\nAccept-Ranges: bytes\r\n"
    "Server: Halvor Dx httpd/0.1\r\nContent-type: text/html\r\nContent-length: 3\r\n\r\nabc";

TEST_F(SerializeHttpResponseTest, WritesACreatedResponse) {
    const Response response = Create(200, "text/html", "abc", 3);
    EXPECT_EQ(Serialize(response.get()), kWritten);
    EXPECT_EQ(Serialize(response.get()), kWritten) << "writing changes nothing";
}

TEST_F(SerializeHttpResponseTest, WritesAChallengeBehindTheServer) {
    const Response response = Create(401);
    EXPECT_EQ(Serialize(response.get()),
              "HTTP/1.1 401 Unauthorized\r\nDate: Tue, 30 April 2002 12:08:00 GMT\r\n"
              "Last-modified: Tue, 30 April 2002 12:08:00 GMT\r\nAccept-Ranges: bytes\r\n"
              "Server: Halvor Dx httpd/0.1\r\nWWW-Authenticate: BASIC realm=\"Tavrin\"\r\n"
              "Content-type: text/html\r\n\r\n");
}

TEST_F(SerializeHttpResponseTest, AppendsTheTerminatorWhenConfigured) {
    const Response response = Create(200, "text/html", "abc", 3);
    const Response empty = Create(200);
    const std::string withoutBody = Serialize(empty.get());
    std::strcpy(szEntityTerminator, "<END>");
    EXPECT_EQ(Serialize(response.get()), kWritten);
    ucEntityTerminator = 1;
    EXPECT_EQ(Serialize(response.get()), std::string(kWritten) + "<END>");
    EXPECT_EQ(Serialize(empty.get()), withoutBody + "<END>") << "also without a body";
    szEntityTerminator[0] = '\0';
    EXPECT_EQ(Serialize(response.get()), kWritten) << "an empty terminator is none";
    const std::string longest(64, 'e');
    std::strcpy(szEntityTerminator, longest.c_str());
    EXPECT_EQ(Serialize(response.get()), std::string(kWritten) + longest);
}

TEST_F(SerializeHttpResponseTest, NeedsTwoBytesMoreThanItWrites) {
    const Response response = Create(200, "text/html", "abc", 3);
    EXPECT_EQ(Serialize(response.get(), kWritten.size() + 2), kWritten);
    for (std::size_t size = 1; size < kWritten.size() + 2; ++size) {
        ASSERT_EQ(Serialize(response.get(), size), "#-2") << size;
    }
    ucEntityTerminator = 1;
    std::strcpy(szEntityTerminator, "EOT");
    EXPECT_EQ(Serialize(response.get(), kWritten.size() + 4), "#-2");
    EXPECT_EQ(Serialize(response.get(), kWritten.size() + 5), std::string(kWritten) + "EOT");
}

TEST_F(SerializeHttpResponseTest, RefusesWhatIsMissing) {
    const Response response = Create(200);
    char buffer[16];
    EXPECT_EQ(SerializeHttpResponse(nullptr, nullptr, 0), -1);
    EXPECT_EQ(SerializeHttpResponse(response.get(), nullptr, 16), -2);
    EXPECT_EQ(SerializeHttpResponse(response.get(), buffer, 0), -2);
}

TEST_F(SerializeHttpResponseTest, KnowsTwoVersions) {
    const Response response = Create(200);
    response->ucHttpVersion = 10;
    EXPECT_TRUE(Serialize(response.get()).starts_with("HTTP/1.0 200 OK\r\n"));
    for (const int version : {0, 9, 12, 255}) {
        response->ucHttpVersion = static_cast<unsigned char>(version);
        EXPECT_EQ(Serialize(response.get()), "#-8");
        EXPECT_EQ(Serialize(response.get(), 4), "#-2") << "\"HTTP/\" has no room";
    }
}

TEST_F(SerializeHttpResponseTest, FailsOnEmptyTexts) {
    const Response response = Create(200);
    const auto failsWith = [&](char*& text) {
        char* const kept = std::exchange(text, nullptr);
        EXPECT_EQ(Serialize(response.get()), "#-9") << "a text that is not there";
        char empty[] = "";
        text = empty;
        EXPECT_EQ(Serialize(response.get()), "#-9");
        text = kept;
    };
    failsWith(response->pszReason);
    failsWith(response->aGeneralHeaders[1].name);
    failsWith(response->aGeneralHeaders[2].value);
    failsWith(response->aResponseHeaders[0].name);
    failsWith(response->aResponseHeaders[0].value);
    failsWith(response->aEntityHeaders[0].name);
    failsWith(response->aEntityHeaders[0].value);
    EXPECT_EQ(Serialize(response.get()).front(), 'H');
}

TEST_F(SerializeHttpResponseTest, EndsLinesItsOwnWay) {
    const Response response = Create(200, "text/html", "abc", 3);
    std::strcpy(response->pszSeparator, "\n");
    EXPECT_EQ(Serialize(response.get()), kWritten);
}

TEST_F(SerializeHttpResponseTest, NeverLeavesAListThatHasOverflowed) {
    const Response response = EmptyResponse();
    response->ucHttpVersion = 11;
    response->usStatusCode = 200;
    response->pszReason = strdup("OK");
    response->ucNumOfGeneralHeaders = response->ucNumOfResponseHeaders = response->ucNumOfEntityHeaders = 255;
    for (HttpHeader& header : response->aGeneralHeaders) AllocHeader(&header, "g", "1");
    for (HttpHeader& header : response->aResponseHeaders) AllocHeader(&header, "r", "2");
    for (HttpHeader& header : response->aEntityHeaders) AllocHeader(&header, "e", "3");
    EXPECT_EQ(Serialize(response.get()), "HTTP/1.1 200 OK\r\n" + Repeat("g: 1\r\n", 16) +
                                             Repeat("r: 2\r\n", 8) + Repeat("e: 3\r\n", 16) + "\r\n");
}

TEST_F(SerializeHttpResponseTest, FindsNoBytesInABodyThatIsNotThere) {
    const Response response = Create(200);
    response->uiBodyLength = 3;
    EXPECT_EQ(Serialize(response.get()), "#-2");
    response->uiBodyLength = 0;
}

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

TEST_F(ConsumeHttpResponseTest, ReadsALengthsLeadingDigits) {
    for (const std::string length : {"4", " 4", "\t4", " +4", "0004", "4 ", "4;", "4abc"}) {
        const Read read = ReadWhole(OK "content-LENGTH:" + length + "\r\n\r\nbody and more");
        ASSERT_EQ(read.code, 0) << length;
        EXPECT_EQ(read.response->uiBodyLength, 4U);
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
        const ArrivedWire wire(kResponse);
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
        const ArrivedWire wire(bytes);
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

// Freeing and listing -----------------------------------------------------------------------------------

TEST(FreeHttpResponse, LeavesNothingAndMayBeRepeated) {
    HttpResponse response{};
    response.pszReason = strdup("OK");
    response.pszReserved = strdup("reserved");
    response.pEntityBody = strdup("body");
    response.uiBodyLength = 4;
    response.ucNumOfGeneralHeaders = 16;
    response.ucNumOfResponseHeaders = 8;
    response.ucNumOfEntityHeaders = 16;
    for (HttpHeader& header : response.aGeneralHeaders) ASSERT_EQ(AllocHeader(&header, "n", "v"), 0);
    for (HttpHeader& header : response.aResponseHeaders) ASSERT_EQ(AllocHeader(&header, "n", "v"), 0);
    response.aEntityHeaders[0].name = strdup("half-filled");
    for (int i = 0; i < 2; ++i) {
        FreeHttpResponse(&response);
        EXPECT_EQ(response.pszReason, nullptr);
        EXPECT_EQ(response.pszReserved, nullptr);
        EXPECT_EQ(response.pEntityBody, nullptr);
        EXPECT_EQ(response.uiBodyLength, 0U);
        EXPECT_EQ(response.ucNumOfGeneralHeaders, 0);
        EXPECT_EQ(response.ucNumOfResponseHeaders, 0);
        EXPECT_EQ(response.ucNumOfEntityHeaders, 0);
        EXPECT_EQ(response.aGeneralHeaders[15].name, nullptr);
        EXPECT_EQ(response.aResponseHeaders[7].value, nullptr);
        EXPECT_EQ(response.aEntityHeaders[0].name, nullptr);
    }
    FreeHttpResponse(nullptr);
}

TEST_F(FreeHttpResponseDeathTest, AssertsTheCounts) {
    const std::string function = "FreeHttpResponse";
    HttpResponse general{};
    general.ucNumOfGeneralHeaders = 17;
    EXPECT_DEATH(FreeHttpResponse(&general), Assertion(function, "pResponse->ucNumOfGeneralHeaders <= 16"));
    HttpResponse own{};
    own.ucNumOfResponseHeaders = 9;
    EXPECT_DEATH(FreeHttpResponse(&own), Assertion(function, "pResponse->ucNumOfResponseHeaders <= 8"));
    HttpResponse entity{};
    entity.ucNumOfEntityHeaders = 17;
    EXPECT_DEATH(FreeHttpResponse(&entity), Assertion(function, "pResponse->ucNumOfEntityHeaders <= 16"));
}

TEST_F(ResponseTest, IsListedOnStandardOutput) {
    const Response response = Create(404, "text/html", "abc", 3);
    std::strcpy(response->pszSeparator, "\n");
    const auto address = [](const void* pointer) {
        char text[16];
        std::snprintf(text, sizeof text, "%X",
                      static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(pointer)));
        return std::string(text);
    };
    char title[] = "A title";
    const CaptureStdout capture;
    DumpHttpResp(title, response.get());
    EXPECT_EQ(capture.Text(), "\nDumpHttpResp: A title ---\nDumpHttpResp: " + address(response.get()) +
                                  "\nucHttpVersion = 11\nusStatusCode = 404\npszSeparator = \n\n"
                                  "ucNumOfGeneralHeaders = 3\nucNumOfResponseHeaders = 1\n"
                                  "ucNumOfEntityHeaders = 2\nuiBodyLength = 3  (" +
                                  address(response->pEntityBody) + ")\nDumpHttpResp: ---\n");
}

} // namespace
