// Messages and sockets as an outside program sees them.
#include "tests/support/answers.h"
#include "tests/system/loaded.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace rdx::test;

// A request that an outside program has put together.
class RequestByHand {
public:
    explicit RequestByHand(const char* target) { request_.pszUri = strdup(target); }
    ~RequestByHand() { Function<void(HttpRequest*)>("FreeHttpRequest")(&request_); }
    RequestByHand(const RequestByHand&) = delete;
    RequestByHand& operator=(const RequestByHand&) = delete;

    HttpRequest* Get() { return &request_; }

    int Add(std::string name, std::string value) {
        HttpHeader header = {name.data(), value.data()};
        return Function<int(HttpRequest*, HttpHeader*)>("AddHeader2Request")(&request_, &header);
    }

    void SetBody(const std::string& body) {
        request_.pEntityBody = static_cast<char*>(std::malloc(body.size()));
        std::memcpy(request_.pEntityBody, body.data(), body.size());
        request_.uiBodyLength = static_cast<std::uint32_t>(body.size());
    }

private:
    HttpRequest request_ = {};
};

TEST(Loaded, RequestsCarryHeadersAndParameters) {
    RequestByHand request("/Tavrin?FunctionName=rdxGetVersion&x=1&none=");
    EXPECT_EQ(request.Add("Host", "device"), 0);
    EXPECT_EQ(request.Add("content-length", "5"), 0);
    EXPECT_EQ(request.Add("Connection", "close"), 0);
    EXPECT_EQ(request.Add("Accept-Ranges", "bytes"), -1);
    const auto available = Function<int(HttpRequest*, const char*)>("IsHeaderAvailable");
    EXPECT_EQ(available(request.Get(), "CONNECTION"), 1);
    EXPECT_EQ(available(request.Get(), "host"), 2);
    EXPECT_EQ(available(request.Get(), "Content-Length"), 3);
    EXPECT_EQ(available(request.Get(), "Age"), 0);
    EXPECT_STREQ(Function<char*(HttpRequest*, const char*)>("GetReqHeaderByName")(request.Get(), "HOST"),
                 "device");

    std::string value(32, 'x');
    const auto query = Function<int(HttpRequest*, const char*, char*, unsigned int)>("GetQueryStringValue");
    EXPECT_EQ(query(request.Get(), "FunctionName", value.data(), 32), 0);
    EXPECT_STREQ(value.c_str(), "rdxGetVersion");
    EXPECT_EQ(query(request.Get(), "y", value.data(), 32), -2);
    EXPECT_EQ(query(request.Get(), "none", value.data(), 32), -3);
    EXPECT_EQ(query(request.Get(), "FunctionName", value.data(), 13), -4);
    std::string escaped = "a%2520b";
    EXPECT_EQ(Function<int(char*)>("DecodeUrlString")(escaped.data()), 0);
    EXPECT_STREQ(escaped.c_str(), "a b");
}

TEST(Loaded, DeviceServiceAnswersACall) {
    RequestByHand request("/rDx?FunctionName=rdxGetVersion");
    request.SetBody(
        "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>7</number></var>"
        "</struct></data></wddxPacket>");
    std::vector<char> output(132096, 'x');
    unsigned long length = output.size();
    unsigned char terminate = 1;
    const auto handle = Function<int(HttpRequest*, char*, unsigned long*, unsigned char*)>("rDxHandler");
    const std::int32_t calls = Global<std::int32_t>("g_nRefCount");
    EXPECT_EQ(handle(request.Get(), output.data(), &length, &terminate), 0);
    EXPECT_EQ(Global<std::int32_t>("g_nRefCount"), calls + 1);
    EXPECT_EQ(length, std::strlen(output.data()));
    EXPECT_NE(std::string(output.data()).find("<var name='version'><number>100</number></var>"),
              std::string::npos);
    EXPECT_EQ(terminate, 0);
    length = 100;
    EXPECT_EQ(handle(request.Get(), output.data(), &length, &terminate), -3);

    RequestByHand protectedCall("/rDx?FunctionName=rdxReleaseDevice");
    length = output.size();
    EXPECT_EQ(handle(protectedCall.Get(), output.data(), &length, &terminate), -401);
    RequestByHand unnamed("/rDx");
    EXPECT_EQ(handle(unnamed.Get(), output.data(), &length, &terminate), 400);
    EXPECT_EQ(Function<int(HttpRequest*)>("rDxCheckAuth")(unnamed.Get()), 1);
}

