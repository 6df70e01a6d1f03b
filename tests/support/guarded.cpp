#include "tests/support/guarded.h"

#include <algorithm>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace rdx::test {

GuardedBytes::GuardedBytes(std::string_view bytes) : size_(bytes.size()) {
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    const std::size_t readable = (size_ + page - 1) / page * page;
    mappedSize_ = readable + page;
    mapping_ = mmap(nullptr, mappedSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping_ == MAP_FAILED) std::abort();
    char* const guard = static_cast<char*>(mapping_) + readable;
    if (mprotect(guard, page, PROT_NONE) != 0) std::abort();
    begin_ = guard - size_;
    std::copy(bytes.begin(), bytes.end(), begin_);
}

GuardedBytes::~GuardedBytes() { munmap(mapping_, mappedSize_); }

} // namespace rdx::test
