// Junior mode: a ticketed call is acknowledged at once, and its result follows in a request of the server's
// own to the administration server, which is here a thread of the test.

#include "tests/support/admin_server.h"
#include "tests/support/junior.h"
#include "tests/system/modes.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <set>

namespace rdx::test {
namespace {

// A message of the recorded exchange, with what varies in its place.
std::string Recorded(const std::string& name, const std::string& placeholder, const std::string& by) {
    std::string text = ReadFile(std::string(RDX_TEST_GOLDEN) + "/junior/" + name + ".http");
    const std::size_t at = text.find(placeholder);
    if (at != std::string::npos) text.replace(at, placeholder.size(), by);
    return text;
}

std::string Recorded(const std::string& name, int port) {
    return Recorded(name, "{Port}", std::to_string(port));
}

// The acknowledge of another ticket than the recorded one; its length is that of a whole answer again.
std::string Acknowledge(const std::string& ticket) {
    const std::string recorded = Recorded("acknowledge", ">TND-ST_42<", ">TND-ST_" + ticket + "<");
    return Answer(200, recorded.substr(recorded.find("\r\n\r\n") + 4));
}

std::string FollowUp(const std::string& command, const std::string& ticket, const std::string& body) {
    return test::FollowUp(command + "&SvcTicket=" + ticket, body);
}

std::string Success(const std::string& ticket) { return FollowUp("vsFollowUpSuccess", ticket, kVersionBody); }

// A call of a method with a ticket, whose connection is not to be kept.
std::string Ticketed(const std::string& ticket, const std::string& method = "rdxGetVersion",
                     const std::string& packet = VersionPacket(),
                     const std::string& connection = "Connection: close") {
    return Request("POST /rDx?FunctionName=" + method + "&SvcTicket=" + ticket + " HTTP/1.1", {connection},
                   packet);
}

// A server in junior mode and its administration server.
class JuniorServer {
public:
    explicit JuniorServer(int threads, const std::string& answer = kTaken,
                          AdminServer::Then then = AdminServer::Then::Close,
                          const std::vector<std::string>& settings = {}, Host host = Host::kPlain)
        : admin(answer, then),
          process({.settings = With(settings), .threads = threads, .host = host, .ports = 2}),
          threads_(threads) {}

    testing::AssertionResult Start() {
        return process.Start({"-as", "127.0.0.1:" + std::to_string(admin.Port())});
    }

    int Port() const { return process.Port(); }

    // Where the follow-ups come from.
    std::string Here(const std::string& address = "127.0.0.1") const {
        return address + ":" + std::to_string(process.Port() + 1);
    }

    bool WaitForFollowUps(std::size_t count) const {
        return Eventually([&] { return admin.FollowUps().size() >= count; });
    }

    // Waits until no service is under way. A server with one thread then serves the next call.
    bool WaitUntilIdle() const {
        if (threads_ > 1) return process.WaitForServingThreads(0);
        return AskUntilAnswered(process.Port(), VersionCallAndClose()).status == 200;
    }

    // The descriptors of a server that keeps no connection.
    int DescriptorsWhenIdle() const {
        Client last(process.Port());
        last.Send(VersionCallAndClose());
        EXPECT_EQ(last.ReadUntilClosed(), VersionAnswer());
        EXPECT_TRUE(process.WaitForServingThreads(0));
        return process.Descriptors();
    }

    // The requests that arrived since this was last asked; waits for `count` of them.
    std::vector<std::string> TakeRequests(std::size_t count) {
        WaitForFollowUps(seen_ + count);
        std::vector<std::string> requests;
        const std::vector<AdminServer::FollowUp> all = admin.FollowUps();
        for (; seen_ < all.size(); ++seen_) requests.push_back(all[seen_].request);
        return requests;
    }

    AdminServer admin;
    Server process;

private:
    static std::vector<std::string> With(std::vector<std::string> settings) {
        settings.emplace_back("AuthInfo=dXNlcjpwYXNz");
        return settings;
    }

