#include "server/serving.h"

#include "common/delivery.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/shared.h"
#include "server/descriptors.h"
#include "server/service_pool.h"

#include <cstdint>

namespace rdx {

int ReadRequest(int socket, OwnedRequest& request) {
    const Peer peer = LookAtPeer(socket);
    HttpRequest* read = nullptr;
    const int result = ConsumeHttpRequest(socket, &read); // also of nothing, for its traces and reports
    request.reset(read);
    if (peer == Peer::kThere) return result;
    request.reset();
    return kNobodyThere;
}

bool Traces() { return VerbosityAbove(VERBOSITY_LOG); }

void LogTermination(const char* label, const HttpRequest& request) {
    if (VerbosityAbove(VERBOSITY_WARN))
        LogThread(label, "termination request from handle =", request.iSocket);
}

bool WatchAgain(const ServiceCall& slot) {
    ServicePool* const pool = ServicePool::OfThisThread();
    if (pool != nullptr && slot.pFdSet == &pool->Watched()) return pool->Watch(slot.hSocket);
    AddDescriptor(*slot.pFdSet, slot.hSocket);
    return true;
}

void FinishService(ServiceCall& slot, ThreadID thread, int status) {
    StoreShared(slot.iSvcStatus, SERVICE_FINISHED);
    if (thread == PrimaryThreadID()) return;
    ServicePool* const pool = ServicePool::OfThisThread();
    if (pool != nullptr) pool->EndThisThread(status);
    ThreadTerminate(static_cast<unsigned long>(status));
}

void* AsResult(int status) { return reinterpret_cast<void*>(static_cast<std::intptr_t>(status)); }

} // namespace rdx
