#include "client/tnp.h"

#include "common/config.h"
#include "common/shared.h"
#include "tests/support/assertion.h"
#include "tests/support/exchange.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace {

using rdx::test::Assertion;
using rdx::test::CallsOf;
using rdx::test::Cut;
using rdx::test::CutsOf;
using rdx::test::Exchange;
using rdx::test::FailCall;
using rdx::test::GuardedBytes;
using rdx::test::Wire;
using namespace std::string_literals;

constexpr const char* kSource = "client/tnp.cpp";
constexpr const char* kCredentials = "Basic dXNlcjpwYXNz";

class TnpTest : public testing::Test {
protected:
    TnpTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
        rdx::StoreSharedText(szAuthInfo, kCredentials);
    }

    static void SetTerminator(unsigned char on, const char* text) {
        rdx::StoreShared(ucEntityTerminator, on);
        rdx::StoreSharedText(szEntityTerminator, text);
    }
};

// A record that held something else before.
class Call {
public:
    Call() { std::memset(&record_, 0xa5, sizeof record_); }
    ~Call() { FreeHttpRequest(&record_); }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

    HttpRequest* get() { return &record_; }
    HttpRequest* operator->() { return &record_; }

    // The request as it is sent, or the failure as "#-2".
    std::string Sent() {
        std::string buffer(HTTP_SEND_BUFFER_SIZE, '#');
        const int result = SerializeHttpRequest(&record_, buffer.data(), HTTP_SEND_BUFFER_SIZE, 0);
        return result > 0 ? buffer.substr(0, static_cast<std::size_t>(result)) : "#" + std::to_string(result);
    }

private:
    HttpRequest record_;
};

// What a call of function "f" at host "h" sends.
std::string Sent(const std::string& connection, const std::string& length, const std::string& body) {
    return "GET /Tavrin?FunctionName=f HTTP/1.1\r\n"
           "Connection: " +
           connection +
           "\r\n"
           "Host: h\r\n"
           "User-Agent: VXL tnp/0.1\r\n"
           "Accept: */*\r\n"
           "Authorization: Basic dXNlcjpwYXNz\r\n"
           "Content-type: text/xml\r\n"
           "Content-length: " +
           length + "\r\n\r\n" + body;
}

// Building ----------------------------------------------------------------------------------------------

using BuildTest = TnpTest;

void ExpectHeader(const HttpHeader& header, const char* name, const char* value) {
    EXPECT_STREQ(header.name, name);
    EXPECT_STREQ(header.value, value);
}

TEST_F(BuildTest, FillsTheWholeRecord) {
    Call call;
    ASSERT_EQ(BuildTavrinRequestExt(call.get(), "host.example", "rdxGetVersion", "<args/>", 1), 0);
    EXPECT_EQ(call->ucMethod, HTTP_GET);
    EXPECT_EQ(call->ucHttpVersion, 11);
    EXPECT_STREQ(call->pszUri, "/Tavrin?FunctionName=rdxGetVersion");
    EXPECT_STREQ(call->pEntityBody, "<args/>");
    EXPECT_EQ(call->uiBodyLength, 7U);
    ASSERT_EQ(call->ucNumOfGeneralHeaders, 1);
    ExpectHeader(call->aGeneralHeaders[0], "Connection", "close");
    ASSERT_EQ(call->ucNumOfRequestHeaders, 4);
    ExpectHeader(call->aRequestHeaders[0], "Host", "host.example");
    ExpectHeader(call->aRequestHeaders[1], "User-Agent", "VXL tnp/0.1");
    ExpectHeader(call->aRequestHeaders[2], "Accept", "*/*");
    ExpectHeader(call->aRequestHeaders[3], "Authorization", kCredentials);
    ASSERT_EQ(call->ucNumOfEntityHeaders, 2);
    ExpectHeader(call->aEntityHeaders[0], "Content-type", "text/xml");
    ExpectHeader(call->aEntityHeaders[1], "Content-length", "7");
}

