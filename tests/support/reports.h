// What the library reports through the socket layer's hook, which prints nothing itself.
//
// A program whose sources include support/reports.cpp has the hook replaced (see rdx_record_reports in
// tests/CMakeLists.txt); each thread sees its own reports.
#ifndef RDX_TESTS_SUPPORT_REPORTS_H
#define RDX_TESTS_SUPPORT_REPORTS_H

#include <string>
#include <vector>

namespace rdx::test {

// The reports of this thread since it last asked, each as "function: message".
std::vector<std::string> TakeReports();

} // namespace rdx::test

#endif
