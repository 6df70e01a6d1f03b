#include "common/mt.h"

#include "common/log.h"
#include "common/mt_internal.h"
#include "common/shared.h"
#include "common/signal_windows.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <pthread.h>
#include <string>
#include <sys/sem.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>

namespace {
thread_local int policyAsked = -1; // the last scheduling policy that was asked for
}

// In the place of the system's own, to which the fault injection hands on.
extern "C" int pthread_attr_setschedpolicy(pthread_attr_t* attributes, int policy) noexcept {
    policyAsked = policy;
    static const auto next =
        reinterpret_cast<int (*)(pthread_attr_t*, int)>(dlsym(RTLD_NEXT, "pthread_attr_setschedpolicy"));
    return next(attributes, policy);
}

namespace rdx {
namespace {

using test::Assertion;
using test::CallsOf;
using test::CaptureStdout;
using test::Eventually;
using test::FailCall;
using test::WithoutTimes;

static_assert(std::is_same_v<ThreadID, std::uint32_t>);
static_assert(std::is_same_v<decltype(nThreads), int> && sizeof nThreads == 4);
static_assert(std::is_same_v<decltype(mtPrimaryThread), ThreadID>);
static_assert(SEMA_CIPLIB == 12345679);
static_assert(MT_STACK_SIZE >= 3 * 132096, "the staged service keeps three such buffers on its stack");

constexpr ThreadID kNoThread = static_cast<ThreadID>(-1);

const ThreadID primaryAtLoad = mtPrimaryThread;
const int threadsAtLoad = nThreads;

class Verbosity {
public:
    explicit Verbosity(unsigned char level) : before_(LoadShared(ucVerbosity)) {
        StoreShared(ucVerbosity, level);
    }
    ~Verbosity() { StoreShared(ucVerbosity, before_); }
    Verbosity(const Verbosity&) = delete;
    Verbosity& operator=(const Verbosity&) = delete;

private:
    unsigned char before_;
};

// The threads of the process when no test runs. Seen from a thread: a sanitizer starts one of its own with
// the first.
int ThreadsAtRest() {
    int count = 0;
    std::thread([&] { count = test::ThreadsOf() - 1; }).join();
    return count;
}

const int threadsAtRest = ThreadsAtRest();

// Every test begins and ends without serving threads.
class Threads : public testing::Test {
protected:
    Threads() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    ~Threads() override {
        EXPECT_EQ(NumOfThreads(), 0);
        // A thread that is still ending could overwrite the next one's result.
        EXPECT_TRUE(Eventually([] { return test::ThreadsOf() <= threadsAtRest; }));
    }
};

using ThreadLibrary = Threads;
using ThreadCreateTest = Threads;
using ThreadTerminateTest = Threads;

TEST_F(ThreadLibrary, HasNoPrimaryThreadAndNoThreadsWhenItIsLoaded) {
    EXPECT_EQ(primaryAtLoad, kNoThread);
    EXPECT_EQ(threadsAtLoad, 0);
}

TEST_F(ThreadLibrary, StartsWithTheCallingThreadAsThePrimaryOne) {
    const CaptureStdout capture;
    StoreShared(nThreads, 7);
    EXPECT_EQ(InitThreadLib(), 0);
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_EQ(PrimaryThreadID(), CurrentThreadID());
    EXPECT_EQ(mtPrimaryThread, CurrentThreadID());
    EXPECT_THAT(WithoutTimes(capture.Text()),
                test::HasLines({"[TIME],InitThreadLib(): running POSIX threads (0)",
                                "mtPrimaryThread=" + std::to_string(static_cast<int>(CurrentThreadID()))}));
}

TEST_F(ThreadLibrary, LogsItsStartAtEveryVerbosityAndPrintsThePrimaryThreadOnStandardOutput) {
    char* log = nullptr;
    std::size_t size = 0;
    for (const unsigned char level : {VERBOSITY_NONE, VERBOSITY_ALL}) {
        const Verbosity verbosity(level);
        const CaptureStdout capture;
        outlog = open_memstream(&log, &size);
        InitThreadLib();
        EXPECT_EQ(WithoutTimes({log, size}), "\n[TIME],InitThreadLib(): running POSIX threads (0)");
        EXPECT_EQ(capture.Text(), "\nmtPrimaryThread=" + std::to_string(static_cast<int>(CurrentThreadID())));
        std::fclose(outlog);
        outlog = nullptr;
        std::free(log);
    }
}

TEST_F(ThreadLibrary, NamesAThreadByTheLowHalfOfItsHandle) {
    EXPECT_EQ(CurrentThreadID(), static_cast<ThreadID>(pthread_self()));
    EXPECT_NE(CurrentThreadID(), 0U);
    ThreadID other = 0;
    std::thread([&] { other = CurrentThreadID(); }).join();
    EXPECT_NE(other, CurrentThreadID());
}

TEST_F(ThreadLibrary, TellsThePrimaryThreadAndTheCountAsTheyStand) {
    StoreShared(nThreads, 3);
    StoreShared(mtPrimaryThread, ThreadID{4711});
    EXPECT_EQ(NumOfThreads(), 3);
    EXPECT_EQ(PrimaryThreadID(), 4711U);
    StoreShared(nThreads, 0);
}

// A serving thread as a test sees it: what it found when it ran, and when it may end.
struct Service {
    std::atomic<bool> ran = false;
    std::atomic<bool> created = false; // set by the test once the thread has been created
    std::atomic<bool> mayEnd = false;
    ThreadID id = 0;
    int threadsAtFirst = 0;
    pthread_t handle{};
    sigset_t blocked{};
    int detachState = -1;
    std::size_t stackSize = 0;
    std::atomic<bool> observed = false;
};

void* Serve(void* argument) {
    auto& service = *static_cast<Service*>(argument);
    service.threadsAtFirst = NumOfThreads();
    service.id = CurrentThreadID();
    service.handle = pthread_self();
    pthread_sigmask(SIG_BLOCK, nullptr, &service.blocked);
    service.ran = true;
    Eventually([&] { return service.created.load(); });
    pthread_attr_t attributes;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getdetachstate(&attributes, &service.detachState);
    pthread_attr_getstacksize(&attributes, &service.stackSize);
    pthread_attr_destroy(&attributes);
    service.observed = true;
    Eventually([&] { return service.mayEnd.load(); });
    ThreadTerminate(0);
    return nullptr;
}

// Runs Serve on a new thread until it has looked at everything.
void Observe(Service& service, ThreadID& id) {
    ASSERT_EQ(ThreadCreate(Serve, &service, &id), 0);
    service.created = true;
    ASSERT_TRUE(Eventually([&] { return service.observed.load(); }));
}

void End(Service& service) {
    service.created = true;
    service.mayEnd = true;
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
}

TEST_F(ThreadCreateTest, RunsTheBodyOnAThreadOfItsOwn) {
    Service service;
    ThreadID id = 0;
    Observe(service, id);
    EXPECT_NE(id, 0U);
    EXPECT_NE(id, CurrentThreadID());
    EXPECT_EQ(id, service.id);
    EXPECT_EQ(NumOfThreads(), 1);
    End(service);
}

TEST_F(ThreadCreateTest, CountsTheThreadBeforeItRuns) {
    std::array<Service, 3> services;
    for (std::size_t i = 0; i < services.size(); ++i) {
        ThreadID id = 0;
        Observe(services[i], id);
        EXPECT_EQ(services[i].threadsAtFirst, static_cast<int>(i) + 1);
        EXPECT_EQ(NumOfThreads(), static_cast<int>(i) + 1);
    }
    for (Service& service : services) service.mayEnd = true;
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
}

TEST_F(ThreadCreateTest, DetachesTheThread) {
    Service service;
    ThreadID id = 0;
    Observe(service, id);
    EXPECT_EQ(service.detachState, PTHREAD_CREATE_DETACHED);
    End(service);
}

TEST_F(ThreadCreateTest, GivesTheThreadItsStackWhateverTheDefault) {
    pthread_attr_t before, small;
    pthread_getattr_default_np(&before);
    pthread_attr_init(&small);
    pthread_attr_setstacksize(&small, 1024 * 1024);
    pthread_setattr_default_np(&small);
    Service service;
    ThreadID id = 0;
    Observe(service, id);
    pthread_setattr_default_np(&before);
    pthread_attr_destroy(&before);
    pthread_attr_destroy(&small);
    EXPECT_GE(service.stackSize, static_cast<std::size_t>(MT_STACK_SIZE));
    End(service);
}

TEST_F(ThreadCreateTest, LeavesRoomForTheStagedServiceOnTheStack) {
    std::atomic<unsigned> sum = 0;
    ThreadID id = 0;
    const auto body = [](void* argument) -> void* {
        volatile char buffers[3][132096];
        for (auto& buffer : buffers) {
            for (volatile char& c : buffer) c = 1;
        }
        static_cast<std::atomic<unsigned>*>(argument)->store(1U + static_cast<unsigned>(buffers[2][132095]));
        ThreadTerminate(0);
        return nullptr;
    };
    ASSERT_EQ(ThreadCreate(body, &sum, &id), 0);
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    EXPECT_EQ(sum, 2U);
}

TEST_F(ThreadCreateTest, BlocksTheCaughtSignalsInTheThreadAlone) {
    sigset_t before, after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    Service service;
    ThreadID id = 0;
    Observe(service, id);
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (const int number : kCaughtSignals) {
        EXPECT_EQ(sigismember(&service.blocked, number), 1) << strsignal(number);
    }
    for (const int number : {SIGUSR2, SIGINT, SIGQUIT, SIGPIPE, SIGSEGV, SIGABRT}) {
        EXPECT_EQ(sigismember(&service.blocked, number), 0) << strsignal(number);
    }
    for (int number = 1; number < SIGRTMIN; ++number) {
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << strsignal(number);
    }
    End(service);
}

TEST_F(ThreadCreateTest, SurvivesThreadsThatEndAtOnce) {
    constexpr int kThreads = 400;
    constexpr int kAtOnce = 16;
    static std::atomic<int> ended;
    ended = 0;
    const auto body = [](void* argument) -> void* {
        ++*static_cast<std::atomic<int>*>(argument);
        ThreadTerminate(0);
        return nullptr;
    };
    for (int i = 0; i < kThreads; ++i) {
        ASSERT_TRUE(Eventually([] { return NumOfThreads() < kAtOnce; }));
        ThreadID id = 0;
        ASSERT_EQ(ThreadCreate(body, &ended, &id), 0) << i;
        ASSERT_NE(id, 0U);
    }
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    EXPECT_EQ(ended, kThreads);
}

TEST_F(ThreadCreateTest, AsksForTheRoundRobinPolicy) {
    const int before = CallsOf("pthread_attr_setschedpolicy");
    Service service;
    ThreadID id = 0;
    Observe(service, id);
    EXPECT_EQ(CallsOf("pthread_attr_setschedpolicy"), before + 1);
    EXPECT_EQ(policyAsked, SCHED_RR);
    End(service);
}

TEST_F(ThreadCreateTest, ChangesNothingWhenThePolicyIsRefused) {
    const FailCall refused("pthread_attr_setschedpolicy", 1, ENOTSUP);
    const int created = CallsOf("pthread_create");
    Service service;
    ThreadID id = 4711;
    EXPECT_EQ(ThreadCreate(Serve, &service, &id), -1);
    EXPECT_TRUE(refused.Struck());
    EXPECT_EQ(CallsOf("pthread_create"), created);
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_EQ(id, 4711U);
    EXPECT_FALSE(service.ran);
}

TEST_F(ThreadCreateTest, TakesTheCountBackWhenThereIsNoThread) {
    const FailCall exhausted("pthread_create", 1, EAGAIN);
    sigset_t before, after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    StoreShared(nThreads, 2);
    Service service;
    ThreadID id = 4711;
    EXPECT_EQ(ThreadCreate(Serve, &service, &id), -2);
    EXPECT_TRUE(exhausted.Struck());
    EXPECT_EQ(NumOfThreads(), 2);
    EXPECT_EQ(id, 4711U);
    EXPECT_FALSE(service.ran);
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (const int number : kCaughtSignals) {
        EXPECT_EQ(sigismember(&after, number), sigismember(&before, number)) << strsignal(number);
    }
    StoreShared(nThreads, 0);
}

TEST_F(ThreadCreateTest, LetsAThreadRunAndEndThatCannotBeDetached) {
    for (const int error : {ESRCH, EINVAL, EPERM}) {
        const CaptureStdout capture;
        const FailCall attached("pthread_detach", 1, error);
        Service service;
        ThreadID id = 4711;
        EXPECT_EQ(ThreadCreate(Serve, &service, &id), -3);
        EXPECT_TRUE(attached.Struck());
        EXPECT_EQ(id, 4711U);
        EXPECT_TRUE(Eventually([&] { return service.ran.load(); }));
        EXPECT_EQ(service.threadsAtFirst, 1);
        service.created = true;
        service.mayEnd = true;
        pthread_join(service.handle, nullptr);
        EXPECT_EQ(NumOfThreads(), 0);
        EXPECT_EQ(capture.Text(), ""); // the reason is not printed
    }
}

TEST_F(ThreadCreateTest, AssertsItsArguments) {
    Service service;
    ThreadID id = 0;
    EXPECT_DEATH(ThreadCreate(nullptr, &service, &id),
                 Assertion("common/mt.cpp", "ThreadCreate", "pBody != __null"));
    EXPECT_DEATH(ThreadCreate(Serve, nullptr, &id),
                 Assertion("common/mt.cpp", "ThreadCreate", "pArgs != __null"));
    EXPECT_DEATH(ThreadCreate(Serve, &service, nullptr),
                 Assertion("common/mt.cpp", "ThreadCreate", "pID != __null"));
}

TEST_F(ThreadCreateTest, AssertsThatAThreadHasAHandle) {
    Service service;
    ThreadID id = 0;
    const auto createWithoutHandle = [&] {
        const FailCall nothingCreated("pthread_create", 1, 0); // reports success
        ThreadCreate(Serve, &service, &id);
    };
    EXPECT_DEATH(createWithoutHandle(), Assertion("common/mt.cpp", "ThreadCreate", "hThread != __null"));
}

// What a thread that ends itself with `exit` leaves as its result.
unsigned long ResultOfTerminating(unsigned long exit) {
    __atomic_fetch_add(&nThreads, 1, __ATOMIC_ACQ_REL);
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        ThreadTerminate(*static_cast<unsigned long*>(argument));
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, nullptr, body, &exit), 0);
    void* result = nullptr;
    EXPECT_EQ(pthread_join(thread, &result), 0);
    return result != nullptr ? LoadShared(*static_cast<unsigned long*>(result)) : ~0UL;
}