TEST_F(BuildTest, ForgetsWhatTheRecordHeld) {
    Call call;
    ASSERT_EQ(BuildTavrinRequestExt(call.get(), "h", "f", "x", 1), 0);
    EXPECT_STREQ(call->pszSeparator, "");
    EXPECT_EQ(call->ucMultipart, 0);
    EXPECT_EQ(call->ucKeepAlive, 0);
    EXPECT_EQ(call->ucBoundaryLen, 0);
    EXPECT_EQ(call->pszBoundary, nullptr);
    EXPECT_EQ(call->iSocket, 0);
    EXPECT_EQ(std::string_view(call->szPeerName, sizeof call->szPeerName),
              std::string(sizeof call->szPeerName, '\0'));
    const HttpHeader& behind = call->aRequestHeaders[4];
    EXPECT_EQ(behind.name, nullptr);
    EXPECT_EQ(behind.value, nullptr);
}

TEST_F(BuildTest, IsSentInThisOrder) {
    Call call;
    ASSERT_EQ(BuildTavrinRequestExt(call.get(), "h", "f", "<args/>", 1), 0);
    EXPECT_EQ(call.Sent(), Sent("close", "7", "<args/>"));
}

TEST_F(BuildTest, ClosesTheConnectionOnlyForAOne) {
    for (int close = 0; close < 256; ++close) {
        Call call;
        ASSERT_EQ(BuildTavrinRequestExt(call.get(), "h", "f", "x", static_cast<unsigned char>(close)), 0);
        EXPECT_STREQ(call->aGeneralHeaders[0].value, close == 1 ? "close" : "keep-alive") << close;
    }
}

TEST_F(BuildTest, KeepsTheConnectionWithoutAChoice) {
    Call call;
    ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", "<args/>"), 0);
    EXPECT_EQ(call.Sent(), Sent("keep-alive", "7", "<args/>"));
}

TEST_F(BuildTest, EncodesNothingOfTheFunction) {
    for (const std::string function : {"", "a b", "f&SvcTicket=42", "%20/?\xff", "\"<>"}) {
        Call call;
        ASSERT_EQ(BuildTavrinRequest(call.get(), "h", function.c_str(), "x"), 0);
        EXPECT_EQ(call->pszUri, "/Tavrin?FunctionName=" + function);
    }
}

TEST_F(BuildTest, SendsTheTerminatorBehindTheBodyAndDoesNotCountIt) {
    const struct {
        unsigned char on;
        const char* terminator;
        const char* body;
        const char* sent;
        const char* length;
    } rows[] = {
        {0, "END", "<args/>", "<args/>", "7"},
        {1, "END", "<args/>", "<args/>END", "7"},
        {1, "", "<args/>", "<args/>", "7"},
        {2, "END", "<args/>", "<args/>END", "7"},
        {1, "END", "", "END", "0"},
        {1, "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef", "<args/>",
         "<args/>0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef", "7"},
    };
    for (const auto& row : rows) {
        SetTerminator(row.on, row.terminator);
        Call call;
        ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", row.body), 0);
        EXPECT_STREQ(call->pEntityBody, row.sent);
        EXPECT_EQ(call->uiBodyLength, std::strlen(row.sent));
        EXPECT_EQ(call.Sent(), Sent("keep-alive", row.length, row.sent));
    }
}

TEST_F(BuildTest, CountsLongBodies) {
    const std::string body(65536, 'x');
    Call call;
    ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", body.c_str()), 0);
    EXPECT_EQ(call.Sent(), Sent("keep-alive", "65536", body));
}

TEST_F(BuildTest, SendsAnEmptyBodyWithALengthOfZero) {
    Call call;
    ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", ""), 0);
    EXPECT_STREQ(call->pEntityBody, "");
    EXPECT_EQ(call->uiBodyLength, 0U);
    EXPECT_EQ(call.Sent(), Sent("keep-alive", "0", ""));
}

TEST_F(BuildTest, SendsTheLongestCredentials) {
    const std::string longest = "Basic " + std::string(48, 'x');
    static_assert(sizeof szAuthInfo == 6 + 48 + 1);
    rdx::StoreSharedText(szAuthInfo, longest);
    Call call;
    ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", "x"), 0);
    EXPECT_EQ(call->aRequestHeaders[3].value, longest);
}

