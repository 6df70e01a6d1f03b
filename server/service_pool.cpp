#include "server/service_pool.h"

#include "common/memory.h"
#include "common/mt_internal.h"
#include "common/shared.h"
#include "server/descriptors.h"

#include <sched.h>
#include <span>

namespace rdx {
namespace {

constexpr int kEnded = 1 << 30; // in counted_, above any number of threads

thread_local ServicePool* poolOfThisThread = nullptr;

} // namespace

ServicePool* ServicePool::Create(int slots) {
    const auto count = static_cast<std::size_t>(slots);
    Owned<ServicePool> pool = AllocateZeroed<ServicePool>();
    Owned<ServiceCall> calls = AllocateZeroedArray<ServiceCall>(count);
    Owned<ThreadStart> starts = AllocateZeroedArray<ThreadStart>(count);
    if (!pool || !calls || !starts) return nullptr;
    for (ServiceCall& call : std::span(calls.get(), count)) {
        call.hSocket = -1;
        call.iSvcStatus = SERVICE_FREE;
        call.hThreadId = static_cast<ThreadID>(-1);
    }
    pool->slots_ = calls.release();
    pool->starts_ = starts.release();
    pool->size_ = slots;
    pool->holders_ = 1;
    return pool.release();
}

int ServicePool::StartThread(ServiceCall* slot, void* (*body)(ServiceCall*)) {
    ThreadStart& start = starts_[slot - slots_];
    start = {this, slot, body};
    AddShared(holders_, 1);
    AddShared(counted_, 1);
    const int result = ThreadCreate(RunThread, &start, &slot->hThreadId);
    if (!ThreadRuns(result)) {
        AddShared(counted_, -1);
        Release();
    }
    return result;
}

bool ServicePool::ThreadRuns(int started) {
    return started == THREAD_CREATED || started == THREAD_NOT_DETACHED;
}

void* ServicePool::RunThread(void* argument) {
    const ThreadStart start = *static_cast<const ThreadStart*>(argument);
    poolOfThisThread = start.pool;
    // The creator stores the same value, perhaps later than the thread first needs it.
    StoreShared(start.call->hThreadId, CurrentThreadID());
    start.body(start.call);
    // A body ends its thread itself, unless the low half of the thread's handle is the primary thread's.
    start.pool->EndThisThread(0);
}

bool ServicePool::Watch(int socket) {
    AddDescriptor(watched_, socket);
    const bool ended = (LoadShared(counted_) & kEnded) != 0;
    // Whoever takes it out of the set closes it: here the caller, otherwise the ending loop.
    return !ended || !RemoveDescriptor(watched_, socket);
}

void ServicePool::EndLoop(fd_set& watched) {
    const int stillServing = SetSharedBits(counted_, kEnded);
    MoveDescriptors(watched, watched_);
    while (LoadShared(leaving_) != 0) sched_yield();
    AddShared(nThreads, -stillServing);
}

void ServicePool::Release() {
    if (AddShared(holders_, -1) != 0) return;
    const Owned<ServiceCall> calls(slots_);
    const Owned<ThreadStart> starts(starts_);
    const Owned<ServicePool> pool(this);
}

ServicePool* ServicePool::OfThisThread() { return poolOfThisThread; }

void ServicePool::LeaveLoop() {
    AddShared(leaving_, 1);
    const bool counts = (AddShared(counted_, -1) & kEnded) == 0;
    if (counts) UncountThread();
    AddShared(leaving_, -1);
}

void ServicePool::EndThisThread(int status) {
    poolOfThisThread = nullptr;
    LeaveLoop();
    Release();
    EndThread(static_cast<unsigned long>(status));
}

} // namespace rdx
