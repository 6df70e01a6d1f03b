#include "tests/support/entry.h"

#include "common/config.h"
#include "common/portability_sockets.h"
#include "server/rdxhttp.h"
#include "server/service.h"

#include <gtest/gtest.h>

#include <cstdio>

namespace rdx::test {

Replaced replaced;

} // namespace rdx::test

using rdx::test::replaced;

extern "C" {
int __wrap_ReadIniFile(const char*, const char*);
int __real_DumpConfiguration(FILE*);
int __wrap_DumpConfiguration(FILE*);
int __real_InitSockLib(void);
int __wrap_InitSockLib(void);
int __real_CreateSrvSocket(const char*, int, int*);
int __wrap_CreateSrvSocket(const char*, int, int*);
int __wrap_RunHttpServer(unsigned, unsigned);
RDX_API const char* __tsan_default_options();

// The server's handler reads a file and logs on purpose: it only runs where the interrupted thread waits.
const char* __tsan_default_options() { return "report_signal_unsafe=0"; }

int __wrap_ReadIniFile(const char* path, const char* section) {
    return replaced.readIniFile ? replaced.readIniFile(path, section) : __real_ReadIniFile(path, section);
}

int __wrap_DumpConfiguration(FILE* stream) {
    return replaced.dumpConfiguration ? replaced.dumpConfiguration(stream) : __real_DumpConfiguration(stream);
}

int __wrap_InitSockLib() { return replaced.initSockLib ? replaced.initSockLib() : __real_InitSockLib(); }

int __wrap_CreateSrvSocket(const char* service, int backlog, int* socket) {
    return replaced.createSrvSocket ? replaced.createSrvSocket(service, backlog, socket)
                                    : __real_CreateSrvSocket(service, backlog, socket);
}

int __wrap_RunHttpServer(unsigned server, unsigned threads) {
    return replaced.runHttpServer ? replaced.runHttpServer(server, threads)
                                  : __real_RunHttpServer(server, threads);
}
}