    const int threads_;
    std::size_t seen_ = 0;
};

using Requests = std::vector<std::string>;

// What the exchange is: each turn has its ticket acknowledged and its result posted.
void ExpectAFollowUp(JuniorServer& server, const std::string& ticket) {
    EXPECT_EQ(Ask(server.Port(), Ticketed(ticket)).text, Acknowledge(ticket));
    EXPECT_EQ(server.TakeRequests(1), Requests{Success(ticket)});
    EXPECT_TRUE(server.WaitUntilIdle());
}

class Junior : public OwnServer {};
RDX_IN_BOTH_MODES(Junior);

// --- the recorded exchange -----------------------------------------------------------------------------

TEST_P(Junior, ExchangesWhatIsRecorded) {
    JuniorServer server(GetParam(), Recorded("answer", 0));
    ASSERT_TRUE(server.Start());
    const int port = server.Port();
    ASSERT_NE(Recorded("request", port), "");
    EXPECT_EQ(Ask(port, Recorded("request", port)).text, Recorded("acknowledge", port));
    EXPECT_EQ(server.TakeRequests(1), Requests{Recorded("follow_up", port)});
    EXPECT_EQ(server.admin.FollowUps()[0].peer, server.Here());
}

// What is recorded is what the other tests expect.
TEST(Recording, IsWhole) {
    EXPECT_EQ(Recorded("acknowledge", 0), Acknowledge("42"));
    EXPECT_EQ(Recorded("follow_up", 0), Success("42"));
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(std::string(RDX_TEST_GOLDEN) + "/junior")) {
        names.insert(entry.path().filename());
    }
    EXPECT_EQ(names, (std::set<std::string>{".gitattributes", "acknowledge.http", "answer.http",
                                            "follow_up.http", "request.http"}));
}

// --- acknowledge and follow-up -------------------------------------------------------------------------

TEST_P(Junior, AcknowledgesEveryTicketAndPostsItsResult) {
    const std::pair<std::string, std::string> rows[] = {
        {"42", "42"},
        {"0", "0"},
        {"007", "7"},
        {"4294967295", "4294967295"},
        {"4294967296", "4294967295"},
        {"12abc", "12"},
        {"abc", "0"},
        {std::string(63, '9'), "4294967295"},
    };
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    for (const auto& [ticket, quoted] : rows) {
        Client client(server.Port());
        client.Send(Ticketed(ticket));
        EXPECT_EQ(client.ReadUntilClosed(), Acknowledge(quoted)) << "and nothing more";
        EXPECT_EQ(server.TakeRequests(1), Requests{Success(quoted)});
        EXPECT_TRUE(server.WaitUntilIdle());
    }
    for (const AdminServer::FollowUp& followUp : server.admin.FollowUps()) {
        EXPECT_EQ(followUp.peer, server.Here());
    }
}

TEST_P(Junior, PostsFromTheConfiguredAddress) {
    JuniorServer server(GetParam(), kTaken, AdminServer::Then::Close, {"ServiceAddr=127.0.0.2"});
    ASSERT_TRUE(server.Start());
    ExpectAFollowUp(server, "42");
    EXPECT_EQ(server.admin.FollowUps()[0].peer, server.Here("127.0.0.2"));
}

TEST_P(Junior, TakesTheTicketFromAnyPlaceInTheQuery) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    const std::string packet = VersionPacket();
    for (const char* query :
         {"SvcTicket=5&FunctionName=rdxGetVersion", "a=b&FunctionName=rdxGetVersion&SvcTicket=5&c"}) {
        const std::string line = "GET /RDX?" + std::string(query) + " HTTP/1.1";
        EXPECT_EQ(Ask(server.Port(), Request(line, {"Connection: close"}, packet)).text, Acknowledge("5"));
        EXPECT_EQ(server.TakeRequests(1), Requests{Success("5")});
        EXPECT_TRUE(server.WaitUntilIdle());
    }
    std::string form = VersionForm({"Connection: close"});
    form.replace(form.find("/rDx"), 4, "/rDx?SvcTicket=6");
    EXPECT_EQ(Ask(server.Port(), form).text, Acknowledge("6"));
    EXPECT_EQ(server.TakeRequests(1), Requests{Success("6")});
}

