// The assertion that no build type removes.
//
// A broken precondition ends the process through the C library's own assertion report, which names the
// source file, the line and the signature of the function that checked. The reported text is given
// apart from the condition: the text is fixed, while the condition may be written in whatever way is
// safe. Use it directly in the exported function, so that the report names that function.
#ifndef RDX_COMMON_CHECK_H
#define RDX_COMMON_CHECK_H

// The C library's report behind `assert`, which <assert.h> does not declare in a build with NDEBUG.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

#define RDX_CHECK(condition, text)                                                                           \
    ((condition) ? static_cast<void>(0) : __assert_fail(text, __FILE__, __LINE__, __PRETTY_FUNCTION__))

#endif
