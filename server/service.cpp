#include "server/service.h"

#include "common/check.h"
#include "common/config.h"
#include "common/delivery.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/memory.h"
#include "common/portability.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "rDxsd/rDxsd.h"
#include "server/descriptors.h"
#include "server/service_pool.h"
#include "server/serving.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

const ServerFunction rDxFunctions[1] = {{"/rDx", rDxHandler}};

unsigned char ucTerminated = 0;

namespace {

constexpr ThreadID kNoThread = static_cast<ThreadID>(-1);
constexpr int kMostDescriptors = FD_SETSIZE; // a descriptor set holds no more

// Descriptors that are left to result files and follow-ups. Connections that took the last one would make
// `accept` fail, and the loop, which then goes on to its next pass, would never come to serve them again.
constexpr int kSpareDescriptors = 8;

// Every connection has a lower descriptor than this.
int ConnectionLimit(int tableSize) {
    return std::min(kMostDescriptors, tableSize - std::min(kSpareDescriptors, tableSize / 4));
}

// The slots of the running multi-threaded loop.
rdx::ServicePool* servicePool = nullptr;

bool IsRaised(const unsigned char& flag) { return rdx::LoadShared(flag) != 0; }
void Raise(unsigned char& flag) { rdx::StoreShared<unsigned char>(flag, 1); }
bool ShallEnd() { return IsRaised(ucTerminated) || IsRaised(ucReconfigured); }

// Sleeping here paces the loop, and lets the caught signals in.
void Pace() {
    constexpr useconds_t kPassPauseUs = 1000;
    const rdx::SignalWindow window;
    usleep(kPassPauseUs);
}

// Waits for ready descriptors. The time-out is consumed: later calls get what earlier ones left of it.
int Select(int count, fd_set& ready, timeval& timeout) {
    const rdx::SignalWindow window;
    return select(count, &ready, nullptr, nullptr, &timeout);
}

// One run of the loop, from the listening socket's first watch to the close of every connection.
class ServiceLoop {
public:
    ServiceLoop(int server, ServiceCall* slots, int slotCount, rdx::ServicePool* pool)
        : server_(server), slots_(slots), slotCount_(slotCount), pool_(pool),
          watched_(pool != nullptr ? pool->Watched() : ownSet_),
          count_(std::min(getdtablesize(), kMostDescriptors)), limit_(ConnectionLimit(getdtablesize())) {
        rdx::AddDescriptor(watched_, server_);
    }

    void Run() {
        while (!ShallEnd() && rdx::LoadShared(signalled) == 0) {
            if (!Pass()) break;
        }
        printf("\nucTerminated=%d", rdx::LoadShared(ucTerminated));
    }

    // Closes every connection that the loop still holds, the unwatched ones too.
    void CloseConnections() {
        fd_set held = unserved_;
        if (pool_ != nullptr) {
            pool_->EndLoop(held);
        } else {
            rdx::MoveDescriptors(held, watched_);
        }
        rdx::AwaitDeliveries(held); // answers of kept connections may still be on their way
        CloseClientSockets(&held, static_cast<unsigned>(count_), static_cast<unsigned>(server_));
    }

private:
    // False when the loop is to be left at once.
    bool Pass() {
        Pace();
        fd_set ready;
        rdx::CopyDescriptors(ready, watched_);
        UpdateServerStatus(slots_, slotCount_);
        if (ShallEnd()) return false;
        const int found = Select(count_, ready, timeout_);
        if (found < 0) ReportSocketError("RunHttpServer()", "select failed");
        if (found <= 0) return true;
        bool active = false;
        if (FD_ISSET(server_, &ready)) {
            active = true;
            if (!Accept()) return true;
            FD_CLR(server_, &ready);
        }
        active = ServeReady(ready) || active;
        if (!active) Raise(ucTerminated); // select speaks of descriptors that nobody knows
        return true;
    }

