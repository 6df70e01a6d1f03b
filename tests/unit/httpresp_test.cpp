#include "http/httpresp.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/header_lists.h"
#include "tests/support/responses.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace rdx::test;

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

using CreateHttpResponseTest = ResponseTest;
using SerializeHttpResponseTest = ResponseTest;

using FreeHttpResponseDeathTest = ResponseTest;

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
    for (int status = 0; status <= 65535; ++status) {
        const auto code = static_cast<unsigned short>(status);
        if (status < 100 || status > 599) {
            ASSERT_EQ(CreateFails(code, "text/html"), -7) << status;
            continue;
        }
        const Response response = Create(code);
        ASSERT_EQ(response->pszReason, ReasonOf(status)) << status;
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
    ASSERT_GT(calls, 0);
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

TEST_F(SerializeHttpResponseTest, WritesACreatedResponse) {
    const Response response = Create(200, "text/html", "abc", 3);
    EXPECT_EQ(Serialize(response.get()), kWritten);
    EXPECT_EQ(Serialize(response.get()), kWritten) << "writing changes nothing";
}

TEST_F(SerializeHttpResponseTest, WritesAChallengeBehindTheServer) {
    const Response response = Create(401);
    EXPECT_EQ(Serialize(response.get()), Answer(401, "", Challenge()));
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
