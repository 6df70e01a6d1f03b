// Responses that free themselves, and the settings they are made with.
#ifndef RDX_TESTS_SUPPORT_RESPONSES_H
#define RDX_TESTS_SUPPORT_RESPONSES_H

#include "common/config.h"
#include "http/httpresp.h"
#include "tests/support/answers.h"
#include "tests/support/assertion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace rdx::test {

inline auto Assertion(const std::string& function, const std::string& text) {
    return test::Assertion("http/httpresp.cpp", function, text);
}

// Frees record and contents, also of a list that has overflowed: its assertion is another test's matter.
struct FreeResponse {
    void operator()(HttpResponse* response) const {
        response->ucNumOfGeneralHeaders = std::min<unsigned char>(response->ucNumOfGeneralHeaders, 16);
        response->ucNumOfResponseHeaders = std::min<unsigned char>(response->ucNumOfResponseHeaders, 8);
        response->ucNumOfEntityHeaders = std::min<unsigned char>(response->ucNumOfEntityHeaders, 16);
        FreeHttpResponse(response);
        std::free(response);
    }
};
using Response = std::unique_ptr<HttpResponse, FreeResponse>;

inline Response EmptyResponse() {
    return Response(static_cast<HttpResponse*>(std::calloc(1, sizeof(HttpResponse))));
}

// What is written for CreateHttpResponse(200, "text/html", "abc").
inline const std::string kWritten = Answer(200, "abc");

class ResponseTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

} // namespace rdx::test

#endif
