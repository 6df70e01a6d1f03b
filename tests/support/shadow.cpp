#include "tests/support/shadow.h"

#include <cerrno>
#include <crypt.h>
#include <map>
#include <memory>
#include <shadow.h>

namespace {

std::map<std::string, std::string>& Entries() {
    static std::map<std::string, std::string> entries;
    return entries;
}

} // namespace

// Takes the place of the C library's.
extern "C" int getspnam_r(const char* name, spwd* entry, char* buffer, std::size_t size, spwd** result) {
    *result = nullptr;
    const auto found = Entries().find(name);
    if (found == Entries().end()) return ENOENT;
    const auto& [user, password] = *found;
    if (user.size() + 1 + password.size() + 1 > size) return ERANGE;
    entry->sp_namp = buffer;
    entry->sp_pwdp = buffer + user.copy(buffer, user.size()) + 1;
    entry->sp_pwdp[-1] = '\0';
    entry->sp_pwdp[password.copy(entry->sp_pwdp, password.size())] = '\0';
    *result = entry;
    return 0;
}

namespace rdx::test {

ShadowEntry::ShadowEntry(const std::string& user, const std::string& password) : user_(user) {
    Entries()[user] = password;
}

ShadowEntry::~ShadowEntry() { Entries().erase(user_); }

std::string Encrypt(const std::string& password, const std::string& setting) {
    const auto data = std::make_unique<crypt_data>();
    const char* const encrypted = crypt_r(password.c_str(), setting.c_str(), data.get());
    return encrypted != nullptr ? encrypted : "";
}

} // namespace rdx::test