TEST_F(ThreadTerminateTest, KeepsTheLow16BitsOfTheExitValue) {
    EXPECT_EQ(ResultOfTerminating(65537), 1UL);
    EXPECT_EQ(ResultOfTerminating(0), 0UL);
    EXPECT_EQ(ResultOfTerminating(65535), 65535UL);
    EXPECT_EQ(ResultOfTerminating(ULONG_MAX), 65535UL);
    EXPECT_EQ(ResultOfTerminating(static_cast<unsigned long>(-3)), 65533UL);
}

TEST_F(ThreadTerminateTest, TakesTheThreadOutOfTheCount) {
    StoreShared(nThreads, 2);
    ResultOfTerminating(1);
    EXPECT_EQ(NumOfThreads(), 2);
    StoreShared(nThreads, 0);
}

TEST_F(ThreadTerminateTest, DoesNotReturn) {
    std::atomic<bool> returned = false;
    StoreShared(nThreads, 1);
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        ThreadTerminate(0);
        static_cast<std::atomic<bool>*>(argument)->store(true);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &returned), 0);
    pthread_join(thread, nullptr);
    EXPECT_FALSE(returned);
}

// What a thread that ends itself while two more run writes to the log at a level of verbosity.
std::string LogOfTerminating(unsigned char level, ThreadID& id) {
    const Verbosity verbosity(level);
    const CaptureStdout capture;
    StoreShared(nThreads, 3);
    std::atomic<ThreadID> self = 0;
    pthread_t thread;
    const auto body = [](void* argument) -> void* {
        static_cast<std::atomic<ThreadID>*>(argument)->store(CurrentThreadID());
        ThreadTerminate(0);
        return nullptr;
    };
    EXPECT_EQ(pthread_create(&thread, nullptr, body, &self), 0);
    pthread_join(thread, nullptr);
    StoreShared(nThreads, 0);
    id = self;
    return WithoutTimes(capture.Text());
}

