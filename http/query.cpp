// The query string of a request's URI.
#include "common/check.h"
#include "common/text.h"
#include "http/httpreq.h"

#include <cstring>
#include <optional>

namespace {

struct Escape {
    std::string_view digits;
    char character;
};
constexpr Escape kEscapes[] = {{"20", ' '}, {"25", '%'}, {"3A", ':'}, {"5C", '\\'}};

// The character of the escape that `digits` are, or nothing.
std::optional<char> Decode(std::string_view digits) {
    for (const Escape& escape : kEscapes) {
        if (digits == escape.digits) return escape.character;
    }
    return std::nullopt;
}

} // namespace

int GetQueryStringValue(HttpRequest* pstRequest, const char* szName, char* szBuf, unsigned int uiBufsiz) {
    RDX_CHECK(pstRequest != nullptr, "pstRequest != __null");
    RDX_CHECK(pstRequest->pszUri != nullptr, "pstRequest->pszUri != __null");
    RDX_CHECK(szName != nullptr, "szName != __null");
    RDX_CHECK(szBuf != nullptr, "szBuf != __null");
    RDX_CHECK(uiBufsiz > 0, "uiBufsiz > 0");

    char buffer[HTTP_QUERY_KEY_SIZE];
    rdx::Appender key(buffer);
    if (!key.Add(szName).Add("=").Fits()) return HTTPQUERY_NAME_TOO_LONG;

    rdx::Reader uri(pstRequest->pszUri);
    if (!uri.TakeUntilText(key.Text())) return HTTPQUERY_NOT_FOUND;
    uri.Take(key.Text());
    const std::string_view value = uri.Rest().substr(0, uri.Rest().find('&'));
    if (value.empty()) return HTTPQUERY_EMPTY;
    if (value.size() >= uiBufsiz) return HTTPQUERY_NO_ROOM;
    rdx::CopyBounded({szBuf, uiBufsiz}, value);
    return HTTPQUERY_FOUND;
}

int DecodeUrlString(char* szUrlString) {
    RDX_CHECK(szUrlString != nullptr, "szUrlString != __null");
    // The end is not moved back as the text shrinks. What the walk meets behind the new NUL is what was left
    // standing there; an escape would have to begin before it, so the walk changes nothing.
    const std::string_view text = szUrlString;
    if (text.empty()) return HTTPREQ_BAD_ESCAPE;
    for (std::size_t position = 0; position < text.size();) {
        if (text[position] != '%') {
            ++position;
            continue;
        }
        const std::optional<char> character = Decode(text.substr(position + 1, 2));
        if (!character) return HTTPREQ_BAD_ESCAPE;
        char* const escape = szUrlString + position;
        *escape = *character;
        std::memmove(escape + 1, escape + 3, std::strlen(escape + 3) + 1);
    }
    return HTTPREQ_DONE;
}
