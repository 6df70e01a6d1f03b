#include "http/httpreq.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/broken_requests.h"
#include "tests/support/capture.h"
#include "tests/support/classifier.h"
#include "tests/support/client.h"
#include "tests/support/exchange.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/header_lists.h"
#include "tests/support/listener.h"
#include "tests/support/request_reading.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

namespace {

using namespace rdx::test;

// The record's layout is part of the interface; written down where a pointer has 64 bits.
static_assert(sizeof(void*) != 8 || sizeof(HttpRequest) == 1072);
#define AT(field, offset) static_assert(sizeof(void*) != 8 || offsetof(HttpRequest, field) == (offset))
AT(ucMethod, 0);
AT(ucHttpVersion, 1);
AT(pszUri, 8);
AT(pszSeparator, 16);
AT(ucNumOfGeneralHeaders, 19);
AT(aGeneralHeaders, 24);
AT(ucNumOfRequestHeaders, 280);
AT(aRequestHeaders, 288);
AT(ucNumOfEntityHeaders, 512);
AT(aEntityHeaders, 520);
AT(ucMultipart, 776);
AT(ucKeepAlive, 777);
AT(ucBoundaryLen, 778);
AT(pszBoundary, 784);
AT(uiBodyLength, 792);
AT(pEntityBody, 800);
AT(iSocket, 808);
AT(szPeerName, 812);
#undef AT
static_assert(sizeof(HttpRequest::pszSeparator) == 3);
static_assert(sizeof(HttpRequest::aGeneralHeaders) == 16 * sizeof(HttpHeader));
static_assert(sizeof(HttpRequest::aRequestHeaders) == 14 * sizeof(HttpHeader));
static_assert(sizeof(HttpRequest::aEntityHeaders) == 16 * sizeof(HttpHeader));

using ConsumeHttpRequestTest = RequestTest;
using ConsumeHttpRequestDeathTest = RequestTest;
using ReadHttpReqHeadersTest = RequestTest;
using ReadPostDataTest = RequestTest;
using ParseHttpMethodLineTest = RequestTest;
using IsMethodAllowedTest = RequestTest;
using FreeHttpRequestDeathTest = RequestTest;

// Whole requests ----------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, ReadsAGet) {
    AtEveryCut("GET /x HTTP/1.1\r\nHost: a\r\n\r\n", [](const Read& read) {
        ASSERT_EQ(read.code, 200);
        EXPECT_EQ(read->ucMethod, HTTP_GET);
        EXPECT_EQ(read->ucHttpVersion, 11);
        EXPECT_STREQ(read->pszUri, "/x");
        EXPECT_STREQ(read->pszSeparator, "\r\n");
        EXPECT_EQ(read->ucKeepAlive, 1);
        EXPECT_EQ(Headers(read->aRequestHeaders, read->ucNumOfRequestHeaders), Texts{"Host=a"});
        EXPECT_EQ(read->ucNumOfGeneralHeaders, 0);
        EXPECT_EQ(read->ucNumOfEntityHeaders, 0);
        EXPECT_EQ(read->ucMultipart, 0);
        EXPECT_EQ(read->pszBoundary, nullptr);
        EXPECT_EQ(read->uiBodyLength, 0U);
        EXPECT_EQ(read->pEntityBody, nullptr);
    });
}

