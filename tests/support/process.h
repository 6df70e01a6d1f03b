// What a process has: open descriptors and threads.
#ifndef RDX_TESTS_SUPPORT_PROCESS_H
#define RDX_TESTS_SUPPORT_PROCESS_H

#include "tests/support/eventually.h"

#include <dirent.h>
#include <string>

namespace rdx::test {

// The entries of a folder, without what begins with a dot; -1 when it cannot be read.
inline int EntriesOf(const std::string& folder) {
    DIR* const entries = opendir(folder.c_str());
    if (entries == nullptr) return -1;
    int count = 0;
    while (const dirent* const entry = readdir(entries)) {
        if (entry->d_name[0] != '.') ++count;
    }
    closedir(entries);
    return count;
}

// `process` is a number or "self", whose count has the folder's own descriptor in it.
inline int OpenDescriptors(const std::string& process = "self") {
    return EntriesOf("/proc/" + process + "/fd");
}
inline int ThreadsOf(const std::string& process = "self") { return EntriesOf("/proc/" + process + "/task"); }

// True as soon as no thread but the test's own runs. The sanitizer has one more.
inline bool OtherThreadsEnd() {
    return Eventually([] { return ThreadsOf() <= (kThreadSanitizer ? 2 : 1); });
}

} // namespace rdx::test

#endif
