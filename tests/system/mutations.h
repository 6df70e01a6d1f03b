// What can be wrong with an argument packet: a good one cut, and its tags, names and values dropped, doubled,
// swapped, of other types and of other lengths.
#ifndef RDX_TESTS_SYSTEM_MUTATIONS_H
#define RDX_TESTS_SYSTEM_MUTATIONS_H

#include <string>
#include <vector>

namespace rdx::test {

struct Mutation {
    std::string why;
    std::string packet;
};

// All of them, for one good packet.
std::vector<Mutation> MutationsOf(const std::string& packet);

} // namespace rdx::test

#endif
