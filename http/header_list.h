// What requests and responses share about their header lists.
//
// A message keeps each class of headers in a fixed array with an 8-bit count beside it. The count goes on
// rising when the array is full, because the Free functions take it as the sign of a hostile message; so
// everything that walks over a list goes through Held(), which never leaves the array.
#ifndef RDX_HTTP_HEADER_LIST_H
#define RDX_HTTP_HEADER_LIST_H

#include "http/http.h"

#include <cstddef>
#include <span>
#include <string_view>

namespace rdx {

// The line from `p` up to and without `q`.
inline std::string_view Line(const char* p, const char* q) {
    return q > p ? std::string_view(p, static_cast<std::size_t>(q - p)) : std::string_view();
}

using NameTable = std::span<const char* const>;

// The result of the classifier `function`, by its signature, whose names are `names`; see IsGeneralHeader.
int ClassifyHeader(const char* function, const char* p, const char* q, char** ppcolon, NameTable names);

// One list of a message, and the classifier that selects lines for it.
struct HeaderList {
    int (*classify)(const char* p, const char* q, char** ppcolon);
    HttpHeader* headers;
    unsigned char* count;
    int capacity;
};

template <std::size_t Size>
HeaderList MakeHeaderList(decltype(HeaderList::classify) classify, HttpHeader (&headers)[Size],
                          unsigned char& count) {
    return {classify, headers, &count, static_cast<int>(Size)};
}

// The headers that the list really holds.
std::span<HttpHeader> Held(const HeaderList& list);

// Stores a header line in the first of `lists` whose classifier gives anything but 0, and counts it there.
// `known` tells whether there was one. `header` is the stored header; null when the list was full or memory
// was short, which is no failure: such a line counts, but must have no effect.
struct StoredLine {
    bool known;
    const HttpHeader* header;
};
StoredLine StoreHeaderLine(std::string_view line, std::span<const HeaderList> lists);

// The first header of that whole name, case ignored, or null. Half-filled headers have no name to match.
HttpHeader* FindHeader(std::span<HttpHeader> headers, std::string_view name);

// Frees what the list holds and sets its count to 0.
void ReleaseHeaders(const HeaderList& list);

} // namespace rdx

#endif
