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
#include "http/pages.h"
#include "rDxsd/rDxsd.h"
#include "server/descriptors.h"
#include "server/service_pool.h"
#include "server/serving.h"

#include <algorithm>
#include <array>
#include <chrono>
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
void Raise(unsigned char& flag) { rdx::StoreShared(flag, 1); }
bool ShallEnd() { return IsRaised(ucTerminated) || IsRaised(ucReconfigured); }

// Whose steps the functions of the loop are, in its assertions.
constexpr const char* kRunHttpServer = "int RunHttpServer(unsigned int, unsigned int)";

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

// A free slot that no pool has. Prepare fills in the rest.
ServiceCall FreeSlot() {
    ServiceCall slot{};
    slot.iSvcStatus = SERVICE_FREE;
    return slot;
}

// Whether a ready connection is one that its client has left, with nothing unread and nothing still to be
// delivered: to serve it is to close it, which takes no time.
bool IsOnlyToBeClosed(int socket) {
    return rdx::LookAtPeer(socket) != rdx::Peer::kThere && rdx::IsDelivered(socket);
}

// Connections that found every thread busy. The loop never queues: they stay open and unwatched, neither
// served nor closed, for as long as their clients are there.
class UnservedConnections {
public:
    void Add(int socket) {
        if (count_++ == 0) nextLook_ = Clock::now() + kLookEvery;
        FD_SET(socket, &set_);
    }

    // Closes those whose client has left. Looks at most once in kLookEvery.
    void CloseLeft() {
        if (count_ == 0 || Clock::now() < nextLook_) return;
        nextLook_ = Clock::now() + kLookEvery;
        for (int socket = 0; socket < kMostDescriptors; ++socket) {
            if (!FD_ISSET(socket, &set_) || !rdx::HasPeerLeft(socket) || !rdx::IsDelivered(socket)) continue;
            FD_CLR(socket, &set_);
            --count_;
            CloseSocket(socket);
        }
    }

    const fd_set& Set() const { return set_; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::seconds kLookEvery{1};

    fd_set set_{};
    int count_ = 0;
    Clock::time_point nextLook_;
};

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
        fd_set held = unserved_.Set();
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
        unserved_.CloseLeft();
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
        if (pool_ != nullptr && !IsOnlyToBeClosed(descriptor)) return ServeOnThread(descriptor, body);
        // A client that has left needs no thread: its service is over at once.
        ServiceCall own = FreeSlot();
        ServiceCall& slot = pool_ != nullptr ? own : slots_[0];
        Prepare(slot, descriptor);
        rdx::StoreShared(slot.hThreadId, PrimaryThreadID());
        body(&slot);
        return true;
    }

    bool ServeOnThread(int descriptor, void* (*body)(ServiceCall*)) {
        ServiceCall* const slot =
            NumOfThreads() < slotCount_ ? GetServiceCallPtr(slots_, slotCount_) : nullptr;
        if (slot == nullptr) {
            unserved_.Add(descriptor);
            return true;
        }
        Prepare(*slot, descriptor);
        if (const int started = pool_->StartThread(slot, body); started != THREAD_CREATED) {
            // A thread that could not be detached serves all the same: the connection is its own.
            if (!rdx::ServicePool::ThreadRuns(started)) unserved_.Add(descriptor);
            Raise(ucTerminated);
            return false;
        }
        const ThreadID thread = rdx::LoadShared(slot->hThreadId);
        RDX_CHECK_FOR(kRunHttpServer, thread != 0, "pSvc->hThreadId != 0L");
        RDX_CHECK_FOR(kRunHttpServer, thread != kNoThread, "pSvc->hThreadId != ((ThreadID)(-1))");
        if (rdx::Traces()) rdx::LogThread("RunHttpServer()", "created thread ID =", static_cast<int>(thread));
        return true;
    }

    void Prepare(ServiceCall& slot, int descriptor) {
        slot.hSocket = descriptor;
        slot.pFdSet = &watched_;
        slot.ucTerminate = 0;
        slot.ucReconfigure = 0;
        rdx::StoreShared(slot.hThreadId, kNoThread);
        rdx::StoreShared(slot.iSvcStatus, SERVICE_RUNNING);
    }

    int server_;
    ServiceCall* slots_;
    int slotCount_;
    rdx::ServicePool* pool_; // null in the single-threaded server
    fd_set ownSet_{};        // the watched set of the single-threaded server
    fd_set& watched_;        // the listening socket and the idle connections
    UnservedConnections unserved_;
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

