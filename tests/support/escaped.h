// Text as it stands in a packet.
#ifndef RDX_TESTS_SUPPORT_ESCAPED_H
#define RDX_TESTS_SUPPORT_ESCAPED_H

#include <string>
#include <string_view>

namespace rdx::test {

inline std::string Escaped(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        case '\'':
            escaped += "&apos;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

} // namespace rdx::test

#endif