TEST_P(Junior, PostsFailuresAsSuch) {
    const struct {
        const char* why;
        std::string request;
        std::string body;
    } rows[] = {
        {"a bad packet", Ticketed("9", "rdxGetVersion", "junk"), kBadPage},
        {"no packet",
         Request("GET /rDx?FunctionName=rdxGetVersion&SvcTicket=9 HTTP/1.1", {"Connection: close"}),
         kBadPage},
        {"no credentials", Ticketed("9", "rdxReleaseDevice"), kErrorPage},
        {"no method", Request("POST /rDx?SvcTicket=9 HTTP/1.1", {"Connection: close"}, VersionPacket()),
         kBadPage},
    };
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    for (const auto& row : rows) {
        EXPECT_EQ(Ask(server.Port(), row.request).text, Acknowledge("9")) << row.why;
        const Requests requests = server.TakeRequests(1);
        ASSERT_EQ(requests.size(), 1U) << row.why;
        EXPECT_EQ(requests[0], FollowUp("vsFollowUpFailure", "9", row.body)) << row.why;
        EXPECT_TRUE(server.WaitUntilIdle());
    }
}

// A result is more than a status: what the method adds to it is posted as well.
TEST_P(Junior, PostsTheStatusOfTheDevice) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    const std::string packet = Packet("<struct><var name='version'><number>1</number></var></struct>");
    EXPECT_EQ(Ask(server.Port(), Ticketed("1", "rdxGetDeviceStatus", packet)).text, Acknowledge("1"));
    const Requests requests = server.TakeRequests(1);
    ASSERT_EQ(requests.size(), 1U);
    const std::string body = requests[0].substr(requests[0].find("\r\n\r\n") + 4);
    EXPECT_EQ(requests[0], FollowUp("vsFollowUpSuccess", "1", body));
    EXPECT_EQ(CountOf("DeviceType", body), 1) << body;
    EXPECT_TRUE(body.ends_with("</wddxPacket>"));
}

TEST_P(Junior, PostsALongResultWhole) {
    const TemporaryFolder folder;
    const std::string scenario = folder.Path() + "/scenario.ini";
    const std::string value(100, 'v');
    std::string attributes = "[rdxGetDeviceAttributes]\n";
    for (int i = 0; i < 300; ++i) {
        attributes += "attribute = \"a" + std::to_string(i) + "\" \"" + value + "\" persistent\n";
    }
    WriteFile(scenario, attributes);
    const AdminServer admin(kTaken);
    Server server({.settings = {"AuthInfo=dXNlcjpwYXNz"},
                   .threads = GetParam(),
                   .environment = {{"RDX_SIM_SCENARIO", scenario}},
                   .ports = 2});
    ASSERT_TRUE(server.Start({"-as", "127.0.0.1:" + std::to_string(admin.Port())}));
    const std::string packet = Packet("<struct><var name='version'><number>1</number></var></struct>");
    EXPECT_EQ(Ask(server.Port(), Ticketed("1", "rdxGetDeviceStatus", packet)).text, Acknowledge("1"));
    ASSERT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    const std::string request = admin.Request();
    const std::string body = request.substr(request.find("\r\n\r\n") + 4);
    EXPECT_EQ(request, FollowUp("vsFollowUpSuccess", "1", body));
    EXPECT_GT(body.size(), 80000U);
    EXPECT_EQ(CountOf(value, body), 300);
    EXPECT_TRUE(body.ends_with("</wddxPacket>"));
}

