#include "http/httpreq.h"

#include "common/check.h"
#include "common/config.h"
#include "common/http_methods.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/memory.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/header_lines.h"
#include "http/owned_messages.h"
#include "http/request_lists.h"
#include "http/socket_line.h"
#include "http/versions.h"

#include <arpa/inet.h>
#include <climits>
#include <cstdio>

namespace {

static_assert(rdx::kHttpMethods.size() == HTTP_METHODS);

constexpr std::string_view kBlank = " ";
constexpr std::string_view kBlanks = " \t";

// A word of the request line up to the first byte of `end`, which is left unread. None when there is no such
// byte, or when the word is too long.
std::optional<std::string_view> TakeWord(rdx::Reader& line, std::string_view end) {
    const std::optional<std::string_view> word = line.TakeUntil(end);
    return word && word->size() < HTTP_WORD_SIZE ? word : std::nullopt;
}

// 0, or a failure for a method that is unknown or not allowed.
int AcceptMethod(std::string_view method, HttpRequest& request) {
    char name[HTTP_WORD_SIZE];
    rdx::CopyBounded(name, method);
    int index;
    // A NUL would end the name early and make "GET\0..." a GET.
    if (rdx::UpToNul(method) != method || !rdx::AllowsHttpMethod(IsMethodAllowed(name, &index))) {
        return -HTTP_STATUS_METHOD_NOT_ALLOWED;
    }
    request.ucMethod = static_cast<unsigned char>(index);
    return 0;
}

// 0, or a failure. The version is the whole rest of the line: a blank behind it makes it unknown.
int AcceptVersion(std::string_view name, HttpRequest& request) {
    const rdx::HttpVersion* const version = rdx::FindHttpVersion(name);
    if (version == nullptr) return -HTTP_STATUS_VERSION_NOT_SUPPORTED;
    request.ucHttpVersion = version->number;
    request.ucKeepAlive = version->keepsAlive;
    return 0;
}

int ApplyConnection(HttpRequest& request, std::string_view value) {
    if (rdx::EqualsIgnoringCase(value, "keep-alive")) request.ucKeepAlive = 1;
    if (rdx::EqualsIgnoringCase(value, "close")) request.ucKeepAlive = 0;
    return 0;
}

int StoreBoundary(HttpRequest& request, std::string_view boundary) {
    constexpr std::string_view kDashes = "--";
    const std::size_t buflen = boundary.size() + kDashes.size() + 1;
    RDX_CHECK_FOR("int ReadHttpReqHeaders(int, HttpRequest*)", buflen > 0, "buflen > 0");
    rdx::OwnedText text = rdx::JoinText(kDashes, boundary);
    if (!text) return -HTTP_STATUS_INTERNAL_ERROR;
    std::free(request.pszBoundary); // of an earlier Content-type
    request.pszBoundary = text.release();
    request.ucMultipart = 1;
    request.ucBoundaryLen = static_cast<unsigned char>(buflen - 1); // its low 8 bits
    return 0;
}

int ApplyContentType(HttpRequest& request, std::string_view value) {
    constexpr std::string_view kKey = "boundary=";
    rdx::Reader reader(value);
    if (!reader.Take("multipart/form-data")) return 0;
    if (request.ucMethod != HTTP_POST) return -HTTP_STATUS_BAD_REQUEST;
    if (!reader.TakeUntilText(kKey))
        return rdx::LoadShared(ucSupportNetscapeVM) != 0 ? 0 : -HTTP_STATUS_BAD_REQUEST;
    reader.Take(kKey);
    return StoreBoundary(request, reader.Rest());
}

// A length of 0 is refused when it is given: clients without a body leave the header out.
int ApplyContentLength(HttpRequest& request, std::string_view value) {
    const int length = rdx::ParseLeadingDigits(value);
    request.uiBodyLength = static_cast<unsigned int>(length);
    if (length == 0) return -HTTP_STATUS_BAD_REQUEST;
    printf("\nHttpHeaders: uiBodyLength=%d", length);
    return 0;
}

// The headers that change how the request is read.
struct HeaderEffect {
    std::string_view name;
    int (*apply)(HttpRequest& request, std::string_view value);
};
constexpr HeaderEffect kHeaderEffects[] = {
    {"Connection", ApplyConnection},
    {"Content-type", ApplyContentType},
    {"Content-length", ApplyContentLength},
};

int ApplyHeader(HttpRequest& request, const HttpHeader& header) {
    for (const HeaderEffect& effect : kHeaderEffects) {
        if (rdx::EqualsIgnoringCase(header.name, effect.name)) return effect.apply(request, header.value);
    }
    return 0;
}

// A request must carry at least one header.
constexpr rdx::HeaderFailures kHeaderFailures = {.notReceived = HTTPREQ_NOT_RECEIVED,
                                                 .badLine = -HTTP_STATUS_BAD_REQUEST,
                                                 .none = -HTTP_STATUS_BAD_REQUEST,
                                                 .unknown = -HTTP_STATUS_INTERNAL_ERROR};

// Notes where the request came from; peers of other address families stay unnamed.
void NotePeer(int sock, HttpRequest& request) {
    sockaddr_in peer{};
    socklen_t size = sizeof peer;
    char address[INET_ADDRSTRLEN];
    if (getpeername(sock, reinterpret_cast<sockaddr*>(&peer), &size) != 0 || peer.sin_family != AF_INET ||
        inet_ntop(AF_INET, &peer.sin_addr, address, sizeof address) == nullptr) {
        return;
    }
    snprintf(request.szPeerName, sizeof request.szPeerName, "%s:%d", address, ntohs(peer.sin_port));
    printf("\nConsumeHttpRequest: szPeerName = %s", request.szPeerName);
}

} // namespace

