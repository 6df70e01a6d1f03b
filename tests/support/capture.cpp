#include "tests/support/capture.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <sstream>
#include <sys/mman.h>
#include <unistd.h>

namespace rdx::test {

CaptureStdout::CaptureStdout() {
    std::fflush(stdout);
    savedDescriptor_ = dup(STDOUT_FILENO);
    file_ = memfd_create("stdout", 0);
    if (savedDescriptor_ < 0 || file_ < 0 || dup2(file_, STDOUT_FILENO) < 0) std::abort();
}

CaptureStdout::~CaptureStdout() {
    const std::string text = Text();
    dup2(savedDescriptor_, STDOUT_FILENO);
    if (testing::Test::HasFailure()) std::fputs(text.c_str(), stdout); // the failure is told in it
    close(savedDescriptor_);
    close(file_);
}

std::string CaptureStdout::Text() const {
    std::fflush(stdout);
    std::string text(static_cast<std::size_t>(lseek(file_, 0, SEEK_END)), '\0');
    const ssize_t count = pread(file_, text.data(), text.size(), 0);
    if (count < 0) std::abort();
    text.resize(static_cast<std::size_t>(count));
    return text;
}

std::string WithoutTimes(const std::string& text) {
    static const std::regex time(R"(\[\d\d:\d\d:\d\d\])");
    return std::regex_replace(text, time, "[TIME]");
}

namespace {

std::vector<std::string> LinesOf(const std::vector<std::string>& texts) {
    std::vector<std::string> lines;
    for (const std::string& text : texts) {
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);) {
            if (!line.empty()) lines.push_back(line);
        }
    }
    return lines;
}

MATCHER_P(HasInOrder, lines, "has these in this order: " + testing::PrintToString(lines)) {
    std::size_t at = 0;
    for (const std::string& line : lines) {
        at = arg.find(line, at);
        if (at == arg.npos) {
            *result_listener << "which lacks \"" << line << "\" there";
            return false;
        }
        at += line.size();
    }
    return true;
}

} // namespace

testing::Matcher<std::string> HasLines(const std::vector<std::string>& texts) {
    return HasInOrder(LinesOf(texts));
}

} // namespace rdx::test
