// How long connections live, what happens when requests come in pieces or several at once, and what
// happens to connections when there are too many of them.

#include "tests/system/curl_client.h"
#include "tests/system/modes.h"

#include <csignal>
#include <vector>

namespace rdx::test {
namespace {

class Connections : public PlainServer {};
RDX_IN_BOTH_MODES(Connections);

TEST_P(Connections, StayOpenByDefault) {
    Client client(Port());
    for (int i = 0; i < 5; ++i) {
        client.Send(VersionCall());
        ASSERT_EQ(client.ReadAnswer().text, VersionAnswer()) << i;
    }
    EXPECT_TRUE(client.StaysSilent());
}

TEST_P(Connections, CloseWhenTheClientAsksForIt) {
    Client client(Port());
    client.Send(VersionCallAndClose());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
}

TEST_P(Connections, CloseAfterSeveralRequestsWhenTheLastAsksForIt) {
    Client client(Port());
    client.Send(VersionCall());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    client.Send(VersionCall({"connection: CLOSE"}));
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
}

TEST_P(Connections, OfTheOldVersionCloseByDefault) {
    Client client(Port());
    client.Send(Request("POST /rDx?FunctionName=rdxGetVersion HTTP/1.0", {}, VersionPacket()));
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
}

TEST_P(Connections, OfTheOldVersionStayOpenOnRequest) {
    const std::string request =
        Request("POST /rDx?FunctionName=rdxGetVersion HTTP/1.0", {"Connection: Keep-Alive"}, VersionPacket());
    Client client(Port());
    for (int i = 0; i < 3; ++i) {
        client.Send(request);
        ASSERT_EQ(client.ReadAnswer().text, VersionAnswer()) << i;
    }
    EXPECT_TRUE(client.StaysSilent());
}

TEST_P(Connections, ObeyTheLastOfSeveralConnectionHeaders) {
    Client closing(Port());
    closing.Send(VersionCall({"Connection: keep-alive", "Connection: upgrade", "Connection: close"}));
    EXPECT_EQ(closing.ReadAnswer().status, 200);
    EXPECT_TRUE(closing.ClosedByPeer());

    Client staying(Port());
    staying.Send(VersionCall({"Connection: close", "Connection: keep-alive", "Connection: TE"}));
    EXPECT_EQ(staying.ReadAnswer().status, 200);
    EXPECT_TRUE(staying.StaysSilent());
}

TEST_P(Connections, StayOpenAfterARefusalByAMethod) {
    Client client(Port());
    client.Send(Call("rdxGetVersion", "not a packet"));
    EXPECT_EQ(client.ReadAnswer().text, BadRequestAnswer());
    client.Send(Call("rdxReleaseDevice", VersionPacket()));
    EXPECT_EQ(client.ReadAnswer().text, UnauthorizedAnswer());
    client.Send(FormCall("not a form"));
    EXPECT_EQ(client.ReadAnswer().text, ServerErrorAnswer());
    client.Send(VersionCall());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
}

TEST_P(Connections, CloseAfterARequestThatCannotBeRead) {
    for (const std::string& request :
         {std::string("hello\r\n"), Request("GET /rDx HTTP/3.0", {"Host: a"}), std::string("\r\n"),
          Request("DELETE /rDx HTTP/1.1", {"Host: a"}), UnknownTarget()}) {
        Server server({.threads = GetParam()}); // a fresh one: nothing was kept open before
        ASSERT_TRUE(server.Start());
        Client client(server.Port());
        client.Send(request);
        EXPECT_NE(client.ReadAnswer().status, 0) << request;
        EXPECT_TRUE(client.ClosedByPeer()) << request;
    }
}

// The wish to keep a connection is only taken from requests that reach a method; all others leave their
// thread's slot as it was.
TEST(OneThread, KeepsAConnectionAfterAnUnreadableRequestWhenTheLastCallWasKept) {
    Server server;
    ASSERT_TRUE(server.Start());
    Client first(server.Port());
    first.Send(VersionCall());
    EXPECT_EQ(first.ReadAnswer().status, 200);

    Client second(server.Port());
    second.Send("hello\r\n");
    EXPECT_EQ(second.ReadAnswer().text, BadRequestAnswer());
    EXPECT_TRUE(second.StaysSilent());
    second.Send(UnknownTarget({"Connection: close"}));
    EXPECT_EQ(second.ReadAnswer().text, NotFoundAnswer());
    EXPECT_TRUE(second.StaysSilent());
    second.Send(VersionCallAndClose());
    EXPECT_EQ(second.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(second.ClosedByPeer());
}

TEST_P(Connections, AnswerSeveralRequestsWrittenAtOnceInTheirOrder) {
    Client client(Port());
    client.Send(VersionCall() + UnknownTarget() + Call("rdxGetVersion", "junk") + VersionForm() +
                Call("rdxReleaseDevice", VersionPacket()) + VersionCall({"Connection: close"}));
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_EQ(client.ReadAnswer().text, NotFoundAnswer());
    EXPECT_EQ(client.ReadAnswer().text, BadRequestAnswer());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_EQ(client.ReadAnswer().text, UnauthorizedAnswer());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
}

TEST_P(Connections, TakeRequestsInPiecesOfEverySize) {
    for (const std::size_t size : {std::size_t{1}, std::size_t{2}, std::size_t{3}, std::size_t{5}}) {
        for (const std::string& request : {VersionCall(), VersionForm()}) {
            Client client(Port());
            ASSERT_TRUE(client.SendInPieces(request, size));
            ASSERT_EQ(client.ReadAnswer().text, VersionAnswer()) << "pieces of " << size;
        }
    }
}

TEST_P(Connections, TakeRequestsALineAtATime) {
    for (const std::string& request : {VersionCall(), VersionForm()}) {
        Client client(Port());
        ASSERT_TRUE(client.SendInLines(request));
        ASSERT_EQ(client.ReadAnswer().text, VersionAnswer());
    }
}

TEST_P(Connections, TakeSeveralRequestsOneByteAtATime) {
    Client client(Port());
    ASSERT_TRUE(client.SendInPieces(VersionCall() + VersionCallAndClose(), 1));
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
}

TEST_P(Connections, AreReusedByAnOrdinaryClient) {
    CurlClient curl(Port());
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket()).newConnections, 1);
    for (int i = 0; i < 10; ++i) {
        const CurlAnswer answer = curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket());
        EXPECT_EQ(answer.body, kVersionBody);
        EXPECT_EQ(answer.newConnections, 0);
    }
    curl.UseHeaders({"Connection: close"});
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket()).newConnections, 0);
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket()).newConnections, 1);
}

