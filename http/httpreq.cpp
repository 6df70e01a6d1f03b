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
#include "http/owned_messages.h"
#include "http/request_lists.h"
#include "http/socket_line.h"

#include <algorithm>
#include <arpa/inet.h>
#include <climits>
#include <cstdio>
#include <iterator>

namespace {

constexpr int kAccepted = 200;
constexpr int kReceiveFailed = -1;
constexpr int kBadRequest = -400;
constexpr int kUnauthorized = -401;
constexpr int kMethodNotAllowed = -405;
constexpr int kInternalError = -500;
constexpr int kUnknownProtocol = -501;
constexpr int kUnknownVersion = -505;

static_assert(rdx::kHttpMethods.size() == HTTP_METHODS);

struct Version {
    std::string_view name;
    unsigned char number;
    unsigned char keepAlive; // what holds when no Connection header says otherwise
};
constexpr Version kVersions[] = {{"1.1", 11, 1}, {"1.0", 10, 0}};

constexpr std::string_view kBlank = " ";
constexpr std::string_view kBlanks = " \t";

// A word of the request line up to the first byte of `end`, which is left unread. None when there is no such
// byte, or when the word is too long.
std::optional<std::string_view> TakeWord(rdx::Reader& line, std::string_view end) {
    const std::optional<std::string_view> word = line.TakeUntil(end);
    return word && word->size() < HTTP_WORD_SIZE ? word : std::nullopt;
}

// 0, or -405 for a method that is unknown or not allowed.
int AcceptMethod(std::string_view method, HttpRequest& request) {
    char name[HTTP_WORD_SIZE];
    rdx::CopyBounded(name, method);
    int index;
    // A NUL would end the name early and make "GET\0..." a GET.
    if (rdx::UpToNul(method) != method || IsMethodAllowed(name, &index) < 1) return kMethodNotAllowed;
    request.ucMethod = static_cast<unsigned char>(index);
    return 0;
}

// 0, or -505. The version is the whole rest of the line: a blank behind it makes it unknown.
int AcceptVersion(std::string_view name, HttpRequest& request) {
    for (const Version& version : kVersions) {
        if (name != version.name) continue;
        request.ucHttpVersion = version.number;
        request.ucKeepAlive = version.keepAlive;
        return 0;
    }
    return kUnknownVersion;
}

int ApplyConnection(HttpRequest& request, std::string_view value) {
    if (rdx::EqualsIgnoringCase(value, "keep-alive")) request.ucKeepAlive = 1;
    if (rdx::EqualsIgnoringCase(value, "close")) request.ucKeepAlive = 0;
    return 0;
}

int StoreBoundary(HttpRequest& request, std::string_view boundary) {
    constexpr std::string_view kDashes = "--";
    const std::size_t buflen = boundary.size() + kDashes.size() + 1;
    RDX_CHECK(buflen > 0, "buflen > 0");
    rdx::OwnedText text = rdx::JoinText(kDashes, boundary);
    if (!text) return kInternalError;
    std::free(request.pszBoundary); // of an earlier Content-type
    request.pszBoundary = text.release();
    request.ucMultipart = 1;
    request.ucBoundaryLen = static_cast<unsigned char>(buflen - 1); // kept in 8 bits
    return 0;
}

int ApplyContentType(HttpRequest& request, std::string_view value) {
    constexpr std::string_view kKey = "boundary=";
    rdx::Reader reader(value);
    if (!reader.Take("multipart/form-data")) return 0;
    if (request.ucMethod != HTTP_POST) return kBadRequest;
    if (!reader.TakeUntilText(kKey)) return rdx::LoadShared(ucSupportNetscapeVM) != 0 ? 0 : kBadRequest;
    reader.Take(kKey);
    return StoreBoundary(request, reader.Rest());
}

// A length of 0 is refused when it is given: kept, clients without a body leave the header out.
int ApplyContentLength(HttpRequest& request, std::string_view value) {
    const int length = rdx::ParseDecimal(value);
    request.uiBodyLength = static_cast<unsigned int>(length);
    if (length == 0) return kBadRequest;
    printf("\nHttpHeaders: uiBodyLength=%d", length);
    return 0;
}

// The headers that change how the request is read. No two lists know the same name.
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

// What a failed line read means for the request.
int LineFailure(int result) { return result == kReceiveFailed ? kReceiveFailed : kBadRequest; }

int ReadHeaderLines(int sock, rdx::SocketLine& line, HttpRequest& request) {
    const auto lists = rdx::ListsOf(request);
    for (bool any = false;; any = true) {
        const int length = line.Read(sock);
        if (length < 0) return LineFailure(length);
        if (length == 0) return any ? 0 : kBadRequest; // a request must carry at least one header
        const rdx::StoredLine stored = rdx::StoreHeaderLine(line.Text(), lists);
        if (!stored.known) return kInternalError;
        const int result = stored.header != nullptr ? ApplyHeader(request, *stored.header) : 0;
        if (result != 0) return result;
    }
}

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
    if (!request) return kInternalError;
    if (const int result = ReadHttpReqHeaders(sock, request.get()); result != 0) return result;
    if (const int result = ReadPostData(sock, request.get()); result != 0) return result;
    if (CheckAuth(sock, request.get()) != 0) {
        request.reset();
        printf("\nConsumeHttpRequest: no auth");
        return kUnauthorized;
    }
    request->iSocket = sock;
    NotePeer(sock, *request);
    *ppRequest = request.release();
    return kAccepted;
}

