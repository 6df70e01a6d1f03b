// The parts of a multipart/form-data body.
#include "common/check.h"
#include "common/memory.h"
#include "http/httpreq.h"

#include <string_view>

namespace {

constexpr std::size_t kNone = std::string_view::npos;

// Where the first two separators in a row that begin at or behind `begin` end; kNone when there are none.
std::size_t EndOfHead(std::string_view body, std::string_view separator, std::size_t begin) {
    int run = 0;
    while (run < 2) {
        if (body.substr(begin).starts_with(separator)) {
            ++run;
            begin += separator.size();
        } else if (begin < body.size()) {
            run = 0;
            ++begin;
        } else {
            return kNone;
        }
    }
    return begin;
}

} // namespace

int ReadMultipartData(HttpRequest* pReq, unsigned int uiOffset, char** pBuf) {
    RDX_CHECK(uiOffset > 0, "uiOffset > 0");
    RDX_CHECK(uiOffset < pReq->uiBodyLength, "uiOffset < pReq->uiBodyLength");
    RDX_CHECK(pBuf != nullptr, "pBuf != __null");
    RDX_CHECK(pReq->pszBoundary != nullptr, "pReq->pszBoundary != __null");
    const char* const pszSeparator = pReq->pszSeparator;
    RDX_CHECK(pszSeparator != nullptr, "pReq->pszSeparator != __null");
    if (pReq->pEntityBody == nullptr) return HTTPPART_NO_LINE_END;

    const std::string_view body(pReq->pEntityBody, pReq->uiBodyLength);
    const std::string_view separator = pszSeparator;
    const std::string_view boundary = pReq->pszBoundary;
    // Nothing is found that begins where only a separator has room: a separator that ends the body, for one.
    const std::string_view heads = body.substr(0, body.size() - 1);

    // The line end found first is the first of the two that end the head: a caller may begin in the head's
    // last line.
    const std::size_t lineEnd = heads.find(separator, uiOffset);
    if (lineEnd == kNone) return HTTPPART_NO_LINE_END;
    const std::size_t data = EndOfHead(heads, separator, lineEnd);
    if (data == kNone) return HTTPPART_NO_EMPTY_LINE;
    const std::size_t end = body.find(boundary, data);
    if (end == kNone || end >= body.size() - separator.size()) return HTTPPART_NO_BOUNDARY;

    // What stands in front of the boundary is taken for its separator, whatever it is.
    if (end - data <= separator.size()) {
        *pBuf = nullptr;
        return 0;
    }
    const std::size_t length = end - data - separator.size();
    rdx::OwnedText copy = rdx::CopyText(body.substr(data, length));
    RDX_CHECK(copy != nullptr, "data != __null");
    *pBuf = copy.release();
    return static_cast<int>(length);
}
