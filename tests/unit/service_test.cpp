#include "server/service.h"

#include "common/config.h"
#include "common/portability_sockets.h"
#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/request.h"
#include "tests/support/service.h"
#include "tests/support/serving.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <fcntl.h>
#include <vector>

namespace {

using namespace rdx;
using namespace rdx::test;
using testing::HasSubstr;

// --- layouts -------------------------------------------------------------------------------------------

static_assert(offsetof(ServiceCall, hSocket) == 0);
static_assert(offsetof(ServiceCall, iSvcStatus) == 4);
static_assert(offsetof(ServiceCall, ucKeepAlive) == 8);
static_assert(offsetof(ServiceCall, ucTerminate) == 9);
static_assert(offsetof(ServiceCall, ucReconfigure) == 10);
static_assert(offsetof(ServiceCall, hThreadId) == 12);
static_assert(offsetof(ServiceCall, pFdSet) == 16);
static_assert(sizeof(void*) != 8 || sizeof(ServiceCall) == 24);
static_assert(SERVICE_BUFFER_SIZE == 129 * 1024);

// --- the handler table ---------------------------------------------------------------------------------

using HandlerTable = ServiceTest;

TEST_F(HandlerTable, HasOneEntry) {
    EXPECT_EQ(std::size(rDxFunctions), 1U);
    EXPECT_STREQ(rDxFunctions[0].szPrefix, "/rDx");
    EXPECT_EQ(rDxFunctions[0].pHandler, rDxHandler);
}

TEST_F(HandlerTable, KnowsTheUrisThatBeginWithItsPrefix) {
    for (const char* uri :
         {"/rDx", "/rdx", "/RDX", "/RDXanything", "/rDx?FunctionName=x", "/rDx/", "/rdxx"}) {
        EXPECT_EQ(GetServerHandler(uri), rDxHandler) << uri;
    }
}

TEST_F(HandlerTable, KnowsNoOtherUri) {
    for (const char* uri : {"", "/", "/r", "/rD", "/other", "rDx", "//rDx", " /rDx", "/rD ", "/rD\xd8"}) {
        EXPECT_EQ(GetServerHandler(uri), nullptr) << uri;
    }
    EXPECT_EQ(GetServerHandler(nullptr), nullptr);
}

TEST_F(HandlerTable, ReadsNothingBehindAShortUri) {
    for (const std::string uri : {"/rD", "/r", "/", ""}) {
        const test::GuardedBytes guarded(uri + std::string(1, '\0'));
        EXPECT_EQ(GetServerHandler(guarded.begin()), nullptr) << uri;
    }
}

// --- HandleRequest -------------------------------------------------------------------------------------

class HandleRequestTest : public ServiceTest {
protected:
    int Handle(test::Request& request, unsigned int size = 64) {
        buffer_.assign(size, 'x');
        length_ = size;
        return HandleRequest(request.get(), buffer_.data(), &length_, 0, &terminate_, &keepAlive_);
    }

