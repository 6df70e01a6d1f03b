#include "http/httpreq.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/exchange.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace {

using rdx::test::CallsOf;
using rdx::test::CaptureStdout;
using rdx::test::Cut;
using rdx::test::CutsOf;
using rdx::test::Exchange;
using rdx::test::FailCall;
using rdx::test::GuardedBytes;
using rdx::test::Wire;
using namespace std::string_literals;

static_assert(HTTP_SEND_BUFFER_SIZE == 132096);

constexpr unsigned char kForms[] = {0, 1}; // as it is sent, as a page

// A request that owns what its record points to. The body ends right before an unreadable page.
class Request {
public:
    explicit Request(unsigned char method = HTTP_GET, unsigned char version = 11, const char* uri = "/a?b=c")
        : lists_{{{record_.aGeneralHeaders, &record_.ucNumOfGeneralHeaders},
                  {record_.aRequestHeaders, &record_.ucNumOfRequestHeaders},
                  {record_.aEntityHeaders, &record_.ucNumOfEntityHeaders}}} {
        record_.ucMethod = method;
        record_.ucHttpVersion = version;
        record_.pszUri = Keep(uri);
    }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Adds a header to the general (0), request (1) or entity headers (2). Null stays null.
    Request& Header(std::size_t list, const char* name, const char* value) {
        lists_[list].headers[(*lists_[list].count)++] = {Keep(name), Keep(value)};
        return *this;
    }

    Request& Body(std::string_view body) {
        body_ = std::make_unique<GuardedBytes>(body);
        record_.pEntityBody = body_->begin();
        record_.uiBodyLength = static_cast<unsigned int>(body.size());
        return *this;
    }

    HttpRequest* get() { return &record_; }
    HttpRequest* operator->() { return &record_; }

private:
    struct List {
        std::span<HttpHeader> headers;
        unsigned char* count;
    };

    char* Keep(const char* text) { return text == nullptr ? nullptr : texts_.emplace_back(text).data(); }

    HttpRequest record_{};
    std::array<List, 3> lists_;
    std::deque<std::string> texts_;
    std::unique_ptr<GuardedBytes> body_;
};

// The bytes written into a buffer of `size` that ends before an unreadable page, or the failure as "#-2".
std::string Write(Request& request, unsigned char form, std::size_t size = 4096) {
    const GuardedBytes buffer(std::string(size, '#'));
    const int result =
        SerializeHttpRequest(request.get(), buffer.begin(), static_cast<unsigned int>(size), form);
    if (result <= 0) return "#" + std::to_string(result);
    return {buffer.begin(), static_cast<std::size_t>(result)};
}

std::string Sent(Request& request) { return Write(request, 0); }
std::string Page(Request& request) { return Write(request, 1); }

// A request that fills everything that is written.
struct FullRequest : Request {
    explicit FullRequest(unsigned char method = HTTP_POST) : Request(method, 11, "/rDx?FunctionName=f") {
        Header(0, "Connection", "close").Header(0, "Via", "1.0 a");
        Header(1, "Host", "h").Header(1, "Accept", "*/*");
        Header(2, "Content-type", "text/xml").Header(2, "Content-length", "4");
        Body("<b/>");
    }
};

const std::string kFullSent = "POST/rDx?FunctionName=f HTTP/1.1\r\n"
                              "Connection: close\r\nVia: 1.0 a\r\n"
                              "Host: h\r\nAccept: */*\r\n"
                              "Content-type: text/xml\r\nContent-length: 4\r\n"
                              "\r\n"
                              "<b/>";
const std::string kFullPage =
    "<HTML><BODY><TT><B>POST</B> /rDx?FunctionName=f HTTP/1.1\r\n<BR>"
    "<BR>general headers:<BR><BLOCKQUOTE>"
    "<B>Connection</B>:<EM>&nbsp;close\r\n</EM><BR><B>Via</B>:<EM>&nbsp;1.0 a\r\n</EM><BR></BLOCKQUOTE>"
    "request specific headers:<BR><BLOCKQUOTE>"
    "<B>Host</B>:<EM>&nbsp;h\r\n</EM><BR><B>Accept</B>:<EM>&nbsp;*/*\r\n</EM><BR></BLOCKQUOTE>"
    "entity headers:<BR><BLOCKQUOTE>"
    "<B>Content-type</B>:<EM>&nbsp;text/xml\r\n</EM><BR><B>Content-length</B>:<EM>&nbsp;4\r\n</EM><BR>"
    "</BLOCKQUOTE>"
    "\r\n"
    "entity body:<BR><BLOCKQUOTE><b/></BLOCKQUOTE><BR>"
    "</BODY></HTML>";

