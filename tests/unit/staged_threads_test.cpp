#include "server/service.h"

#include "client/tnp.h"
#include "common/config.h"
#include "common/portability_sockets.h"
#include "common/shared.h"
#include "tests/support/admin_server.h"
#include "tests/support/assertion.h"
#include "tests/support/capture.h"
#include "tests/support/client.h"
#include "tests/support/eventually.h"
#include "tests/support/listener.h"
#include "tests/support/serving.h"
#include "tests/support/staged_service.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>

namespace {

using namespace rdx;
using namespace std::string_literals;
using namespace rdx::test;
using testing::HasSubstr;

// Serves on a thread of its own; the thread's result.
unsigned long ServeOnThread(Serving& serving) {
    nThreads = 1;
    pthread_t thread{};
    const auto body = [](void* call) -> void* {
        auto* const slot = static_cast<ServiceCall*>(call);
        slot->hThreadId = CurrentThreadID();
        ServeClientInStages(slot);
        ADD_FAILURE() << "the thread goes on";
        return nullptr;
    };
    if (pthread_create(&thread, nullptr, body, &serving.call) != 0) std::abort();
    void* result = nullptr;
    if (pthread_join(thread, &result) != 0) std::abort();
    EXPECT_EQ(serving.call.iSvcStatus, SERVICE_FINISHED);
    return *static_cast<unsigned long*>(result);
}

using ServingThreadTest = StagedTest;

TEST_F(ServingThreadTest, EndsWithTheStatusOfTheService) {
    const AdminServer admin(kTaken);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    Serving unticketed;
    unticketed.Send(Get("/rDx"));
    EXPECT_EQ(ServeOnThread(unticketed), Answer(200, "result").size());
    Serving unheard;
    unheard.Send(Get(kTicketUri));
    EXPECT_EQ(ServeOnThread(unheard), 0xfffdUL) << "-3, its low 16 bits";
    EXPECT_EQ(unheard.Received(), kTicketAnswer);
    Use(admin);
    Serving posted;
    posted.Send(Get(kTicketUri));
    EXPECT_EQ(ServeOnThread(posted), 0UL);
    EXPECT_EQ(admin.Request(), FollowUp("vsFollowUpSuccess&SvcTicket=42", "result"));
    Serving gone;
    gone.EndSending();
    EXPECT_EQ(ServeOnThread(gone), 0xffffUL);
}

// A whole server: the acknowledge leaves a free slot's flag as it was, the follow-ups come one by one.
TEST_F(ServingThreadTest, ServesAllOfAServersTickets) {
    const AdminServer admin(kTaken);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    for (const unsigned threads : {1U, 4U}) {
        const test::Listener listener;
        StoreShared<unsigned char>(ucTerminated, 0);
        std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), threads); });
        const std::size_t before = admin.FollowUps().size();
        for (std::size_t turn = 1; turn <= 3; ++turn) {
            Client client(listener.Port());
            client.Send(Get(kTicketUri, "close"));
            EXPECT_EQ(client.ReadUntilClosed(), kTicketAnswer);
            EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == before + turn; }));
            EXPECT_TRUE(Eventually([&] { return threads == 1 || NumOfThreads() == 0; }));
        }
        StoreShared<unsigned char>(ucTerminated, 1);
        server.join();
    }
    for (const AdminServer::FollowUp& followUp : admin.FollowUps()) {
        EXPECT_EQ(followUp.request, FollowUp("vsFollowUpSuccess&SvcTicket=42", "result"));
        EXPECT_EQ(followUp.peer, Here());
    }
}

// The slot lives until the follow-up is over, the loop that it belongs to or not.
TEST_F(ServingThreadTest, GoesOnAfterTheEndOfTheLoop) {
    AdminServer admin("", AdminServer::Then::StayOpen);
    Use(admin);
    replaced.handler = Answering("result");
    const CaptureStdout quiet;
    const test::Listener listener;
    std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), 2); });
    Client client(listener.Port());
    client.Send(Get(kTicketUri));
    EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    StoreShared<unsigned char>(ucTerminated, 1);
    server.join();
    EXPECT_EQ(client.ReadUntilClosed(), kTicketAnswer);
    EXPECT_EQ(NumOfThreads(), 0) << "it does not count any more";
    admin.HangUp(); // ends the thread, which the end of the test waits for
}