TEST_F(ThreadTerminateTest, LogsTheRemainingThreadsAboveTheLogLevel) {
    ThreadID id = 0;
    EXPECT_EQ(LogOfTerminating(VERBOSITY_LOG, id), "");
    const std::string line = LogOfTerminating(VERBOSITY_ALL, id);
    EXPECT_EQ(line, "\n[TIME],ThreadTerminate(): remaining threads = (2) [tid=" + std::to_string(id) + "]");
}

TEST_F(ThreadTerminateTest, AssertsThatAThreadCounts) {
    EXPECT_DEATH(ThreadTerminate(0), Assertion("common/mt.cpp", "ThreadTerminate", "nThreads > 0"));
    const auto terminateBelow = [] {
        nThreads = -1;
        ThreadTerminate(0);
    };
    EXPECT_DEATH(terminateBelow(), Assertion("common/mt.cpp", "ThreadTerminate", "nThreads > 0"));
}

TEST_F(ThreadTerminateTest, AssertsThatTheThreadHasAHandle) {
    const auto terminateWithoutHandle = [] {
        nThreads = 1;
        const FailCall noHandle("pthread_self");
        ThreadTerminate(0);
    };
    EXPECT_DEATH(terminateWithoutHandle(),
                 Assertion("common/mt.cpp", "ThreadTerminate", "hThread != __null"));
}

