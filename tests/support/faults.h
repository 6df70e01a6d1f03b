// Fault injection: makes a chosen call of a system function or allocator fail.
//
// Every unit test is linked so that the calls listed in faults.def, made from the library's objects and
// from the test, come through here first. A fault strikes only on the thread that armed it.
//
//     FailCall noMemory("malloc");             // the next malloc fails with ENOMEM
//     FailCall second("setsockopt", 2, EPERM); // the second setsockopt from here fails with EPERM
//     ...
//     EXPECT_TRUE(noMemory.Struck());          // otherwise the test injected nothing
#ifndef RDX_TESTS_SUPPORT_FAULTS_H
#define RDX_TESTS_SUPPORT_FAULTS_H

#include <cerrno>

namespace rdx::test {

class FailCall {
public:
    // Fails the `nth` call of `name` counted from now, once, with `error` in errno. A `name` that is not
    // in faults.def aborts the test.
    explicit FailCall(const char* name, int nth = 1, int error = ENOMEM);
    ~FailCall();
    FailCall(const FailCall&) = delete;
    FailCall& operator=(const FailCall&) = delete;

    bool Struck() const;

private:
    int index_;
};

// How often this thread has called `name` so far.
int CallsOf(const char* name);

} // namespace rdx::test

#endif
