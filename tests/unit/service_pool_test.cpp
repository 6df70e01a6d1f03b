#include "server/service_pool.h"

#include "common/log.h"
#include "common/mt.h"
#include "common/shared.h"
#include "server/descriptors.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/faults.h"
#include "tests/support/process.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <semaphore>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace rdx {
namespace {

using test::Eventually;

std::vector<int> Members(const fd_set& set) {
    std::vector<int> members;
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) {
        if (FD_ISSET(descriptor, &set)) members.push_back(descriptor);
    }
    return members;
}

// The descriptors at the edges of the set's words.
const std::vector<int> kEdges = {0, 1, 31, 32, 63, 64, 65, 127, 128, 1022, 1023};

TEST(Descriptors, AreAddedAndRemovedOneByOne) {
    fd_set set{};
    for (const int descriptor : kEdges) AddDescriptor(set, descriptor);
    EXPECT_EQ(Members(set), kEdges);
    AddDescriptor(set, 64);
    EXPECT_EQ(Members(set), kEdges) << "adding twice is adding once";
    for (const int descriptor : kEdges) {
        EXPECT_TRUE(RemoveDescriptor(set, descriptor)) << descriptor;
        EXPECT_FALSE(RemoveDescriptor(set, descriptor)) << descriptor;
        EXPECT_FALSE(FD_ISSET(descriptor, &set));
    }
    EXPECT_TRUE(Members(set).empty());
}

TEST(Descriptors, AreCopiedWhole) {
    fd_set set{};
    for (const int descriptor : kEdges) AddDescriptor(set, descriptor);
    fd_set copy;
    for (int descriptor = 0; descriptor < FD_SETSIZE; ++descriptor) FD_SET(descriptor, &copy);
    CopyDescriptors(copy, set);
    EXPECT_EQ(Members(copy), kEdges);
    EXPECT_EQ(Members(set), kEdges);
}

TEST(Descriptors, AreMovedToThoseThatAreThere) {
    fd_set from{};
    fd_set to{};
    AddDescriptor(from, 3);
    AddDescriptor(from, 1023);
    AddDescriptor(to, 3);
    AddDescriptor(to, 64);
    MoveDescriptors(to, from);
    EXPECT_EQ(Members(to), (std::vector{3, 64, 1023}));
    EXPECT_TRUE(Members(from).empty());
}

TEST(Descriptors, OfOneWordAreAddedByManyThreadsWhileTheyAreCopied) {
    fd_set set{};
    std::vector<std::thread> threads;
    for (int first = 0; first < 4; ++first) {
        threads.emplace_back([first, &set] {
            for (int descriptor = first; descriptor < 64; descriptor += 4) AddDescriptor(set, descriptor);
        });
    }
    fd_set copy{};
    for (int i = 0; i < 100; ++i) CopyDescriptors(copy, set);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Members(set).size(), 64U);
}

// What the bodies of this test share with it.
std::counting_semaphore<> go{0}; // a body waits for it
std::atomic<int> begun{0};       // bodies that wait, or have
struct {                         // of the last body
    std::atomic<ServicePool*> pool;
    std::atomic<ThreadID> idInSlot;
    std::atomic<pthread_t> thread;
} last;

// Ends as a serving body does.
void* WaitAndEnd(ServiceCall* call) {
    last.pool = ServicePool::OfThisThread();
    last.idInSlot = LoadShared(call->hThreadId);
    last.thread = pthread_self();
    ++begun;
    go.acquire();
    StoreShared<int>(call->iSvcStatus, SERVICE_FINISHED);
    ServicePool::OfThisThread()->EndThisThread(1);
}

void* Return(ServiceCall* call) {
    StoreShared<int>(call->iSvcStatus, SERVICE_FINISHED);
    return nullptr;
}

class ServicePoolTest : public testing::Test {
protected:
    void SetUp() override {
        begun = 0;
        InitThreadLib();
    }

    void TearDown() override {
        EXPECT_TRUE(test::OtherThreadsEnd());
        EXPECT_EQ(NumOfThreads(), 0);
    }

    static bool Begun(int count) {
        return Eventually([count] { return begun == count; });
    }

    // The pool's memory is the threads' too: the address sanitizer finds an end that comes too early or
    // never.
    static void End(ServicePool* pool) {
        fd_set watched{};
        pool->EndLoop(watched);
        pool->Release();
    }

    static int Start(ServicePool* pool, int slot, void* (*body)(ServiceCall*) = WaitAndEnd) {
        ServiceCall& call = pool->Slots()[slot];
        call.iSvcStatus = SERVICE_RUNNING;
        return pool->StartThread(&call, body);
    }

private:
    test::CaptureStdout quiet_;
};