TEST_P(Connections, OfSeveralClientsAreAllServed) {
    std::vector<Client> clients;
    for (int i = 0; i < 5; ++i) clients.emplace_back(Port());
    for (int round = 0; round < 3; ++round) {
        for (Client& client : clients) {
            client.Send(VersionCall());
            ASSERT_EQ(client.ReadAnswer().text, VersionAnswer());
        }
    }
}

// What is left of a request that was refused half way must not hold back its answer.
TEST_P(Connections, BringTheAnswerToAClientThatIsStillSending) {
    Client client(Port());
    client.Send("POST /rDx HTTP/1.1\r\nX-Custom: 1\r\nContent-length: 60000\r\n\r\n" +
                std::string(60000, 'x'));
    EXPECT_EQ(client.ReadAnswer().text, ServerErrorAnswer());
}

class Idle : public OwnServer {};
RDX_IN_BOTH_MODES(Idle);

TEST_P(Idle, ConnectionsAreClosedWhenTheLoopEnds) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    std::vector<Client> clients;
    for (int i = 0; i < 5; ++i) clients.emplace_back(server.Port());
    for (std::size_t i = 0; i < 2; ++i) { // some have been served, some never spoke
        clients[i].Send(VersionCall());
        ASSERT_EQ(clients[i].ReadAnswer().status, 200);
    }
    for (Client& client : clients) ASSERT_TRUE(client.StaysSilent());
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    for (Client& client : clients) EXPECT_TRUE(client.ClosedByPeer());
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCall()).text, VersionAnswer());
}