int ConsumeHttpRequest(int sock, HttpRequest** ppRequest) {
    RDX_CHECK(ppRequest != nullptr, "ppRequest != __null");
    *ppRequest = nullptr;
    rdx::OwnedRequest request(rdx::AllocateZeroed<HttpRequest>().release());
    if (!request) return -HTTP_STATUS_INTERNAL_ERROR;
    if (const int result = ReadHttpReqHeaders(sock, request.get()); result != 0) return result;
    if (const int result = ReadPostData(sock, request.get()); result != 0) return result;
    if (CheckAuth(sock, request.get()) != HTTPREQ_DONE) {
        request.reset();
        printf("\nConsumeHttpRequest: no auth");
        return -HTTP_STATUS_UNAUTHORIZED;
    }
    request->iSocket = sock;
    NotePeer(sock, *request);
    *ppRequest = request.release();
    return HTTP_STATUS_OK;
}

int ReadHttpReqHeaders(int sock, HttpRequest* pReq) {
    rdx::SocketLine line;
    const int length = line.Read(sock);
    if (length < 0)
        return length == SOCKETLINE_NOT_RECEIVED ? kHeaderFailures.notReceived : kHeaderFailures.badLine;
    if (length == 0) return HTTPREQ_DONE;
    if (rdx::VerbosityAbove(VERBOSITY_LOG)) {
        rdx::LogThread("ReadHttpReqHeaders()", "got request line from socket, len =", length);
    }
    rdx::CopyBounded(pReq->pszSeparator, line.LineEnd());
    const int result = ParseHttpMethodLine(line.begin(), line.end(), pReq);
    if (result != HTTPREQ_DONE) return result;
    return rdx::ReadHeaderLines(sock, line, rdx::ListsOf(*pReq), kHeaderFailures,
                                [=](const HttpHeader& header) { return ApplyHeader(*pReq, header); });
}