// The answer to a request for which there is no result, and its trace.
struct ErrorPage {
    int result; // of reading or handling the request
    unsigned short status;
    const char* body;
    const char* trace;
};
constexpr std::array<ErrorPage, 5> kErrorPages = {{
    {-HTTP_STATUS_BAD_REQUEST, HTTP_STATUS_BAD_REQUEST, rdx::kInvalidRequestPage,
     "\nServeClient: HTTP_BAD_REQUEST"},
    {-HTTP_STATUS_UNAUTHORIZED, HTTP_STATUS_UNAUTHORIZED, rdx::kUnauthorizedPage,
     "ServeClient: HTTP_UNAUTHORIZED"},
    {-HTTP_STATUS_NOT_FOUND, HTTP_STATUS_NOT_FOUND, rdx::kNotFoundPage, "ServeClient: HTTP_NOT_FOUND"},
    {-HTTP_STATUS_METHOD_NOT_ALLOWED, HTTP_STATUS_METHOD_NOT_ALLOWED, rdx::kNotAllowedPage,
     "ServeClient: HTTP_METHOD_NOT_ALLOWED"},
    {-HTTP_STATUS_INTERNAL_ERROR, HTTP_STATUS_INTERNAL_ERROR, rdx::kInternalErrorPage,
     "ServeClient: HTTP_INTERNAL_SERVER_ERROR"}, // the last: any other result
}};

const ErrorPage& PageFor(int result) {
    const auto* const page = std::ranges::find(kErrorPages, result, &ErrorPage::result);
    return page != kErrorPages.end() ? *page : kErrorPages.back();
}

// What a service needs on the heap. Where memory is short, there is still room to say so.
class ServiceBuffers {
public:
    bool AreWhole() const { return output_ && serialised_; }
    char* Output() const { return output_.get(); }
    std::span<char> Serialised() {
        return serialised_ ? std::span(serialised_.get(), SERVICE_BUFFER_SIZE) : std::span<char>(small_);
    }

private:
    static constexpr std::size_t kErrorPageSize = 1024; // room for any answer without a result

    rdx::OwnedText output_ = rdx::AllocateBytes(SERVICE_BUFFER_SIZE);
    rdx::OwnedText serialised_ = rdx::AllocateBytes(SERVICE_BUFFER_SIZE);
    char small_[kErrorPageSize];
};

// Has a request handled into the output buffer, where the result's body then lies.
int Handle(ServiceCall& slot, HttpRequest& request, char* output, std::string_view& body) {
    unsigned int length = SERVICE_BUFFER_SIZE;
    const int result = HandleRequest(&request, output, &length, 0, &slot.ucTerminate, &slot.ucKeepAlive);
    if (result != HTTP_STATUS_OK) return result;
    output[SERVICE_BUFFER_SIZE - 1] = '\0';
    body = {output, length};
    return result;
}

// Both build a response and print its trace; the result is CreateHttpResponse's.
int BuildResult(std::string_view body, HttpResponse** response) {
    const int built = CreateHttpResponse(response, HTTP_STATUS_OK, rdx::kContentType, body.data(),
                                         static_cast<unsigned int>(body.size()));
    printf("ServeClient: HTTP_OK");
    return built;
}

int BuildPage(const ErrorPage& page, HttpResponse** response) {
    printf("%s", page.trace);
    const int built = CreateHttpResponse(response, page.status, rdx::kContentType, page.body,
                                         static_cast<unsigned int>(std::strlen(page.body)));
    if (page.status == HTTP_STATUS_BAD_REQUEST) printf("\nServeClient-: HTTP_BAD_REQUEST %d", built);
    return built;
}

// Writes a response out and sends it, and releases it. The bytes sent, SERVICE_NOT_WRITTEN, or what
// SendSocket returned.
int SendResponse(int socket, rdx::OwnedResponse response, std::span<char> buffer) {
    const int length =
        SerializeHttpResponse(response.get(), buffer.data(), static_cast<unsigned int>(buffer.size()));
    response.reset();
    if (length < 0) return SERVICE_NOT_WRITTEN;
    const int sent = SendSocket(socket, buffer.data(), length);
    if (sent >= 0 && rdx::VerbosityAbove(VERBOSITY_WARN)) {
        rdx::LogThread("ServeClient()", "sent bytes successfully", sent);
    }
    return sent;
}