    // False when no connection could be accepted.
    bool Accept() {
        if (rdx::Traces()) rdx::LogThread("RunHttpServer()", "found activity on server socket", server_);
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const int client = accept(server_, reinterpret_cast<sockaddr*>(&peer), &size);
        if (client < 0) {
            ReportSocketError("RunHttpServer()", "accept failed");
            return false;
        }
        if (client >= limit_ || IsClientGranted() == 0) {
            CloseSocket(client);
            return true;
        }
        if (rdx::VerbosityAbove(VERBOSITY_WARN)) {
            DumpClientSocket(outlog != nullptr ? outlog : StdOut, "RunHttpServer()", client, &peer);
        }
        rdx::AddDescriptor(watched_, client);
        return true;
    }

    // Serves every ready connection. False when there was none.
    bool ServeReady(const fd_set& ready) {
        bool active = false;
        for (int descriptor = 0; descriptor < count_; ++descriptor) {
            if (descriptor == server_ || !FD_ISSET(descriptor, &ready)) continue;
            active = true;
            if (!Serve(descriptor)) break;
        }
        return active;
    }

    // False when the server is to end because a thread could not be started.
    bool Serve(int descriptor) {
        printf("\nHttpServer: Handling socket (%d)", descriptor);
        if (rdx::Traces()) rdx::LogThread("RunHttpServer()", "handling service on descriptor", descriptor);
        rdx::RemoveDescriptor(watched_, descriptor);
        if (rdx::Traces()) rdx::LogThread("RunHttpServer()", "removed handle from active set", descriptor);
        const auto body = rdx::LoadShared(ucRunAsJunior) != 0 ? ServeClientInStages : ServeClient;
        if (pool_ != nullptr) return ServeOnThread(descriptor, body);
        ServiceCall& slot = slots_[0];
        Prepare(slot, descriptor);
        slot.hThreadId = PrimaryThreadID();
        body(&slot);
        return true;
    }

    bool ServeOnThread(int descriptor, void* (*body)(ServiceCall*)) {
        ServiceCall* const slot =
            NumOfThreads() < slotCount_ ? GetServiceCallPtr(slots_, slotCount_) : nullptr;
        if (slot == nullptr) {
            // Kept: the loop never queues. The connection stays open and unwatched until the loop ends.
            FD_SET(descriptor, &unserved_);
            return true;
        }
        Prepare(*slot, descriptor);
        if (const int started = pool_->StartThread(slot, body); started != 0) {
            // A thread that could not be detached serves all the same: the connection is its own.
            if (!rdx::ServicePool::ThreadRuns(started)) FD_SET(descriptor, &unserved_);
            Raise(ucTerminated);
            return false;
        }
        const ThreadID thread = rdx::LoadShared(slot->hThreadId);
        RDX_CHECK(thread != 0, "pSvc->hThreadId != 0L");
        RDX_CHECK(thread != kNoThread, "pSvc->hThreadId != ((ThreadID)(-1))");
        if (rdx::Traces()) rdx::LogThread("RunHttpServer()", "created thread ID =", static_cast<int>(thread));
        return true;
    }

    void Prepare(ServiceCall& slot, int descriptor) {
        slot.hSocket = descriptor;
        slot.pFdSet = &watched_;
        slot.ucTerminate = 0;
        slot.ucReconfigure = 0;
        rdx::StoreShared(slot.hThreadId, kNoThread);
        rdx::StoreShared<int>(slot.iSvcStatus, SERVICE_RUNNING);
    }

