// What the two serving bodies share.
#ifndef RDX_SERVER_SERVING_H
#define RDX_SERVER_SERVING_H

#include "http/owned_messages.h"
#include "server/service.h"

namespace rdx {

inline constexpr const char* kContentType = "text/html"; // of every response

// Reads a request: ConsumeHttpRequest's result, or kNobodyThere when the peer closed or reset the connection
// before it sent anything.
// Such a connection looks like a request that begins with an empty line, or like one without credentials,
// which are answered; here nobody asked.
inline constexpr int kNobodyThere = 0;
int ReadRequest(int socket, OwnedRequest& request);

// True when per-connection and per-thread tracing is wanted.
bool Traces();

// Logs that a handler asked the server to stop, on behalf of a serving body.
void LogTermination(const char* label, const HttpRequest& request);

// Puts a connection back into the watched set. False when its loop has ended: the caller closes it.
bool WatchAgain(const ServiceCall& slot);

// Marks the slot finished, which must not be touched any more. On a serving thread it ends the thread with
// the status, otherwise it returns.
void FinishService(ServiceCall& slot, ThreadID thread, int status);

// A service's status as the result of a thread body.
void* AsResult(int status);

} // namespace rdx

#endif