TEST(Loaded, RequestLinesAreTakenApart) {
    int* allowed = &Global<int>("aiMethodsAllowed");
    allowed[0] = 1;
    const std::string line = "get /x http/1.0";
    HttpRequest request = {};
    const auto parse = Function<int(const char*, const char*, HttpRequest*)>("ParseHttpMethodLine");
    EXPECT_EQ(parse(line.data(), line.data() + line.size(), &request), 0);
    EXPECT_STREQ(request.pszUri, "/x");
    EXPECT_EQ(request.ucHttpVersion, 10);
    EXPECT_EQ(request.ucKeepAlive, 0);
    Function<void(HttpRequest*)>("FreeHttpRequest")(&request);
    const std::string post = "POST /x HTTP/1.1";
    EXPECT_EQ(parse(post.data(), post.data() + post.size(), &request), -405);
    Function<void(HttpRequest*)>("FreeHttpRequest")(&request);
    allowed[0] = 0;
}

TEST(Loaded, HeaderLinesAreSortedAndCut) {
    const std::string line = "Connection: : close";
    char* colon = nullptr;
    const auto classify = [&](const char* name, const std::string& text) {
        return Function<int(const char*, const char*, char**)>(name)(text.data(), text.data() + text.size(),
                                                                     &colon);
    };
    EXPECT_EQ(classify("IsRequestHeader", "accept-charset: x"), 1);
    EXPECT_EQ(classify("IsResponseHeader", "Server: x"), 1);
    EXPECT_EQ(classify("IsEntityHeader", "X-Foo: 1"), 0);
    EXPECT_EQ(classify("IsGeneralHeader", "X: 1"), -6);
    EXPECT_EQ(classify("IsGeneralHeader", line), 1);
    HttpHeader headers[1] = {};
    const auto assign =
        Function<int(const char*, char*, const char*, HttpHeader*, unsigned char, int)>("AssignHeaderData");
    EXPECT_EQ(assign(line.data(), colon, line.data() + line.size(), headers, 0, 1), 1);
    EXPECT_EQ(assign(line.data(), colon, line.data() + line.size(), headers, 1, 1), -6);
    EXPECT_STREQ(headers[0].name, "Connection");
    EXPECT_STREQ(headers[0].value, "close");
    Function<void(HttpHeader*, int)>("FreeHeaders")(headers, 1);
    EXPECT_EQ(headers[0].name, nullptr);
}

TEST(Loaded, ResponsesAreBuiltAndWritten) {
    HttpResponse* response = nullptr;
    const auto create = Function<int(HttpResponse**, unsigned short, const char*, const char*, unsigned int)>(
        "CreateHttpResponse");
    EXPECT_EQ(create(&response, 600, "text/html", "abc", 3), -7);
    ASSERT_EQ(create(&response, 200, "text/html", "abc", 3), 0);
    EXPECT_EQ(response->ucHttpVersion, 11);
    EXPECT_EQ(response->usStatusCode, 200);
    EXPECT_EQ(response->ucNumOfGeneralHeaders, 3);
    EXPECT_EQ(response->ucNumOfEntityHeaders, 2);
    EXPECT_EQ(response->uiBodyLength, 3U);
    const std::string expected = Answer(200, "abc");
    std::vector<char> wire(1000);
    const auto write = Function<int(HttpResponse*, char*, unsigned int)>("SerializeHttpResponse");
    EXPECT_EQ(write(response, wire.data(), 1000), static_cast<int>(expected.size()));
    EXPECT_EQ(std::string(wire.data(), expected.size()), expected);
    EXPECT_EQ(write(response, wire.data(), 100), -2);
    Function<void(HttpResponse*)>("FreeHttpResponse")(response);
    std::free(response);

    HttpResponse parsed = {};
    const std::string line = "HTTP/1.0 404 Not found";
    EXPECT_EQ(Function<int(const char*, const char*, HttpResponse*)>("ParseHttpStatusLine")(
                  line.data(), line.data() + line.size(), &parsed),
              0);
    EXPECT_EQ(parsed.usStatusCode, 404);
    EXPECT_STREQ(parsed.pszReason, "Not found");
    Function<void(HttpResponse*)>("FreeHttpResponse")(&parsed);
}