    int server_;
    ServiceCall* slots_;
    int slotCount_;
    rdx::ServicePool* pool_;      // null in the single-threaded server
    fd_set ownSet_{};             // the watched set of the single-threaded server
    fd_set& watched_;             // the listening socket and the idle connections
    fd_set unserved_{};           // connections that found every thread busy
    int count_;                   // descriptors looked at
    int limit_;                   // a connection with this descriptor or a higher one is closed at once
    timeval timeout_{0, 500'000}; // set once: when it is used up, `select` polls and Pace alone paces
};

void CloseAnswered(int socket) {
    rdx::AwaitDelivery(socket);
    shutdown(socket, SHUT_RDWR);
    CloseSocket(socket);
    if (rdx::Traces()) rdx::LogThread("ServeClientDone()", "client socket closed", socket);
    printf("\nServeClientDone: Socket closed");
}

// The answer to a request for which there is no result.
struct ErrorPage {
    int result; // of reading or handling the request
    unsigned short status;
    const char* body;
    const char* trace;
};

constexpr ErrorPage kBadRequest = {-400, 400, rdx::kInvalidRequestPage, "\nServeClient: HTTP_BAD_REQUEST"};
constexpr ErrorPage kUnauthorized = {-401, 401, rdx::kUnauthorizedPage, "ServeClient: HTTP_UNAUTHORIZED"};
constexpr ErrorPage kNotFound = {-404, 404, rdx::kNotFoundPage, "ServeClient: HTTP_NOT_FOUND"};
constexpr ErrorPage kNotAllowed = {-405, 405, rdx::kNotAllowedPage, "ServeClient: HTTP_METHOD_NOT_ALLOWED"};
constexpr ErrorPage kInternalError = {-500, 500, rdx::kInternalErrorPage,
                                      "ServeClient: HTTP_INTERNAL_SERVER_ERROR"};
constexpr std::array kErrorPages = {kBadRequest, kUnauthorized, kNotFound, kNotAllowed};

const ErrorPage& PageFor(int result) {
    const auto* const page = std::ranges::find(kErrorPages, result, &ErrorPage::result);
    return page != kErrorPages.end() ? *page : kInternalError;
}

// Builds the answer to a request and prints its trace; the result is CreateHttpResponse's.
int BuildAnswer(int result, std::string_view output, HttpResponse** response) {
    if (result == 200) {
        const int built = CreateHttpResponse(response, 200, rdx::kContentType, output.data(),
                                             static_cast<unsigned int>(output.size()));
        printf("ServeClient: HTTP_OK");
        return built;
    }
    const ErrorPage& page = PageFor(result);
    printf("%s", page.trace);
    const int built = CreateHttpResponse(response, page.status, rdx::kContentType, page.body,
                                         static_cast<unsigned int>(std::strlen(page.body)));
    if (page.status == kBadRequest.status) printf("\nServeClient-: HTTP_BAD_REQUEST %d", built);
    return built;
}

// Writes a response out and sends it, and releases it. The bytes sent, -3 when it could not be written out,
// or what SendSocket returned.
int SendResponse(int socket, rdx::OwnedResponse response, std::span<char> buffer) {
    constexpr int kNotSerialised = -3;
    const int length =
        SerializeHttpResponse(response.get(), buffer.data(), static_cast<unsigned int>(buffer.size()));
    response.reset();
    if (length < 0) return kNotSerialised;
    const int sent = SendSocket(socket, buffer.data(), length);
    if (sent >= 0 && rdx::VerbosityAbove(VERBOSITY_WARN)) {
        rdx::LogThread("ServeClient()", "sent bytes successfully", sent);
    }
    return sent;
}

// Handles and answers a request that has been read, or could not be. Releases the request. The status of
// the service: the bytes sent, -2 when no answer could be made, or SendResponse's.
int Answer(ServiceCall& slot, int result, rdx::OwnedRequest request) {
    constexpr int kNotBuilt = -2;
    constexpr std::size_t kErrorPageSize = 1024; // room for any answer without a result
    char small[kErrorPageSize];
    const rdx::OwnedText output = rdx::AllocateBytes(SERVICE_BUFFER_SIZE);
    const rdx::OwnedText serialised = rdx::AllocateBytes(SERVICE_BUFFER_SIZE);
    if (!output || !serialised) {
        result = kInternalError.result;
        printf("\nServeClient: HTTP_INTERNAL_SERVER_ERROR");
    }
    unsigned int length = SERVICE_BUFFER_SIZE;
    if (result == 200) {
        result = HandleRequest(request.get(), output.get(), &length, 0, &slot.ucTerminate, &slot.ucKeepAlive);
    }
    if (result == 200) output.get()[SERVICE_BUFFER_SIZE - 1] = '\0';
    HttpResponse* response = nullptr;
    const int built = BuildAnswer(result, {output.get(), result == 200 ? length : 0}, &response);
    request.reset();
    if (built < 0) return kNotBuilt;
    return SendResponse(slot.hSocket, rdx::OwnedResponse(response),
                        serialised ? std::span(serialised.get(), SERVICE_BUFFER_SIZE)
                                   : std::span<char>(small));
}

} // namespace

int RunHttpServer(unsigned int hServerSocket, unsigned int nThreadLimit) {
    if (hServerSocket >= kMostDescriptors) return -1; // no set can hold it
    const rdx::SignalsInWindowsOnly signals;
    const auto limit = static_cast<int>(std::min<unsigned>(nThreadLimit, kMostDescriptors));
    if (limit > 1 && InitializeThreads(limit) != 0) return -1;
    rdx::ServicePool* const pool = limit > 1 ? servicePool : nullptr;
    ServiceCall ownSlot{};
    ownSlot.hSocket = -1;
    ownSlot.iSvcStatus = SERVICE_FREE;
    ownSlot.hThreadId = kNoThread;
    if (limit <= 1) InitThreadLib();
    ServiceCall* const slots = pool != nullptr ? pool->Slots() : &ownSlot;
    const int slotCount = pool != nullptr ? pool->Size() : 1;
    ServiceLoop loop(static_cast<int>(hServerSocket), slots, slotCount, pool);
    loop.Run();
    loop.CloseConnections();
    DeinitializeThreads();
    return 0;
}

int InitializeThreads(int nSlots) {
    if (InitThreadLib() != 0) return -1;
    if (nSlots < 1) return -2;
    DeinitializeThreads();
    servicePool = rdx::ServicePool::Create(std::min(nSlots, kMostDescriptors));
    return servicePool != nullptr ? 0 : -2;
}

int DeinitializeThreads() {
    if (servicePool != nullptr) servicePool->Release();
    servicePool = nullptr;
    return 0;
}

int CloseClientSockets(fd_set* pSet, unsigned int nMax, unsigned int hExcept) {
    const unsigned end = nMax < kMostDescriptors ? nMax : kMostDescriptors;
    for (unsigned descriptor = 0; descriptor < end; ++descriptor) {
        if (descriptor == hExcept || !FD_ISSET(descriptor, pSet)) continue;
        CloseSocket(static_cast<int>(descriptor));
    }
    return 0;
}

ServiceCall* GetServiceCallPtr(ServiceCall* pBase, int nSlots) {
    RDX_CHECK(pBase != nullptr, "pBase != __null");
    RDX_CHECK(nSlots > 0, "nSlots > 0");
    const std::span slots(pBase, static_cast<std::size_t>(nSlots));
    const auto free = std::ranges::find_if(
        slots, [](const ServiceCall& slot) { return rdx::LoadShared(slot.iSvcStatus) == SERVICE_FREE; });
    if (free == slots.end()) return nullptr;
    free->hSocket = -1;
    rdx::StoreShared(free->hThreadId, kNoThread);
    return &*free;
}

void UpdateServerStatus(ServiceCall* pBase, int nSlots) {
    for (int i = 0; i < nSlots; ++i) {
        ServiceCall& slot = pBase[i];
        const int status = rdx::LoadShared(slot.iSvcStatus);
        const ThreadID thread = rdx::LoadShared(slot.hThreadId);
        RDX_CHECK(status != SERVICE_RUNNING || thread != kNoThread, "pSvc->hThreadId != ((ThreadID)(-1))");
        if (status != SERVICE_FINISHED) continue;
        if (slot.ucTerminate != 0) {
            Raise(ucTerminated);
            if (rdx::Traces()) {
                rdx::LogThread("UpdateServerStatus()",
                               "termination request from thread ID=", static_cast<int>(thread));
            }
        } else if (slot.ucReconfigure != 0) {
            Raise(ucReconfigured);
            if (rdx::Traces()) {
                rdx::LogThread("UpdateServerStatus()",
                               "reconfiguration request from thread ID=", static_cast<int>(thread));
            }
        }
        rdx::StoreShared<int>(slot.iSvcStatus, SERVICE_FREE);
        return; // one for each pass of the loop
    }
}

int ServeClientDone(ServiceCall* pArgs, int iSvcStatus, int bKeepAlive) {
    RDX_CHECK(iSvcStatus != 0, "svcStat != 0");
    const int client = pArgs->hSocket;
    const bool keep = iSvcStatus > 0 && bKeepAlive != 0;
    RDX_CHECK(!keep || pArgs->pFdSet != nullptr, "pArgs->pFdSet != __null");
    if (keep && rdx::WatchAgain(*pArgs)) {
        if (rdx::Traces()) rdx::LogThread("ServeClientDone()", "added handle to active set again", client);
    } else {
        CloseAnswered(client);
    }
    const ThreadID thread = rdx::LoadShared(pArgs->hThreadId);
    RDX_CHECK(thread != 0, "pArgs->hThreadId != 0L");
    RDX_CHECK(PrimaryThreadID() != 0, "PrimaryThreadID() != 0L");
    rdx::FinishService(*pArgs, thread, iSvcStatus);
    return iSvcStatus;
}

ServerHandler GetServerHandler(const char* pszUri) {
    if (pszUri == nullptr) return nullptr; // the request began with an empty line
    for (const ServerFunction& function : rDxFunctions) {
        const int length = static_cast<int>(std::strlen(function.szPrefix));
        if (strnicmp(pszUri, function.szPrefix, length) == 0) return function.pHandler;
    }
    return nullptr;
}

int HandleRequest(HttpRequest* pReq, char* pBuf, unsigned int* pLen, unsigned int /*uiReserved*/,
                  unsigned char* pTerminate, unsigned char* pKeepAlive) {
    std::memset(pBuf, 0, *pLen);
    const ServerHandler handler = GetServerHandler(pReq->pszUri);
    if (handler == nullptr) return kNotFound.result;
    unsigned long length = *pLen; // the handler's type, which may be wider than the caller's
    const int handled = handler(pReq, pBuf, &length, pTerminate);
    *pLen = static_cast<unsigned int>(length);
    if (handled == 0 && *pTerminate != 0) rdx::LogTermination("ServeClient()", *pReq);
    *pKeepAlive = pReq->ucKeepAlive;
    if (handled == 0) return 200;
    if (handled > 0) return kBadRequest.result;
    return handled == kUnauthorized.result ? handled : kInternalError.result;
}

void* ServeClient(ServiceCall* pArgs) {
    RDX_CHECK(pArgs != nullptr, "pArgs != __null");
    RDX_CHECK(pArgs->pFdSet != nullptr, "pArgs->pFdSet != __null");
    RDX_CHECK(rdx::LoadShared(pArgs->iSvcStatus) == SERVICE_RUNNING, "pArgs->iSvcStatus == 1");
    constexpr int kNoRequest = -1;
    rdx::OwnedRequest request;
    const int result = rdx::ReadRequest(pArgs->hSocket, request);
    const bool readable = result != 0 && result != kNoRequest;
    const int status = readable ? Answer(*pArgs, result, std::move(request)) : kNoRequest;
    return rdx::AsResult(ServeClientDone(pArgs, status, pArgs->ucKeepAlive));
}
