// Writing a request, for a server or for a person to look at, and sending it.
#include "common/check.h"
#include "common/memory.h"
#include "common/portability_sockets.h"
#include "http/httpreq.h"
#include "http/message_writer.h"
#include "http/request_lists.h"
#include "http/versions.h"

#include <algorithm>
#include <iterator>

namespace {

// A method as it is written: behind "POST" stands no blank on the wire, where servers compare the line so.
struct WrittenMethod {
    unsigned char index;
    const char* wire;
    const char* html;
};
constexpr WrittenMethod kWrittenMethods[] = {{HTTP_GET, "GET ", "<B>GET</B> "},
                                             {HTTP_POST, "POST", "<B>POST</B> "}};

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
        const auto* const method =
            std::ranges::find(kWrittenMethods, request_.ucMethod, &WrittenMethod::index);
        if (method == std::end(kWrittenMethods)) return out_.Fail(-HTTP_STATUS_NOT_IMPLEMENTED);
        out_.Text(html_ ? method->html : method->wire).Text(request_.pszUri).Text(" HTTP/");
        const rdx::HttpVersion* const version = rdx::FindHttpVersion(request_.ucHttpVersion);
        if (version == nullptr) return out_.Fail(-HTTP_STATUS_VERSION_NOT_SUPPORTED);
        out_.Text(version->name).Text("\r\n");
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
    if (pRequest == nullptr) return HTTPREQ_NO_RECORD;
    if (pBuf == nullptr || uiBufSize == 0) return HTTPREQ_NO_BUFFER;
    return RequestWriter(*pRequest, ucHtml != 0, pBuf, uiBufSize).Write();
}

int SendHttpRequest(int sock, HttpRequest* pRequest, HttpResponse** ppResponse) {
    RDX_CHECK(pRequest != nullptr, "pRequest != __null");
    RDX_CHECK(ppResponse != nullptr, "ppResponse != __null");
    *ppResponse = nullptr;
    const rdx::OwnedText buffer = rdx::AllocateBytes(HTTP_SEND_BUFFER_SIZE);
    if (!buffer) return HTTPREQ_NO_MEMORY;
    const int length = SerializeHttpRequest(pRequest, buffer.get(), HTTP_SEND_BUFFER_SIZE, 0);
    if (length <= 0) return HTTPREQ_NOT_WRITTEN;
    if (SendSocket(sock, buffer.get(), length) < length) return HTTPREQ_NOT_SENT;
    return ConsumeHttpResponse(sock, ppResponse) == HTTPRESP_DONE ? HTTPREQ_DONE : HTTPREQ_NO_ANSWER;
}
