#include "tests/support/reports.h"

#include <utility>

namespace {

thread_local std::vector<std::string> reports;

} // namespace

// In place of ReportSocketError.
extern "C" {
int __real_ReportSocketError(const char* function, const char* message);
int __wrap_ReportSocketError(const char* function, const char* message);

int __wrap_ReportSocketError(const char* function, const char* message) {
    reports.push_back(std::string(function) + ": " + message);
    return __real_ReportSocketError(function, message);
}
}

namespace rdx::test {

std::vector<std::string> TakeReports() { return std::exchange(reports, {}); }

} // namespace rdx::test