int ParseHttpMethodLine(const char* p, const char* q, HttpRequest* pReq) {
    rdx::Reader line(rdx::Line(p, q));
    const auto method = TakeWord(line, kBlank);
    if (!method) return -HTTP_STATUS_BAD_REQUEST;
    if (const int result = AcceptMethod(*method, *pReq); result != 0) return result;

    line.Skip(kBlanks);
    const auto uri = TakeWord(line, kBlank);
    if (!uri) return -HTTP_STATUS_BAD_REQUEST;
    std::free(pReq->pszUri);
    pReq->pszUri = rdx::CopyText(*uri).release();
    if (pReq->pszUri == nullptr) return -HTTP_STATUS_INTERNAL_ERROR;

    line.Skip(kBlanks);
    const auto protocol = TakeWord(line, "/");
    if (!protocol) return -HTTP_STATUS_BAD_REQUEST;
    if (!rdx::EqualsIgnoringCase(*protocol, "HTTP")) return -HTTP_STATUS_NOT_IMPLEMENTED;

    line.Take("/");
    if (const int result = AcceptVersion(line.Rest(), *pReq); result != 0) return result;
    printf("\nParseHttpMethodLine ok");
    return 0;
}

int IsMethodAllowed(const char* pszMethod, int* piIndex) {
    *piIndex = -1;
    if (pszMethod == nullptr) return HTTPREQ_NO_METHOD;
    const auto index = rdx::IndexOfHttpMethod(pszMethod);
    if (!index) return HTTPREQ_NO_METHOD;
    *piIndex = static_cast<int>(*index);
    const int allowed = rdx::LoadShared(aiMethodsAllowed[*index]);
    printf("\nParsing: method ok (%d)", allowed);
    return allowed;
}

int IsRequestHeader(const char* p, const char* q, char** ppcolon) {
    const int i_max = g_cnReqHeaders;
    RDX_CHECK(i_max > 0, "i_max > 0");
    return rdx::ClassifyHeader(__PRETTY_FUNCTION__, p, q, ppcolon,
                               {apszRequestHeaders, static_cast<std::size_t>(i_max)});
}

int ReadPostData(int sock, HttpRequest* pReq) {
    const unsigned int length = pReq->uiBodyLength;
    if (length > rdx::LoadShared(g_dwPostMaxContLength) || length > rdx::LoadShared(g_dwPostMaxSizeToRead) ||
        length > INT_MAX) {
        return -HTTP_STATUS_BAD_REQUEST;
    }
    if (length == 0) return 0;
    std::free(pReq->pEntityBody);
    pReq->pEntityBody = rdx::AllocateBytes(length).release();
    if (pReq->pEntityBody == nullptr) return -HTTP_STATUS_INTERNAL_ERROR;
    const int wanted = static_cast<int>(length);
    const int received = RecvSocket(sock, pReq->pEntityBody, wanted, 0);
    if (received != wanted) {
        printf("\nReadPostData: received just %d bytes", received);
        return -HTTP_STATUS_BAD_REQUEST;
    }
    printf("\nReadPostData: received %d bytes", received);
    return 0;
}

void FreeHttpRequest(HttpRequest* pRequest) {
    RDX_CHECK(pRequest != nullptr, "pRequest != __null");
    rdx::FreeAndNull(pRequest->pszUri);
    RDX_CHECK(pRequest->ucNumOfGeneralHeaders <= HTTP_MAX_GENERAL_HEADERS,
              "pRequest->ucNumOfGeneralHeaders <= 16");
    RDX_CHECK(pRequest->ucNumOfRequestHeaders <= HTTP_MAX_REQUEST_HEADERS,
              "pRequest->ucNumOfRequestHeaders <= 14");
    RDX_CHECK(pRequest->ucNumOfEntityHeaders <= HTTP_MAX_ENTITY_HEADERS,
              "pRequest->ucNumOfEntityHeaders <= 16");
    for (const rdx::HeaderList& list : rdx::ListsOf(*pRequest)) rdx::ReleaseHeaders(list);
    rdx::FreeAndNull(pRequest->pszBoundary);
    rdx::FreeAndNull(pRequest->pEntityBody);
    pRequest->uiBodyLength = 0;
}
