#include "client/tnp.h"

#include "common/check.h"
#include "common/config.h"
#include "common/entity_terminator.h"
#include "common/memory.h"
#include "common/shared.h"
#include "common/text.h"
#include "http/owned_messages.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kUri = "/Tavrin?FunctionName=";

// A header as AddHeader2Request takes it, which copies the texts and changes nothing.
HttpHeader MakeHeader(const char* name, const char* value) {
    return {const_cast<char*>(name), const_cast<char*>(value)};
}

struct CallHeader {
    const char* name;
    const char* value;
    int notAdded; // the result when it could not be
};

int AddHeaders(HttpRequest& request, const char* host, std::size_t argumentsLength, bool close) {
    const rdx::SharedText credentials(szAuthInfo);
    char length[16];
    rdx::Appender(length).AddDecimal(static_cast<std::int64_t>(argumentsLength));
    const CallHeader headers[] = {
        {"Host", host, TNP_NO_HOST},
        {"User-Agent", "VXL tnp/0.1", TNP_NO_USER_AGENT},
        {"Accept", "*/*", TNP_NO_ACCEPT},
        {"Content-type", "text/xml", TNP_NO_CONTENT_TYPE},
        {"Authorization", credentials.c_str(), TNP_NO_AUTHORIZATION},
        {"Content-length", length, TNP_NO_CONTENT_LENGTH},
        {"Connection", close ? "close" : "keep-alive", TNP_NO_CONNECTION},
    };
    for (const CallHeader& header : headers) {
        HttpHeader record = MakeHeader(header.name, header.value);
        if (AddHeader2Request(&request, &record) != HTTPREQ_DONE) return header.notAdded;
    }
    return TNP_BUILT;
}

// Copies as much of the answer's body as fits: QueryTavrinExt's result.
int CopyAnswer(const HttpResponse& response, char* buffer, unsigned int* size) {
    if (response.usStatusCode != HTTP_STATUS_OK) return TNP_OTHER_STATUS;
    const unsigned int length = response.pEntityBody != nullptr ? response.uiBodyLength : 0;
    const bool fits = length <= *size;
    std::copy_n(response.pEntityBody, fits ? length : *size, buffer);
    *size = length;
    return fits ? TNP_ANSWERED : TNP_BODY_CUT;
}

} // namespace

int BuildTavrinRequestExt(HttpRequest* pRequest, const char* pszHost, const char* pszFunction,
                          const char* pszBody, unsigned char ucClose) {
    *pRequest = {};
    pRequest->ucMethod = HTTP_GET;
    pRequest->ucHttpVersion = 11;
    pRequest->pszUri = rdx::JoinText(kUri, pszFunction).release();
    RDX_CHECK(pRequest->pszUri != nullptr, "pRequest->pszUri != __null");
    if (pszBody == nullptr) return TNP_NO_BODY;
    const rdx::EntityTerminator terminator = rdx::LoadEntityTerminator();
    const std::string_view tail = terminator.View();
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
    if (built != TNP_BUILT) return built;
    HttpResponse* response = nullptr;
    const int sent = SendHttpRequest(sock, &call.request, &response);
    const rdx::OwnedResponse owner(response);
    return sent != HTTPREQ_DONE ? sent : CopyAnswer(*response, pBuf, puiBufsiz);
}

int QueryTavrin(int sock, const char* pszHost, const char* pszUnused, const char* pszArgs,
                const char* pszFunction, char* pBuf, unsigned int* puiBufsiz) {
    return QueryTavrinExt(sock, pszHost, pszUnused, pszArgs, pszFunction, 1, pBuf, puiBufsiz);
}
