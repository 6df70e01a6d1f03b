// Headers of a message as texts.
#ifndef RDX_TESTS_SUPPORT_HEADER_LISTS_H
#define RDX_TESTS_SUPPORT_HEADER_LISTS_H

#include "http/http.h"

#include <string>
#include <vector>

namespace rdx::test {

inline std::vector<std::string> Headers(const HttpHeader* headers, int count) {
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) texts.push_back(headers[i].name + std::string("=") + headers[i].value);
    return texts;
}

inline std::string Repeat(const std::string& text, int times) {
    std::string repeated;
    for (int i = 0; i < times; ++i) repeated += text;
    return repeated;
}

using Texts = std::vector<std::string>;

} // namespace rdx::test

#endif