    std::string buffer_;
    unsigned int length_ = 0;
    unsigned char terminate_ = 0;
    unsigned char keepAlive_ = 7;
};

TEST_F(HandleRequestTest, HasNoHandlerForAnotherUri) {
    test::Request request("/other");
    request->ucKeepAlive = 1;
    EXPECT_EQ(Handle(request), -404);
    EXPECT_EQ(keepAlive_, 7) << "not written";
    EXPECT_EQ(buffer_, std::string(64, '\0')) << "filled with zeros all the same";
    EXPECT_EQ(length_, 64U);
}

TEST_F(HandleRequestTest, HasNoHandlerForARequestWithoutAUri) {
    test::Request request;
    request->pszUri = nullptr;
    EXPECT_EQ(Handle(request), -404);
    EXPECT_EQ(keepAlive_, 7);
}

TEST_F(HandleRequestTest, GivesTheHandlerAnEmptyBufferAndItsSize) {
    test::Request request;
    replaced.handler = [&](HttpRequest* handled, char* out, unsigned long* length, unsigned char* terminate) {
        EXPECT_EQ(handled, request.get());
        EXPECT_EQ(std::string(out, *length), std::string(64, '\0'));
        EXPECT_EQ(terminate, &terminate_);
        std::memcpy(out, "body", 4);
        *length = 4;
        return 0;
    };
    EXPECT_EQ(Handle(request), 200);
    EXPECT_EQ(length_, 4U);
    EXPECT_EQ(buffer_, "body" + std::string(60, '\0'));
}

TEST_F(HandleRequestTest, TurnsTheHandlersResultIntoAStatus) {
    constexpr struct {
        int handled;
        int status;
    } kRows[] = {{0, 200},     {1, -400},    {400, -400},  {99, -400},        {-401, -401},
                 {-1, -500},   {-3, -500},   {-6, -500},   {-400, -500},      {-404, -500},
                 {-405, -500}, {-500, -500}, {-402, -500}, {2147483647, -400}};
    for (const auto& row : kRows) {
        test::Request request;
        for (const unsigned char keepAlive : kFlags) {
            request->ucKeepAlive = keepAlive;
            keepAlive_ = 7;
            replaced.handler = Failing(row.handled);
            EXPECT_EQ(Handle(request), row.status) << row.handled;
            EXPECT_EQ(keepAlive_, keepAlive) << row.handled;
        }
    }
}

TEST_F(HandleRequestTest, LogsARequestForTermination) {
    test::Request request;
    request->iSocket = 4711;
    replaced.handler = [](HttpRequest*, char*, unsigned long* length, unsigned char* terminate) {
        *length = 0;
        *terminate = 1;
        return 0;
    };
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const CaptureStdout capture;
        EXPECT_EQ(Handle(request), 200);
        EXPECT_EQ(terminate_, 1);
        EXPECT_THAT(WithoutTimes(capture.Text()),
                    HasTracesAt(verbosity, {{kProgress, ThreadLine("ServeClient()",
                                                                   "termination request from handle =", 4711,
                                                                   CurrentThreadID())}}));
    }
}

