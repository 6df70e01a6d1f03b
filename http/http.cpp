#include "http/http.h"

#include "common/check.h"
#include "common/memory.h"
#include "common/text.h"
#include "http/header_list.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <limits>

constexpr const char* const apszGeneralHeaders[9] = {"Cache-Control", "Connection", "Date",
                                                     "Pragma",        "Trailer",    "Transfer-Encoding",
                                                     "Upgrade",       "Via",        "Warning"};
constexpr const char* const apszRequestHeaders[26] = {"Accept",
                                                      "Accept-Charset",
                                                      "Accept-Encoding",
                                                      "Accept-Language",
                                                      "Authorization",
                                                      "Cookie",
                                                      "Expect",
                                                      "From",
                                                      "Host",
                                                      "If-Modified-Since",
                                                      "If-Match",
                                                      "If-None-Match",
                                                      "If-Range",
                                                      "If-Unmodified-Since",
                                                      "Max-Forwards",
                                                      "Proxy-Authorization",
                                                      "Range",
                                                      "Referer",
                                                      "TE",
                                                      "User-Agent",
                                                      "UA-OS",
                                                      "UA-CPU",
                                                      "UA-Language",
                                                      "UA-Agent",
                                                      "UA-color",
                                                      "UA-pixels"};
constexpr const char* const apszResponseHeaders[10] = {
    "Accept-Ranges", "Age",    "ETag",       "Location", "Proxy-Authenticate",
    "Retry-After",   "Server", "Set-Cookie", "Vary",     "WWW-Authenticate"};
constexpr const char* const apszEntityHeaders[10] = {
    "Allow",       "Content-Encoding", "Content-Language", "Content-Length", "Content-Location",
    "Content-MD5", "Content-Range",    "Content-Type",     "Expires",        "Last-Modified"};

const int g_cnGeneralHeaders = std::size(apszGeneralHeaders);
const int g_cnReqHeaders = std::size(apszRequestHeaders);
const int g_cnRespHeaders = std::size(apszResponseHeaders);
const int g_cnEntityHeaders = std::size(apszEntityHeaders);

namespace {

// A name stands in one table alone, so that the order of the tables and of their entries decides nothing.
constexpr bool AllNamesAreDistinct() {
    std::array<std::string_view, 64> names;
    std::size_t count = 0;
    const rdx::NameTable tables[] = {apszGeneralHeaders, apszRequestHeaders, apszResponseHeaders,
                                     apszEntityHeaders};
    for (const rdx::NameTable table : tables) {
        for (const std::string_view name : table) {
            const std::span<const std::string_view> before(names.data(), count);
            const auto same = [=](std::string_view other) {
                return std::ranges::equal(name, other, {}, rdx::UpperByte, rdx::UpperByte);
            };
            if (std::ranges::any_of(before, same)) return false;
            names[count++] = name;
        }
    }
    return true;
}
static_assert(AllNamesAreDistinct());

constexpr std::size_t kShortestName = 2;

// A byte stays spare behind what is appended, whatever is appended: the last byte must lie beyond it. The
// lengths are compared, because a pointer behind the buffer could wrap round.
bool HasRoom(const char* cursor, const char* last, std::size_t length) {
    return last > cursor && static_cast<std::size_t>(last - cursor) > length;
}

} // namespace

namespace rdx {

int ClassifyHeader(const char* function, const char* p, const char* q, char** ppcolon, NameTable names) {
    const std::string_view line = Line(p, q);
    const std::size_t length = line.find(':');
    if (length == std::string_view::npos) return HTTP_HEADER_MALFORMED;
    const char* const t = p + length;
    RDX_CHECK_FOR(function, *t == ':', "*t == ':'");
    *ppcolon = const_cast<char*>(t);
    if (length < kShortestName) return HTTP_HEADER_MALFORMED;
    const std::string_view name = line.substr(0, length);
    const bool known =
        std::ranges::any_of(names, [=](const char* entry) { return StartsWithIgnoringCase(entry, name); });
    return known ? HTTP_HEADER_KNOWN : HTTP_HEADER_OTHER;
}

std::span<HttpHeader> Held(const HeaderList& list) {
    return {list.headers, static_cast<std::size_t>(std::min<int>(*list.count, list.capacity))};
}

StoredLine StoreHeaderLine(std::string_view line, std::span<const HeaderList> lists) {
    const char* const p = line.data();
    const char* const q = p + line.size();
    // Empty for each line: a line without a colon must meet its assertion, not the colon of another line.
    char* pcolon = nullptr;
    const auto list = std::ranges::find_if(lists, [&](const HeaderList& candidate) {
        return candidate.classify(p, q, &pcolon) != HTTP_HEADER_OTHER;
    });
    if (list == lists.end()) return {false, nullptr};
    const unsigned char index = *list->count;
    const bool stored =
        AssignHeaderData(p, pcolon, q, list->headers, index, list->capacity) == HTTP_HEADER_STORED;
    // Held at the highest number, so that an overflowing list never looks like one with room again.
    if (index < std::numeric_limits<unsigned char>::max()) ++*list->count;
    return {true, stored ? &list->headers[index] : nullptr};
}

HttpHeader* FindHeader(std::span<HttpHeader> headers, std::string_view name) {
    const auto found = std::ranges::find_if(headers, [=](const HttpHeader& header) {
        return header.name != nullptr && EqualsIgnoringCase(header.name, name);
    });
    return found != headers.end() ? &*found : nullptr;
}

void ReleaseHeaders(const HeaderList& list) {
    const std::span<HttpHeader> held = Held(list);
    FreeHeaders(held.data(), static_cast<int>(held.size()));
    *list.count = 0;
}

} // namespace rdx

