// Writing a request, for a server or for a person to look at, and sending it.
#include "common/check.h"
#include "common/memory.h"
#include "common/portability_sockets.h"
#include "http/httpreq.h"
#include "http/message_writer.h"
#include "http/request_lists.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr int kNoRequest = -1;
constexpr int kNoBuffer = -2;
constexpr int kUnknownMethod = -501;
constexpr int kUnknownVersion = -505;

struct Method {
    unsigned char index;
    const char* wire; // kept: no blank behind "POST" on the wire
    const char* html;
};
constexpr Method kMethods[] = {{HTTP_GET, "GET ", "<B>GET</B> "}, {HTTP_POST, "POST", "<B>POST</B> "}};

struct Version {
    unsigned char number;
    const char* text;
};
constexpr Version kVersions[] = {{10, "1.0"}, {11, "1.1"}};

// The titles of the lists in HTML, in the lists' order.
constexpr const char* kListTitles[] = {"<BR>general headers:<BR><BLOCKQUOTE>",
                                       "request specific headers:<BR><BLOCKQUOTE>",
                                       "entity headers:<BR><BLOCKQUOTE>"};

// A request in one of its two forms. Items that belong to one form alone are given for it.
class RequestWriter {
public:
    RequestWriter(HttpRequest& request, bool html, char* buffer, unsigned int size)
        : request_(request), html_(html), out_(buffer, size) {}

    // The number of bytes written, or the failure.
    int Write() {
        Html("<HTML><BODY><TT>");
        WriteRequestLine();
        Html("<BR>");
        WriteLists();
        out_.Text("\r\n");
        if (request_.uiBodyLength != 0) WriteBody();
        Html("</BODY></HTML>");
        return out_.Result();
    }

private:
    void Html(const char* text) {
        if (html_) out_.Text(text);
    }

    void WriteRequestLine() {
        const auto* const method = std::ranges::find(kMethods, request_.ucMethod, &Method::index);
        if (method == std::end(kMethods)) return out_.Fail(kUnknownMethod);
        out_.Text(html_ ? method->html : method->wire).Text(request_.pszUri).Text(" HTTP/");
        const auto* const version = std::ranges::find(kVersions, request_.ucHttpVersion, &Version::number);
        if (version == std::end(kVersions)) return out_.Fail(kUnknownVersion);
        out_.Text(version->text).Text("\r\n");
    }

    void WriteLists() {
        const auto lists = rdx::ListsOf(request_);
        for (std::size_t i = 0; i < lists.size(); ++i) {
            const auto headers = rdx::Held(lists[i]);
            if (headers.empty()) continue;
            Html(kListTitles[i]);
            for (const HttpHeader& header : headers) WriteHeader(header);
            Html("</BLOCKQUOTE>");
        }
    }

    void WriteHeader(const HttpHeader& header) {
        Html("<B>");
        out_.Text(header.name).Text(html_ ? "</B>:<EM>&nbsp;" : ": ").Text(header.value).Text("\r\n");
        Html("</EM><BR>");
    }

    void WriteBody() {
        Html("entity body:<BR><BLOCKQUOTE>");
        out_.Bytes(request_.pEntityBody, request_.uiBodyLength);
        Html("</BLOCKQUOTE><BR>");
    }

    HttpRequest& request_;
    bool html_;
    rdx::MessageWriter out_;
};

} // namespace

int SerializeHttpRequest(HttpRequest* pRequest, char* pBuf, unsigned int uiBufSize, unsigned char ucHtml) {
    if (pRequest == nullptr) return kNoRequest;
    if (pBuf == nullptr || uiBufSize == 0) return kNoBuffer;
    return RequestWriter(*pRequest, ucHtml != 0, pBuf, uiBufSize).Write();
}

int SendHttpRequest(int sock, HttpRequest* pRequest, HttpResponse** ppResponse) {
    constexpr int kNoMemory = -1;
    constexpr int kNotSerialised = -3;
    constexpr int kNotSent = -4;
    constexpr int kNoAnswer = -6;
    RDX_CHECK(pRequest != nullptr, "pRequest != __null");
    RDX_CHECK(ppResponse != nullptr, "ppResponse != __null");
    *ppResponse = nullptr;
    const rdx::OwnedText buffer = rdx::AllocateBytes(HTTP_SEND_BUFFER_SIZE);
    if (!buffer) return kNoMemory;
    const int length = SerializeHttpRequest(pRequest, buffer.get(), HTTP_SEND_BUFFER_SIZE, 0);
    if (length <= 0) return kNotSerialised;
    if (SendSocket(sock, buffer.get(), length) < length) return kNotSent;
    return ConsumeHttpResponse(sock, ppResponse) == 0 ? 0 : kNoAnswer;
}