TEST_F(HandleRequestTest, LogsNoRequestForTerminationOfAHandlerThatFailed) {
    test::Request request;
    ucVerbosity = VERBOSITY_ALL;
    terminate_ = 1;
    for (const int result : {400, -1}) {
        replaced.handler = Failing(result);
        const CaptureStdout capture;
        Handle(request);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST_F(HandleRequestTest, ReachesTheDeviceService) {
    const CaptureStdout capture;
    test::Request version("rdxGetVersion", kVersionArguments);
    EXPECT_EQ(Handle(version, SERVICE_BUFFER_SIZE), 200);
    EXPECT_THAT(buffer_.substr(0, length_), HasSubstr("<number>100</number>"));
    EXPECT_EQ(buffer_[length_], '\0');

    test::Request nameless("/rDx");
    EXPECT_EQ(Handle(nameless, SERVICE_BUFFER_SIZE), -400) << "no method is named";

    test::Request protectedMethod("rdxAllocateDevice", "");
    EXPECT_EQ(Handle(protectedMethod, SERVICE_BUFFER_SIZE), -401);

    test::Request small("rdxGetVersion", kVersionArguments);
    EXPECT_EQ(Handle(small, 16), -500) << "the result does not fit";
}

// --- ServeClientDone -----------------------------------------------------------------------------------

using ServeClientDoneTest = ServiceTest;

TEST_F(ServeClientDoneTest, WatchesAKeptConnectionAgain) {
    for (const int keep : {1, 2, -1}) {
        const CaptureStdout capture;
        Serving serving;
        EXPECT_EQ(ServeClientDone(&serving.call, 17, keep), 17);
        EXPECT_TRUE(serving.IsWatched());
        EXPECT_FALSE(serving.IsClosed());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        EXPECT_EQ(capture.Text(), "");
    }
}

TEST_F(ServeClientDoneTest, ClosesEveryOtherConnection) {
    const struct {
        int status;
        int keep;
    } rows[] = {{17, 0}, {-1, 1}, {-1, 0}, {-2, 1}, {-3, 1}};
    for (const auto& row : rows) {
        const CaptureStdout capture;
        Serving serving;
        serving.Send("x");
        EXPECT_EQ(ServeClientDone(&serving.call, row.status, row.keep), row.status);
        EXPECT_FALSE(serving.IsWatched());
        EXPECT_TRUE(serving.IsClosed());
        EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
        EXPECT_THAT(capture.Text(), HasLines({"\nServeClientDone: Socket closed"}));
    }
}

TEST_F(ServeClientDoneTest, ShutsTheConnectionDownForWhoeverElseHoldsIt) {
    const CaptureStdout quiet;
    Serving serving;
    const int duplicate = dup(serving.call.hSocket);
    ServeClientDone(&serving.call, -1, 0);
    char byte;
    EXPECT_EQ(recv(duplicate, &byte, 1, MSG_DONTWAIT), 0);
    EXPECT_EQ(send(duplicate, "x", 1, MSG_NOSIGNAL), -1);
    close(duplicate);
}

TEST_F(ServeClientDoneTest, TracesAtEveryVerbosity) {
    for (const int verbosity : kVerbosities) {
        ucVerbosity = static_cast<unsigned char>(verbosity);
        const unsigned long thread = CurrentThreadID();
        const CaptureStdout capture;
        Serving kept;
        ServeClientDone(&kept.call, 1, 1);
        Serving dropped;
        ServeClientDone(&dropped.call, 1, 0);
        EXPECT_THAT(WithoutTimes(capture.Text()),
                    HasTracesAt(verbosity,
                                {{kDetail, ThreadLine("ServeClientDone()", "added handle to active set again",
                                                      kept.call.hSocket, thread)},
                                 {kDetail, ThreadLine("ServeClientDone()", "client socket closed",
                                                      dropped.call.hSocket, thread)},
                                 {kAlways, "\nServeClientDone: Socket closed"}}));
    }
}

TEST_F(ServeClientDoneTest, EndsAServingThreadWithItsStatus) {
    const CaptureStdout quiet;
    Serving serving;
    pthread_t thread{};
    nThreads = 1;
    const auto body = [](void* call) -> void* {
        auto* const slot = static_cast<ServiceCall*>(call);
        slot->hThreadId = CurrentThreadID();
        ServeClientDone(slot, 65537, 1);
        ADD_FAILURE() << "the thread goes on";
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &serving.call), 0);
    void* result = nullptr;
    ASSERT_EQ(pthread_join(thread, &result), 0);
    EXPECT_EQ(*static_cast<unsigned long*>(result), 1UL) << "the low 16 bits";
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_TRUE(serving.IsWatched());
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
}

TEST_F(ServeClientDoneTest, IsAsserted) {
    const char* const kSignature = "int ServeClientDone(ServiceCall*, int, int)";
    Serving serving;
    for (const int keep : {0, 1}) {
        EXPECT_DEATH(ServeClientDone(&serving.call, 0, keep), Report(kSignature, "svcStat != 0"));
    }
    EXPECT_DEATH(
        {
            serving.call.pFdSet = nullptr;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "pArgs->pFdSet != __null"));
    EXPECT_DEATH(
        {
            serving.call.hThreadId = 0;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "pArgs->hThreadId != 0L"));
    EXPECT_DEATH(
        {
            mtPrimaryThread = 0;
            ServeClientDone(&serving.call, 1, 1);
        },
        Report(kSignature, "PrimaryThreadID() != 0L"));
}

TEST_F(ServeClientDoneTest, NeedsNoSetForAConnectionThatIsNotKept) {
    const CaptureStdout quiet;
    Serving serving;
    serving.call.pFdSet = nullptr;
    EXPECT_EQ(ServeClientDone(&serving.call, 1, 0), 1);
    Serving failed;
    failed.call.pFdSet = nullptr;
    EXPECT_EQ(ServeClientDone(&failed.call, -1, 1), -1);
}

// --- slots ---------------------------------------------------------------------------------------------

constexpr ServiceCall MakeSlot(int status, ThreadID thread, unsigned char terminate = 0,
                               unsigned char reconfigure = 0) {
    return {42, status, 0, terminate, reconfigure, thread, nullptr};
}

using GetServiceCallPtrTest = ServiceTest;

TEST_F(GetServiceCallPtrTest, FindsTheFirstFreeSlot) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5), MakeSlot(SERVICE_FINISHED, 6),
                           MakeSlot(SERVICE_FREE, 7), MakeSlot(SERVICE_FREE, 8)};
    ASSERT_EQ(GetServiceCallPtr(slots, 4), &slots[2]);
    EXPECT_EQ(slots[2].hSocket, -1);
    EXPECT_EQ(slots[2].hThreadId, kNone);
    EXPECT_EQ(slots[2].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[3].hSocket, 42) << "untouched";
    EXPECT_EQ(slots[3].hThreadId, 8U);
    EXPECT_EQ(slots[0].hSocket, 42);
}

TEST_F(GetServiceCallPtrTest, LeavesTheKeepAliveFlag) {
    ServiceCall slot = MakeSlot(SERVICE_FREE, 7);
    slot.ucKeepAlive = 1;
    ASSERT_EQ(GetServiceCallPtr(&slot, 1), &slot);
    EXPECT_EQ(slot.ucKeepAlive, 1);
}

