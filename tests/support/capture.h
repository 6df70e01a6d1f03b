// Captures what the process prints on its standard output while a test runs a piece of code, the traces
// and the log alike, also from other threads.
#ifndef RDX_TESTS_SUPPORT_CAPTURE_H
#define RDX_TESTS_SUPPORT_CAPTURE_H

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace rdx::test {

class CaptureStdout {
public:
    CaptureStdout();
    ~CaptureStdout();
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;

    // Everything printed since the capture began; the capture goes on.
    std::string Text() const;

private:
    int savedDescriptor_;
    int file_;
};

// A log line as written, with its time stamp replaced by "TIME", so that it can be compared as a whole.
std::string WithoutTimes(const std::string& text);

// Matches what has the lines of these texts in this order, whatever is printed between them.
testing::Matcher<std::string> HasLines(const std::vector<std::string>& texts);

} // namespace rdx::test

#endif
