// The assertion that no build type removes.
//
// A broken precondition ends the process through the C library's own assertion report, which names the
// source file, the line and the signature of the function that checked. The reported text is given
// apart from the condition: the text is fixed, while the condition may be written in whatever way is
// safe. Use it directly in the exported function, so that the report names that function; a step that is a
// function of its own gives the exported function's signature with RDX_CHECK_FOR.
//
// Some conditions no caller can break: a table's size, a position that has just been found. They stand all
// the same. The texts are a list that hosts and support programs know, where each names one promise of the
// code behind it; a change that breaks such a promise ends in its report and not in a wrong answer, and until
// then the compiler removes what it can see to be true.
#ifndef RDX_COMMON_CHECK_H
#define RDX_COMMON_CHECK_H

// The C library's report behind `assert`, which <assert.h> does not declare in a build with NDEBUG.
extern "C" [[noreturn]] void __assert_fail(const char* assertion, const char* file, unsigned int line,
                                           const char* function) noexcept;

#define RDX_CHECK_FOR(function, condition, text)                                                             \
    ((condition) ? static_cast<void>(0) : __assert_fail(text, __FILE__, __LINE__, function))

#define RDX_CHECK(condition, text) RDX_CHECK_FOR(__PRETTY_FUNCTION__, condition, text)

#endif
