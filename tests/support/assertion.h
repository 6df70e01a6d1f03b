// Matches the C library's report of a failed assertion, for EXPECT_DEATH.
#ifndef RDX_TESTS_SUPPORT_ASSERTION_H
#define RDX_TESTS_SUPPORT_ASSERTION_H

#include <gmock/gmock.h>

#include <string>

namespace rdx::test {

// The report that `function` in `source` (relative to the root, so that only the program stands before it)
// makes of exactly this text.
inline auto Assertion(const std::string& source, const std::string& function, const std::string& text) {
    return testing::AllOf(testing::HasSubstr(": " + source + ":"), testing::HasSubstr(function + "("),
                          testing::HasSubstr("Assertion `" + text + "' failed."));
}

} // namespace rdx::test

#endif