TEST(SerializeHttpRequest, WritesTheRequestLine) {
    const struct {
        unsigned char method, version;
        const char* sent;
        const char* page;
    } rows[] = {
        {HTTP_GET, 10, "GET /a?b=c HTTP/1.0\r\n", "<B>GET</B> /a?b=c HTTP/1.0\r\n"},
        {HTTP_GET, 11, "GET /a?b=c HTTP/1.1\r\n", "<B>GET</B> /a?b=c HTTP/1.1\r\n"},
        {HTTP_POST, 10, "POST/a?b=c HTTP/1.0\r\n", "<B>POST</B> /a?b=c HTTP/1.0\r\n"},
        {HTTP_POST, 11, "POST/a?b=c HTTP/1.1\r\n", "<B>POST</B> /a?b=c HTTP/1.1\r\n"},
    };
    for (const auto& row : rows) {
        Request request(row.method, row.version);
        EXPECT_EQ(Sent(request), row.sent + "\r\n"s);
        EXPECT_EQ(Page(request), "<HTML><BODY><TT>"s + row.page + "<BR>\r\n</BODY></HTML>");
    }
}

TEST(SerializeHttpRequest, WritesEverythingInItsPlace) {
    FullRequest request;
    EXPECT_EQ(Sent(request), kFullSent);
    EXPECT_EQ(Page(request), kFullPage);
}

TEST(SerializeHttpRequest, TakesAnyFlagButZeroForAPage) {
    FullRequest request;
    for (const int flag : {2, 128, 255}) {
        EXPECT_EQ(Write(request, static_cast<unsigned char>(flag)), kFullPage);
    }
}

// Each of the three lists empty or not, without a body and with one.
TEST(SerializeHttpRequest, LeavesOutTheTitlesOfEmptyLists) {
    constexpr const char* kTitles[] = {
        "<BR>general headers:", "request specific headers:", "entity headers:"};
    for (unsigned filled = 0; filled < 16; ++filled) {
        Request request;
        std::string sent = "GET /a?b=c HTTP/1.1\r\n";
        std::string page = "<HTML><BODY><TT><B>GET</B> /a?b=c HTTP/1.1\r\n<BR>";
        for (unsigned list = 0; list < 3; ++list) {
            if ((filled >> list & 1U) == 0) continue;
            request.Header(list, "Name", "value");
            sent += "Name: value\r\n";
            page += kTitles[list] + "<BR><BLOCKQUOTE><B>Name</B>:<EM>&nbsp;value\r\n</EM><BR></BLOCKQUOTE>"s;
        }
        sent += "\r\n";
        page += "\r\n";
        if (filled >= 8) {
            request.Body("body");
            sent += "body";
            page += "entity body:<BR><BLOCKQUOTE>body</BLOCKQUOTE><BR>";
        }
        EXPECT_EQ(Sent(request), sent) << filled;
        EXPECT_EQ(Page(request), page + "</BODY></HTML>") << filled;
    }
}

TEST(SerializeHttpRequest, WritesFullLists) {
    constexpr std::array<std::size_t, 3> kCapacities = {HTTP_MAX_GENERAL_HEADERS, HTTP_MAX_REQUEST_HEADERS,
                                                        HTTP_MAX_ENTITY_HEADERS};
    Request request;
    std::string headers;
    for (std::size_t list = 0; list < kCapacities.size(); ++list) {
        for (std::size_t i = 0; i < kCapacities[list]; ++i) {
            const std::string name = std::to_string(list) + "-" + std::to_string(i);
            request.Header(list, name.c_str(), "v");
            headers += name + ": v\r\n";
        }
    }
    const std::string sent = "GET /a?b=c HTTP/1.1\r\n" + headers + "\r\n";
    EXPECT_EQ(Sent(request), sent);
    for (unsigned char* count :
         {&request->ucNumOfGeneralHeaders, &request->ucNumOfRequestHeaders, &request->ucNumOfEntityHeaders}) {
        *count = 255;
        EXPECT_EQ(Sent(request), sent) << "a list that has overflowed is not left";
    }
}

