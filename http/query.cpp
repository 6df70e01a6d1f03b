// The query string of a request's URI.
#include "common/check.h"
#include "common/text.h"
#include "http/httpreq.h"

#include <cstring>
#include <optional>

namespace {

constexpr int kNameTooLong = -1;
constexpr int kNotFound = -2;
constexpr int kEmptyValue = -3;
constexpr int kNoRoom = -4;

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
    if (!key.Add(szName).Add("=").Fits()) return kNameTooLong;

    rdx::Reader uri(pstRequest->pszUri);
    if (!uri.TakeUntilText(key.Text())) return kNotFound;
    uri.Take(key.Text());
    const std::string_view value = uri.Rest().substr(0, uri.Rest().find('&'));
    if (value.empty()) return kEmptyValue;
    if (value.size() >= uiBufsiz) return kNoRoom;
    rdx::CopyBounded({szBuf, uiBufsiz}, value);
    return 0;
}

int DecodeUrlString(char* szUrlString) {
    RDX_CHECK(szUrlString != nullptr, "szUrlString != __null");
    // The end is not moved back as the text shrinks. What the walk meets behind the new NUL is what was left
    // standing there; an escape would have to begin before it, so the walk changes nothing.
    const std::string_view text = szUrlString;
    if (text.empty()) return -1;
    for (std::size_t position = 0; position < text.size();) {
        if (text[position] != '%') {
            ++position;
            continue;
        }
        const std::optional<char> character = Decode(text.substr(position + 1, 2));
        if (!character) return -1;
        char* const escape = szUrlString + position;
        *escape = *character;
        std::memmove(escape + 1, escape + 3, std::strlen(escape + 3) + 1);
    }
    return 0;
}