TEST_P(Junior, SendsTheTerminatorBehindAcknowledgeAndFollowUp) {
    JuniorServer server(GetParam(), kTaken + "END", AdminServer::Then::Close, {"SendEOT=1", "EOTString=END"});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(Ticketed("42"));
    EXPECT_EQ(client.ReadUntilClosed(), Acknowledge("42") + "END");
    const Requests requests = server.TakeRequests(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_TRUE((Success("42") + "END").starts_with(requests[0])) << "as much as is awaited has come";
}

// --- one stage -----------------------------------------------------------------------------------------

TEST_P(Junior, ServesACallWithoutATicketInOneStage) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    for (const std::string& request :
         {VersionCall(), VersionForm(), Ticketed(""), Ticketed(std::string(64, '9')),
          Request("POST /rDx?FunctionName=rdxGetVersion&svcticket=42 HTTP/1.1", {}, VersionPacket())}) {
        EXPECT_EQ(Ask(server.Port(), request).text, VersionAnswer()) << request;
    }
    EXPECT_TRUE(server.admin.FollowUps().empty());
}

// Not all as in the direct service: what cannot be read, and a method that wants credentials, is an error of
// the server.
TEST_P(Junior, AnswersEveryStatus) {
    const std::string badAnswer = Answer(400, kBadPage);
    const struct {
        const char* why;
        std::string request;
        std::string answer;
    } rows[] = {
        {"no target", UnknownTarget(), NotFoundAnswer()},
        {"no target, with a ticket", Request("GET /other?SvcTicket=42 HTTP/1.1", {"Host: device"}),
         NotFoundAnswer()},
        {"an empty line", "\r\n", NotFoundAnswer()},
        {"a forbidden method", Request("PUT /rDx?SvcTicket=42 HTTP/1.1", {"Host: device"}),
         NotAllowedAnswer()},
        {"an unknown method", Request("FOO /rDx HTTP/1.1", {"Host: device"}), NotAllowedAnswer()},
        {"a bad packet", Call("rdxGetVersion", "junk"), badAnswer},
        {"no packet", Request("GET /rDx?FunctionName=rdxGetVersion HTTP/1.1", {"Host: device"}), badAnswer},
        {"no credentials", Call("rdxReleaseDevice", VersionPacket()), ServerErrorAnswer()},
        {"a bad form", FormCall("not a form"), ServerErrorAnswer()},
        {"no protocol", "GET /rDx\r\n\r\n", ServerErrorAnswer()},
        {"no header", "GET /rDx HTTP/1.0\r\n\r\n", ServerErrorAnswer()},
        {"an unknown header", Request("GET /rDx HTTP/1.1", {"X-Custom: 1"}), ServerErrorAnswer()},
        {"an unknown protocol", Request("GET /rDx FTP/1.0", {"Host: device"}), ServerErrorAnswer()},
        {"an unknown version", Request("GET /rDx?SvcTicket=42 HTTP/2.0", {"Host: device"}),
         ServerErrorAnswer()},
        {"too long a body", Call("rdxGetVersion", std::string(65537, ' ')), ServerErrorAnswer()},
    };
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    for (const auto& row : rows) {
        EXPECT_EQ(Ask(server.Port(), row.request).text, row.answer) << row.why;
    }
    EXPECT_TRUE(server.admin.FollowUps().empty());
}

TEST_P(Junior, DemandsCredentialsOfTicketedCallsToo) {
    JuniorServer server(GetParam(), kTaken, AdminServer::Then::Close, {"AuthRequired=1"});
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), Ticketed("42")).text, UnauthorizedAnswer());
    const std::string call =
        Request("POST /rDx?FunctionName=rdxGetVersion&SvcTicket=42 HTTP/1.1",
                {"Connection: close", "Authorization: Basic dXNlcjpwYXNz"}, VersionPacket());
    EXPECT_EQ(Ask(server.Port(), call).text, Acknowledge("42"));
    EXPECT_EQ(server.TakeRequests(1), Requests{Success("42")});
}

// --- the connection ------------------------------------------------------------------------------------

