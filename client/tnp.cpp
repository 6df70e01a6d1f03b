#include "client/tnp.h"

#include "common/check.h"
#include "common/config.h"
#include "common/memory.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/owned_messages.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr int kNoBody = -1;
constexpr std::string_view kUri = "/Tavrin?FunctionName=";

// A header as AddHeader2Request takes it, which copies the texts and changes nothing.
HttpHeader MakeHeader(const char* name, const char* value) {
    return {const_cast<char*>(name), const_cast<char*>(value)};
}

// 0, or below 0 the number of the first header that could not be added.
int AddHeaders(HttpRequest& request, const char* host, std::size_t argumentsLength, bool close) {
    const rdx::SharedText credentials(szAuthInfo);
    char length[16];
    rdx::Appender(length).AddDecimal(static_cast<std::int64_t>(argumentsLength));
    HttpHeader headers[] = {
        MakeHeader("Host", host),
        MakeHeader("User-Agent", "VXL tnp/0.1"),
        MakeHeader("Accept", "*/*"),
        MakeHeader("Content-type", "text/xml"),
        MakeHeader("Authorization", credentials.c_str()),
        MakeHeader("Content-length", length),
        MakeHeader("Connection", close ? "close" : "keep-alive"),
    };
    int failure = 0;
    for (HttpHeader& header : headers) {
        --failure;
        if (AddHeader2Request(&request, &header) != 0) return failure;
    }
    return 0;
}

// Copies as much of the answer's body as fits: QueryTavrinExt's result.
int CopyAnswer(const HttpResponse& response, char* buffer, unsigned int* size) {
    constexpr unsigned short kOk = 200;
    constexpr int kOtherStatus = -1;
    constexpr int kCut = -2;
    if (response.usStatusCode != kOk) return kOtherStatus;
    const unsigned int length = response.pEntityBody != nullptr ? response.uiBodyLength : 0;
    const bool fits = length <= *size;
    std::copy_n(response.pEntityBody, fits ? length : *size, buffer);
    *size = length;
    return fits ? 0 : kCut;
}

} // namespace

int BuildTavrinRequestExt(HttpRequest* pRequest, const char* pszHost, const char* pszFunction,
                          const char* pszBody, unsigned char ucClose) {
    *pRequest = {};
    pRequest->ucMethod = HTTP_GET;
    pRequest->ucHttpVersion = 11;
    pRequest->pszUri = rdx::JoinText(kUri, pszFunction).release();
    RDX_CHECK(pRequest->pszUri != nullptr, "pRequest->pszUri != __null");
    if (pszBody == nullptr) return kNoBody;
    const rdx::SharedText terminator(szEntityTerminator);
    const bool terminated = rdx::LoadShared(ucEntityTerminator) != 0;
    const std::string_view tail = terminated ? terminator.View() : std::string_view();
    const std::size_t length = std::strlen(pszBody);
    pRequest->pEntityBody = rdx::JoinText(pszBody, tail).release();
    RDX_CHECK(pRequest->pEntityBody != nullptr, "pRequest->pEntityBody != __null");
    pRequest->uiBodyLength = static_cast<unsigned int>(length + tail.size());
    return AddHeaders(*pRequest, pszHost, length, ucClose == 1);
}

int BuildTavrinRequest(HttpRequest* pRequest, const char* pszHost, const char* pszFunction,
                       const char* pszBody) {
    return BuildTavrinRequestExt(pRequest, pszHost, pszFunction, pszBody, 0);
}

int QueryTavrinExt(int sock, const char* pszHost, const char* /*pszUnused*/, const char* pszArgs,
                   const char* pszFunction, unsigned char ucClose, char* pBuf, unsigned int* puiBufsiz) {
    RDX_CHECK(pszArgs != nullptr, "pszArgs != __null");
    RDX_CHECK(*pszArgs != '\0', "strlen( pszArgs ) != 0");
    RDX_CHECK(pBuf != nullptr, "pBuf != __null");
    RDX_CHECK(*puiBufsiz > 0, "*puiBufsiz > 0");
    rdx::ScopedRequest call;
    const int built = BuildTavrinRequestExt(&call.request, pszHost, pszFunction, pszArgs, ucClose);
    if (built != 0) return built;
    HttpResponse* response = nullptr;
    const int sent = SendHttpRequest(sock, &call.request, &response);
    const rdx::OwnedResponse owner(response);
    return sent != 0 ? sent : CopyAnswer(*response, pBuf, puiBufsiz);
}

int QueryTavrin(int sock, const char* pszHost, const char* pszUnused, const char* pszArgs,
                const char* pszFunction, char* pBuf, unsigned int* puiBufsiz) {
    return QueryTavrinExt(sock, pszHost, pszUnused, pszArgs, pszFunction, 1, pBuf, puiBufsiz);
}
