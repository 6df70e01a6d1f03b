// A socket with one owner.
#ifndef RDX_COMMON_OWNED_SOCKET_H
#define RDX_COMMON_OWNED_SOCKET_H

#include "common/portability_sockets.h"

#include <utility>

namespace rdx {

// Closed with CloseSocket unless it is released.
class OwnedSocket {
public:
    explicit OwnedSocket(int descriptor = -1) : descriptor_(descriptor) {}
    ~OwnedSocket() {
        if (descriptor_ >= 0) CloseSocket(descriptor_);
    }
    OwnedSocket(const OwnedSocket&) = delete;
    OwnedSocket& operator=(const OwnedSocket&) = delete;

    int Get() const { return descriptor_; }
    int* Out() { return &descriptor_; } // for a function that makes one
    int Release() { return std::exchange(descriptor_, -1); }

private:
    int descriptor_;
};

} // namespace rdx

#endif