// A slot remembers the last ticketed call that wanted its connection kept. Until one did, all are closed.
TEST_P(Junior, KeepsOrClosesTheConnectionAsItsSlotSays) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    const std::string keeping = Ticketed("1", "rdxGetVersion", VersionPacket(), "Connection: keep-alive");
    Client unticketed(server.Port());
    unticketed.Send(VersionCall({"Connection: keep-alive"}));
    EXPECT_EQ(unticketed.ReadUntilClosed(), VersionAnswer()) << "its wish is not asked";
    EXPECT_TRUE(server.WaitUntilIdle());

    Client first(server.Port());
    first.Send(keeping);
    EXPECT_EQ(first.ReadUntilClosed(), Acknowledge("1")) << "its own wish comes too late";
    EXPECT_TRUE(server.WaitForFollowUps(1));
    EXPECT_TRUE(server.WaitUntilIdle());

    Client second(server.Port());
    second.Send(Ticketed("2"));
    EXPECT_EQ(second.ReadAnswer().text, Acknowledge("2"));
    EXPECT_TRUE(server.WaitForFollowUps(2));
    EXPECT_TRUE(server.WaitUntilIdle());
    EXPECT_TRUE(second.StaysSilent());
    second.Send(VersionCallAndClose());
    EXPECT_EQ(second.ReadAnswer().text, VersionAnswer());
    // Among several slots it may be another one, which remembers nothing.
    if (GetParam() != 1) return;
    EXPECT_TRUE(second.StaysSilent()) << "kept although it is to be closed";
}

// Over a kept connection one ticketed call comes after the other.
TEST(OneThread, ServesATicketAfterTheOtherOverOneConnection) {
    JuniorServer server(1);
    ASSERT_TRUE(server.Start());
    const auto call = [](const std::string& ticket) {
        return Ticketed(ticket, "rdxGetVersion", VersionPacket(), "Connection: keep-alive");
    };
    EXPECT_EQ(Ask(server.Port(), call("0")).text, Acknowledge("0"));
    EXPECT_EQ(server.TakeRequests(1), Requests{Success("0")});
    Client client(server.Port());
    for (const std::string ticket : {"1", "2", "3"}) {
        EXPECT_TRUE(server.WaitUntilIdle());
        client.Send(call(ticket));
        EXPECT_EQ(client.ReadAnswer().text, Acknowledge(ticket));
        EXPECT_EQ(server.TakeRequests(1), Requests{Success(ticket)});
    }
}

// --- failures ------------------------------------------------------------------------------------------

struct Failure {
    const char* why;
    std::string answer;
    AdminServer::Then then = AdminServer::Then::Close;
};

const std::vector<Failure>& Failures() {
    static const std::vector<Failure> kFailures = {
        {"refused", "", AdminServer::Then::Refuse},
        {"closed without a word", ""},
        {"not found", "HTTP/1.1 404 Not found\r\nServer: a\r\nContent-length: 3\r\n\r\nabc"},
        {"failed", "HTTP/1.1 500 Internal Server Error\r\nServer: a\r\n\r\n"},
        {"rubbish", "rubbish\r\n\r\n"},
        {"rubbish without an end", std::string(100000, 'x')},
        {"a line of NULs", std::string(100, '\0') + "\r\n\r\n"},
        {"half a status line", "HTTP/1.1 20"},
        {"half a head", "HTTP/1.1 404 OK\r\nServer: a\r\nContent-length:"},
        {"half a body", "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 5\r\n\r\nta"},
        {"an empty body that is announced", "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 0\r\n\r\n"},
        {"a huge body that is announced",
         "HTTP/1.1 200 OK\r\nServer: a\r\nContent-length: 4294967295\r\n\r\nta"},
        {"404, kept open", "HTTP/1.1 404 Not found\r\nServer: a\r\nContent-length: 3\r\n\r\nabc",
         AdminServer::Then::StayOpen},
    };
    return kFailures;
}

// The client never learns of it, the server goes on, and nothing is left open.
TEST_P(Junior, SurvivesEveryAnswerOfTheAdministrationServer) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    ExpectAFollowUp(server, "1");
    const int descriptors = server.DescriptorsWhenIdle();
    for (const Failure& failure : Failures()) {
        SCOPED_TRACE(failure.why);
        server.admin.AnswerWith(failure.answer, failure.then);
        EXPECT_EQ(Ask(server.Port(), Ticketed("2")).text, Acknowledge("2"));
        EXPECT_EQ(server.TakeRequests(1),
                  Requests{failure.then == AdminServer::Then::Refuse ? "" : Success("2")});
        EXPECT_TRUE(server.WaitUntilIdle());
        EXPECT_TRUE(server.process.WaitForDescriptors(descriptors));
        server.admin.AnswerWith(kTaken);
        ExpectAFollowUp(server, "3");
        if (HasFailure()) return;
    }
    EXPECT_TRUE(server.process.WaitForDescriptors(descriptors));
}