int IsGeneralHeader(const char* p, const char* q, char** ppcolon) {
    return rdx::ClassifyHeader(__PRETTY_FUNCTION__, p, q, ppcolon, apszGeneralHeaders);
}

int IsEntityHeader(const char* p, const char* q, char** ppcolon) {
    return rdx::ClassifyHeader(__PRETTY_FUNCTION__, p, q, ppcolon, apszEntityHeaders);
}

int AssignHeaderData(const char* p, char* pcolon, const char* q, HttpHeader* aHeaders, unsigned char index,
                     int capacity) {
    RDX_CHECK(p != nullptr, "p != __null");
    RDX_CHECK(q != nullptr, "q != __null");
    RDX_CHECK(pcolon != nullptr, "pcolon != __null");
    RDX_CHECK(*pcolon == ':', "*pcolon == (char)':'");
    RDX_CHECK(aHeaders != nullptr, "pHdr != __null");
    if (index >= capacity) return HTTP_HEADER_LIST_FULL;
    HttpHeader& header = aHeaders[index];

    // Signed: a caller whose colon does not lie in the line meets these two.
    const std::ptrdiff_t lname = pcolon - p + 1;
    RDX_CHECK(lname > 0, "lname > 0");
    header.name = rdx::CopyText(rdx::Line(p, pcolon)).release();
    if (header.name == nullptr) return HTTP_HEADER_NO_MEMORY;

    rdx::Reader value(rdx::Line(pcolon + 1, q));
    value.Skip(": "); // no tabs: clients see them in the value
    const std::ptrdiff_t lvalue = q - pcolon > 0 ? static_cast<std::ptrdiff_t>(value.Rest().size()) + 1 : 0;
    RDX_CHECK(lvalue > 0, "lvalue > 0");
    header.value = rdx::CopyText(value.Rest()).release();
    return header.value != nullptr ? HTTP_HEADER_STORED : HTTP_HEADER_NO_MEMORY;
}

int AllocHeader(HttpHeader* pHeader, const char* name, const char* value) {
    RDX_CHECK(pHeader != nullptr, "pHeader != __null");
    RDX_CHECK(name != nullptr, "name != __null");
    RDX_CHECK(value != nullptr, "value != __null");
    RDX_CHECK(*name != '\0', "nlen > 0");
    RDX_CHECK(*value != '\0', "vlen > 0");
    pHeader->name = rdx::CopyText(name).release();
    if (pHeader->name == nullptr) return HTTP_ALLOC_NO_NAME;
    pHeader->value = rdx::CopyText(value).release();
    return pHeader->value != nullptr ? HTTP_ALLOC_DONE : HTTP_ALLOC_NO_VALUE;
}

void FreeHeaders(HttpHeader* aHeaders, int count) {
    if (aHeaders == nullptr || count <= 0) return;
    for (HttpHeader& header : std::span(aHeaders, static_cast<std::size_t>(count))) {
        rdx::FreeAndNull(header.name);
        rdx::FreeAndNull(header.value);
    }
}

int AssertedStrCopy(char** ppCursor, const char* pLast, const char* text) {
    if (text == nullptr || *text == '\0') return HTTP_APPEND_EMPTY_TEXT;
    const std::size_t length = std::strlen(text);
    if (!HasRoom(*ppCursor, pLast, length)) return HTTP_APPEND_NO_ROOM;
    std::memcpy(*ppCursor, text, length + 1);
    *ppCursor += length;
    return HTTP_APPENDED;
}

int AssertedMemCopy(char** ppCursor, const char* pLast, const void* data, unsigned int n) {
    if (!HasRoom(*ppCursor, pLast, n) || (data == nullptr && n != 0)) return HTTP_APPEND_NO_ROOM;
    if (n != 0) std::memcpy(*ppCursor, data, n);
    *ppCursor += n;
    return HTTP_APPENDED;
}
