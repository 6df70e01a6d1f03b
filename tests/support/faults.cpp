#include "tests/support/faults.h"

#include <crypt.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <shadow.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Fault {
    const char* name;
    int calls = 0;
    int strikeAt = 0; // the call number that fails; 0 when not armed
    int error = 0;
    bool struck = false;
};

thread_local Fault faults[] = {
#define FAULT(name, type, failure, parameters, arguments) {#name},
#include "tests/support/faults.def"
#undef FAULT
};

int IndexOf(const char* name) {
    for (std::size_t i = 0; i < sizeof faults / sizeof faults[0]; ++i) {
        if (std::strcmp(faults[i].name, name) == 0) return static_cast<int>(i);
    }
    std::fprintf(stderr, "faults.def does not name \"%s\"\n", name);
    std::abort();
}

bool Strikes(int index) {
    Fault& fault = faults[index];
    if (++fault.calls != fault.strikeAt) return false;
    fault.strikeAt = 0;
    fault.struck = true;
    errno = fault.error;
    return true;
}

enum Index {
#define FAULT(name, type, failure, parameters, arguments) INDEX_##name,
#include "tests/support/faults.def"
#undef FAULT
};

} // namespace

extern "C" {
#define FAULT(name, type, failure, parameters, arguments)                                                    \
    type __real_##name parameters;                                                                           \
    type __wrap_##name parameters;                                                                           \
    type __wrap_##name parameters { return Strikes(INDEX_##name) ? failure : __real_##name arguments; }
#include "tests/support/faults.def"
#undef FAULT
}

namespace rdx::test {

FailCall::FailCall(const char* name, int nth, int error) : index_(IndexOf(name)) {
    Fault& fault = faults[index_];
    fault.strikeAt = fault.calls + nth;
    fault.error = error;
    fault.struck = false;
}

FailCall::~FailCall() { faults[index_].strikeAt = 0; }

bool FailCall::Struck() const { return faults[index_].struck; }

int CallsOf(const char* name) { return faults[IndexOf(name)].calls; }

} // namespace rdx::test