std::string Repeated(const std::string& text, int times) {
    std::string all;
    for (int i = 0; i < times; ++i) all += text;
    return all;
}

// What the reader of answers takes for impossible ends the server, as it does for requests: a header line
// without a colon, and a status line of five characters. The client has its acknowledge all the same.
TEST_P(Junior, EndsByAnAnswerThatBreaksAPrecondition) {
    const std::pair<std::string, std::string> rows[] = {
        {"HTTP/1.1 200 OK\r\nServer: a\r\nContent-le", "Assertion `pcolon != __null' failed."},
        {"HTTP/\r\n\r\n", "Assertion `len < (q - p)' failed."},
        {"HTTP/1.1 200 OK\r\n" + Repeated("Vary: *\r\n", 9) + "\r\n",
         "Assertion `pResponse->ucNumOfResponseHeaders <= 8' failed."},
    };
    for (const auto& [answer, assertion] : rows) {
        JuniorServer server(GetParam(), answer);
        ASSERT_TRUE(server.Start());
        EXPECT_EQ(Ask(server.Port(), Ticketed("42")).text, Acknowledge("42"));
        const auto ending = server.process.WaitForEnd();
        ASSERT_TRUE(ending);
        EXPECT_EQ(ending->signal, SIGABRT);
        EXPECT_EQ(CountOf(assertion, server.process.Errors()), 1) << server.process.Errors();
    }
}

// So does an address that stands for any.
TEST_P(Junior, EndsByAnAddressThatStandsForAny) {
    JuniorServer here(GetParam(), kTaken, AdminServer::Then::Close, {"ServiceAddr=0.0.0.0"});
    ASSERT_TRUE(here.Start());
    JuniorServer there(GetParam());
    ASSERT_TRUE(there.process.Start({"-as", "0.0.0.0:" + std::to_string(there.admin.Port())}));
    for (JuniorServer* server : {&here, &there}) {
        EXPECT_EQ(Ask(server->Port(), Ticketed("42")).text, Acknowledge("42"));
        const auto ending = server->process.WaitForEnd();
        ASSERT_TRUE(ending);
        EXPECT_EQ(ending->signal, SIGABRT);
        EXPECT_EQ(CountOf("Assertion `ulAddr != 0L' failed.", server->process.Errors()), 1);
    }
}

// The answer is whole by its length; the server ends the connection.
TEST_P(Junior, TakesAnAnswerOfAServerThatKeepsTheConnectionOpen) {
    JuniorServer server(GetParam(), kTaken, AdminServer::Then::StayOpen);
    ASSERT_TRUE(server.Start());
    for (int turn = 0; turn < 5; ++turn) ExpectAFollowUp(server, std::to_string(turn));
}

TEST_P(Junior, ServesWithoutAnAdministrationServer) {
    const PortReservation nobody;
    const std::string port = std::to_string(nobody.Port());
    for (const std::string& admin :
         {"127.0.0.1:" + port, "localhost:" + port, std::string("192.0.2.300:1")}) {
        JuniorServer server(GetParam());
        ASSERT_TRUE(server.process.Start({"-as", admin}));
        EXPECT_EQ(Ask(server.Port(), Ticketed("0")).text, Acknowledge("0"));
        const int descriptors = server.DescriptorsWhenIdle();
        for (int turn = 1; turn <= 10; ++turn) {
            const std::string ticket = std::to_string(turn);
            EXPECT_EQ(Ask(server.Port(), Ticketed(ticket)).text, Acknowledge(ticket)) << admin;
            EXPECT_TRUE(server.WaitUntilIdle());
        }
        EXPECT_TRUE(server.process.WaitForDescriptors(descriptors));
        EXPECT_TRUE(server.admin.FollowUps().empty());
    }
}

