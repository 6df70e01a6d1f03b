// Memory that is given back: how much of it lives, and whether a secret is left in it.
//
// The tests that use this have free and explicit_bzero replaced by the ones of released.cpp.
#ifndef RDX_TESTS_SUPPORT_RELEASED_H
#define RDX_TESTS_SUPPORT_RELEASED_H

#include <cstddef>
#include <string>
#include <vector>

namespace rdx::test {

// The blocks of malloc and calloc that this thread has taken and not given back.
int LiveBlocks();

// Follows texts through the memory of this thread. They are long enough not to lie whole in the bytes that an
// allocator adds to a block, where those of an earlier block are.
class SecretWatch {
public:
    explicit SecretWatch(std::vector<std::string> secrets);
    ~SecretWatch();
    SecretWatch(const SecretWatch&) = delete;
    SecretWatch& operator=(const SecretWatch&) = delete;

    // How many blocks were given back with a secret in them.
    int Left() const { return left_; }

    // How often memory with a secret was wiped that is no block given back since: the stack's.
    std::size_t WipedOnStack() const { return wiped_.size(); }

    void BeforeWipe(const void* memory, std::size_t size);
    void BeforeFree(const void* block, std::size_t size);

private:
    bool HasSecret(const void* memory, std::size_t size) const;

    std::vector<std::string> secrets_;
    std::vector<const void*> wiped_;
    int left_ = 0;
};

} // namespace rdx::test

#endif