// A listening socket of the library's and a client socket of the library's that is connected to it.
TEST(Loaded, SocketsCarryRequestsAndLines) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int server = -1;
    ASSERT_EQ(Function<int(const char*, unsigned short, int, int*)>("CreateSrvSocketExt")("127.0.0.1", 0, 5,
                                                                                          &server),
              0);
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&address), &size), 0);
    int client = -1;
    const std::string port = std::to_string(ntohs(address.sin_port));
    ASSERT_EQ(
        Function<int(const char*, const char*, int*)>("CreateClntSocket")("127.0.0.1", port.c_str(), &client),
        0);
    const int accepted = accept(server, nullptr, nullptr);
    ASSERT_GE(accepted, 0);

    const std::string line = "abc\r\ndef\n";
    EXPECT_EQ(Function<int(int, const char*, int)>("SendSocket")(client, line.data(),
                                                                 static_cast<int>(line.size())),
              static_cast<int>(line.size()));
    char text[16] = {};
    char end[4] = {};
    const auto read = Function<int(int, char*, unsigned int, char*)>("ReadLineFromSocket");
    EXPECT_EQ(read(accepted, text, sizeof text, end), 3);
    EXPECT_STREQ(text, "abc");
    EXPECT_STREQ(end, "\r\n");
    EXPECT_EQ(read(accepted, text, 3, end), -3);
    EXPECT_EQ(Function<int(int, char*, int, char)>("RecvSocket")(accepted, text, 1, 0), 1);

    Global<int>("aiMethodsAllowed") = 1;
    const std::string asked = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";
    EXPECT_EQ(Function<int(int, const char*, unsigned int)>("WriteSocket")(
                  client, asked.data(), static_cast<unsigned int>(asked.size())),
              static_cast<int>(asked.size()));
    HttpRequest* request = nullptr;
    ASSERT_EQ(Function<int(int, HttpRequest**)>("ConsumeHttpRequest")(accepted, &request), 200);
    EXPECT_STREQ(request->pszUri, "/x");
    EXPECT_STREQ(request->pszSeparator, "\r\n");
    EXPECT_EQ(request->ucKeepAlive, 1);
    EXPECT_EQ(request->iSocket, accepted);
    EXPECT_EQ(std::string(request->szPeerName).substr(0, 10), "127.0.0.1:");
    EXPECT_EQ(request->ucNumOfRequestHeaders, 1);
    EXPECT_STREQ(request->aRequestHeaders[0].value, "a");
    Function<void(HttpRequest*)>("FreeHttpRequest")(request);
    std::free(request);
    Global<int>("aiMethodsAllowed") = 0;

    const auto closeSocket = Function<int(int)>("CloseSocket");
    EXPECT_EQ(closeSocket(client), 0);
    EXPECT_EQ(closeSocket(accepted), 0);
    EXPECT_EQ(closeSocket(server), 0);
    EXPECT_EQ(closeSocket(-1), -1);
    EXPECT_EQ(Function<int()>("IsClientGranted")(), 1);
    EXPECT_EQ(Function<int()>("InitSockLib")(), 0);
}

} // namespace
