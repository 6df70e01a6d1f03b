#include "common/mt.h"

#include "common/check.h"
#include "common/log.h"
#include "common/log_lines.h"
#include "common/mt_internal.h"
#include "common/shared.h"
#include "common/signal_windows.h"

#include <cstdio>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>

int nThreads = 0;
ThreadID mtPrimaryThread = static_cast<ThreadID>(-1);

namespace {

constexpr int kSemaphorePermissions = 0666;

// What the threads of the server return a pointer to. One for all: nobody reads it.
unsigned long exitValueOfThreads = 0;

class ThreadAttributes {
public:
    ThreadAttributes() { pthread_attr_init(&attributes_); }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    pthread_attr_t* Get() { return &attributes_; }

private:
    pthread_attr_t attributes_;
};

// The argument of semctl, which a program has to declare itself. An int in its place would be misread where
// a pointer is wider and the high half of a word comes first.
union SemaphoreArgument {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

int OpenSemaphore(int key) { return semget(key, 1, kSemaphorePermissions); }

// Changes the semaphore by `change`; a result of SemaP.
int OperateSemaphore(int key, short change, short flags) {
    const int set = OpenSemaphore(key);
    if (set < 0) return SEMA_MISSING;
    sembuf operation{0, change, flags};
    return semop(set, &operation, 1) < 0 ? SEMA_FAILED : SEMA_DONE;
}

} // namespace

int InitThreadLib() {
    rdx::StoreShared(nThreads, 0);
    rdx::LogPlain("InitThreadLib()", "running POSIX threads", 0);
    rdx::StoreShared(mtPrimaryThread, CurrentThreadID());
    printf("\nmtPrimaryThread=%d", static_cast<int>(PrimaryThreadID()));
    return 0;
}

int ThreadCreate(void* (*pBody)(void*), void* pArgs, ThreadID* pID) {
    RDX_CHECK(pBody != nullptr, "pBody != __null");
    RDX_CHECK(pArgs != nullptr, "pArgs != __null");
    RDX_CHECK(pID != nullptr, "pID != __null");
    ThreadAttributes attributes;
    // The policy takes effect only for a thread that does not inherit its creator's; it costs no privilege.
    if (pthread_attr_setschedpolicy(attributes.Get(), SCHED_RR) != 0) return THREAD_NO_POLICY;
    pthread_attr_setstacksize(attributes.Get(), MT_STACK_SIZE);

    // Counted before it can run: a fast thread leaves the count before this function goes on.
    rdx::AddShared(nThreads, 1);
    pthread_t handle{};
    int created;
    {
        const rdx::CaughtSignalsBlocked inheritedByTheThread;
        created = pthread_create(&handle, attributes.Get(), pBody, pArgs);
    }
    if (created != 0) {
        rdx::AddShared(nThreads, -1);
        return THREAD_NOT_STARTED;
    }
    RDX_CHECK(handle != 0, "hThread != __null");
    // It runs all the same then, and takes itself out of the count when it ends.
    if (pthread_detach(handle) != 0) return THREAD_NOT_DETACHED;
    rdx::StoreShared(*pID, static_cast<ThreadID>(handle));
    return THREAD_CREATED;
}

void ThreadTerminate(unsigned long ulExit) {
    RDX_CHECK(NumOfThreads() > 0, "nThreads > 0");
    rdx::UncountThread();
    RDX_CHECK(CurrentThreadID() != 0, "hThread != __null");
    rdx::EndThread(ulExit);
}

ThreadID CurrentThreadID() { return rdx::ThreadNumber(); }

ThreadID PrimaryThreadID() { return rdx::LoadShared(mtPrimaryThread); }

int NumOfThreads() { return rdx::LoadShared(nThreads); }

int SemaCreate(int key) {
    const int set = semget(key, 1, kSemaphorePermissions | IPC_CREAT);
    if (set < 0) return SEMA_MISSING;
    return semctl(set, 0, SETVAL, SemaphoreArgument{1}) < 0 ? SEMA_FAILED : SEMA_DONE;
}

int SemaP(int key, int bNoWait) { return OperateSemaphore(key, -1, bNoWait != 0 ? IPC_NOWAIT : 0); }

int SemaV(int key) { return OperateSemaphore(key, 1, 0); }

int SemaGetValue(int key) {
    const int set = OpenSemaphore(key);
    if (set < 0) return SEMA_MISSING;
    const int value = semctl(set, 0, GETVAL);
    return value < 0 ? static_cast<int>(SEMA_FAILED) : value;
}

namespace rdx {

void UncountThread() {
    const int remaining = AddShared(nThreads, -1);
    if (VerbosityAbove(VERBOSITY_LOG)) LogThread("ThreadTerminate()", "remaining threads =", remaining);
}

void EndThread(unsigned long exitValue) {
    constexpr unsigned long kLow16Bits = 0xffff;
    StoreShared(exitValueOfThreads, exitValue & kLow16Bits);
    pthread_exit(&exitValueOfThreads);
}

} // namespace rdx