TEST_P(Junior, ServesFromAnAddressThatIsNotTheMachines) {
    JuniorServer server(GetParam(), kTaken, AdminServer::Then::Close, {"ServiceAddr=192.0.2.1"});
    ASSERT_TRUE(server.Start());
    for (int turn = 0; turn < 3; ++turn) {
        EXPECT_EQ(Ask(server.Port(), Ticketed("42")).text, Acknowledge("42"));
        EXPECT_TRUE(server.WaitUntilIdle());
    }
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    EXPECT_TRUE(server.admin.FollowUps().empty());
}

// --- a silent administration server --------------------------------------------------------------------

class SilentAdministrationServer : public OwnServer {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        EXPECT_EQ(Ask(server_.Port(), Ticketed("1")).text, Acknowledge("1"));
        ASSERT_EQ(server_.TakeRequests(1), Requests{Success("1")});
    }

    // The administration server gives the silent connection up, and is as ever from now on.
    void EndTheSilence() {
        server_.admin.AnswerWith(kTaken);
        server_.admin.HangUp();
        EXPECT_TRUE(server_.WaitUntilIdle());
    }

    JuniorServer server_{GetParam(), "", AdminServer::Then::StayOpen};
};
RDX_IN_BOTH_MODES(SilentAdministrationServer);

TEST_P(SilentAdministrationServer, HoldsUpOneThreadAlone) {
    Client other(server_.Port());
    other.Send(VersionCallAndClose());
    if (GetParam() == 1) {
        EXPECT_TRUE(other.StaysSilent());
        EndTheSilence();
        EXPECT_EQ(other.ReadUntilClosed(), VersionAnswer());
    } else {
        EXPECT_EQ(other.ReadUntilClosed(), VersionAnswer());
        // The silent follow-up holds the port that all of them leave from.
        EXPECT_EQ(Ask(server_.Port(), Ticketed("2")).text, Acknowledge("2"));
        EXPECT_TRUE(server_.process.WaitForServingThreads(1));
        EXPECT_EQ(server_.admin.FollowUps().size(), 1U);
        EndTheSilence();
    }
    ExpectAFollowUp(server_, "3");
}

TEST_P(SilentAdministrationServer, HoldsUpNoStop) {
    server_.process.Signal(SIGTERM);
    const auto ending = server_.process.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0);
    EXPECT_EQ(ending->signal, 0);
}

TEST_P(SilentAdministrationServer, IsAwaitedBeyondAReconfiguration) {
    server_.process.Signal(SIGUSR1);
    if (GetParam() > 1) {
        ASSERT_TRUE(server_.process.WaitForLoop(2));
        EXPECT_EQ(AskUntilAnswered(server_.Port(), VersionCallAndClose()).text, VersionAnswer());
        EXPECT_TRUE(server_.process.WaitForServingThreads(1));
    }
    EndTheSilence();
    ASSERT_TRUE(server_.process.WaitForLoop(2));
    ExpectAFollowUp(server_, "2");
}

// --- many ----------------------------------------------------------------------------------------------

TEST_P(Junior, LosesNoResultWhenCallsComeOneByOne) {
    JuniorServer server(GetParam());
    ASSERT_TRUE(server.Start());
    ExpectAFollowUp(server, "0");
    const int descriptors = server.DescriptorsWhenIdle();
    for (int turn = 1; turn <= 50; ++turn) ExpectAFollowUp(server, std::to_string(turn));
    EXPECT_TRUE(server.process.WaitForDescriptors(descriptors));
}

class ManyTickets : public testing::TestWithParam<Host> {};
INSTANTIATE_TEST_SUITE_P(ServedBy, ManyTickets, testing::Values(Host::kPlain, Host::kRdxhttpd),
                         [](const auto& host) {
                             return host.param == Host::kPlain ? "APlainHost" : "Rdxhttpd";
                         });

