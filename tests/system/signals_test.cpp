// What the signals do to a running server, whatever it is busy with.

#include "tests/system/modes.h"

#include <csignal>
#include <tuple>

namespace rdx::test {
namespace {

void ExpectOrderlyEnd(Server& server) {
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending) << "the server did not end";
    EXPECT_EQ(ending->signal, 0);
    EXPECT_EQ(ending->result, 0);
}

struct NamedSignal {
    int number;
    const char* name;
};

// The signals that end a server, in both modes.
class EndingSignals : public testing::TestWithParam<std::tuple<NamedSignal, int>> {
protected:
    int Number() const { return std::get<0>(GetParam()).number; }
    int Threads() const { return std::get<1>(GetParam()); }
};

std::string EndingName(const testing::TestParamInfo<EndingSignals::ParamType>& info) {
    return std::get<0>(info.param).name + ModeName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    By, EndingSignals,
    testing::Combine(testing::Values(NamedSignal{SIGTERM, "Term"}, NamedSignal{SIGHUP, "Hup"},
                                     NamedSignal{SIGBUS, "Bus"}, NamedSignal{SIGSYS, "Sys"}),
                     testing::Values(1, kSeveralThreads)),
    EndingName);

TEST_P(EndingSignals, EndsAnIdleServerWithResultZero) {
    Server server({.threads = Threads()});
    ASSERT_TRUE(server.Start());
    server.Signal(Number());
    ExpectOrderlyEnd(server);
}

TEST_P(EndingSignals, EndsAServerWithIdleConnections) {
    Server server({.threads = Threads()});
    ASSERT_TRUE(server.Start());
    Client served(server.Port());
    served.Send(VersionCall());
    ASSERT_EQ(served.ReadAnswer().status, 200);
    Client silent(server.Port());
    server.Signal(Number());
    ExpectOrderlyEnd(server);
    EXPECT_TRUE(served.ClosedByPeer());
    EXPECT_TRUE(silent.ClosedByPeer());
}

// A client that stops behind the given part of its request.
struct Place {
    const char* name;
    const char* part;
};

class Stalled : public testing::TestWithParam<std::tuple<Place, int>> {
protected:
    // A call whose connection would be kept.
    static std::string KeptCall() { return VersionCall({"Host: device"}); }

    static std::string Beginning() {
        const std::string part = std::get<0>(GetParam()).part;
        return KeptCall().substr(0, KeptCall().find(part) + part.size());
    }

    static int Threads() { return std::get<1>(GetParam()); }