TEST_F(ConsumeHttpRequestTest, ReadsAMultipartPost) {
    constexpr rdx::test::Bytes kPost =
        "POST /rDx?a=%20 HTTP/1.0\nConnection: Keep-Alive\nUser-Agent: t\nDate: d\nHost: a\n"
        "Content-Type: multipart/form-data; boundary=AbC\nContent-Length: 9\n\n--AbC\n\0--";
    AtEveryCut(kPost, [&](const Read& read) {
        ASSERT_EQ(read.code, 200);
        EXPECT_EQ(read->ucMethod, HTTP_POST);
        EXPECT_EQ(read->ucHttpVersion, 10);
        EXPECT_STREQ(read->pszUri, "/rDx?a=%20");
        EXPECT_STREQ(read->pszSeparator, "\n");
        EXPECT_EQ(read->ucKeepAlive, 1);
        EXPECT_EQ(Headers(read->aGeneralHeaders, read->ucNumOfGeneralHeaders),
                  (Texts{"Connection=Keep-Alive", "Date=d"}));
        EXPECT_EQ(Headers(read->aRequestHeaders, read->ucNumOfRequestHeaders),
                  (Texts{"User-Agent=t", "Host=a"}));
        EXPECT_EQ(Headers(read->aEntityHeaders, read->ucNumOfEntityHeaders),
                  (Texts{"Content-Type=multipart/form-data; boundary=AbC", "Content-Length=9"}));
        EXPECT_EQ(read->ucMultipart, 1);
        EXPECT_STREQ(read->pszBoundary, "--AbC");
        EXPECT_EQ(read->ucBoundaryLen, 5);
        EXPECT_EQ(read.Body(), std::string("--AbC\n\0--", 9));
        EXPECT_EQ(read.taken, kPost.size());
    });
}

TEST_F(ConsumeHttpRequestTest, LeavesWhatFollowsInTheSocket) {
    const std::string requests[] = {"GET /x HTTP/1.1\r\nHost: a\r\n\r\n",
                                    "POST /x HTTP/1.1\r\nContent-length: 4\r\n\r\nbody", "\r\n", "\n"};
    for (const std::string& request : requests) {
        SCOPED_TRACE(request);
        const std::string stream = request + "GET /next HTTP/1.1\r\nHost: b\r\n\r\n";
        for (const Cut& cut : CutsOf(stream)) {
            SCOPED_TRACE(cut.name);
            const Read read = ReadCut(cut);
            EXPECT_EQ(read.code, 200);
            EXPECT_EQ(read.taken, request.size());
        }
    }
}

TEST_F(ConsumeHttpRequestTest, NeedsNoEndOfTheConnection) {
    for (const std::string_view request : {"GET /x HTTP/1.1\r\nHost: a\r\n\r\n",
                                           "POST /x HTTP/1.1\r\nContent-length: 4\r\n\r\nbody", "\r\n"}) {
        EXPECT_EQ(ReadWhole(request, Wire::Then::StayOpen).code, 200) << request;
    }
}

TEST_F(ConsumeHttpRequestTest, AcceptsAConnectionThatSaysNothing) {
    for (const std::string_view bytes : {"", "\n", "\r\n", "\r"}) {
        AtEveryCut(bytes, [](const Read& read) {
            ASSERT_EQ(read.code, 200);
            EXPECT_EQ(read->pszUri, nullptr);
            EXPECT_STREQ(read->pszSeparator, "");
            EXPECT_EQ(read->ucHttpVersion, 0);
            EXPECT_EQ(read->ucKeepAlive, 0);
            EXPECT_EQ(read->ucNumOfRequestHeaders, 0);
        });
    }
}

TEST_F(ConsumeHttpRequestTest, RemembersItsSocket) {
    const Exchange wire("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    Read read;
    ReadFrom(wire.Socket(), read);
    EXPECT_EQ(read->iSocket, wire.Socket());
}

TEST_F(ConsumeHttpRequestTest, CostsFarFewerSystemCallsThanBytes) {
    const std::string request = "GET /" + std::string(250, 'u') + " HTTP/1.1\r\n" +
                                Repeat("Host: " + std::string(490, 'h') + "\r\n", 14) + "\r\n";
    const Exchange wire(request);
    Read read;
    const int before = CallsOf("recv");
    ReadFrom(wire.Socket(), read);
    EXPECT_EQ(read.code, 200);
    EXPECT_LE(CallsOf("recv") - before, 3 * 16) << "a few for each line";
}

// Lengths -----------------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, Takes511CharactersOfALine) {
    const std::string end = " /x HTTP/1.1";
    const std::string blanks(511 - 3 - end.size(), ' ');
    const std::string line = "GET" + blanks + end;
    ASSERT_EQ(line.size(), 511U);
    const std::string header = "Host: " + std::string(505, 'a');
    ASSERT_EQ(header.size(), 511U);
    EXPECT_EQ(CodeOf(line + "\r\n" + header + "\r\n\r\n"), 200);
    EXPECT_EQ(CodeOf(line + "\n" + header + "\n\n"), 200);
    EXPECT_EQ(CodeOf("GET " + blanks + end + "\r\nHost: a\r\n\r\n"), -400);
    EXPECT_EQ(CodeOf(line + "\r\n" + header + "a\r\n\r\n"), -400);
}

