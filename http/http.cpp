#include "http/http.h"

#include "common/check.h"
#include "common/memory.h"
#include "common/text.h"
#include "http/header_list.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

// The first match wins and all names are distinct, so the order is only the order of comparison.
const char* const apszGeneralHeaders[9] = {"Cache-Control",     "Connection", "Date", "Pragma", "Trailer",
                                           "Transfer-Encoding", "Upgrade",    "Via",  "Warning"};
const char* const apszRequestHeaders[26] = {"Accept",
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
const char* const apszResponseHeaders[10] = {
    "Accept-Ranges", "Age",    "ETag",       "Location", "Proxy-Authenticate",
    "Retry-After",   "Server", "Set-Cookie", "Vary",     "WWW-Authenticate"};
const char* const apszEntityHeaders[10] = {
    "Allow",       "Content-Encoding", "Content-Language", "Content-Length", "Content-Location",
    "Content-MD5", "Content-Range",    "Content-Type",     "Expires",        "Last-Modified"};

const int g_cnGeneralHeaders = std::size(apszGeneralHeaders);
const int g_cnReqHeaders = std::size(apszRequestHeaders);
const int g_cnRespHeaders = std::size(apszResponseHeaders);
const int g_cnEntityHeaders = std::size(apszEntityHeaders);

namespace {

constexpr int kStored = 1;
constexpr int kMalformed = -6;
constexpr int kListFull = -6;
constexpr int kNoMemory = -1;
constexpr int kNoMemoryForValue = -2;
constexpr int kNoRoom = -2;
constexpr int kEmptyText = -9;

constexpr std::size_t kShortestName = 2;

// A byte stays spare behind what is appended, whatever is appended: the last byte must lie beyond it. The
// lengths are compared, because a pointer behind the buffer could wrap round.
bool HasRoom(const char* cursor, const char* last, std::size_t length) {
    return last > cursor && static_cast<std::size_t>(last - cursor) > length;
}

} // namespace

namespace rdx {

int ClassifyHeader(const char* p, const char* q, char** ppcolon, NameTable names) {
    const std::string_view line = Line(p, q);
    const std::size_t length = line.find(':');
    if (length == std::string_view::npos) return kMalformed;
    const char* const t = p + length;
    RDX_CHECK(*t == ':', "*t == ':'");
    *ppcolon = const_cast<char*>(t);
    if (length < kShortestName) return kMalformed;
    const std::string_view name = line.substr(0, length);
    return std::ranges::any_of(names, [=](const char* entry) { return StartsWithIgnoringCase(entry, name); });
}

std::span<HttpHeader> Held(const HeaderList& list) {
    return {list.headers, static_cast<std::size_t>(std::min<int>(*list.count, list.capacity))};
}

StoredLine StoreHeaderLine(std::string_view line, std::span<const HeaderList> lists) {
    const char* const p = line.data();
    const char* const q = p + line.size();
    // Empty for each line: a line without a colon must meet its assertion, not the colon of another line.
    char* pcolon = nullptr;
    const auto list = std::ranges::find_if(
        lists, [&](const HeaderList& candidate) { return candidate.classify(p, q, &pcolon) != 0; });
    if (list == lists.end()) return {false, nullptr};
    const unsigned char index = *list->count;
    const bool stored = AssignHeaderData(p, pcolon, q, list->headers, index, list->capacity) == kStored;
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
    return rdx::ClassifyHeader(p, q, ppcolon, apszGeneralHeaders);
}

int IsEntityHeader(const char* p, const char* q, char** ppcolon) {
    return rdx::ClassifyHeader(p, q, ppcolon, apszEntityHeaders);
}

int AssignHeaderData(const char* p, char* pcolon, const char* q, HttpHeader* aHeaders, unsigned char index,
                     int capacity) {
    RDX_CHECK(p != nullptr, "p != __null");
    RDX_CHECK(q != nullptr, "q != __null");
    RDX_CHECK(pcolon != nullptr, "pcolon != __null");
    RDX_CHECK(*pcolon == ':', "*pcolon == (char)':'");
    RDX_CHECK(aHeaders != nullptr, "pHdr != __null");
    if (index >= capacity) return kListFull;
    HttpHeader& header = aHeaders[index];

    const std::string_view name = rdx::Line(p, pcolon);
    const std::size_t lname = name.size() + 1;
    RDX_CHECK(lname > 0, "lname > 0");
    header.name = rdx::CopyText(name).release();
    if (header.name == nullptr) return kNoMemory;

    rdx::Reader value(rdx::Line(pcolon, q));
    value.Skip(": "); // no tabs: kept, clients see them in the value
    const std::size_t lvalue = value.Rest().size() + 1;
    RDX_CHECK(lvalue > 0, "lvalue > 0");
    header.value = rdx::CopyText(value.Rest()).release();
    return header.value != nullptr ? kStored : kNoMemory;
}

int AllocHeader(HttpHeader* pHeader, const char* name, const char* value) {
    RDX_CHECK(pHeader != nullptr, "pHeader != __null");
    RDX_CHECK(name != nullptr, "name != __null");
    RDX_CHECK(value != nullptr, "value != __null");
    RDX_CHECK(*name != '\0', "nlen > 0");
    RDX_CHECK(*value != '\0', "vlen > 0");
    pHeader->name = rdx::CopyText(name).release();
    if (pHeader->name == nullptr) return kNoMemory;
    pHeader->value = rdx::CopyText(value).release();
    return pHeader->value != nullptr ? 0 : kNoMemoryForValue;
}

void FreeHeaders(HttpHeader* aHeaders, int count) {
    if (aHeaders == nullptr || count <= 0) return;
    for (HttpHeader& header : std::span(aHeaders, static_cast<std::size_t>(count))) {
        rdx::FreeAndNull(header.name);
        rdx::FreeAndNull(header.value);
    }
}

int AssertedStrCopy(char** ppCursor, const char* pLast, const char* text) {
    if (text == nullptr || *text == '\0') return kEmptyText;
    const std::size_t length = std::strlen(text);
    if (!HasRoom(*ppCursor, pLast, length)) return kNoRoom;
    std::memcpy(*ppCursor, text, length + 1);
    *ppCursor += length;
    return 0;
}

int AssertedMemCopy(char** ppCursor, const char* pLast, const void* data, unsigned int n) {
    if (!HasRoom(*ppCursor, pLast, n) || (data == nullptr && n != 0)) return kNoRoom;
    if (n != 0) std::memcpy(*ppCursor, data, n);
    *ppCursor += n;
    return 0;
}
