#include "tests/support/service.h"

#include "rDxsd/rDxsd.h"
#include "tests/support/request.h"

#include <gtest/gtest.h>

#include <atomic>

namespace rdx::test {

Replaced replaced;
std::atomic<int> lastByte = -1;

} // namespace rdx::test

using rdx::test::lastByte;
using rdx::test::replaced;
using namespace rdx;

extern "C" {
int __real_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __wrap_rDxHandler(HttpRequest*, char*, unsigned long*, unsigned char*);
int __real_IsClientGranted(void);
int __wrap_IsClientGranted(void);
int __wrap_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __real_usleep(useconds_t);
int __wrap_usleep(useconds_t);
int __real_ThreadCreate(void* (*)(void*), void*, ThreadID*);
int __wrap_ThreadCreate(void* (*)(void*), void*, ThreadID*);
int __real_CreateHttpResponse(HttpResponse**, unsigned short, const char*, const char*, unsigned int);
int __wrap_CreateHttpResponse(HttpResponse**, unsigned short, const char*, const char*, unsigned int);

int __wrap_rDxHandler(HttpRequest* request, char* out, unsigned long* length, unsigned char* terminate) {
    return replaced.handler ? replaced.handler(request, out, length, terminate)
                            : __real_rDxHandler(request, out, length, terminate);
}

int __wrap_IsClientGranted() { return replaced.granted ? replaced.granted() : __real_IsClientGranted(); }

int __wrap_select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
    return replaced.select ? replaced.select(count, read, timeout)
                           : __real_select(count, read, write, except, timeout);
}

int __wrap_usleep(useconds_t microseconds) {
    if (replaced.pause) replaced.pause(microseconds);
    return __real_usleep(microseconds);
}

int __wrap_CreateHttpResponse(HttpResponse** response, unsigned short status, const char* type,
                              const char* body, unsigned int length) {
    if (length == SERVICE_BUFFER_SIZE) lastByte = static_cast<unsigned char>(body[length - 1]);
    return __real_CreateHttpResponse(response, status, type, body, length);
}

int __wrap_ThreadCreate(void* (*body)(void*), void* arguments, ThreadID* thread) {
    return replaced.threadCreate ? replaced.threadCreate(thread)
                                 : __real_ThreadCreate(body, arguments, thread);
}
}
