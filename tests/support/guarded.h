// A copy of a text that ends right before an unreadable page: reading one byte past it is a fault.
#ifndef RDX_TESTS_SUPPORT_GUARDED_H
#define RDX_TESTS_SUPPORT_GUARDED_H

#include <cstddef>
#include <string_view>

namespace rdx::test {

class GuardedBytes {
public:
    explicit GuardedBytes(std::string_view bytes);
    ~GuardedBytes();
    GuardedBytes(const GuardedBytes&) = delete;
    GuardedBytes& operator=(const GuardedBytes&) = delete;

    char* begin() const { return begin_; }
    char* end() const { return begin_ + size_; }

private:
    char* begin_;
    std::size_t size_;
    void* mapping_;
    std::size_t mappedSize_;
};

} // namespace rdx::test

#endif