// All follow-ups leave from one port for one other, so that one alone can be under way: the kernel refuses
// those that meet it. Nobody but the administration server misses them.
TEST_P(ManyTickets, AreAllAcknowledgedAndPostedAtMostOnce) {
    constexpr int kCalls = 32;
    JuniorServer server(kCalls + 8, kTaken, AdminServer::Then::Close, {}, GetParam());
    ASSERT_TRUE(server.Start());
    ExpectAFollowUp(server, "1000");
    const int descriptors = server.DescriptorsWhenIdle();
    for (int round = 0; round < 5; ++round) {
        std::vector<Client> clients;
        for (int call = 0; call < kCalls; ++call) {
            clients.emplace_back(server.Port());
            // One by one: the server lets few of them wait to be accepted.
            ASSERT_TRUE(server.process.WaitForDescriptors(descriptors + call + 1));
        }
        for (int call = 0; call < kCalls; ++call) {
            clients[static_cast<std::size_t>(call)].Send(Ticketed(std::to_string(call)));
        }
        for (int call = 0; call < kCalls; ++call) {
            EXPECT_EQ(clients[static_cast<std::size_t>(call)].ReadUntilClosed(),
                      Acknowledge(std::to_string(call)));
        }
        EXPECT_TRUE(server.WaitUntilIdle());
        ASSERT_TRUE(server.process.WaitForDescriptors(descriptors));
        const Requests requests = server.TakeRequests(1);
        EXPECT_FALSE(requests.empty());
        std::set<std::string> expected;
        for (int call = 0; call < kCalls; ++call) expected.insert(Success(std::to_string(call)));
        for (const std::string& request : requests) {
            EXPECT_EQ(expected.erase(request), 1U) << "posted twice, or never asked for: " << request;
        }
    }
    EXPECT_EQ(Ask(server.Port(), VersionCall()).text, VersionAnswer());
    ExpectAFollowUp(server, "1001");
    EXPECT_TRUE(server.process.WaitForDescriptors(descriptors));
}

TEST_P(ManyTickets, AreAcknowledgedWhileTheAdministrationServerIsSilent) {
    constexpr int kThreads = 8;
    JuniorServer server(kThreads, "", AdminServer::Then::StayOpen, {}, GetParam());
    ASSERT_TRUE(server.Start());
    std::set<std::string> expected;
    for (int call = 0; call < 20; ++call) {
        const std::string ticket = std::to_string(call);
        EXPECT_EQ(AskUntilAnswered(server.Port(), Ticketed(ticket)).text, Acknowledge(ticket));
        expected.insert(Success(ticket));
    }
    EXPECT_TRUE(server.process.WaitForServingThreads(1));
    const Requests requests = server.TakeRequests(1);
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_TRUE(expected.contains(requests[0])) << "never asked for: " << requests[0];
}

// --- the host ------------------------------------------------------------------------------------------

TEST_P(Junior, IsServedByTheHostProcessToo) {
    JuniorServer server(GetParam(), kTaken, AdminServer::Then::Close, {}, Host::kRdxhttpd);
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Ask(server.Port(), Ticketed("42")).text, Acknowledge("42"));
    EXPECT_EQ(server.TakeRequests(1), Requests{Success("42")});
    EXPECT_EQ(server.admin.FollowUps()[0].peer, server.Here());
    server.process.Signal(SIGTERM);
    const auto ending = server.process.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0);
}

// The credentials of the command line are replaced by those of the file, of which there may be none.
TEST(Credentials, ForTheAdministrationServerComeFromTheFile) {
    const AdminServer admin(kTaken);
    Server server({.ports = 2});
    ASSERT_TRUE(server.Start({"-ba", "c2VjcmV0", "-as", "127.0.0.1:" + std::to_string(admin.Port())}));
    EXPECT_EQ(Ask(server.Port(), Ticketed("42")).text, Acknowledge("42"));
    EXPECT_TRUE(Eventually([&] { return admin.FollowUps().size() == 1; }));
    EXPECT_EQ(CountOf("\r\nAuthorization: Basic \r\n", admin.Request()), 1) << admin.Request();
}

} // namespace
} // namespace rdx::test
