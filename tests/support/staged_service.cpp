#include "tests/support/staged_service.h"

#include "client/tnp.h"
#include "common/portability_sockets.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <sys/socket.h>

namespace rdx::test {

Replaced replaced;
std::optional<Connect> lastConnect;
std::string lastFunction;
int mallocsBeforeBuilding;

} // namespace rdx::test

using namespace rdx::test;

extern "C" {
int __real_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __wrap_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __real_ConsumeHttpRequest(int, HttpRequest**);
int __wrap_ConsumeHttpRequest(int, HttpRequest**);
int __real_SendSocket(int, const void*, int);
int __wrap_SendSocket(int, const void*, int);
int __wrap_CreateClntSocketExt(const char*, unsigned short, const char*, unsigned short, int*);
int __real_BuildTavrinRequestExt(HttpRequest*, const char*, const char*, const char*, unsigned char);
int __wrap_BuildTavrinRequestExt(HttpRequest*, const char*, const char*, const char*, unsigned char);
int __real_SendHttpRequest(int, HttpRequest*, HttpResponse**);
int __wrap_SendHttpRequest(int, HttpRequest*, HttpResponse**);

int __wrap_rDxHandler(HttpRequest* request, char* out, unsigned long* length, unsigned char* terminate) {
    return replaced.handler ? replaced.handler(request, out, length, terminate)
                            : __real_rDxHandler(request, out, length, terminate);
}

int __wrap_ConsumeHttpRequest(int socket, HttpRequest** request) {
    return replaced.consume ? replaced.consume(request) : __real_ConsumeHttpRequest(socket, request);
}

int __wrap_SendSocket(int socket, const void* data, int length) {
    return replaced.send ? replaced.send() : __real_SendSocket(socket, data, length);
}

int __wrap_CreateClntSocketExt(const char* localAddress, unsigned short localPort, const char* remoteAddress,
                               unsigned short remotePort, int* socket) {
    const int result = __real_CreateClntSocketExt(localAddress, localPort, remoteAddress, remotePort, socket);
    lastConnect = Connect{localAddress, localPort, remoteAddress, remotePort, *socket};
    if (*socket >= 0) ForgetClosed(*socket); // of an earlier socket of that number
    return result;
}

int __wrap_BuildTavrinRequestExt(HttpRequest* request, const char* host, const char* function,
                                 const char* body, unsigned char close) {
    lastFunction = function;
    mallocsBeforeBuilding = CallsOf("malloc");
    return replaced.build ? replaced.build(request)
                          : __real_BuildTavrinRequestExt(request, host, function, body, close);
}

int __wrap_SendHttpRequest(int socket, HttpRequest* request, HttpResponse** response) {
    return replaced.sendRequest ? replaced.sendRequest() : __real_SendHttpRequest(socket, request, response);
}
}