// Handles and answers a request of which `read` is the result of reading, and releases it. The status of the
// service.
int ServeRequest(ServiceCall& slot, int read, rdx::OwnedRequest request) {
    ServiceBuffers buffers;
    int result = read;
    std::string_view body;
    if (!buffers.AreWhole()) {
        printf("\nServeClient: HTTP_INTERNAL_SERVER_ERROR");
        result = -HTTP_STATUS_INTERNAL_ERROR;
    } else if (read == HTTP_STATUS_OK) {
        result = Handle(slot, *request, buffers.Output(), body);
    }
    HttpResponse* response = nullptr;
    const int built =
        result == HTTP_STATUS_OK ? BuildResult(body, &response) : BuildPage(PageFor(result), &response);
    request.reset();
    if (built < 0) return SERVICE_NOT_BUILT;
    return SendResponse(slot.hSocket, rdx::OwnedResponse(response), buffers.Serialised());
}

} // namespace

int RunHttpServer(unsigned int hServerSocket, unsigned int nThreadLimit) {
    if (hServerSocket >= kMostDescriptors) return SERVICE_LOOP_NOT_SET_UP; // no set can hold it
    const rdx::SignalsInWindowsOnly signals;
    const auto limit = static_cast<int>(std::min<unsigned>(nThreadLimit, kMostDescriptors));
    if (limit > 1 && InitializeThreads(limit) != SERVICE_THREADS_READY) return SERVICE_LOOP_NOT_SET_UP;
    rdx::ServicePool* const pool = limit > 1 ? servicePool : nullptr;
    ServiceCall ownSlot = FreeSlot();
    if (limit <= 1) InitThreadLib();
    ServiceCall* const slots = pool != nullptr ? pool->Slots() : &ownSlot;
    const int slotCount = pool != nullptr ? pool->Size() : 1;
    ServiceLoop loop(static_cast<int>(hServerSocket), slots, slotCount, pool);
    loop.Run();
    loop.CloseConnections();
    DeinitializeThreads();
    return SERVICE_LOOP_ENDED;
}

int InitializeThreads(int nSlots) {
    if (InitThreadLib() != 0) return SERVICE_NO_THREAD_LIBRARY;
    if (nSlots < 1) return SERVICE_NO_SLOTS;
    DeinitializeThreads();
    servicePool = rdx::ServicePool::Create(std::min(nSlots, kMostDescriptors));
    return servicePool != nullptr ? SERVICE_THREADS_READY : SERVICE_NO_SLOTS;
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
        rdx::StoreShared(slot.iSvcStatus, SERVICE_FREE);
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
    if (handler == nullptr) return -HTTP_STATUS_NOT_FOUND;
    unsigned long length = *pLen; // the handler's type, which may be wider than the caller's
    const int handled = handler(pReq, pBuf, &length, pTerminate);
    *pLen = static_cast<unsigned int>(length);
    if (handled == 0 && *pTerminate != 0) rdx::LogTermination("ServeClient()", *pReq);
    *pKeepAlive = pReq->ucKeepAlive;
    if (handled == 0) return HTTP_STATUS_OK;
    if (handled > 0) return -HTTP_STATUS_BAD_REQUEST;
    return handled == -HTTP_STATUS_UNAUTHORIZED ? handled : -HTTP_STATUS_INTERNAL_ERROR;
}

void* ServeClient(ServiceCall* pArgs) {
    RDX_CHECK(pArgs != nullptr, "pArgs != __null");
    RDX_CHECK(pArgs->pFdSet != nullptr, "pArgs->pFdSet != __null");
    RDX_CHECK(rdx::LoadShared(pArgs->iSvcStatus) == SERVICE_RUNNING, "pArgs->iSvcStatus == 1");
    rdx::OwnedRequest request;
    const int read = rdx::ReadRequest(pArgs->hSocket, request);
    const bool asked = read != rdx::kNobodyThere && read != HTTPREQ_NOT_RECEIVED;
    const int status = asked ? ServeRequest(*pArgs, read, std::move(request)) : SERVICE_NO_REQUEST;
    return rdx::AsResult(ServeClientDone(pArgs, status, pArgs->ucKeepAlive));
}