TEST_P(Idle, ServersHoldNothingOfAThousandCalls) {
    constexpr int kCalls = 1000;
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    const int descriptors = server.DescriptorsWhenClosed();
    Client client(server.Port());
    for (int i = 0; i < kCalls; ++i) {
        client.Send(VersionCall());
        ASSERT_EQ(client.ReadAnswer().status, 200) << i;
    }
    EXPECT_TRUE(server.WaitForServingThreads(0));
    EXPECT_EQ(server.Descriptors(), descriptors + 1);
    client.Close();
    EXPECT_TRUE(server.WaitForDescriptors(descriptors));
}

// The first of them opens a socket to ask the system about its network, which all others use as well.
TEST_P(Idle, ServersHoldOneSocketOfAThousandStatusCalls) {
    constexpr int kCalls = 1000;
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    const int descriptors = server.DescriptorsWhenClosed();
    const std::string call = Call("rdxGetDeviceStatus", VersionPacket());
    Client client(server.Port());
    for (int i = 0; i < kCalls; ++i) {
        client.Send(call);
        ASSERT_EQ(client.ReadAnswer().status, 200) << i;
    }
    EXPECT_TRUE(server.WaitForServingThreads(0));
    EXPECT_LE(server.Descriptors(), descriptors + 2);
    client.Close();
    EXPECT_TRUE(server.WaitForDescriptors(descriptors + 1));
}

TEST_P(Idle, ConnectionsThatTheirClientClosesLeaveNothingBehind) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    ASSERT_TRUE(server.WaitForServingThreads(0));
    const int descriptors = server.DescriptorsWhenClosed();
    for (int i = 0; i < 10; ++i) {
        std::vector<Client> clients;
        for (int k = 1; k <= 20; ++k) { // more than threads
            clients.emplace_back(server.Port());
            // The queue of the listening socket is short, and who finds it full tries again a second later.
            ASSERT_TRUE(server.WaitForDescriptors(descriptors + k));
        }
        clients[0].Send(VersionCall());
        ASSERT_EQ(clients[0].ReadAnswer().status, 200);
        clients[1].Send("POST /rDx HT");
        for (Client& client : clients) client.Close();
        ASSERT_TRUE(server.WaitForDescriptors(descriptors)) << i;
    }
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    EXPECT_TRUE(server.WaitForServingThreads(0));
}

TEST(SeveralThreads, ServeEachOtherClientWhileOneStalls) {
    Server server({.threads = kSeveralThreads});
    ASSERT_TRUE(server.Start());
    Client stalled(server.Port());
    const std::string request = VersionCallAndClose();
    stalled.Send(request.substr(0, 30));
    for (int i = 0; i < 20; ++i) ASSERT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    stalled.Send(request.substr(30));
    EXPECT_EQ(stalled.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(stalled.ClosedByPeer());
}

TEST(OneThread, MakesOtherClientsWaitWhileOneStalls) {
    Server server;
    ASSERT_TRUE(server.Start());
    Client stalled(server.Port());
    const std::string request = VersionCallAndClose();
    stalled.Send(request.substr(0, 30));
    ASSERT_TRUE(server.WaitForOutput("HttpServer: Handling socket"));
    Client waiting(server.Port());
    waiting.Send(VersionCall());
    EXPECT_TRUE(waiting.StaysSilent());
    stalled.Send(request.substr(30));
    EXPECT_EQ(stalled.ReadAnswer().text, VersionAnswer());
    EXPECT_EQ(waiting.ReadAnswer().text, VersionAnswer());
}

// Holds every thread of a server with a request that does not end.
class Busy : public testing::Test {
protected:
    static constexpr int kThreads = 2;

    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        for (int i = 0; i < kThreads; ++i) {
            stalled_.emplace_back(server_.Port());
            stalled_.back().Send(VersionCall().substr(0, kSent));
        }
        ASSERT_TRUE(server_.WaitForServingThreads(kThreads));
    }

    void FinishStalled() {
        for (Client& client : stalled_) {
            client.Send(VersionCall().substr(kSent));
            EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
        }
    }

    static constexpr std::size_t kSent = 40;
    Server server_{{.threads = kThreads}};
    std::vector<Client> stalled_;
};