TEST(SerializeHttpRequest, CopiesTheBodyAsItIs) {
    for (const std::string& body : {"a\0b\0"s, "\0"s, "<script>&amp;</BODY>\"'"s, "\r\n\r\n"s, "\xff\x80"s}) {
        Request request;
        request.Body(body);
        EXPECT_EQ(Sent(request), "GET /a?b=c HTTP/1.1\r\n\r\n" + body);
        EXPECT_EQ(Page(request), "<HTML><BODY><TT><B>GET</B> /a?b=c HTTP/1.1\r\n<BR>\r\n"
                                 "entity body:<BR><BLOCKQUOTE>" +
                                     body + "</BLOCKQUOTE><BR></BODY></HTML>");
    }
}

TEST(SerializeHttpRequest, WritesTheBodyThatItsLengthTells) {
    Request request;
    request.Body("body");
    request->uiBodyLength = 2;
    EXPECT_EQ(Sent(request), "GET /a?b=c HTTP/1.1\r\n\r\nbo");
    request->uiBodyLength = 0;
    EXPECT_EQ(Sent(request), "GET /a?b=c HTTP/1.1\r\n\r\n");
    EXPECT_EQ(Page(request), "<HTML><BODY><TT><B>GET</B> /a?b=c HTTP/1.1\r\n<BR>\r\n</BODY></HTML>");
}

TEST(SerializeHttpRequest, FindsNoBytesInABodyThatIsNotThere) {
    Request request;
    request->uiBodyLength = 3;
    for (const unsigned char form : kForms) EXPECT_EQ(Write(request, form), "#-2");
}

TEST(SerializeHttpRequest, NeedsTwoBytesMoreThanItWrites) {
    Request bodiless;
    FullRequest full;
    for (Request* request : {&bodiless, static_cast<Request*>(&full)}) {
        for (const unsigned char form : kForms) {
            const std::string whole = Write(*request, form);
            for (std::size_t size = 1; size < whole.size() + 2; ++size) {
                ASSERT_EQ(Write(*request, form, size), "#-2") << size;
            }
            EXPECT_EQ(Write(*request, form, whole.size() + 2), whole);
        }
    }
}

TEST(SerializeHttpRequest, RefusesWhatIsMissing) {
    FullRequest request;
    char buffer[8];
    for (const unsigned char form : kForms) {
        EXPECT_EQ(SerializeHttpRequest(nullptr, buffer, sizeof buffer, form), -1);
        EXPECT_EQ(SerializeHttpRequest(nullptr, nullptr, 0, form), -1);
        EXPECT_EQ(SerializeHttpRequest(request.get(), nullptr, 4096, form), -2);
        EXPECT_EQ(SerializeHttpRequest(request.get(), buffer, 0, form), -2);
    }
}

TEST(SerializeHttpRequest, KnowsTwoMethods) {
    for (int method = 0; method < 256; ++method) {
        Request request(static_cast<unsigned char>(method));
        const bool known = method == HTTP_GET || method == HTTP_POST;
        for (const unsigned char form : kForms) EXPECT_EQ(Write(request, form) == "#-501", !known) << method;
    }
}

TEST(SerializeHttpRequest, KnowsTwoVersions) {
    for (int version = 0; version < 256; ++version) {
        Request request(HTTP_GET, static_cast<unsigned char>(version));
        const bool known = version == 10 || version == 11;
        for (const unsigned char form : kForms) EXPECT_EQ(Write(request, form) == "#-505", !known) << version;
    }
}

TEST(SerializeHttpRequest, FailsOnEmptyTexts) {
    for (const char* empty : {"", static_cast<const char*>(nullptr)}) {
        for (const unsigned char form : kForms) {
            Request uri(HTTP_GET, 11, empty);
            EXPECT_EQ(Write(uri, form), "#-9");
            for (std::size_t list = 0; list < 3; ++list) {
                Request name;
                EXPECT_EQ(Write(name.Header(list, empty, "value"), form), "#-9");
                Request value;
                EXPECT_EQ(Write(value.Header(list, "Name", empty), form), "#-9");
            }
        }
    }
}