TEST_F(ServicePoolTest, BeginsWithFreeSlotsAndAnEmptySet) {
    ServicePool* const pool = ServicePool::Create(3);
    ASSERT_NE(pool, nullptr);
    EXPECT_EQ(pool->Size(), 3);
    for (int i = 0; i < pool->Size(); ++i) {
        const ServiceCall& slot = pool->Slots()[i];
        EXPECT_EQ(slot.hSocket, -1);
        EXPECT_EQ(slot.iSvcStatus, SERVICE_FREE);
        EXPECT_EQ(slot.hThreadId, static_cast<ThreadID>(-1));
        EXPECT_EQ(slot.ucKeepAlive, 0);
        EXPECT_EQ(slot.ucTerminate, 0);
        EXPECT_EQ(slot.ucReconfigure, 0);
    }
    EXPECT_TRUE(Members(pool->Watched()).empty());
    End(pool);
}

TEST_F(ServicePoolTest, IsNotMadeWhenMemoryIsShort) {
    for (int nth = 1; nth <= 3; ++nth) {
        const test::FailCall noMemory("calloc", nth);
        EXPECT_EQ(ServicePool::Create(2), nullptr) << nth;
        EXPECT_TRUE(noMemory.Struck()) << nth;
    }
}

TEST_F(ServicePoolTest, RunsABodyOnACountedThreadThatKnowsItsPoolAndItself) {
    ServicePool* const pool = ServicePool::Create(2);
    ASSERT_EQ(Start(pool, 1), 0);
    EXPECT_EQ(NumOfThreads(), 1);
    ASSERT_TRUE(Begun(1));
    EXPECT_EQ(last.pool, pool);
    const auto id = static_cast<ThreadID>(last.thread);
    EXPECT_NE(id, CurrentThreadID());
    EXPECT_EQ(last.idInSlot, id);
    EXPECT_EQ(pool->Slots()[1].hThreadId, id);
    EXPECT_EQ(ServicePool::OfThisThread(), nullptr);
    go.release();
    EXPECT_TRUE(test::OtherThreadsEnd());
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_EQ(pool->Slots()[1].iSvcStatus, SERVICE_FINISHED);
    End(pool);
}

TEST_F(ServicePoolTest, EndsAThreadWhoseBodyReturned) {
    ServicePool* const pool = ServicePool::Create(2);
    ASSERT_EQ(Start(pool, 0, Return), 0);
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    End(pool);
}

TEST_F(ServicePoolTest, CountsNothingWhenNoThreadCouldBeStarted) {
    ServicePool* const pool = ServicePool::Create(2);
    {
        const test::FailCall noPolicy("pthread_attr_setschedpolicy", 1, EPERM);
        EXPECT_EQ(Start(pool, 0), -1);
        EXPECT_TRUE(noPolicy.Struck());
    }
    {
        const test::FailCall noThread("pthread_create", 1, EAGAIN);
        EXPECT_EQ(Start(pool, 1), -2);
        EXPECT_TRUE(noThread.Struck());
    }
    EXPECT_EQ(NumOfThreads(), 0);
    End(pool);
    EXPECT_EQ(NumOfThreads(), 0);
}

TEST_F(ServicePoolTest, CountsAThreadThatCouldNotBeDetached) {
    ServicePool* const pool = ServicePool::Create(2);
    const test::FailCall notDetached("pthread_detach", 1, EINVAL);
    EXPECT_EQ(Start(pool, 0), -3);
    EXPECT_TRUE(notDetached.Struck());
    EXPECT_EQ(NumOfThreads(), 1);
    ASSERT_TRUE(Begun(1));
    EXPECT_EQ(last.idInSlot, static_cast<ThreadID>(last.thread));
    go.release();
    EXPECT_TRUE(test::OtherThreadsEnd());
    pthread_detach(last.thread);
    EXPECT_EQ(NumOfThreads(), 0);
    End(pool);
}

TEST_F(ServicePoolTest, WatchesAConnectionAgainWhileTheLoopRuns) {
    ServicePool* const pool = ServicePool::Create(2);
    EXPECT_TRUE(pool->Watch(5));
    EXPECT_TRUE(pool->Watch(1023));
    EXPECT_EQ(Members(pool->Watched()), (std::vector{5, 1023}));
    End(pool);
}

TEST_F(ServicePoolTest, HandsWhatIsWatchedToTheEndingLoop) {
    ServicePool* const pool = ServicePool::Create(2);
    EXPECT_TRUE(pool->Watch(5));
    fd_set watched{};
    FD_SET(7, &watched);
    pool->EndLoop(watched);
    EXPECT_EQ(Members(watched), (std::vector{5, 7}));
    EXPECT_TRUE(Members(pool->Watched()).empty());
    EXPECT_FALSE(pool->Watch(6)) << "nobody watches any more";
    EXPECT_TRUE(Members(pool->Watched()).empty());
    pool->Release();
}