TEST_F(ConsumeHttpRequestTest, TakesATargetOf255Characters) {
    const std::string target(255, 'u');
    const Read read = ReadWhole("GET " + target + " HTTP/1.1\r\nHost: a\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read->pszUri, target);
    EXPECT_EQ(CodeOf("GET " + target + "u HTTP/1.1\r\nHost: a\r\n\r\n"), -400);
}

TEST_F(ConsumeHttpRequestTest, TakesABodyUpToTheLimits) {
    const std::string body(65536, 'b');
    const std::string head = "POST /x HTTP/1.1\r\nContent-length: ";
    const Read read = ReadWhole(head + "65536\r\n\r\n" + body);
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read.Body(), body);
    EXPECT_EQ(CodeOf(head + "65537\r\n\r\n" + body + "b"), -400);
    g_dwPostMaxContLength = 4;
    EXPECT_EQ(CodeOf(head + "4\r\n\r\nbody"), 200);
    EXPECT_EQ(CodeOf(head + "5\r\n\r\nbody!"), -400);
    g_dwPostMaxContLength = 65536;
    g_dwPostMaxSizeToRead = 4;
    EXPECT_EQ(CodeOf(head + "4\r\n\r\nbody"), 200);
    EXPECT_EQ(CodeOf(head + "5\r\n\r\nbody!"), -400);
}

TEST_F(ConsumeHttpRequestTest, ReadsALengthsLeadingDigits) {
    const std::string head = "POST /x HTTP/1.1\r\nContent-length:";
    for (const std::string length : {"4", " 4", "   4", "0004", "4 ", "4;", "4abc", "4, 9"}) {
        const Read read = ReadWhole(head + length + "\r\n\r\nbody and more");
        ASSERT_EQ(read.code, 200) << length;
        EXPECT_EQ(read.Body(), "body") << length;
    }
}

TEST_F(ConsumeHttpRequestTest, ReadsALengthWithAnythingBeforeItsDigitsAs0) {
    const std::string head = "POST /x HTTP/1.1\r\nContent-length:";
    for (const std::string length :
         {"\t4", " \t4", "+4", " +4", "-4", "-4294967292", "x4", "\v4", "", "  "}) {
        EXPECT_EQ(CodeOf(head + length + "\r\n\r\nbody and more"), -400) << length;
    }
}

TEST_F(ConsumeHttpRequestTest, TakesTheLastLength) {
    const Read read =
        ReadWhole("POST /x HTTP/1.1\r\nContent-length: 65537\r\ncontent-LENGTH: 4\r\n\r\nbody and more");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read.Body(), "body");
}

TEST_F(ConsumeHttpRequestTest, KnowsALengthOnlyByItsWholeName) {
    const Read read = ReadWhole("POST /x HTTP/1.1\r\nContent-len: 4\r\nContent-: 0\r\n\r\nbody");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read->uiBodyLength, 0U);
    EXPECT_EQ(Headers(read->aEntityHeaders, read->ucNumOfEntityHeaders),
              Texts({"Content-len=4", "Content-=0"}));
}