TEST_F(ThreadTerminateTest, ConsistsOfLeavingTheCountAndEnding) {
    StoreShared(nThreads, 2);
    UncountThread();
    EXPECT_EQ(NumOfThreads(), 1);
    StoreShared(nThreads, 0);
    pthread_t thread;
    const auto body = [](void*) -> void* { EndThread(65538); };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(LoadShared(*static_cast<unsigned long*>(result)), 2UL);
    EXPECT_EQ(NumOfThreads(), 0); // a thread that no longer counts
}

// A key that no semaphore had; the one made with it is removed afterwards.
class Semaphore : public testing::Test {
protected:
    Semaphore() {
        key_ = 0x52440000 + static_cast<int>(getpid() % 0x8000) * 0x10;
        while (Set() >= 0) ++key_;
    }
    ~Semaphore() override {
        if (const int set = Set(); set >= 0) semctl(set, 0, IPC_RMID);
    }

    // The set behind the key, or -1.
    int Set() const { return semget(key_, 0, 0); }
    int Value() const { return semctl(Set(), 0, GETVAL); }

    void SetValue(int value) {
        union {
            int val;
            void* pointer;
        } argument{value};
        ASSERT_EQ(semctl(Set(), 0, SETVAL, argument), 0);
    }

    int key_;
};

