// The entity terminator: sent behind every answer, and taken as the end of a body.

#include "tests/system/modes.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

namespace rdx::test {
namespace {

class Terminator : public OwnServer {
protected:
    void SetUp() override { ASSERT_TRUE(server_.Start()); }

    std::string AskAndClose(const std::string& request) {
        Client client(server_.Port());
        client.Send(request);
        client.FinishSending();
        return client.ReadUntilClosed();
    }

    Server server_{{.settings = {"SendEOT=1", "EOTString=<<END>>"}, .threads = GetParam()}};
};
RDX_IN_BOTH_MODES(Terminator);

TEST_P(Terminator, FollowsEveryAnswerUncounted) {
    EXPECT_EQ(AskAndClose(VersionCallAndClose()), VersionAnswer() + "<<END>>");
    EXPECT_EQ(AskAndClose(Call("rdxReleaseDevice", "junk", {"Connection: close"})),
              UnauthorizedAnswer() + "<<END>>");
}

TEST_P(Terminator, StandsBetweenTheAnswersOfAConnection) {
    EXPECT_EQ(AskAndClose(VersionCall() + VersionCall() + VersionCallAndClose()),
              VersionAnswer() + "<<END>>" + VersionAnswer() + "<<END>>" + VersionAnswer() + "<<END>>");
}

TEST_P(Terminator, InTheMiddleOfABodyIsPartOfItWhenItComesWithTheRest) {
    const std::string packet = VersionPacket() + "<<END>> and so on";
    EXPECT_EQ(AskAndClose(Call("rdxGetVersion", packet, {"Connection: close"})), VersionAnswer() + "<<END>>");
}

TEST_P(Terminator, AtTheEndOfABodyIsPartOfIt) {
    const std::string packet = VersionPacket() + "<<END>>";
    EXPECT_EQ(AskAndClose(Call("rdxGetVersion", packet, {"Connection: close"})), VersionAnswer() + "<<END>>");
}

// The body that was announced never came whole: the request is refused at once, without waiting.
TEST_P(Terminator, EndsABodyThatIsShorterThanAnnounced) {
    for (const char* end : {"<<END>>", "<<END>>\r\n"}) {
        Client client(server_.Port());
        client.Send("POST /rDx?FunctionName=rdxGetVersion HTTP/1.1\r\nContent-length: 5000\r\n\r\n" +
                    VersionPacket() + end);
        EXPECT_EQ(client.ReadAnswer().text, BadRequestAnswer());
    }
}

TEST_P(Terminator, IsNotSentWhenTheFlagIsOff) {
    Server server({.settings = {"SendEOT=yes", "EOTString=<<END>>"}, .threads = GetParam()});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(VersionCallAndClose());
    EXPECT_EQ(client.ReadUntilClosed(), VersionAnswer());
}

TEST_P(Terminator, ThatIsEmptyAddsNothing) {
    Server server({.settings = {"SendEOT=1"}, .threads = GetParam()});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(UnknownTarget());
    EXPECT_EQ(client.ReadUntilClosed(), NotFoundAnswer());
}

// Each file in turn, in either order of its lines, while bodies are being read: the server goes on.
TEST(TerminatorOfSeveralFiles, IsSwitchedWhileRequestsAreServed) {
    Server server({.threads = 8});
    ASSERT_TRUE(server.Start());
    std::atomic<bool> stop = false;
    std::atomic<int> answered = 0;
    const auto call = [&] {
        while (!stop) answered += Ask(server.Port(), VersionCallAndClose()).status == 200 ? 1 : 0;
    };
    std::thread callers[] = {std::thread(call), std::thread(call), std::thread(call)};
    const std::vector<std::string> files[] = {
        {"SendEOT=1", "EOTString=END"}, {"SendEOT=0", "EOTString="}, {"EOTString=", "SendEOT=0"}};
    for (int i = 0; i < 60; ++i) {
        server.WriteSettings(files[i % 3]);
        server.Signal(SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    EXPECT_TRUE(Eventually([&] { return answered > 20; }));
    stop = true;
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).status, 200);
}

} // namespace
} // namespace rdx::test