TEST(SerializeHttpRequest, GivesTheCauseThatIsMetFirst) {
    const struct {
        const char* why;
        unsigned char method, version;
        const char* uri;
        std::size_t size;
        const char* sent;
        const char* page;
    } rows[] = {
        {"the method is looked at before all else", HTTP_PUT, 9, "", 4096, "#-501", "#-501"},
        {"a page has something before the method", HTTP_PUT, 11, "/", 17, "#-501", "#-2"},
        {"the URI comes before the version", HTTP_GET, 9, "", 4096, "#-9", "#-9"},
        {"no room for the URI", HTTP_GET, 9, "/abcdefgh", 13, "#-2", "#-2"},
        {"a version that is not known needs no room", HTTP_GET, 9, "/", 64, "#-505", "#-505"},
        {"no room comes before an empty header", HTTP_GET, 11, "/", 8, "#-2", "#-2"},
    };
    for (const auto& row : rows) {
        Request request(row.method, row.version, row.uri);
        request.Header(0, "Via", "");
        EXPECT_EQ(Write(request, 0, row.size), row.sent) << row.why;
        EXPECT_EQ(Write(request, 1, row.size), row.page) << row.why;
    }
}

TEST(SerializeHttpRequest, LeavesTheRequestAsItIs) {
    FullRequest request;
    HttpRequest before;
    std::memcpy(&before, request.get(), sizeof before);
    for (const unsigned char form : kForms) {
        Write(request, form);
        Write(request, form, 20);
        EXPECT_EQ(std::memcmp(&before, request.get(), sizeof before), 0);
    }
}

TEST(SerializeHttpRequest, WritesWhatWasRead) {
    const std::string bytes = "GET /rDx?a=b HTTP/1.0\r\nConnection: close\r\nHost: h\r\nAccept: */*\r\n"
                              "Content-length: 4\r\nExpires: 0\r\n\r\nb\0dy"s;
    const Exchange wire(bytes);
    aiMethodsAllowed[HTTP_GET] = 1;
    const CaptureStdout quiet;
    HttpRequest* request = nullptr;
    ASSERT_EQ(ConsumeHttpRequest(wire.Socket(), &request), 200);
    char buffer[512];
    const int length = SerializeHttpRequest(request, buffer, sizeof buffer, 0);
    ASSERT_GT(length, 0);
    EXPECT_EQ(std::string_view(buffer, static_cast<std::size_t>(length)), bytes);
    FreeHttpRequest(request);
    std::free(request);
}

// Sending -----------------------------------------------------------------------------------------------

struct FreeResponse {
    void operator()(HttpResponse* response) const {
        FreeHttpResponse(response);
        std::free(response);
    }
};
using Response = std::unique_ptr<HttpResponse, FreeResponse>;

struct Answered {
    int result;
    Response response;

    std::string Body() const { return {response->pEntityBody, response->uiBodyLength}; }
};

Answered Send(int socket, Request& request) {
    HttpResponse before{};
    HttpResponse* response = &before; // must not be left
    const int result = SendHttpRequest(socket, request.get(), &response);
    EXPECT_EQ(result == 0, response != nullptr);
    EXPECT_NE(response, &before);
    return {result, Response(response)};
}

const std::string kOk = "HTTP/1.1 200 OK\r\nServer: s\r\nContent-length: 4\r\n\r\nb\0dy"s;

class SendHttpRequestTest : public testing::Test {
protected:
    SendHttpRequestTest() {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        std::signal(SIGPIPE, SIG_IGN);
    }
};

TEST_F(SendHttpRequestTest, SendsTheRequestAndReadsTheAnswer) {
    for (const Exchange::Then then : {Exchange::Then::Close, Exchange::Then::StayOpen}) {
        const Exchange exchange(kOk, then);
        FullRequest request;
        const Answered answered = Send(exchange.Socket(), request);
        ASSERT_EQ(answered.result, 0);
        EXPECT_EQ(exchange.Sent(), kFullSent);
        EXPECT_EQ(answered.response->ucHttpVersion, 11);
        EXPECT_EQ(answered.response->usStatusCode, 200);
        EXPECT_STREQ(answered.response->pszReason, "OK");
        EXPECT_EQ(answered.response->ucNumOfResponseHeaders, 1);
        EXPECT_EQ(answered.Body(), "b\0dy"s);
    }
}