// Lines and words ---------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, IgnoresCaseInMethodAndProtocol) {
    for (const std::string line : {"get /x http/1.1", "Get /x hTTp/1.1", "GET /x HTTP/1.1"}) {
        const Read read = ReadWhole(line + "\r\nHost: a\r\n\r\n");
        ASSERT_EQ(read.code, 200) << line;
        EXPECT_EQ(read->ucMethod, HTTP_GET);
    }
}

TEST_F(ConsumeHttpRequestTest, KeepsTheTargetAsReceived) {
    const Read read = ReadWhole("GET \t /A%20b?c=d&E=%2f+#f\t HTTP/1.1\r\nHost: a\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_STREQ(read->pszUri, "/A%20b?c=d&E=%2f+#f\t") << "only a blank ends it";
}

TEST_F(ConsumeHttpRequestTest, EndsATargetAtANulForWhoeverReadsIt) {
    AtEveryCut(rdx::test::Bytes("GET /x\0y HTTP/1.1\r\nHost: a\0b\r\n\r\n"), [](const Read& read) {
        ASSERT_EQ(read.code, 200);
        EXPECT_STREQ(read->pszUri, "/x");
        EXPECT_EQ(Headers(read->aRequestHeaders, read->ucNumOfRequestHeaders), Texts{"Host=a"});
    });
}

TEST_F(ConsumeHttpRequestTest, NotesTheRequestLinesEnd) {
    const struct {
        std::string_view bytes;
        const char* separator;
    } rows[] = {{"GET /x HTTP/1.1\r\nHost: a\n\n", "\r\n"},
                {"GET /x HTTP/1.1\nHost: a\r\n\r\n", "\n"},
                {"GET /x\r HTTP/1.1\nHost: a\r\n\r\n", "\r\n"}};
    for (const auto& row : rows) {
        AtEveryCut(row.bytes, [&](const Read& read) {
            ASSERT_EQ(read.code, 200);
            EXPECT_STREQ(read->pszSeparator, row.separator);
        });
    }
}

// Keep-alive --------------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, DecidesKeepAliveByVersionAndThenByHeader) {
    const struct {
        const char* headers;
        int inVersion11;
        int inVersion10;
    } rows[] = {
        {"Host: a\r\n", 1, 0},
        {"Connection: close\r\n", 0, 0},
        {"Connection: keep-alive\r\n", 1, 1},
        {"connection: CLOSE\r\n", 0, 0},
        {"CONNECTION:Keep-Alive\r\n", 1, 1},
        {"Connection: : close\r\n", 0, 0},
        {"Connection: upgrade\r\n", 1, 0},
        {"Connection:\r\n", 1, 0},
        {"Connection: close \r\n", 1, 0},
        {"Connection:\tclose\r\n", 1, 0},
        {"Connection: close, TE\r\n", 1, 0},
        {"Connection: close\r\nConnection: keep-alive\r\n", 1, 1},
        {"Connection: keep-alive\r\nConnection: close\r\n", 0, 0},
        {"Connection: close\r\nConnection: upgrade\r\n", 0, 0},
        {"Con: close\r\n", 1, 0},
        {"Connectio: keep-alive\r\n", 1, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.headers);
        const Read newer = ReadWhole(std::string("GET /x HTTP/1.1\r\n") + row.headers + "\r\n");
        ASSERT_EQ(newer.code, 200);
        EXPECT_EQ(newer->ucKeepAlive, row.inVersion11);
        const Read older = ReadWhole(std::string("GET /x HTTP/1.0\r\n") + row.headers + "\r\n");
        ASSERT_EQ(older.code, 200);
        EXPECT_EQ(older->ucKeepAlive, row.inVersion10);
    }
}