TEST_F(BuildTest, GivesAnEmptyHeaderWithoutCredentials) {
    rdx::StoreSharedText(szAuthInfo, "");
    Call call;
    ASSERT_EQ(BuildTavrinRequest(call.get(), "h", "f", "x"), 0);
    ExpectHeader(call->aRequestHeaders[3], "Authorization", "");
    EXPECT_EQ(call.Sent(), "#-9");
}

TEST_F(BuildTest, NeedsABody) {
    Call call;
    EXPECT_EQ(BuildTavrinRequestExt(call.get(), "h", "f", nullptr, 1), -1);
    EXPECT_EQ(call->pEntityBody, nullptr);
    EXPECT_EQ(call->uiBodyLength, 0U);
    Call same;
    EXPECT_EQ(BuildTavrinRequest(same.get(), "h", "f", nullptr), -1);
}

// What a call gives when nothing fails, and when each allocation fails in turn, the last one first, down to
// the first header's, before which memory is asserted. Of results alike in a row there is one.
template <typename Call>
std::vector<int> ResultsWithoutMemory(Call call) {
    int nth = CallsOf("malloc");
    std::vector<int> results = {call()};
    nth = CallsOf("malloc") - nth;
    const auto isAtFirstHeader = [&] {
        return results.size() > 1 && results.back() == -1 && results[results.size() - 2] == -2;
    };
    for (; nth > 0 && !isAtFirstHeader(); --nth) {
        const FailCall noMemory("malloc", nth);
        const int result = call();
        if (result != results.back()) results.push_back(result);
        EXPECT_TRUE(noMemory.Struck());
    }
    return results;
}

TEST_F(BuildTest, NamesTheHeaderThatThereIsNoMemoryFor) {
    const auto build = [] {
        Call call;
        return BuildTavrinRequestExt(call.get(), "h", "f", "x", 1);
    };
    EXPECT_EQ(ResultsWithoutMemory(build), (std::vector{0, -7, -6, -5, -4, -3, -2, -1}));
}

using BuildDeathTest = BuildTest;

TEST_F(BuildDeathTest, AssertsMemoryForUriAndBody) {
    const auto build = [](int nth) {
        HttpRequest request;
        const FailCall noMemory("malloc", nth);
        BuildTavrinRequestExt(&request, "h", "f", "x", 1);
    };
    EXPECT_DEATH(build(1), Assertion(kSource, "BuildTavrinRequestExt", "pRequest->pszUri != __null"));
    EXPECT_DEATH(build(2), Assertion(kSource, "BuildTavrinRequestExt", "pRequest->pEntityBody != __null"));
}

TEST_F(BuildDeathTest, AssertsAHost) {
    HttpRequest request;
    EXPECT_DEATH(BuildTavrinRequest(&request, nullptr, "f", "x"),
                 Assertion("http/request_headers.cpp", "AddHeader2Request", "pHeader->value != __null"));
}

// Calling -----------------------------------------------------------------------------------------------

const std::string kBody = "<answer\0/>"s;
const std::string kOk = "HTTP/1.1 200 OK\r\nContent-length: 10\r\n\r\n" + kBody;

// A call with room for so many bytes, right before an unreadable page.
struct Query {
    explicit Query(int socket, unsigned int room = 64) : size(room) {
        const GuardedBytes buffer(std::string(room, '#'));
        result = QueryTavrinExt(socket, "h", nullptr, "<args/>", "f", 1, buffer.begin(), &size);
        text.assign(buffer.begin(), buffer.end());
    }

    unsigned int size; // as it was left
    int result;
    std::string text;
};

class QueryTest : public TnpTest {
protected:
    // Calls that fail leave size and buffer alone.
    static void ExpectFails(int socket, int result) {
        const Query query(socket, 8);
        EXPECT_EQ(query.result, result);
        EXPECT_EQ(query.size, 8U);
        EXPECT_EQ(query.text, "########");
    }
};