TEST_F(SendHttpRequestTest, AcceptsEveryStatus) {
    for (const char* status : {"404 Not found", "500 x", "100 Continue", "599 y"}) {
        const Exchange exchange("HTTP/1.0 "s + status + "\r\nServer: s\r\n\r\n");
        Request request;
        const Answered answered = Send(exchange.Socket(), request);
        ASSERT_EQ(answered.result, 0) << status;
        EXPECT_EQ(answered.response->usStatusCode, std::atoi(status));
        EXPECT_EQ(answered.response->uiBodyLength, 0U);
    }
}

TEST_F(SendHttpRequestTest, KeepsTheConnectionForTheNextRequest) {
    const Exchange exchange(kOk + kOk + "rest", Exchange::Then::StayOpen);
    for (int turn = 0; turn < 2; ++turn) {
        Request request;
        const Answered answered = Send(exchange.Socket(), request);
        ASSERT_EQ(answered.result, 0);
        EXPECT_EQ(answered.Body(), "b\0dy"s);
        EXPECT_EQ(exchange.Sent(), "GET /a?b=c HTTP/1.1\r\n\r\n");
    }
    EXPECT_EQ(exchange.Unread(), 4) << "what follows an answer stays in the socket";
}

TEST_F(SendHttpRequestTest, ReadsTheAnswerAtEveryCut) {
    for (const Cut& cut : CutsOf(kOk)) {
        const Wire wire(cut.pieces, Wire::Then::StayOpen);
        Request request;
        const Answered answered = Send(wire.Socket(), request);
        ASSERT_EQ(answered.result, 0) << cut.name;
        EXPECT_EQ(answered.Body(), "b\0dy"s) << cut.name;
    }
}

TEST_F(SendHttpRequestTest, FailsWithoutAnAnswerThatCanBeRead) {
    const struct {
        const char* why;
        std::string answer;
    } rows[] = {
        {"closed without a word", ""},
        {"rubbish", "rubbish without end"},
        {"a page instead", "<HTML><BODY>\r\n\r\n"},
        {"cut in the status line", "HTTP/1.1 20"},
        {"no reason", "HTTP/1.1 200\r\nServer: s\r\n\r\n"},
        {"unknown version", "HTTP/2.0 200 OK\r\nServer: s\r\n\r\n"},
        {"status out of range", "HTTP/1.1 600 x\r\nServer: s\r\n\r\n"},
        {"no header", "HTTP/1.1 200 OK\r\n\r\n"},
        {"cut behind the status line", "HTTP/1.1 200 OK\r\n"},
        {"unknown header", "HTTP/1.1 200 OK\r\nX-Custom: 1\r\n\r\n"},
        {"body of no length", "HTTP/1.1 200 OK\r\nContent-length: 0\r\n\r\n"},
        {"no body", "HTTP/1.1 200 OK\r\nContent-length: 4\r\n\r\n"},
        {"short body", "HTTP/1.1 200 OK\r\nContent-length: 4\r\n\r\nbod"},
        {"a line too long", "HTTP/1.1 200 " + std::string(512, 'x') + "\r\n\r\n"},
    };
    for (const auto& row : rows) {
        const Exchange exchange(row.answer);
        Request request;
        EXPECT_EQ(Send(exchange.Socket(), request).result, -6) << row.why;
        EXPECT_EQ(exchange.Sent(), "GET /a?b=c HTTP/1.1\r\n\r\n") << row.why;
    }
}

TEST_F(SendHttpRequestTest, FailsWhenReceivingDoes) {
    const Exchange exchange(kOk);
    Request request;
    const FailCall reset("recv", 1, ECONNRESET);
    EXPECT_EQ(Send(exchange.Socket(), request).result, -6);
    EXPECT_TRUE(reset.Struck());
}

TEST_F(SendHttpRequestTest, SendsNothingThatCannotBeWritten) {
    Request put(HTTP_PUT);
    Request version(HTTP_GET, 12);
    Request empty;
    empty.Header(1, "Authorization", "");
    Request nowhere(HTTP_GET, 11, nullptr);
    for (Request* request : {&put, &version, &empty, &nowhere}) {
        const Exchange exchange(kOk);
        EXPECT_EQ(Send(exchange.Socket(), *request).result, -3);
        EXPECT_EQ(exchange.Sent(), "");
        EXPECT_EQ(exchange.Unread(), static_cast<int>(kOk.size()));
    }
}