TEST_F(GetServiceCallPtrTest, FindsNothingAmongBusySlots) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5), MakeSlot(SERVICE_FINISHED, 6),
                           MakeSlot(SERVICE_FREE, 7)};
    EXPECT_EQ(GetServiceCallPtr(slots, 2), nullptr);
    EXPECT_EQ(slots[2].hSocket, 42) << "beyond the slots";
}

TEST_F(GetServiceCallPtrTest, IsAsserted) {
    const char* const kSignature = "ServiceCall* GetServiceCallPtr(ServiceCall*, int)";
    ServiceCall slot = MakeSlot(SERVICE_FREE, kNone);
    EXPECT_DEATH(GetServiceCallPtr(nullptr, 1), Report(kSignature, "pBase != __null"));
    for (const int count : {0, -1}) {
        EXPECT_DEATH(GetServiceCallPtr(&slot, count), Report(kSignature, "nSlots > 0"));
    }
}

using UpdateServerStatusTest = ServiceTest;

TEST_F(UpdateServerStatusTest, FreesOneFinishedSlotAtATime) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_RUNNING, 5),
                           MakeSlot(SERVICE_FINISHED, 6), MakeSlot(SERVICE_FINISHED, 7)};
    const CaptureStdout capture;
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[0].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_RUNNING);
    EXPECT_EQ(slots[2].iSvcStatus, SERVICE_FREE);
    EXPECT_EQ(slots[3].iSvcStatus, SERVICE_FINISHED);
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[3].iSvcStatus, SERVICE_FREE);
    UpdateServerStatus(slots, 4);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_RUNNING);
    EXPECT_EQ(ucTerminated, 0);
    EXPECT_EQ(ucReconfigured, 0);
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(UpdateServerStatusTest, LooksAtNoMoreThanTheSlots) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_FINISHED, 5)};
    UpdateServerStatus(slots, 1);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_FINISHED);
    UpdateServerStatus(slots, 0);
    EXPECT_EQ(slots[1].iSvcStatus, SERVICE_FINISHED);
}

TEST_F(UpdateServerStatusTest, PassesRequestsOn) {
    const struct {
        unsigned char terminate, reconfigure, terminated, reconfigured;
        const char* message;
    } rows[] = {
        {0, 0, 0, 0, nullptr},
        {1, 0, 1, 0, "termination request from thread ID="},
        {0, 1, 0, 1, "reconfiguration request from thread ID="},
        {1, 1, 1, 0, "termination request from thread ID="}, // one of them
    };
    for (const auto& row : rows) {
        for (const int verbosity : kVerbosities) {
            ucTerminated = 0;
            ucReconfigured = 0;
            ucVerbosity = static_cast<unsigned char>(verbosity);
            ServiceCall slot = MakeSlot(SERVICE_FINISHED, 4711, row.terminate, row.reconfigure);
            const CaptureStdout capture;
            UpdateServerStatus(&slot, 1);
            EXPECT_EQ(ucTerminated, row.terminated);
            EXPECT_EQ(ucReconfigured, row.reconfigured);
            EXPECT_EQ(slot.iSvcStatus, SERVICE_FREE);
            const std::string line = row.message == nullptr ? ""
                                                            : ThreadLine("UpdateServerStatus()", row.message,
                                                                         4711, CurrentThreadID());
            EXPECT_THAT(WithoutTimes(capture.Text()), HasTracesAt(verbosity, {{kDetail, line}}));
        }
    }
}

TEST_F(UpdateServerStatusTest, IgnoresRequestsOfServicesThatHaveNotFinished) {
    ServiceCall slots[] = {MakeSlot(SERVICE_RUNNING, 5, 1, 1), MakeSlot(SERVICE_FREE, kNone, 1, 1)};
    UpdateServerStatus(slots, 2);
    EXPECT_EQ(ucTerminated, 0);
    EXPECT_EQ(ucReconfigured, 0);
}

TEST_F(UpdateServerStatusTest, IsAsserted) {
    ServiceCall slots[] = {MakeSlot(SERVICE_FREE, kNone), MakeSlot(SERVICE_RUNNING, kNone),
                           MakeSlot(SERVICE_FINISHED, 5)};
    EXPECT_DEATH(UpdateServerStatus(slots, 3),
                 Report("void UpdateServerStatus(ServiceCall*, int)", "pSvc->hThreadId != ((ThreadID)(-1))"));
    ServiceCall behind[] = {MakeSlot(SERVICE_FINISHED, 5), MakeSlot(SERVICE_RUNNING, kNone)};
    UpdateServerStatus(behind, 2); // the scan stops at a finished slot
    EXPECT_EQ(behind[0].iSvcStatus, SERVICE_FREE);
}