TEST_F(QueryTest, SendsTheCallAndCopiesTheAnswersBody) {
    const Exchange exchange(kOk);
    const Query query(exchange.Socket(), 12);
    EXPECT_EQ(query.result, 0);
    EXPECT_EQ(query.size, 10U);
    EXPECT_EQ(query.text, kBody + "##") << "without a NUL";
    EXPECT_EQ(exchange.Sent(), Sent("close", "7", "<args/>"));
}

TEST_F(QueryTest, CutsABodyThatDoesNotFitAndTellsItsLength) {
    const struct {
        unsigned int size;
        int result;
    } rows[] = {{1, -2}, {9, -2}, {10, 0}, {11, 0}};
    for (const auto& row : rows) {
        const Exchange exchange(kOk);
        const Query query(exchange.Socket(), row.size);
        EXPECT_EQ(query.result, row.result) << row.size;
        EXPECT_EQ(query.size, 10U);
        EXPECT_EQ(query.text, (kBody + "#").substr(0, row.size));
    }
}

TEST_F(QueryTest, TakesALongAnswerInTwoTries) {
    const std::string body(1000, 'x');
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-length: 1000\r\n\r\n" + body;
    const Exchange exchange(answer + answer, Exchange::Then::StayOpen);
    const Query first(exchange.Socket(), 100);
    EXPECT_EQ(first.result, -2);
    EXPECT_EQ(first.size, 1000U);
    EXPECT_EQ(first.text, body.substr(0, 100));
    const Query second(exchange.Socket(), first.size);
    EXPECT_EQ(second.result, 0);
    EXPECT_EQ(second.text, body);
}

TEST_F(QueryTest, TakesAnAnswerWithoutABody) {
    const Exchange exchange("HTTP/1.1 200 OK\r\nServer: s\r\n\r\n");
    const Query query(exchange.Socket(), 4);
    EXPECT_EQ(query.result, 0);
    EXPECT_EQ(query.size, 0U);
    EXPECT_EQ(query.text, "####");
}

TEST_F(QueryTest, RefusesEveryOtherStatus) {
    for (const char* status : {"404 Not found", "201 Created", "401 x", "500 x", "100 x", "599 x"}) {
        const Exchange exchange("HTTP/1.1 "s + status + "\r\nContent-length: 3\r\n\r\nabc");
        ExpectFails(exchange.Socket(), -1);
        EXPECT_EQ(exchange.Unread(), 0) << "the answer has been read";
    }
}

TEST_F(QueryTest, ReadsTheAnswerAtEveryCut) {
    for (const Cut& cut : CutsOf(kOk)) {
        const Wire wire(cut.pieces);
        const Query query(wire.Socket(), 10);
        EXPECT_EQ(query.result, 0) << cut.name;
        EXPECT_EQ(query.text, kBody) << cut.name;
    }
}

TEST_F(QueryTest, FailsWithoutAnAnswer) {
    for (const char* answer : {"", "rubbish", "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200 OK\r\n\r\n",
                               "HTTP/1.1 200 OK\r\nContent-length: 10\r\n\r\n<answe"}) {
        const Exchange exchange(answer);
        ExpectFails(exchange.Socket(), -6);
    }
}

TEST_F(QueryTest, FailsWhenItCannotSend) {
    Exchange exchange(kOk);
    exchange.CloseFar();
    ExpectFails(exchange.Socket(), -4);
    ExpectFails(-1, -4);
}

TEST_F(QueryTest, FailsWithoutCredentials) {
    rdx::StoreSharedText(szAuthInfo, "");
    const Exchange exchange(kOk);
    ExpectFails(exchange.Socket(), -3);
    EXPECT_EQ(exchange.Sent(), "");
}

TEST_F(QueryTest, FailsWithACallThatIsTooLong) {
    const Exchange exchange(kOk);
    const std::string arguments(HTTP_SEND_BUFFER_SIZE, 'x');
    char buffer[8];
    unsigned int size = sizeof buffer;
    EXPECT_EQ(QueryTavrin(exchange.Socket(), "h", "", arguments.c_str(), "f", buffer, &size), -3);
    EXPECT_EQ(exchange.Sent(), "");
}