int ReadHttpReqHeaders(int sock, HttpRequest* pReq) {
    rdx::SocketLine line;
    const int length = line.Read(sock);
    if (length < 0) return LineFailure(length);
    if (length == 0) return 0;
    if (rdx::VerbosityAbove(VERBOSITY_LOG)) {
        rdx::LogThread("ReadHttpReqHeaders()", "got request line from socket, len =", length);
    }
    rdx::CopyBounded(pReq->pszSeparator, line.LineEnd());
    const int result = ParseHttpMethodLine(line.begin(), line.end(), pReq);
    return result != 0 ? result : ReadHeaderLines(sock, line, *pReq);
}

int ParseHttpMethodLine(const char* p, const char* q, HttpRequest* pReq) {
    rdx::Reader line(rdx::Line(p, q));
    const auto method = TakeWord(line, kBlank);
    if (!method) return kBadRequest;
    if (const int result = AcceptMethod(*method, *pReq); result != 0) return result;

    line.Skip(kBlanks);
    const auto uri = TakeWord(line, kBlank);
    if (!uri) return kBadRequest;
    std::free(pReq->pszUri);
    pReq->pszUri = rdx::CopyText(*uri).release();
    if (pReq->pszUri == nullptr) return kInternalError;

    line.Skip(kBlanks);
    const auto protocol = TakeWord(line, "/");
    if (!protocol) return kBadRequest;
    if (!rdx::EqualsIgnoringCase(*protocol, "HTTP")) return kUnknownProtocol;

    line.Take("/");
    if (const int result = AcceptVersion(line.Rest(), *pReq); result != 0) return result;
    printf("\nParseHttpMethodLine ok");
    return 0;
}

int IsMethodAllowed(const char* pszMethod, int* piIndex) {
    *piIndex = -1;
    if (pszMethod == nullptr) return -1;
    const auto* const name = std::ranges::find_if(
        rdx::kHttpMethods, [=](const char* known) { return rdx::EqualsIgnoringCase(known, pszMethod); });
    if (name == rdx::kHttpMethods.end()) return -1;
    *piIndex = static_cast<int>(name - rdx::kHttpMethods.begin());
    const int allowed = rdx::LoadShared(aiMethodsAllowed[*piIndex]);
    printf("\nParsing: method ok (%d)", allowed);
    return allowed;
}

int IsRequestHeader(const char* p, const char* q, char** ppcolon) {
    const int i_max = g_cnReqHeaders;
    RDX_CHECK(i_max > 0, "i_max > 0");
    return rdx::ClassifyHeader(p, q, ppcolon, {apszRequestHeaders, static_cast<std::size_t>(i_max)});
}

int ReadPostData(int sock, HttpRequest* pReq) {
    const unsigned int length = pReq->uiBodyLength;
    if (length > rdx::LoadShared(g_dwPostMaxContLength) || length > rdx::LoadShared(g_dwPostMaxSizeToRead) ||
        length > INT_MAX) {
        return kBadRequest;
    }
    if (length == 0) return 0;
    std::free(pReq->pEntityBody);
    pReq->pEntityBody = rdx::AllocateBytes(length).release();
    if (pReq->pEntityBody == nullptr) return kInternalError;
    const int wanted = static_cast<int>(length);
    const int received = RecvSocket(sock, pReq->pEntityBody, wanted, 0);
    if (received != wanted) {
        printf("\nReadPostData: received just %d bytes", received);
        return kBadRequest;
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