TEST_F(SendHttpRequestTest, SendsAsMuchAsItsBufferHolds) {
    const std::string head = "GET /a?b=c HTTP/1.1\r\n\r\n";
    const std::size_t most = HTTP_SEND_BUFFER_SIZE - 2 - head.size();
    Request largest;
    const Exchange exchange(kOk);
    EXPECT_EQ(Send(exchange.Socket(), largest.Body(std::string(most, 'x'))).result, 0);
    EXPECT_EQ(exchange.Sent(), head + std::string(most, 'x'));
    Request larger;
    EXPECT_EQ(Send(exchange.Socket(), larger.Body(std::string(most + 1, 'x'))).result, -3);
    EXPECT_EQ(exchange.Sent(), "");
}

TEST_F(SendHttpRequestTest, FailsWhenItCannotSend) {
    Request request;
    for (const int error : {EPIPE, ECONNRESET}) {
        const Exchange exchange(kOk);
        const FailCall broken("send", 1, error);
        EXPECT_EQ(Send(exchange.Socket(), request).result, -4);
        EXPECT_TRUE(broken.Struck());
        EXPECT_EQ(exchange.Unread(), static_cast<int>(kOk.size())) << "no answer is waited for";
    }
    Exchange gone(kOk);
    gone.CloseFar();
    EXPECT_EQ(Send(gone.Socket(), request).result, -4);
    EXPECT_EQ(Send(-1, request).result, -4);
}

TEST_F(SendHttpRequestTest, FailsWhenOnlyAPartWasTaken) {
    const Exchange exchange(kOk);
    const int small = 4096;
    setsockopt(exchange.Socket(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    fcntl(exchange.Socket(), F_SETFL, O_NONBLOCK);
    Request request;
    EXPECT_EQ(Send(exchange.Socket(), request.Body(std::string(100'000, 'x'))).result, -4);
    EXPECT_LT(exchange.Sent().size(), 100'000U);
}

TEST_F(SendHttpRequestTest, NeedsMemoryForItsBuffer) {
    const Exchange exchange(kOk);
    Request request;
    const FailCall noMemory("malloc");
    EXPECT_EQ(Send(exchange.Socket(), request).result, -1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(exchange.Sent(), "");
}

// Whatever allocation fails, there is an answer or a code, and nothing leaks.
TEST_F(SendHttpRequestTest, SurvivesEveryFailedAllocation) {
    const struct {
        const char* allocator;
        std::vector<int> results; // of the first, the second failed call and so on
    } rows[] = {
        {"calloc", {-6}}, // the answer
        // the buffer, the reason, a header's name and value (it is ignored), the length's, the body
        {"malloc", {-1, -6, 0, 0, 0, 0, -6}},
    };
    for (const auto& row : rows) {
        int nth = 0;
        for (const int result : row.results) {
            const Exchange exchange(kOk);
            Request request;
            const FailCall noMemory(row.allocator, ++nth);
            EXPECT_EQ(Send(exchange.Socket(), request).result, result) << row.allocator << " " << nth;
            EXPECT_TRUE(noMemory.Struck());
        }
        const Exchange exchange(kOk);
        Request request;
        const int before = CallsOf(row.allocator);
        EXPECT_EQ(Send(exchange.Socket(), request).result, 0);
        EXPECT_EQ(CallsOf(row.allocator) - before, nth) << "there are no more";
    }
}

using SendHttpRequestDeathTest = SendHttpRequestTest;

TEST_F(SendHttpRequestDeathTest, AssertsItsArguments) {
    const auto assertion = [](const char* text) {
        return rdx::test::Assertion("http/request_writer.cpp", "SendHttpRequest", text);
    };
    Request request;
    HttpResponse* response = nullptr;
    EXPECT_DEATH(SendHttpRequest(-1, nullptr, &response), assertion("pRequest != __null"));
    EXPECT_DEATH(SendHttpRequest(-1, nullptr, nullptr), assertion("pRequest != __null"));
    EXPECT_DEATH(SendHttpRequest(-1, request.get(), nullptr), assertion("ppResponse != __null"));
}

} // namespace
