// The shadow password database as unit tests see it: the entries that a test sets, none of the machine's.
#ifndef RDX_TESTS_SUPPORT_SHADOW_H
#define RDX_TESTS_SUPPORT_SHADOW_H

#include <string>

namespace rdx::test {

// One user, known while the object lives. Set entries while no other thread looks users up.
class ShadowEntry {
public:
    // `password` is the stored text: encrypted, or what else can stand there.
    ShadowEntry(const std::string& user, const std::string& password);
    ~ShadowEntry();
    ShadowEntry(const ShadowEntry&) = delete;
    ShadowEntry& operator=(const ShadowEntry&) = delete;

private:
    std::string user_;
};

// `password` as the database stores it. `setting` names method and salt; the default one is quick.
std::string Encrypt(const std::string& password, const std::string& setting = "$6$rounds=1000$salt$");

} // namespace rdx::test

#endif