// A wish to keep, left in the slot by a ticketed request, holds for the next one, but not beyond the loop.
TEST_F(ServingThreadTest, ClosesAConnectionToBeKeptAfterTheEndOfTheLoop) {
    const AdminServer admin(kTaken);
    Use(admin);
    std::atomic<int> handled = 0;
    std::atomic<bool> goOn = false;
    replaced.handler = [&](HttpRequest*, char* out, unsigned long* length, unsigned char*) {
        if (++handled == 3) {
            EXPECT_TRUE(Eventually([&] { return goOn.load(); }));
        }
        *length = "result"s.copy(out, *length);
        return 0;
    };
    const CaptureStdout quiet;
    const test::Listener listener;
    std::thread server([&] { RunHttpServer(static_cast<unsigned>(listener.Socket()), 2); });
    Client first(listener.Port());
    first.Send(Get(kTicketUri));
    EXPECT_EQ(first.ReadUntilClosed(), kTicketAnswer);
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    Client client(listener.Port());
    client.Send(Get("/rDx"));
    EXPECT_EQ(client.Read(Answer(200, "result").size()), Answer(200, "result"));
    EXPECT_TRUE(Eventually([] { return NumOfThreads() == 0; }));
    client.Send(Get("/rDx"));
    EXPECT_TRUE(Eventually([&] { return handled == 3; }));
    StoreShared<unsigned char>(ucTerminated, 1);
    server.join();
    EXPECT_TRUE(client.StaysSilent(milliseconds(0)));
    goOn = true;
    EXPECT_EQ(client.ReadUntilClosed(), Answer(200, "result"));
}

auto StagedAssertion(const char* text) { return Assertion(kSource, "ServeClientInStages", text); }

TEST_F(ServingThreadTest, AssertsItsSlot) {
    EXPECT_DEATH(ServeClientInStages(nullptr), StagedAssertion("pArgs != __null"));
    Serving unwatched;
    unwatched.call.pFdSet = nullptr;
    EXPECT_DEATH(ServeClientInStages(&unwatched.call), StagedAssertion("pArgs->pFdSet != __null"));
    for (const int status : {-1, 0, 2}) {
        Serving idle;
        idle.call.iSvcStatus = status;
        EXPECT_DEATH(ServeClientInStages(&idle.call), StagedAssertion("pArgs->iSvcStatus == 1"));
    }
}

TEST_F(ServingThreadTest, NamesItselfInAnAssertion) {
    EXPECT_DEATH(ServeClientInStages(nullptr),
                 testing::AnyOf(HasSubstr(": void* ServeClientInStages(ServiceCall*): "),
                                HasSubstr(": void *ServeClientInStages(ServiceCall *): ")));
}

TEST_F(ServingThreadTest, AssertsThreadsAtItsEnd) {
    Serving serving;
    serving.EndSending();
    EXPECT_DEATH(
        {
            serving.call.hThreadId = 0;
            Serve(serving);
        },
        StagedAssertion("stSvc.hThreadId != 0L"));
    EXPECT_DEATH(
        {
            mtPrimaryThread = 0;
            Serve(serving);
        },
        StagedAssertion("PrimaryThreadID() != 0L"));
}

// What a step asserts is reported as the whole function's, in the same words by every compiler.
auto StepsAssertion(const std::string& text) {
    return testing::AllOf(
        HasSubstr(kSource + ":"s),
        HasSubstr(": void* ServeClientInStages(ServiceCall*): Assertion `" + text + "' failed."));
}

TEST_F(ServingThreadTest, AssertsTheFollowUpsUri) {
    const auto build = [](const std::string& uri) {
        replaced.build = [uri](HttpRequest* request) {
            request->pszUri = strdup(uri.c_str());
            return 0;
        };
        StatusOfFollowUp();
    };
    EXPECT_DEATH(build("/" + std::string(511, 'x')),
                 StepsAssertion("sizeof( szUri ) > strlen( stFollowUpRqst.pszUri )"));
    EXPECT_DEATH(build("Tavrin"), StepsAssertion("*p == '/'"));
    const CaptureStdout quiet;
    build("/" + std::string(510, 'x')); // fits
}

TEST_F(ServingThreadTest, RewritesTheFirstSegmentOfTheUri) {
    const struct {
        const char* built;
        const char* rewritten;
    } rows[] = {{"/Tavrin?FunctionName=f&a=/b?c", "/VServer?FunctionName=f&a=/b?c"},
                {"/Tavrin", "/VServer"},
                {"/Tavrin/more?x", "/VServer/more?x"},
                {"/", "/VServer"}};
    for (const auto& row : rows) {
        replaced.build = [&](HttpRequest* request) {
            *request = {};
            request->pszUri = strdup(row.built);
            return 0;
        };
        const CaptureStdout capture;
        StatusOfFollowUp();
        EXPECT_THAT(WithoutTimes(capture.Text()), HasSubstr(StringLine("rewritten URI", row.rewritten)));
    }
}

TEST_F(ServingThreadTest, AssertsAnAnswerThatWasAnnounced) {
    const test::Listener listener;
    uiAdminServerPort = static_cast<unsigned>(listener.Port());
    replaced.sendRequest = [] { return 0; };
    EXPECT_DEATH(StatusOfFollowUp(), StepsAssertion("pRsp != __null"));
}

} // namespace
