// Requests read from a socket, at every cut.
#ifndef RDX_TESTS_SUPPORT_REQUEST_READING_H
#define RDX_TESTS_SUPPORT_REQUEST_READING_H

#include "common/config.h"
#include "http/httpreq.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

namespace rdx::test {

inline auto Assertion(const std::string& function, const std::string& text) {
    return test::Assertion("http/httpreq.cpp", function, text);
}

// A request and what became of reading it.
class Read {
public:
    Read() = default;
    ~Read() {
        if (request == nullptr) return;
        // A list that has overflowed would meet the assertion that other tests are about.
        request->ucNumOfGeneralHeaders = std::min<unsigned char>(request->ucNumOfGeneralHeaders, 16);
        request->ucNumOfRequestHeaders = std::min<unsigned char>(request->ucNumOfRequestHeaders, 14);
        request->ucNumOfEntityHeaders = std::min<unsigned char>(request->ucNumOfEntityHeaders, 16);
        FreeHttpRequest(request);
        std::free(request);
    }
    Read(const Read&) = delete;
    Read& operator=(const Read&) = delete;
    Read(Read&& other) noexcept
        : code(other.code), taken(other.taken), trace(std::move(other.trace)),
          request(std::exchange(other.request, nullptr)) {}

    HttpRequest* operator->() const { return request; }
    std::string Body() const {
        return request->pEntityBody == nullptr ? ""
                                               : std::string(request->pEntityBody, request->uiBodyLength);
    }

    int code = 0;
    std::size_t taken = 0; // bytes out of the socket
    std::string trace;     // on standard output
    HttpRequest* request = nullptr;
};

inline void ReadFrom(int sock, Read& read) {
    HttpRequest garbage{};
    read.request = &garbage; // must be overwritten on every path
    const CaptureStdout capture;
    read.code = ConsumeHttpRequest(sock, &read.request);
    read.trace = capture.Text();
}

Read ReadCut(const Cut& cut, Wire::Then then = Wire::Then::Close) {
    Read read;
    Wire wire(cut.pieces, then);
    ReadFrom(wire.Socket(), read);
    read.taken = wire.Taken();
    EXPECT_EQ(read.request != nullptr, read.code == 200);
    return read;
}

Read ReadWhole(std::string_view bytes, Wire::Then then = Wire::Then::Close) {
    return ReadCut({"whole", {bytes}}, then);
}

// Reads `bytes` at every cut and gives each result to `check`.
template <typename Check>
inline void AtEveryCut(std::string_view bytes, Check check) {
    for (const Cut& cut : CutsOf(bytes)) {
        SCOPED_TRACE(cut.name);
        const Read read = ReadCut(cut);
        check(read);
    }
}

inline int CodeOf(std::string_view bytes) { return ReadWhole(bytes).code; }

// GET and POST are allowed.
class RequestTest : public testing::Test {
protected:
    void SetUp() override {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        aiMethodsAllowed[HTTP_GET] = aiMethodsAllowed[HTTP_POST] = 1;
    }
};

} // namespace rdx::test

#endif