TEST_F(QueryTest, SendsTheTerminator) {
    SetTerminator(1, "END");
    const Exchange exchange(kOk);
    EXPECT_EQ(Query(exchange.Socket()).result, 0);
    EXPECT_EQ(exchange.Sent(), Sent("close", "7", "<args/>END"));
}

TEST_F(QueryTest, ReadsAnAnswersBodyUpToTheTerminator) {
    SetTerminator(1, "END");
    const Exchange whole("HTTP/1.1 200 OK\r\nContent-length: 6\r\n\r\nabcEND", Exchange::Then::StayOpen);
    EXPECT_EQ(Query(whole.Socket(), 8).text, "abcEND##");
    const Exchange early("HTTP/1.1 200 OK\r\nContent-length: 9\r\n\r\nabcEND", Exchange::Then::StayOpen);
    ExpectFails(early.Socket(), -6);
}

TEST_F(QueryTest, ClosesOrKeepsAsItIsTold) {
    const Exchange exchange(kOk + kOk + kOk, Exchange::Then::StayOpen);
    char buffer[16];
    unsigned int size = sizeof buffer;
    EXPECT_EQ(QueryTavrinExt(exchange.Socket(), "h", "unused", "<args/>", "f", 0, buffer, &size), 0);
    EXPECT_EQ(exchange.Sent(), Sent("keep-alive", "7", "<args/>"));
    size = sizeof buffer;
    EXPECT_EQ(QueryTavrinExt(exchange.Socket(), "h", "", "<args/>", "f", 1, buffer, &size), 0);
    EXPECT_EQ(exchange.Sent(), Sent("close", "7", "<args/>"));
    size = sizeof buffer;
    EXPECT_EQ(QueryTavrin(exchange.Socket(), "h", nullptr, "<args/>", "f", buffer, &size), 0);
    EXPECT_EQ(exchange.Sent(), Sent("close", "7", "<args/>"));
    EXPECT_EQ(size, 10U);
    EXPECT_EQ(std::string_view(buffer, size), kBody);
}

// Whatever allocation fails, there is a code or the answer, and nothing leaks.
TEST_F(QueryTest, SurvivesEveryFailedAllocation) {
    const auto query = [] {
        const Exchange exchange(kOk);
        char buffer[16];
        unsigned int size = sizeof buffer;
        return QueryTavrin(exchange.Socket(), "h", nullptr, "<args/>", "f", buffer, &size);
    };
    // The answer's body; its length, which is ignored then; its reason; what the request is sent from; and
    // the request's headers.
    EXPECT_EQ(ResultsWithoutMemory(query), (std::vector{0, -6, 0, -6, -1, -7, -6, -5, -4, -3, -2, -1}));
    const Exchange exchange(kOk);
    const FailCall noMemory("calloc");
    ExpectFails(exchange.Socket(), -6);
    EXPECT_TRUE(noMemory.Struck());
}

using QueryDeathTest = QueryTest;

TEST_F(QueryDeathTest, AssertsItsArguments) {
    char buffer[4];
    unsigned int size = sizeof buffer;
    unsigned int none = 0;
    const auto assertion = [](const char* text) { return Assertion(kSource, "QueryTavrinExt", text); };
    EXPECT_DEATH(QueryTavrinExt(-1, "h", "", nullptr, "f", 1, nullptr, &size),
                 assertion("pszArgs != __null"));
    EXPECT_DEATH(QueryTavrinExt(-1, "h", "", "", "f", 1, nullptr, &size),
                 assertion("strlen( pszArgs ) != 0"));
    EXPECT_DEATH(QueryTavrinExt(-1, "h", "", "x", "f", 1, nullptr, &none), assertion("pBuf != __null"));
    EXPECT_DEATH(QueryTavrinExt(-1, "h", "", "x", "f", 1, buffer, &none), assertion("*puiBufsiz > 0"));
    EXPECT_DEATH(QueryTavrin(-1, "h", "", nullptr, "f", buffer, &size), assertion("pszArgs != __null"));
}

} // namespace