using SemaCreateTest = Semaphore;
using SemaPTest = Semaphore;
using SemaVTest = Semaphore;
using SemaGetValueTest = Semaphore;

TEST_F(SemaCreateTest, MakesASetOfOneSemaphoreThatAnybodyMayTake) {
    EXPECT_EQ(SemaCreate(key_), 0);
    ASSERT_GE(Set(), 0);
    EXPECT_EQ(Value(), 1);
    semid_ds state{};
    union {
        int val;
        semid_ds* state;
    } argument;
    argument.state = &state;
    ASSERT_EQ(semctl(Set(), 0, IPC_STAT, argument), 0);
    EXPECT_EQ(state.sem_nsems, 1U);
    EXPECT_EQ(state.sem_perm.mode & 0777, 0666);
}

TEST_F(SemaCreateTest, SetsOneThatExistsTo1Again) {
    ASSERT_EQ(SemaCreate(key_), 0);
    const int set = Set();
    SetValue(5);
    EXPECT_EQ(SemaCreate(key_), 0);
    EXPECT_EQ(Set(), set);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaCreateTest, FailsWhenItCanNeitherBeFoundNorCreated) {
    const FailCall full("semget", 1, ENOSPC);
    EXPECT_EQ(SemaCreate(key_), -1);
    EXPECT_TRUE(full.Struck());
    EXPECT_LT(Set(), 0);
}

TEST_F(SemaCreateTest, FailsWhenItsValueCannotBeSet) {
    const FailCall refused("semctl", 1, EPERM);
    EXPECT_EQ(SemaCreate(key_), -2);
    EXPECT_TRUE(refused.Struck());
    EXPECT_GE(Set(), 0);
}

TEST_F(SemaPTest, TakesOne) {
    ASSERT_EQ(SemaCreate(key_), 0);
    SetValue(3);
    EXPECT_EQ(SemaP(key_, 0), 0);
    EXPECT_EQ(Value(), 2);
    EXPECT_EQ(SemaP(key_, 1), 0);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaPTest, FailsWithoutASetAndMakesNone) {
    EXPECT_EQ(SemaP(key_, 0), -1);
    EXPECT_EQ(SemaP(key_, 1), -1);
    EXPECT_LT(Set(), 0);
}

