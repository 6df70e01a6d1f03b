// librdxusers.so: preloaded into a server, it has getspnam and getspnam_r look users up in the file that
// RDX_SIM_USERS names, a shadow database like /etc/shadow. A mount over that file puts nothing foreign into
// the process; this is for systems that allow none.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <shadow.h>

namespace {

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

} // namespace

// Take the places of the C library's. A user who is not there is no error.
extern "C" {

int getspnam_r(const char* name, spwd* entry, char* buffer, size_t size, spwd** result) {
    *result = nullptr;
    const char* const path = std::getenv("RDX_SIM_USERS");
    const File users(path != nullptr ? fopen(path, "re") : nullptr);
    if (!users) return path != nullptr ? errno : ENOENT;
    for (;;) {
        spwd* next = nullptr;
        const int failure = fgetspent_r(users.get(), entry, buffer, size, &next);
        if (failure != 0) return failure == ENOENT ? 0 : failure;
        if (std::strcmp(entry->sp_namp, name) != 0) continue;
        *result = next;
        return 0;
    }
}

spwd* getspnam(const char* name) {
    static spwd entry;
    static char line[1024];
    spwd* found = nullptr;
    errno = getspnam_r(name, &entry, line, sizeof line, &found);
    return found;
}

} // extern "C"