TEST_F(ServicePoolTest, OutlivesItsLoopUntilTheLastThreadHasEnded) {
    ServicePool* const pool = ServicePool::Create(3);
    for (int slot = 0; slot < 3; ++slot) ASSERT_EQ(Start(pool, slot), 0);
    ASSERT_TRUE(Begun(3));
    EXPECT_EQ(NumOfThreads(), 3);
    go.release(); // one ends while the loop runs
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 2; }));
    End(pool);
    EXPECT_EQ(NumOfThreads(), 0) << "threads of an ended loop do not count";

    InitThreadLib();
    ServicePool* const next = ServicePool::Create(2);
    ASSERT_EQ(Start(next, 0), 0);
    ASSERT_TRUE(Begun(4));
    EXPECT_EQ(NumOfThreads(), 1);
    go.release(3); // whoever ends, the old ones are not taken out of the new count
    EXPECT_TRUE(test::OtherThreadsEnd());
    EXPECT_EQ(NumOfThreads(), 0);
    End(next);
}

// A thread leaves while the loop ends: it is taken out of the count once, by itself or by the loop.
TEST_F(ServicePoolTest, IsLeftByThreadsWhileTheLoopEnds) {
    for (int run = 0; run < 50; ++run) {
        ServicePool* const pool = ServicePool::Create(4);
        begun = 0;
        for (int slot = 0; slot < 4; ++slot) ASSERT_EQ(Start(pool, slot), 0);
        ASSERT_TRUE(Begun(4));
        go.release(4);
        if (run % 2 != 0) std::this_thread::yield();
        fd_set watched{};
        pool->EndLoop(watched);
        EXPECT_EQ(NumOfThreads(), 0) << run;
        pool->Release();
    }
    EXPECT_TRUE(test::OtherThreadsEnd());
    EXPECT_EQ(NumOfThreads(), 0);
}

// A log that holds up whoever writes a line with `text` in it until it is let go.
class HoldingLog {
public:
    explicit HoldingLog(std::string text) : text_(std::move(text)) {
        cookie_io_functions_t functions{};
        functions.write = [](void* log, const char* bytes, std::size_t size) {
            static_cast<HoldingLog*>(log)->Write({bytes, size});
            return static_cast<ssize_t>(size);
        };
        stream_ = fopencookie(this, "w", functions);
        outlog = stream_;
    }
    ~HoldingLog() {
        outlog = nullptr;
        std::fclose(stream_);
    }
    HoldingLog(const HoldingLog&) = delete;
    HoldingLog& operator=(const HoldingLog&) = delete;

    bool Holds() const { return holds_; }
    void LetGo() { letGo_ = true; }

private:
    void Write(std::string_view bytes) {
        if (bytes.find(text_) == bytes.npos) return;
        holds_ = true;
        while (!letGo_) std::this_thread::yield();
    }

    std::string text_;
    std::atomic<bool> holds_ = false;
    std::atomic<bool> letGo_ = false;
    FILE* stream_ = nullptr;
};

// The count that the next loop starts from must not be lowered by a thread that was just on its way; it logs
// itself on that way.
TEST_F(ServicePoolTest, WaitsForThreadsThatAreAboutToLeaveTheCount) {
    HoldingLog log("remaining threads");
    StoreShared<unsigned char>(ucVerbosity, VERBOSITY_ALL);
    std::atomic<bool> ended = false;
    ServicePool* const pool = ServicePool::Create(2);
    ASSERT_EQ(Start(pool, 0), 0);
    go.release();
    ASSERT_TRUE(Eventually([&] { return log.Holds(); }));
    std::thread loop([&] {
        End(pool);
        ended = true;
    });
    for (int i = 0; i < 10'000; ++i) std::this_thread::yield();
    EXPECT_FALSE(ended);
    log.LetGo();
    loop.join();
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_TRUE(test::OtherThreadsEnd());
}

// Threads put connections back while the loop ends: each is closed by the loop or by its thread, never both.
TEST_F(ServicePoolTest, HasOneOwnerForAConnectionThatIsPutBackWhileTheLoopEnds) {
    constexpr int kThreads = 4;
    constexpr int kEach = 8;
    for (int run = 0; run < 50; ++run) {
        ServicePool* const pool = ServicePool::Create(2);
        fd_set ofThreads{};
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                ++ready;
                while (ready < kThreads + 1) std::this_thread::yield();
                for (int i = 0; i < kEach; ++i) {
                    const int socket = 10 + i * kThreads + t;
                    if (!pool->Watch(socket)) AddDescriptor(ofThreads, socket);
                }
            });
        }
        while (ready < kThreads) std::this_thread::yield();
        ++ready;
        fd_set ofLoop{};
        pool->EndLoop(ofLoop);
        for (std::thread& thread : threads) thread.join();
        for (int socket = 10; socket < 10 + kThreads * kEach; ++socket) {
            EXPECT_NE(FD_ISSET(socket, &ofLoop) != 0, FD_ISSET(socket, &ofThreads) != 0) << socket;
        }
        EXPECT_TRUE(Members(pool->Watched()).empty());
        pool->Release();
    }
}

} // namespace
} // namespace rdx
