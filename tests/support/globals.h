// The library's globals in tests.
#ifndef RDX_TESTS_SUPPORT_GLOBALS_H
#define RDX_TESTS_SUPPORT_GLOBALS_H

namespace rdx::test {

// Gives every global of the modules that are linked in what it held when the program was loaded: the
// settings, what the command line sets, the server's state, the logs. No other thread may be about to change
// one. Every unit test begins with this by itself.
void ResetGlobals();

} // namespace rdx::test

#endif
