// The versions of HTTP that are spoken.
#ifndef RDX_HTTP_VERSIONS_H
#define RDX_HTTP_VERSIONS_H

#include <string_view>

namespace rdx {

struct HttpVersion {
    const char* name;         // as it stands behind "HTTP/"
    unsigned char number;     // as messages hold it
    unsigned char keepsAlive; // 1: connections stay open unless a header says otherwise
};
inline constexpr HttpVersion kHttpVersions[] = {{"1.0", 10, 0}, {"1.1", 11, 1}};

// The version of this name or number, or null.
constexpr const HttpVersion* FindHttpVersion(std::string_view name) {
    for (const HttpVersion& version : kHttpVersions) {
        if (version.name == name) return &version;
    }
    return nullptr;
}
constexpr const HttpVersion* FindHttpVersion(unsigned char number) {
    for (const HttpVersion& version : kHttpVersions) {
        if (version.number == number) return &version;
    }
    return nullptr;
}

} // namespace rdx

#endif