// Credentials -------------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, DemandsCredentialsWhenTheSettingsDo) {
    ucAuthRequired = 1;
    std::strcpy(szConfigAuthInfo, "dTpw");
    const struct {
        const char* headers;
        int outcome;
    } rows[] = {
        {"Authorization: Basic dTpw\r\n", 200},
        {"authorization: BASIC dTpw\r\n", 200},
        {"Authorization: Basic DTPW\r\n", -401},
        {"Authorization: Basic dTpw \r\n", -401},
        {"Authorization: Basic\r\n", -401},
        {"Authorization: dTpw\r\n", -401},
        {"Authorization:\r\n", -401},
        {"Auth: Basic dTpw\r\n", -401},
        {"Host: a\r\n", -401},
    };
    for (const auto& row : rows) {
        const Read read = ReadWhole(std::string("GET /x HTTP/1.1\r\n") + row.headers + "\r\n");
        EXPECT_EQ(read.code, row.outcome) << row.headers;
        EXPECT_EQ(read.trace.ends_with("\nConsumeHttpRequest: no auth"), row.outcome == -401) << read.trace;
    }
    EXPECT_EQ(CodeOf("\r\n"), -401) << "an empty request has none";
    EXPECT_EQ(CodeOf("GET /x HTTP/1.1\r\nContent-length: 4\r\n\r\nbod"), -400) << "the body comes first";
}

// The peer ----------------------------------------------------------------------------------------------

// A connection over the loopback interface, on which `bytes` have been sent.
class LoopbackWire {
public:
    explicit LoopbackWire(std::string_view bytes)
        : client_(listener_.Port()), socket_(accept(listener_.Socket(), nullptr, nullptr)) {
        client_.Send(bytes);
    }
    ~LoopbackWire() { close(socket_); }
    LoopbackWire(const LoopbackWire&) = delete;
    LoopbackWire& operator=(const LoopbackWire&) = delete;

    int Socket() const { return socket_; }
    std::string FarName() const { return "127.0.0.1:" + std::to_string(client_.Port()); }

private:
    rdx::test::Listener listener_;
    rdx::test::Client client_;
    int socket_;
};

TEST_F(ConsumeHttpRequestTest, NamesThePeer) {
    const LoopbackWire wire("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    Read read;
    ReadFrom(wire.Socket(), read);
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read->szPeerName, wire.FarName());
    EXPECT_TRUE(read.trace.ends_with("\nConsumeHttpRequest: szPeerName = " + wire.FarName())) << read.trace;
}