    static void StartAndStall(Server& server, Client& client) {
        client.Send(Beginning());
        ASSERT_TRUE(server.WaitForOutput("HttpServer: Handling socket"));
        if (Threads() > 1) {
            ASSERT_TRUE(server.WaitForServingThreads(1));
        }
    }
};

std::string PlaceName(const testing::TestParamInfo<Stalled::ParamType>& info) {
    return std::get<0>(info.param).name + ModeName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(
    Client, Stalled,
    testing::Combine(testing::Values(Place{"InTheRequestLine", "PO"}, Place{"InALineEnd", "HTTP/1.1\r"},
                                     Place{"InAHeader", "Host: dev"}, Place{"BeforeTheBody", "\r\n\r\n"},
                                     Place{"InTheBody", "wddxPacket"}),
                     testing::Values(1, kSeveralThreads)),
    PlaceName);

TEST_P(Stalled, DoesNotHoldUpAnEnd) {
    for (const int number : {SIGTERM, SIGHUP}) {
        Server server({.threads = Threads()});
        ASSERT_TRUE(server.Start());
        Client client(server.Port());
        StartAndStall(server, client);
        server.Signal(number);
        ExpectOrderlyEnd(server);
        client.ReadUntilClosed();
        EXPECT_TRUE(client.ClosedByPeer());
    }
}

TEST_P(Stalled, GetsItsWholeAnswerAfterAReconfiguration) {
    Server server({.threads = Threads()});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    StartAndStall(server, client);

    PortReservation other;
    server.WriteSettings({}, other.Port());
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForOutput("SignalHandler(): handling signal"));
    if (Threads() > 1) {
        ASSERT_TRUE(server.WaitForLoop(2));
        EXPECT_EQ(Ask(other.Port(), VersionCall()).text, VersionAnswer());
    }
    client.Send(KeptCall().substr(Beginning().size()));
    EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
    EXPECT_TRUE(client.ClosedByPeer());
    ASSERT_TRUE(server.WaitForLoop(2));
    EXPECT_EQ(AskUntilAnswered(other.Port(), VersionCall()).text, VersionAnswer());
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

class Signals : public OwnServer {};
RDX_IN_BOTH_MODES(Signals);

TEST_P(Signals, ThatAreIgnoredChangeNothing) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(VersionCall());
    ASSERT_EQ(client.ReadAnswer().status, 200);
    for (const int number : {SIGINT, SIGQUIT, SIGPIPE}) {
        server.Signal(number);
        client.Send(VersionCall());
        EXPECT_EQ(client.ReadAnswer().text, VersionAnswer()) << number;
    }
    EXPECT_FALSE(server.WaitForEnd(milliseconds(0)));
    EXPECT_EQ(CountOf("Signal handling", server.Output()), 0);
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

TEST_P(Signals, ReconfigureToAnotherPortAndVerbosity) {
    Server server({.settings = {"Verbosity=VERBOSITY_NONE"}, .threads = GetParam()});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(CountOf("DumpConfiguration", server.Output()), 0);
    Client client(server.Port());
    client.Send(VersionCall());
    ASSERT_EQ(client.ReadAnswer().status, 200);

    PortReservation other;
    server.WriteSettings({"Verbosity=VERBOSITY_LOG"}, other.Port());
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    EXPECT_TRUE(client.ClosedByPeer());
    EXPECT_FALSE(Client(server.Port()).Connected());
    EXPECT_EQ(Ask(other.Port(), VersionCall()).text, VersionAnswer());

    const std::string output = server.Output();
    EXPECT_EQ(CountOf("\nSignal handling 10", output), 1);
    EXPECT_EQ(CountOf("SignalHandler(): handling signal <SIGBUS>", output), 1); // the name of the order used
    EXPECT_EQ(CountOf("main(): ordinary HTTP server shutdown (0)", output), 1);
    EXPECT_EQ(CountOf("main(): Tavrin reconfiguration event (0)", output), 1);
    EXPECT_EQ(CountOf("\n Reconfiguration counter: 1\n", output), 1);
    EXPECT_EQ(CountOf("\n      Level of verbosity: VERBOSITY_LOG\n", output), 1);
    EXPECT_EQ(CountOf("\n            Service port: " + std::to_string(other.Port()) + "\n", output), 1);
    EXPECT_EQ(CountOf("warning - svc port from config file overrides cmdline or default param <" +
                          std::to_string(other.Port()) + ">",
                      output),
              1);
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

TEST_P(Signals, ReconfigureOnTheSamePort) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    ASSERT_TRUE(server.WaitForServingThreads(0));
    const int descriptors = server.DescriptorsWhenClosed();
    for (int count = 1; count <= 10; ++count) {
        server.Signal(SIGUSR1);
        ASSERT_TRUE(server.WaitForLoop(count + 1));
        ASSERT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    }
    EXPECT_EQ(CountOf("\n Reconfiguration counter: 10\n", server.Output()), 1);
    EXPECT_TRUE(server.WaitForServingThreads(0));
    EXPECT_TRUE(server.WaitForDescriptors(descriptors));
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

TEST_P(Signals, ReconfigureInAFloodWhileClientsCall) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    for (int i = 0; i < 30; ++i) {
        Client client(server.Port());
        client.Send(VersionCall());
        server.Signal(SIGUSR1);
        client.ReadAnswer(milliseconds(20)); // an answer or a closed connection, as it happens
    }
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    EXPECT_TRUE(server.WaitForServingThreads(0));
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

TEST_P(Signals, ApplyWhatIsReadUpToABadLineAndServeOn) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(VersionCall());
    ASSERT_EQ(client.ReadAnswer().status, 200);

    server.WriteSettings({"AuthRequired=1", "Verbosity=LOUD", "AuthInfo=abc"});
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForOutput("SignalHandler(): handling signal"));
    client.Send(VersionCall({"Authorization: Basic abc"}));
    EXPECT_EQ(client.ReadAnswer().text, UnauthorizedAnswer());
    EXPECT_EQ(CountOf("\nucTerminated", server.Output()), 0);
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

TEST_P(Signals, KeepSettingsThatVanishedFromTheFile) {
    Server server({.settings = {"AuthRequired=1", "AuthInfo=abc", "AuthRealm=Here"}, .threads = GetParam()});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, UnauthorizedAnswer("Here"));
    server.WriteSettings({});
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, UnauthorizedAnswer("Here"));
    server.WriteSettings({"AuthRequired=0"});
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(3));
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
}

// Threads of an ended loop do not count against the limit of the new one.
TEST(SeveralThreads, OfAnEndedLoopLeaveTheNewLoopItsFullNumber) {
    constexpr int kThreads = 2;
    Server server({.threads = kThreads});
    ASSERT_TRUE(server.Start());
    const std::string call = VersionCall();
    const auto stall = [&](std::vector<Client>& clients) {
        for (int i = 0; i < kThreads; ++i) {
            clients.emplace_back(server.Port());
            clients.back().Send(call.substr(0, 40));
        }
    };
    std::vector<Client> before;
    stall(before);
    ASSERT_TRUE(server.WaitForServingThreads(kThreads));
    server.Signal(SIGUSR1);
    ASSERT_TRUE(server.WaitForLoop(2));
    std::vector<Client> after;
    stall(after);
    ASSERT_TRUE(server.WaitForServingThreads(2 * kThreads));

    for (Client& client : before) { // whole answers, and no place in the new loop
        client.Send(call.substr(40));
        EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
        EXPECT_TRUE(client.ClosedByPeer());
    }
    for (Client& client : after) {
        client.Send(call.substr(40));
        EXPECT_EQ(client.ReadAnswer().text, VersionAnswer());
        EXPECT_TRUE(client.StaysSilent());
    }
    EXPECT_TRUE(server.WaitForServingThreads(0));
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCall()).text, VersionAnswer());
    server.Signal(SIGTERM);
    ExpectOrderlyEnd(server);
}

} // namespace
} // namespace rdx::test