TEST_F(ServiceTest, InitializeThreadsStartsTheThreadLibrary) {
    nThreads = 5;
    const CaptureStdout capture;
    EXPECT_EQ(InitializeThreads(3), 0);
    EXPECT_EQ(NumOfThreads(), 0);
    EXPECT_EQ(PrimaryThreadID(), CurrentThreadID());
    EXPECT_THAT(WithoutTimes(capture.Text()),
                HasLines({"\n[TIME],InitThreadLib(): running POSIX threads (0)\nmtPrimaryThread=" +
                          std::to_string(static_cast<int>(CurrentThreadID()))}));
    EXPECT_EQ(InitializeThreads(2), 0) << "the slots of before are given up";
    EXPECT_EQ(DeinitializeThreads(), 0);
    EXPECT_EQ(DeinitializeThreads(), 0) << "there are none";
}

TEST_F(ServiceTest, InitializeThreadsNeedsMemoryAndAtLeastOneSlot) {
    const CaptureStdout quiet;
    for (int nth = 1; nth <= 3; ++nth) {
        const FailCall noMemory("calloc", nth);
        EXPECT_EQ(InitializeThreads(3), -2);
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(DeinitializeThreads(), 0);
    }
    EXPECT_EQ(InitializeThreads(0), -2);
    EXPECT_EQ(InitializeThreads(-1), -2);
    EXPECT_EQ(InitializeThreads(2147483647), 0) << "no more slots are made than connections can be";
    EXPECT_EQ(DeinitializeThreads(), 0);
}

// --- CloseClientSockets --------------------------------------------------------------------------------

class CloseClientSocketsTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        for (int& descriptor : descriptors_) {
            descriptor = socket(AF_INET, SOCK_STREAM, 0);
            FD_SET(descriptor, &set_);
        }
    }

    void TearDown() override {
        for (const int descriptor : descriptors_) {
            if (TimesClosed(descriptor) == 0) close(descriptor);
        }
        ServiceTest::TearDown();
    }

    // Which of the descriptors have been closed, once.
    std::vector<bool> Closed() const {
        std::vector<bool> result;
        for (const int descriptor : descriptors_) {
            EXPECT_LE(TimesClosed(descriptor), 1);
            result.push_back(TimesClosed(descriptor) == 1);
        }
        return result;
    }

    unsigned At(int i) const { return static_cast<unsigned>(descriptors_[static_cast<std::size_t>(i)]); }

    std::array<int, 3> descriptors_{};
    fd_set set_{};
};

TEST_F(CloseClientSocketsTest, SparesTheExceptedDescriptor) {
    const fd_set before = set_;
    EXPECT_EQ(CloseClientSockets(&set_, 1024, At(1)), 0);
    EXPECT_EQ(Closed(), (std::vector{true, false, true}));
    EXPECT_EQ(std::memcmp(&set_, &before, sizeof set_), 0) << "the set is left as it is";
}

TEST_F(CloseClientSocketsTest, SparesWhatIsNotInTheSet) {
    FD_CLR(descriptors_[0], &set_);
    EXPECT_EQ(CloseClientSockets(&set_, 1023, 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{false, true, true}));
}

TEST_F(CloseClientSocketsTest, StopsAtItsLimit) {
    EXPECT_EQ(CloseClientSockets(&set_, 0, 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{false, false, false}));
    EXPECT_EQ(CloseClientSockets(&set_, At(1), 1023), 0);
    EXPECT_EQ(Closed(), (std::vector{true, false, false}));
}

TEST_F(CloseClientSocketsTest, TakesALimitOutsideTheSetForTheSetsSize) {
    for (const unsigned limit : {1024U, 1025U, 20000U, ~0U}) {
        const int last = FD_SETSIZE - 1;
        fd_set only{};
        FD_SET(last, &only);
        ASSERT_EQ(dup2(descriptors_[0], last), last);
        EXPECT_EQ(CloseClientSockets(&only, limit, 0), 0);
        EXPECT_EQ(fcntl(last, F_GETFD), -1) << limit;
    }
}

} // namespace