TEST_F(ConsumeHttpRequestTest, AcceptsARequestFromAPeerWithoutName) {
    const LoopbackWire wire("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    Read read;
    const FailCall unnamed("getpeername", 1, ENOTCONN);
    ReadFrom(wire.Socket(), read);
    EXPECT_TRUE(unnamed.Struck());
    ASSERT_EQ(read.code, 200);
    EXPECT_STREQ(read->szPeerName, "");
    EXPECT_EQ(read.trace.find("szPeerName"), std::string::npos);
}

TEST_F(ConsumeHttpRequestTest, LeavesPeersOfOtherAddressFamiliesUnnamed) {
    const Read read = ReadWhole("GET /x HTTP/1.1\r\nHost: a\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_STREQ(read->szPeerName, "");
    EXPECT_EQ(read.trace.find("szPeerName"), std::string::npos);
}

// Traces and log ----------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, TracesItsSteps) {
    EXPECT_EQ(ReadWhole("POST /x HTTP/1.1\r\nContent-length: 4\r\n\r\nbody").trace,
              "\nParsing: method ok (1)\nParseHttpMethodLine ok\nHttpHeaders: uiBodyLength=4"
              "\nReadPostData: received 4 bytes");
    EXPECT_EQ(ReadWhole("POST /x HTTP/1.1\r\nContent-length: 4\r\n\r\nbod").trace,
              "\nParsing: method ok (1)\nParseHttpMethodLine ok\nHttpHeaders: uiBodyLength=4"
              "\nReadPostData: received just 3 bytes");
    EXPECT_EQ(ReadWhole("POST /x HTTP/1.1\r\nContent-length: 0\r\n\r\n").trace,
              "\nParsing: method ok (1)\nParseHttpMethodLine ok");
    EXPECT_EQ(ReadWhole("POST /x HTTP/1.1\r\nContent-length: 99999999999\r\n\r\n").trace,
              "\nParsing: method ok (1)\nParseHttpMethodLine ok\nHttpHeaders: uiBodyLength=2147483647");
    aiMethodsAllowed[HTTP_GET] = 7;
    EXPECT_EQ(ReadWhole("GET /x HTTP/1.2\r\n\r\n").trace, "\nParsing: method ok (7)");
    EXPECT_EQ(ReadWhole("PUT /x HTTP/1.1\r\n\r\n").trace, "\nParsing: method ok (0)");
    EXPECT_EQ(ReadWhole("FOO /x HTTP/1.1\r\n\r\n").trace, "");
}

TEST_F(ReadHttpReqHeadersTest, LogsTheRequestLinesLengthAtTheHighestVerbosity) {
    ucVerbosity = VERBOSITY_LOG;
    const std::string request = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";
    EXPECT_EQ(ReadWhole(request).trace.find("got request line"), std::string::npos);
    ucVerbosity = VERBOSITY_ALL;
    const std::string trace = WithoutTimes(ReadWhole(request).trace);
    EXPECT_TRUE(
        trace.starts_with("\n[TIME],ReadHttpReqHeaders(): got request line from socket, len = (15) [tid="))
        << trace;
    EXPECT_EQ(ReadWhole("").trace, "");
}

constexpr std::string_view kMultipartPost =
    "POST /x HTTP/1.1\r\nContent-type: multipart/form-data; boundary=b\r\nContent-length: 4\r\n\r\nbody";

// The steps by themselves -------------------------------------------------------------------------------

struct FreeRequest {
    void operator()(HttpRequest* request) const {
        FreeHttpRequest(request);
        delete request;
    }
};
using Record = std::unique_ptr<HttpRequest, FreeRequest>;
Record MakeRecord() { return Record(new HttpRequest{}); }

TEST_F(ReadHttpReqHeadersTest, LeavesTheBodyInTheSocket) {
    const Record request = MakeRecord();
    Wire wire({kMultipartPost});
    {
        const CaptureStdout quiet;
        ASSERT_EQ(ReadHttpReqHeaders(wire.Socket(), request.get()), 0);
    }
    EXPECT_EQ(request->uiBodyLength, 4U);
    EXPECT_EQ(request->pEntityBody, nullptr);
    EXPECT_EQ(wire.Taken(), kMultipartPost.size() - 4);
}

int Parse(std::string_view line, HttpRequest* request) {
    const GuardedBytes bytes(line);
    const CaptureStdout quiet;
    return ParseHttpMethodLine(bytes.begin(), bytes.end(), request);
}

TEST_F(ParseHttpMethodLineTest, NeverReadsPastTheLine) {
    constexpr std::string_view kLine = "POST \t/x?y  HTTP/1.0";
    for (std::size_t length = 0; length <= kLine.size(); ++length) {
        const Record request = MakeRecord();
        const int expected = length == kLine.size() ? 0 : length > kLine.rfind('/') ? -505 : -400;
        EXPECT_EQ(Parse(kLine.substr(0, length), request.get()), expected) << kLine.substr(0, length);
    }
    const Record request = MakeRecord();
    EXPECT_EQ(ParseHttpMethodLine(kLine.data() + 4, kLine.data(), request.get()), -400) << "an empty range";
}

TEST_F(ParseHttpMethodLineTest, KeepsWhatItParsedBeforeAFailure) {
    const Record request = MakeRecord();
    request->ucKeepAlive = 1;
    EXPECT_EQ(Parse("POST /x HTTP/3.0", request.get()), -505);
    EXPECT_EQ(request->ucMethod, HTTP_POST);
    EXPECT_STREQ(request->pszUri, "/x");
    EXPECT_EQ(request->ucHttpVersion, 0);
    EXPECT_EQ(request->ucKeepAlive, 1);
    EXPECT_EQ(Parse("GET /again HTTP/1.0", request.get()), 0);
    EXPECT_STREQ(request->pszUri, "/again") << "an earlier target is released";
    EXPECT_EQ(request->ucKeepAlive, 0);
}

constexpr const char* kMethods[] = {"GET", "PUT", "POST", "HEAD", "DELETE", "TRACE", "OPTIONS", "CONNECT"};
static_assert(std::size(kMethods) == HTTP_METHODS);
static_assert(HTTP_GET == 0 && HTTP_PUT == 1 && HTTP_POST == 2 && HTTP_HEAD == 3 && HTTP_DELETE == 4 &&
              HTTP_TRACE == 5 && HTTP_OPTIONS == 6 && HTTP_CONNECT == 7);

TEST_F(IsMethodAllowedTest, KnowsEveryMethod) {
    for (int index = 0; index < HTTP_METHODS; ++index) {
        for (const int allowed : {0, 1, -3, 2}) {
            aiMethodsAllowed[index] = allowed;
            for (const std::string& name :
                 {std::string(kMethods[index]), rdx::test::Mapped(kMethods[index], std::tolower)}) {
                int found = -2;
                const CaptureStdout capture;
                EXPECT_EQ(IsMethodAllowed(name.c_str(), &found), allowed) << name;
                EXPECT_EQ(found, index) << name;
                EXPECT_EQ(capture.Text(), "\nParsing: method ok (" + std::to_string(allowed) + ")");
            }
        }
    }
}

TEST_F(IsMethodAllowedTest, KnowsNoOther) {
    for (const char* name :
         {"", "G", "GETS", " GET", "GET ", "FOO", "PATCH", static_cast<const char*>(nullptr)}) {
        int found = -2;
        const CaptureStdout capture;
        EXPECT_EQ(IsMethodAllowed(name, &found), -1);
        EXPECT_EQ(found, -1);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST_F(ConsumeHttpRequestTest, AcceptsEveryMethodThatIsAllowed) {
    std::ranges::fill(aiMethodsAllowed, 1);
    for (int index = 0; index < HTTP_METHODS; ++index) {
        const Read read = ReadWhole(kMethods[index] + std::string(" /x HTTP/1.1\r\nHost: a\r\n\r\n"));
        ASSERT_EQ(read.code, 200) << kMethods[index];
        EXPECT_EQ(read->ucMethod, index);
    }
    aiMethodsAllowed[HTTP_GET] = -1;
    EXPECT_EQ(CodeOf("GET /x HTTP/1.1\r\nHost: a\r\n\r\n"), -405);
}

TEST_F(IsMethodAllowedTest, AgreesWithTheSettingsOnEveryIndex) {
    for (const char* const name : kMethods) {
        SetUp();
        std::ranges::fill(aiMethodsAllowed, 0);
        std::string line = std::string("MethodsAllowed=") + name;
        ASSERT_EQ(ReadHttpKey(line.data()), 0);
        const CaptureStdout quiet;
        for (const char* const other : kMethods) {
            int index = -1;
            EXPECT_EQ(IsMethodAllowed(other, &index), other == name ? 1 : 0) << name << ", " << other;
        }
    }
}

int ReadBody(std::string_view bytes, HttpRequest* request) {
    const Exchange wire(bytes);
    const CaptureStdout quiet;
    return ReadPostData(wire.Socket(), request);
}

TEST_F(ReadPostDataTest, ReadsExactlyTheBody) {
    const Record request = MakeRecord();
    request->uiBodyLength = 4;
    EXPECT_EQ(ReadBody("body and more", request.get()), 0);
    EXPECT_EQ(std::string_view(request->pEntityBody, 4), "body");
}

TEST_F(ReadPostDataTest, ReadsNothingWithoutALength) {
    const Record request = MakeRecord();
    EXPECT_EQ(ReadBody("body", request.get()), 0);
    EXPECT_EQ(request->pEntityBody, nullptr);
}

TEST_F(ReadPostDataTest, RefusesABodyShorterThanItsLength) {
    const Record request = MakeRecord();
    request->uiBodyLength = 5;
    EXPECT_EQ(ReadBody("body", request.get()), -400);
    EXPECT_EQ(std::string_view(request->pEntityBody, 4), "body") << "what came stays in the request";
}

TEST_F(ReadPostDataTest, RefusesLengthsThatNoBodyHas) {
    g_dwPostMaxContLength = g_dwPostMaxSizeToRead = 0xFFFFFFFFU;
    for (const unsigned int length : {0x80000000U, 0xFFFFFFFFU}) {
        const Record request = MakeRecord();
        request->uiBodyLength = length;
        EXPECT_EQ(ReadBody("body", request.get()), -400) << length;
    }
}

TEST_F(ReadPostDataTest, ReportsMissingMemory) {
    const Record request = MakeRecord();
    request->uiBodyLength = 4;
    const FailCall noMemory("malloc");
    EXPECT_EQ(ReadBody("body", request.get()), -500);
    EXPECT_TRUE(noMemory.Struck());
}

TEST_F(ReadPostDataTest, StopsAtTheEntityTerminator) {
    ucEntityTerminator = 1;
    std::strcpy(szEntityTerminator, "END");
    const Record request = MakeRecord();
    request->uiBodyLength = 64;
    EXPECT_EQ(ReadBody("bodyEND", request.get()), -400) << "the body is short then";
}

// Freeing -----------------------------------------------------------------------------------------------

TEST(FreeHttpRequest, LeavesNothingAndMayBeRepeated) {
    HttpRequest request{};
    request.pszUri = strdup("/x");
    request.pszBoundary = strdup("--b");
    request.pEntityBody = strdup("body");
    request.uiBodyLength = 4;
    request.ucNumOfGeneralHeaders = 16;
    request.ucNumOfRequestHeaders = 14;
    request.ucNumOfEntityHeaders = 16;
    for (HttpHeader& header : request.aGeneralHeaders) ASSERT_EQ(AllocHeader(&header, "n", "v"), 0);
    for (HttpHeader& header : request.aRequestHeaders) ASSERT_EQ(AllocHeader(&header, "n", "v"), 0);
    request.aEntityHeaders[0].name = strdup("half-filled");
    for (int i = 0; i < 2; ++i) {
        FreeHttpRequest(&request);
        EXPECT_EQ(request.pszUri, nullptr);
        EXPECT_EQ(request.pszBoundary, nullptr);
        EXPECT_EQ(request.pEntityBody, nullptr);
        EXPECT_EQ(request.uiBodyLength, 0U);
        EXPECT_EQ(request.ucNumOfGeneralHeaders, 0);
        EXPECT_EQ(request.ucNumOfRequestHeaders, 0);
        EXPECT_EQ(request.ucNumOfEntityHeaders, 0);
        EXPECT_EQ(request.aGeneralHeaders[15].name, nullptr);
        EXPECT_EQ(request.aRequestHeaders[13].value, nullptr);
        EXPECT_EQ(request.aEntityHeaders[0].name, nullptr);
    }
}

TEST_F(FreeHttpRequestDeathTest, AssertsItsArgumentAndTheCounts) {
    const std::string function = "FreeHttpRequest";
    EXPECT_DEATH(FreeHttpRequest(nullptr), Assertion(function, "pRequest != __null"));
    HttpRequest general{};
    general.ucNumOfGeneralHeaders = 17;
    EXPECT_DEATH(FreeHttpRequest(&general), Assertion(function, "pRequest->ucNumOfGeneralHeaders <= 16"));
    HttpRequest request{};
    request.ucNumOfRequestHeaders = 15;
    EXPECT_DEATH(FreeHttpRequest(&request), Assertion(function, "pRequest->ucNumOfRequestHeaders <= 14"));
    HttpRequest entity{};
    entity.ucNumOfEntityHeaders = 17;
    EXPECT_DEATH(FreeHttpRequest(&entity), Assertion(function, "pRequest->ucNumOfEntityHeaders <= 16"));
}

} // namespace
