// A host process in its plainest form: loads the library, runs the server on its first thread and returns
// what the server returned as its exit status. The tests send it the signals that are meant for the server.
// Built with RDX_TEST_LINKED it has the library from the start.
//
// RDX_TEST_HELD_DESCRIPTORS: how many descriptors to hold open before the server starts.

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>

#ifdef RDX_TEST_LINKED
#include "server/rdxhttp.h"
#endif

namespace {

using Main = int (*)(int, char**);

#ifdef RDX_TEST_LINKED
Main FindMain() { return &rdxhttp_main; }
#else
Main FindMain() {
    void* library = dlopen(RDX_TEST_LIBRARY, RTLD_NOW);
    if (library == nullptr) std::fprintf(stderr, "plain_host: %s\n", dlerror());
    return library == nullptr ? nullptr : reinterpret_cast<Main>(dlsym(library, "rdxhttp_main"));
}
#endif

constexpr rlim_t kDescriptorsBesides = 256; // room for the server's own

void HoldDescriptors(int count) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t wanted = static_cast<rlim_t>(count) + kDescriptorsBesides;
    if (limit.rlim_cur < wanted) {
        limit.rlim_cur = wanted;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
    for (int i = 0; i < count; ++i) {
        if (open("/dev/null", O_RDONLY) < 0) std::abort();
    }
}

} // namespace

int main(int argc, char** argv) {
    // What the server prints shows at once, in the order in which it is printed.
    setvbuf(stdout, nullptr, _IONBF, 0);
    const Main run = FindMain();
    if (run == nullptr) return 126;

    const char* held = std::getenv("RDX_TEST_HELD_DESCRIPTORS");
    if (held != nullptr) HoldDescriptors(std::atoi(held));
    return run(argc, argv);
}
