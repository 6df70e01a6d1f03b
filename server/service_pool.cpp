#include "server/service_pool.h"

#include "common/mt_internal.h"
#include "common/shared.h"
#include "server/descriptors.h"

#include <cstdlib>
#include <new>
#include <sched.h>

namespace rdx {
namespace {

constexpr unsigned kEnded = 1U << 31; // in counted_, above any number of threads

// Results of ThreadCreate with which no thread was started.
constexpr int kNoPolicy = -1;
constexpr int kNoThread = -2;

thread_local ServicePool* poolOfThisThread = nullptr;

} // namespace

ServicePool* ServicePool::Create(int slots) {
    const auto count = static_cast<std::size_t>(slots);
    void* const memory = std::calloc(1, sizeof(ServicePool));
    auto* const calls = static_cast<ServiceCall*>(std::calloc(count, sizeof(ServiceCall)));
    auto* const tickets = static_cast<ServiceTicket*>(std::calloc(count, sizeof(ServiceTicket)));
    if (memory == nullptr || calls == nullptr || tickets == nullptr) {
        std::free(tickets);
        std::free(calls);
        std::free(memory);
        return nullptr;
    }
    auto* const pool = new (memory) ServicePool{};
    pool->slots_ = calls;
    pool->tickets_ = tickets;
    pool->size_ = slots;
    pool->holders_ = 1;
    for (int i = 0; i < slots; ++i) {
        calls[i].hSocket = -1;
        calls[i].iSvcStatus = SERVICE_FREE;
        calls[i].hThreadId = static_cast<ThreadID>(-1);
    }
    return pool;
}

int ServicePool::StartThread(ServiceCall* slot, void* (*body)(ServiceCall*)) {
    ServiceTicket& ticket = tickets_[slot - slots_];
    ticket = {this, slot, body};
    holders_.fetch_add(1);
    counted_.fetch_add(1);
    const int result = ThreadCreate(RunThread, &ticket, &slot->hThreadId);
    if (!ThreadRuns(result)) {
        counted_.fetch_sub(1);
        Release();
    }
    return result;
}

bool ServicePool::ThreadRuns(int started) { return started != kNoPolicy && started != kNoThread; }

void* ServicePool::RunThread(void* argument) {
    const ServiceTicket ticket = *static_cast<const ServiceTicket*>(argument);
    poolOfThisThread = ticket.pool;
    // The creator stores the same value, perhaps later than the thread first needs it.
    StoreShared(ticket.call->hThreadId, CurrentThreadID());
    ticket.body(ticket.call);
    // A body ends its thread itself, unless the low half of the thread's handle is the primary thread's.
    ticket.pool->EndThisThread(0);
}

bool ServicePool::Watch(int socket) {
    AddDescriptor(watched_, socket);
    const bool ended = (counted_.load() & kEnded) != 0;
    // Whoever takes it out of the set closes it: here the caller, otherwise the ending loop.
    return !ended || !RemoveDescriptor(watched_, socket);
}

void ServicePool::EndLoop(fd_set& watched) {
    const unsigned stillServing = counted_.fetch_or(kEnded);
    MoveDescriptors(watched, watched_);
    while (leaving_.load() != 0) sched_yield();
    __atomic_fetch_sub(&nThreads, static_cast<int>(stillServing), __ATOMIC_ACQ_REL);
}

void ServicePool::Release() {
    if (holders_.fetch_sub(1) != 1) return;
    std::free(slots_);
    std::free(tickets_);
    std::free(this);
}

ServicePool* ServicePool::OfThisThread() { return poolOfThisThread; }

void ServicePool::LeaveLoop() {
    leaving_.fetch_add(1);
    const bool counts = (counted_.fetch_sub(1) & kEnded) == 0;
    if (counts) UncountThread();
    leaving_.fetch_sub(1);
}

void ServicePool::EndThisThread(int status) {
    poolOfThisThread = nullptr;
    LeaveLoop();
    Release();
    EndThread(static_cast<unsigned long>(status));
}

} // namespace rdx