TEST_F(SemaPTest, FailsAtOnceInsteadOfWaiting) {
    ASSERT_EQ(SemaCreate(key_), 0);
    ASSERT_EQ(SemaP(key_, 1), 0);
    for (const int noWait : {1, 2, -1}) {
        EXPECT_EQ(SemaP(key_, noWait), -2);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(Value(), 0);
    }
}

TEST_F(SemaPTest, FailsWhenTheOperationDoes) {
    ASSERT_EQ(SemaCreate(key_), 0);
    const FailCall interrupted("semop", 1, EINTR);
    EXPECT_EQ(SemaP(key_, 0), -2);
    EXPECT_TRUE(interrupted.Struck());
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaPTest, WaitsUntilAnotherThreadGivesItBack) {
    ASSERT_EQ(SemaCreate(key_), 0);
    ASSERT_EQ(SemaP(key_, 0), 0);
    std::atomic<int> result = 1;
    std::thread waiting([&] { result = SemaP(key_, 0); });
    EXPECT_TRUE(Eventually([&] { return semctl(Set(), 0, GETNCNT) == 1; }));
    EXPECT_EQ(result, 1);
    EXPECT_EQ(SemaV(key_), 0);
    waiting.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(Value(), 0);
}

TEST_F(SemaPTest, FailsWhenTheSetIsRemovedWhileItWaits) {
    ASSERT_EQ(SemaCreate(key_), 0);
    ASSERT_EQ(SemaP(key_, 0), 0);
    std::atomic<int> result = 1;
    std::thread waiting([&] { result = SemaP(key_, 0); });
    EXPECT_TRUE(Eventually([&] { return semctl(Set(), 0, GETNCNT) == 1; }));
    EXPECT_EQ(semctl(Set(), 0, IPC_RMID), 0);
    waiting.join();
    EXPECT_EQ(result, -2);
}

TEST_F(SemaPTest, StaysTakenWhenTheHolderDies) {
    ASSERT_EQ(SemaCreate(key_), 0);
    const pid_t holder = fork();
    if (holder == 0) _exit(SemaP(key_, 1) == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Value(), 0);
    EXPECT_EQ(SemaP(key_, 1), -2);
}

TEST_F(SemaVTest, StaysGivenWhenTheGiverDies) {
    ASSERT_EQ(SemaCreate(key_), 0);
    const pid_t giver = fork();
    if (giver == 0) _exit(SemaV(key_) == 0 ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(giver, &status, 0), giver);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(Value(), 2);
}

TEST_F(SemaVTest, GivesOneBack) {
    ASSERT_EQ(SemaCreate(key_), 0);
    EXPECT_EQ(SemaV(key_), 0);
    EXPECT_EQ(Value(), 2);
}

TEST_F(SemaVTest, FailsWithoutASetAndMakesNone) {
    EXPECT_EQ(SemaV(key_), -1);
    EXPECT_LT(Set(), 0);
}

TEST_F(SemaVTest, FailsAtTheHighestValue) {
    constexpr int kHighest = 32767;
    ASSERT_EQ(SemaCreate(key_), 0);
    SetValue(kHighest);
    EXPECT_EQ(SemaV(key_), -2);
    EXPECT_EQ(Value(), kHighest);
}

TEST_F(SemaGetValueTest, ReadsTheValue) {
    ASSERT_EQ(SemaCreate(key_), 0);
    EXPECT_EQ(SemaGetValue(key_), 1);
    SemaV(key_);
    EXPECT_EQ(SemaGetValue(key_), 2);
    SetValue(0);
    EXPECT_EQ(SemaGetValue(key_), 0);
}

TEST_F(SemaGetValueTest, FailsWithoutASetAndMakesNone) {
    EXPECT_EQ(SemaGetValue(key_), -1);
    EXPECT_LT(Set(), 0);
}

TEST_F(SemaGetValueTest, FailsWhenTheValueCannotBeRead) {
    ASSERT_EQ(SemaCreate(key_), 0);
    const FailCall refused("semctl", 1, EACCES);
    EXPECT_EQ(SemaGetValue(key_), -2);
    EXPECT_TRUE(refused.Struck());
}

TEST_F(SemaGetValueTest, KnowsNoneOfAComponentThatIsNotThere) {
    if (semget(SEMA_CIPLIB, 0, 0) >= 0) GTEST_SKIP() << "the component is there";
    EXPECT_EQ(SemaGetValue(12345679), -1);
    EXPECT_LT(semget(SEMA_CIPLIB, 0, 0), 0);
}

} // namespace
} // namespace rdx
