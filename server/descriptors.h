// The set of watched connections, shared by the loop and its serving threads word by word.
//
// Threads add single descriptors while the loop copies the set; a descriptor that is added during a copy
// is in this copy or the next one.
#ifndef RDX_SERVER_DESCRIPTORS_H
#define RDX_SERVER_DESCRIPTORS_H

#include "common/shared.h"

#include <cstddef>
#include <sys/select.h>

namespace rdx {

using DescriptorWord = fd_mask;
inline constexpr std::size_t kDescriptorWords = FD_SETSIZE / NFDBITS;
inline constexpr DescriptorWord kEveryDescriptor = ~DescriptorWord{0};

inline DescriptorWord DescriptorBit(int descriptor) {
    return static_cast<DescriptorWord>(1UL << (static_cast<unsigned>(descriptor) % NFDBITS));
}

inline DescriptorWord& WordOf(fd_set& set, int descriptor) {
    return set.fds_bits[static_cast<unsigned>(descriptor) / NFDBITS];
}

inline void AddDescriptor(fd_set& set, int descriptor) {
    SetSharedBits(WordOf(set, descriptor), DescriptorBit(descriptor));
}

// True when the descriptor was in the set.
inline bool RemoveDescriptor(fd_set& set, int descriptor) {
    const DescriptorWord bit = DescriptorBit(descriptor);
    return (ClearSharedBits(WordOf(set, descriptor), bit) & bit) != 0;
}

// A copy for `select` to work on.
inline void CopyDescriptors(fd_set& copy, const fd_set& set) {
    for (std::size_t i = 0; i < kDescriptorWords; ++i) {
        copy.fds_bits[i] = LoadShared(set.fds_bits[i]);
    }
}

// Moves every descriptor of `from` into `to`, which no other thread uses.
inline void MoveDescriptors(fd_set& to, fd_set& from) {
    for (std::size_t i = 0; i < kDescriptorWords; ++i) {
        to.fds_bits[i] |= ClearSharedBits(from.fds_bits[i], kEveryDescriptor);
    }
}

} // namespace rdx

#endif