TEST_F(Busy, ServersLeaveAReadyConnectionUnservedAndOpenUntilTheLoopEnds) {
    Client unlucky(server_.Port());
    unlucky.Send(VersionCall());
    ASSERT_TRUE(
        Eventually([&] { return CountOf("HttpServer: Handling socket", server_.Output()) == kThreads + 1; }));
    EXPECT_TRUE(unlucky.StaysSilent());

    FinishStalled();
    ASSERT_TRUE(server_.WaitForServingThreads(0));
    EXPECT_EQ(AskUntilAnswered(server_.Port(), VersionCall()).text, VersionAnswer());
    EXPECT_TRUE(unlucky.StaysSilent());

    server_.Signal(SIGUSR1);
    ASSERT_TRUE(server_.WaitForLoop(2));
    EXPECT_TRUE(unlucky.ClosedByPeer());
    EXPECT_EQ(AskUntilAnswered(server_.Port(), VersionCall()).text, VersionAnswer());
}

TEST_F(Busy, ServersKeepAQuietConnectionWatched) {
    Client quiet(server_.Port());
    EXPECT_TRUE(quiet.StaysSilent());
    FinishStalled();
    ASSERT_TRUE(server_.WaitForServingThreads(0));
    ASSERT_EQ(AskUntilAnswered(server_.Port(), VersionCallAndClose()).text, VersionAnswer());
    ASSERT_TRUE(server_.WaitForServingThreads(0));
    quiet.Send(VersionCall());
    EXPECT_EQ(quiet.ReadAnswer().text, VersionAnswer());
}

TEST_F(Busy, ServersEndOnASignal) {
    Client unlucky(server_.Port());
    unlucky.Send(VersionCall());
    EXPECT_TRUE(unlucky.StaysSilent());
    server_.Signal(SIGTERM);
    const auto ending = server_.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0);
    EXPECT_EQ(ending->signal, 0);
    EXPECT_TRUE(unlucky.ClosedByPeer());
}

// Connections that are answered, until one is closed unanswered; `most` at most.
std::vector<Client> TakeAllRoom(const Server& server, std::size_t most) {
    std::vector<Client> kept;
    while (kept.size() < most) {
        Client client(server.Port());
        EXPECT_TRUE(client.Connected());
        client.Send(VersionCall());
        const Reply answer = client.ReadAnswer();
        if (answer.status == 0) {
            EXPECT_EQ(answer.text, "");
            EXPECT_TRUE(client.ClosedByPeer());
            break;
        }
        EXPECT_EQ(answer.text, VersionAnswer());
        kept.push_back(std::move(client));
    }
    return kept;
}

// A server has room for some connections, but not for `most`. Those beyond are closed at once, and the others
// do not suffer.
void ExpectRoomForLessThan(std::size_t most, Server& server) {
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    const int descriptors = server.DescriptorsWhenClosed();

    std::vector<Client> kept = TakeAllRoom(server, most);
    ASSERT_GT(kept.size(), 0U);
    ASSERT_LT(kept.size(), most);
    EXPECT_EQ(server.Descriptors(), descriptors + static_cast<int>(kept.size()));
    for (int i = 0; i < 30; ++i) {
        Client client(server.Port());
        EXPECT_TRUE(client.ClosedByPeer()) << i;
    }
    for (Client& client : kept) {
        client.Send(VersionCall());
        EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    }
    while (!kept.empty()) { // one by one, so that a thread is there for each
        kept.pop_back();
        ASSERT_TRUE(server.WaitForDescriptors(descriptors + static_cast<int>(kept.size())));
    }
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
}

TEST_P(Idle, ConnectionsBeyondTheDescriptorSetAreClosedAtOnce) {
    constexpr int kSetSize = 1024;
    constexpr int kRoom = 12;
    Server server({.threads = GetParam(), .heldDescriptors = kSetSize - kRoom});
    ExpectRoomForLessThan(kRoom, server);
}

// Connections never take the last descriptor, without which nobody could be accepted any more.
TEST_P(Idle, ConnectionsBeyondTheDescriptorLimitAreClosedAtOnce) {
    constexpr int kLimit = 40;
    Server server({.threads = GetParam(), .wrapper = {"prlimit", "--nofile=" + std::to_string(kLimit)}});
    ExpectRoomForLessThan(kLimit - 10, server);
}

} // namespace
} // namespace rdx::test
