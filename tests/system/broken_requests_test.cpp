// Broken requests, one after the other, against one server: each gets its answer or a closed connection,
// and nothing of it stays behind. Requests that must end the process have a server each.

#include "tests/system/modes.h"

#include "tests/support/broken_requests.h"

#include <gmock/gmock.h>

#include <csignal>
#include <set>

namespace rdx::test {
namespace {

constexpr int kClosed = 0; // no answer, only the end of the connection

struct Row {
    std::set<int> outcomes; // more than one where a server may take either view
    std::string why;
    std::string bytes;
};

// The status that a result of reading a request is answered with; a target that is read well is unknown.
int StatusOf(int outcome) {
    switch (outcome) {
    case 200:
        return 404;
    case -400:
        return 400;
    case -401:
        return 401;
    case -405:
        return 405;
    default:
        return 500;
    }
}

void AddUnreadableRequests(std::vector<Row>& rows) {
    for (const BrokenRequest& request : kBrokenRequests) {
        rows.push_back({{StatusOf(request.outcome)}, request.why, std::string(request.bytes)});
    }
}

// Bytes that stop before anything was asked.
void AddEmptyRequests(std::vector<Row>& rows) {
    rows.push_back({{kClosed}, "nothing at all", ""});
    rows.push_back({{404}, "a lone carriage return", "\r"});
    rows.push_back({{404}, "an empty line", "\r\n"});
    rows.push_back({{404}, "an empty line that ends in a line feed", "\n"});
    rows.push_back({{404}, "an empty line before a request", "\r\n" + VersionCallAndClose()});
    rows.push_back({{400}, "a hundred thousand bytes of one line", std::string(100000, 'A')});
    rows.push_back({{400}, "a hundred thousand NUL bytes", std::string(100000, '\0')});
}

// A good request that ends at each point of its head that the table of unreadable ones leaves out.
void AddCutHeads(std::vector<Row>& rows) {
    const std::string line(kVersionLine);
    for (std::size_t length = 1; length < line.size(); length += 2) {
        const bool inVersion = length > line.rfind('/');
        rows.push_back({{inVersion ? 500 : 400},
                        "a request line of " + std::to_string(length) + " bytes",
                        line.substr(0, length)});
    }
    const std::string head = line + "\r\nHost: device\r\n";
    for (std::size_t length = head.find(':') + 1; length <= head.size(); ++length) {
        rows.push_back({{400}, "a head of " + std::to_string(length) + " bytes", head.substr(0, length)});
    }
}

void AddCutBodies(std::vector<Row>& rows) {
    const std::string packet = VersionPacket();
    const std::string call = VersionCallAndClose();
    const std::size_t body = call.size() - packet.size();
    for (std::size_t length = 0; length < packet.size(); length += 7) {
        rows.push_back({{400},
                        "a body of which " + std::to_string(length) + " bytes come",
                        call.substr(0, body + length)});
    }
    const std::string form = VersionForm({"Connection: close"});
    const std::size_t parts = form.find("\r\n\r\n") + 4;
    for (std::size_t length = parts; length < form.size(); length += 31) {
        rows.push_back({{400},
                        "a form of which " + std::to_string(length - parts) + " bytes come",
                        form.substr(0, length)});
    }
}

std::string CallWith(const std::string& packet) {
    return Call("rdxGetVersion", packet, {"Connection: close"});
}

void AddCutPackets(std::vector<Row>& rows) {
    const std::string packet = VersionPacket();
    for (std::size_t length = 1; length < packet.size(); length += 2) {
        rows.push_back(
            {{400}, "a packet of " + std::to_string(length) + " bytes", CallWith(packet.substr(0, length))});
    }
}

// A NUL ends the packet, wherever it is, unless everything stands before it; at the front it leaves a text
// of no length, which ends the process.
void AddPacketsWithNulBytes(std::vector<Row>& rows) {
    const std::string packet = VersionPacket();
    for (std::size_t at = 1; at < packet.size(); at += 9) {
        std::string broken = packet;
        broken[at] = '\0';
        rows.push_back({{400}, "a packet with a NUL at " + std::to_string(at), CallWith(broken)});
    }
    rows.push_back({{200}, "a NUL behind the packet", CallWith(packet + std::string(5, '\0'))});
}

void AddUnfitPackets(std::vector<Row>& rows) {
    const auto add = [&](const std::string& why, const std::string& packet) {
        rows.push_back({{400}, why, CallWith(packet)});
    };
    const auto addValue = [&](const std::string& why, const std::string& value) {
        add(why, Packet("<struct><var name='version'>" + value + "</var></struct>"));
    };
    add("no packet but a word", "version=7");
    add("a page", "<HTML><BODY>version</BODY></HTML>");
    add("an object of another notation", "{\"version\": 7}");
    add("blanks only", "     ");
    add("a lone tag opener", "<");
    add("a lone tag closer", ">");
    add("an empty tag", "<>");
    add("a hundred tag openers", std::string(100, '<'));
    add("empty data", Packet(""));
    add("closed data", "<wddxPacket version='1.0'><header/><data/></wddxPacket>");
    add("no header", "<wddxPacket version='1.0'><struct></struct></wddxPacket>");
    add("no version of the packet", "<wddxPacket><header/><data><null/></data></wddxPacket>");
    add("data before the header and no value",
        "<wddxPacket version='1.0'><data></data><header/></wddxPacket>");
    add("packet in another case", "<WDDXPACKET version='1.0'><header/><data><null/></data></WDDXPACKET>");
    add("a number on its own", Packet("<number>7</number>"));
    add("an array", Packet("<array length='1'><number>7</number></array>"));
    add("an empty structure", Packet("<struct></struct>"));
    add("a structure without the argument",
        Packet("<struct><var name='Version'><number>7</number></var></struct>"));
    add("a member without a name", Packet("<struct><var><number>7</number></var></struct>"));
    add("a member of two values",
        Packet("<struct><var name='version'><number>7</number><number>8</number></var></struct>"));
    add("a value outside any member", Packet("<struct><number>7</number></struct>"));
    add("tags that cross", Packet("<struct><var name='version'><number>7</var></number></struct>"));
    add("a missing end tag", Packet("<struct><var name='version'><number>7</var></struct>"));
    add("a recordset", Packet("<recordset rowCount='1'><field name='a'><null/></field></recordset>"));
    add("an array that is shorter than its length",
        Packet("<struct><var name='a'><array length='2'><null/></array></var>"
               "<var name='version'><number>7</number></var></struct>"));
    add("an array of two thousand million",
        Packet("<struct><var name='a'><array length='2000000000'><null/></array></var>"
               "<var name='version'><number>7</number></var></struct>"));
    add("an array of negative length", Packet("<struct><var name='a'><array length='-1'></array></var>"
                                              "<var name='version'><number>7</number></var></struct>"));
    addValue("an empty member", "");
    addValue("an empty number", "<number></number>");
    addValue("a closed number", "<number/>");
    addValue("an open null", "<null></null>");
    addValue("an open boolean", "<boolean value='true'></boolean>");
    addValue("a boolean without value", "<boolean/>");
    addValue("a date", "<dateTime>2002-04-30T12:08:00</dateTime>");
    addValue("binary data", "<binary>QQ==</binary>");
    addValue("a tag of 100 characters", "<" + std::string(100, 't') + "/>");
    addValue("a tag of ten thousand characters", "<" + std::string(10000, 't') + "/>");
    add("an attribute name of 100 characters",
        "<wddxPacket " + std::string(100, 'v') + "='1.0'><header/><data><null/></data></wddxPacket>");
    add("an attribute value of 100 characters",
        Packet("<struct><var name='" + std::string(100, 'n') + "'><number>7</number></var></struct>"));
    std::string deep;
    while (deep.size() < 60000) deep += "<struct><var name='a'>";
    add("thousands of levels that never end", Packet(deep));
}

void AddUnfitCalls(std::vector<Row>& rows) {
    const auto addGet = [&](int status, const std::string& why, const std::string& target) {
        rows.push_back({{status}, why, Request("GET " + target + " HTTP/1.1", {"Connection: close"})});
    };
    addGet(400, "no method", "/rDx");
    addGet(400, "no method's name", "/rDx?FunctionName=");
    addGet(400, "no method's name before another parameter", "/rDx?FunctionName=&x=rdxGetVersion");
    addGet(400, "the parameter in another case", "/rDx?functionname=rdxGetVersion");
    addGet(400, "a name of 33 characters", "/rDx?FunctionName=" + std::string(33, 'f'));
    addGet(400, "a name of 200 characters", "/rDx?FunctionName=" + std::string(200, 'f'));
    addGet(400, "no arguments", "/rDx?FunctionName=rdxGetVersion");
    addGet(401, "a name of 32 characters without credentials", "/rDx?FunctionName=" + std::string(32, 'f'));
    addGet(401, "a method without credentials", "/rDx?FunctionName=rdxAllocateDevice");
    addGet(401, "an escaped name", "/rDx?FunctionName=rdxGet%56ersion");
    addGet(404, "the service in another folder", "/x/rDx?FunctionName=rdxGetVersion");
    for (const char* value : {"Basic", "Basic ", "Basic =", "Basic ====", "Basic !!!!", "Digest abc",
                              "Basic QQ==", "Bearer abc", "basic\tdXNlcjpwYXNz", "Basic dXNlcjpwYXNz"}) {
        rows.push_back({{401},
                        std::string("credentials of the form ") + value,
                        Call("rdxReleaseDevice", VersionPacket(),
                             {std::string("Authorization: ") + value, "Connection: close"})});
    }
    rows.push_back({{401},
                    "credentials as long as a line takes",
                    Call("rdxReleaseDevice", VersionPacket(),
                         {"Authorization: Basic " + std::string(490, 'A'), "Connection: close"})});
}

// NUL bytes in the head: an end of a text, an unknown word or part of a value.
void AddHeadsWithNulBytes(std::vector<Row>& rows) {
    using namespace std::string_literals;
    const auto add = [&](std::set<int> outcomes, const std::string& why, const std::string& bytes) {
        rows.push_back({std::move(outcomes), why, bytes});
    };
    add({400, 404}, "a NUL in the target", "GET /rDx\0y HTTP/1.1\r\nConnection: close\r\n\r\n"s);
    add({400, 404}, "a NUL at the target's front", "GET \0/rDx HTTP/1.1\r\nConnection: close\r\n\r\n"s);
    add({400, 404}, "a NUL for a target", "GET \0 HTTP/1.1\r\nConnection: close\r\n\r\n"s);
    add({400, 404}, "a NUL in a value", "GET /nowhere HTTP/1.1\r\nHost: a\0b\r\n\r\n"s);
    add({400, 404}, "a NUL for a value", "GET /nowhere HTTP/1.1\r\nHost: \0\r\n\r\n"s);
    add({400}, "a NUL for a length",
        "POST /nowhere HTTP/1.1\r\nContent-length: \0"
        "5\r\n\r\nabcde"s);
    add({400, 404, 500}, "a NUL in a content type",
        "POST /nowhere HTTP/1.1\r\nContent-Type: multipart/form-data\0; boundary=x\r\n\r\n"s);
    add({400, 404, 500}, "a NUL in a name", "GET /nowhere HTTP/1.1\r\nHo\0st: a\r\n\r\n"s);
    add({400, 404, 500}, "a NUL and a long tail in a name",
        "GET /nowhere HTTP/1.1\r\nVia\0"s + std::string(300, 'x') + ": a\r\n\r\n");
    add({400, 404, 500}, "NUL bytes for a name",
        "GET /nowhere HTTP/1.1\r\n"s + std::string(400, '\0') + ": a\r\n\r\n");
    add({400, 401}, "a NUL in a method's name",
        "GET /rDx?FunctionName=rdxGet\0Version HTTP/1.1\r\nConnection: close\r\n\r\n"s);
}

void AddUnfitForms(std::vector<Row>& rows) {
    const auto add = [&](int status, const std::string& why, const std::string& parts) {
        rows.push_back({{status}, why, FormCall(parts, {"Connection: close"})});
    };
    const std::string name = FormPart("FunctionName", "rdxGetVersion");
    const std::string arguments = FormPart("FunctionArgs", VersionPacket());
    const std::string end = "--AbC--\r\n";
    add(500, "a form of one byte", "x");
    add(500, "a form of a boundary without line end", "--AbC");
    add(500, "a form with another boundary", "--Abc\r\n" + name + end);
    add(500, "a form with a preamble", "preamble\r\n" + name + arguments + end);
    add(500, "a boundary without its dashes", "AbC\r\n" + name + end);
    add(500, "a part without head", "--AbC\r\n\r\nrdxGetVersion\r\n" + end);
    add(500, "a part with another head", "--AbC\r\nContent-Type: text/plain\r\n\r\nx\r\n" + end);
    add(500, "a part that is no form data",
        "--AbC\r\nContent-Disposition: attachment; name=\"FunctionName\"\r\n\r\nx\r\n" + end);
    add(500, "a name without quotes",
        "--AbC\r\nContent-Disposition: form-data; name=FunctionName\r\n\r\nrdxGetVersion\r\n" + end);
    add(500, "a name without its closing quote",
        "--AbC\r\nContent-Disposition: form-data; name=\"FunctionName\r\n\r\nrdxGetVersion\r\n" + end);
    add(500, "a part that ends in its head", "--AbC\r\nContent-Disposition: form-data; name=\"Fu");
    add(500, "a part that ends with its name",
        "--AbC\r\nContent-Disposition: form-data; name=\"FunctionName\"");
    add(500, "a name of 65 characters", FormPart(std::string(65, 'n'), "x") + end);
    add(500, "a name of ten thousand characters", FormPart(std::string(10000, 'n'), "x") + end);
    add(500, "a part without data", "--AbC\r\nContent-Disposition: form-data; name=\"FunctionName\"\r\n\r\n");
    add(500, "a part without the empty line",
        "--AbC\r\nContent-Disposition: form-data; name=\"FunctionName\"\r\nrdxGetVersion" + end);
    add(500, "no closing boundary", name.substr(0, name.size() - 2));
    add(500, "a method of 33 characters", FormPart("FunctionName", std::string(33, 'f')) + end);
    add(500, "a method of ten thousand characters", FormPart("FunctionName", std::string(10000, 'f')) + end);
    add(400, "an empty method", FormPart("FunctionName", "") + end);
    add(400, "a name of 64 characters", FormPart(std::string(64, 'n'), "x") + end);
    add(400, "a name in another case", FormPart("functionname", "rdxGetVersion") + end);
    add(400, "an unknown name behind good ones", name + arguments + FormPart("Other", "x") + end);
    add(400, "no arguments", name + end);
    add(400, "empty arguments", name + FormPart("FunctionArgs", "") + end);
    add(400, "arguments that are no packet", name + FormPart("FunctionArgs", "junk") + end);
    add(401, "no method", arguments + end);
    add(401, "a part that is ignored and no method", FormPart("PostIt", "x") + end);
    add(401, "a method without credentials", FormPart("FunctionName", std::string(32, 'f')) + end);
    const std::string packet = VersionPacket();
    for (std::size_t length = 1; length < packet.size(); length += 13) {
        add(400, "arguments of " + std::to_string(length) + " bytes",
            name + FormPart("FunctionArgs", packet.substr(0, length)) + end);
    }
    using namespace std::string_literals;
    add(500, "a form of NUL bytes", std::string(1000, '\0'));
    add(500, "NUL bytes for a head", "--AbC\r\n"s + std::string(1000, '\0') + end);
    add(500, "NUL bytes behind the boundary", "--AbC" + std::string(1000, '\0'));
    add(400, "a NUL in the arguments", name + FormPart("FunctionArgs", "<wddxPacket\0>"s) + end);
    rows.push_back(
        {{400, 401, 500},
         "a NUL in the method",
         FormCall(FormPart("FunctionName", "rdxGet\0Version"s) + arguments + end, {"Connection: close"})});
    rows.push_back({{400, 500},
                    "a NUL in a part's name",
                    FormCall(FormPart("Function\0Name"s, "rdxGetVersion") + end, {"Connection: close"})});
}

std::vector<Row> AllRows() {
    std::vector<Row> rows;
    AddUnreadableRequests(rows);
    AddEmptyRequests(rows);
    AddCutHeads(rows);
    AddCutBodies(rows);
    AddCutPackets(rows);
    AddPacketsWithNulBytes(rows);
    AddUnfitPackets(rows);
    AddUnfitCalls(rows);
    AddHeadsWithNulBytes(rows);
    AddUnfitForms(rows);
    return rows;
}

// The status of the answer, kClosed when the connection closed without one, -1 for anything else.
int OutcomeOf(int port, const std::string& bytes) {
    Client client(port);
    if (!client.Connected()) return -1;
    client.Send(bytes); // the server may well close before it has read everything
    client.FinishSending();
    const Reply answer = client.ReadAnswer();
    if (answer.status != 0) return answer.status;
    return answer.text.empty() && client.ClosedByPeer() ? kClosed : -1;
}

class BrokenRequests : public OwnServer {};
RDX_IN_BOTH_MODES(BrokenRequests);

TEST_P(BrokenRequests, AreAnsweredOrClosedAndLeaveNothingBehind) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    ASSERT_TRUE(server.WaitForServingThreads(0));
    const int descriptors = server.DescriptorsWhenClosed();

    const std::vector<Row> rows = AllRows();
    std::set<std::string> distinct;
    for (const Row& row : rows) distinct.insert(row.bytes);
    ASSERT_GE(distinct.size(), 200U);
    for (const Row& row : rows) {
        const int outcome = OutcomeOf(server.Port(), row.bytes);
        EXPECT_EQ(row.outcomes.count(outcome), 1U) << row.why << ": " << outcome;
        ASSERT_FALSE(server.WaitForEnd(milliseconds(0))) << row.why << "\n" << server.Errors();
    }

    EXPECT_EQ(Ask(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    EXPECT_TRUE(server.WaitForServingThreads(0));
    EXPECT_TRUE(server.WaitForDescriptors(descriptors));
    EXPECT_EQ(server.Errors(), "");
    server.Signal(SIGTERM);
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending);
    EXPECT_EQ(ending->result, 0);
}

// The clients of these vanish at once, without waiting for an answer.
TEST_P(BrokenRequests, WhoseClientsVanishLeaveNothingBehind) {
    Server server({.threads = GetParam()});
    ASSERT_TRUE(server.Start());
    ASSERT_EQ(Ask(server.Port(), VersionCallAndClose()).status, 200);
    ASSERT_TRUE(server.WaitForServingThreads(0));
    const int descriptors = server.DescriptorsWhenClosed();
    const std::vector<Row> rows = AllRows();
    int closed = 1;
    for (std::size_t i = 0; i < rows.size(); i += 5) {
        {
            Client client(server.Port());
            client.Send(rows[i].bytes);
        }
        // One at a time: with all slots taken a connection would stay open.
        ++closed;
        ASSERT_TRUE(Eventually([&] {
            return CountOf("ServeClientDone: Socket closed", server.Output()) == closed;
        })) << rows[i].why;
    }
    EXPECT_TRUE(server.WaitForDescriptors(descriptors));
    EXPECT_EQ(AskUntilAnswered(server.Port(), VersionCallAndClose()).text, VersionAnswer());
    EXPECT_TRUE(server.WaitForServingThreads(0));
}

// Requests that end the process.

struct Lethal {
    std::string assertion;
    std::string why;
    std::string bytes;
    std::vector<std::string> settings = {};
};

std::vector<Lethal> LethalRows() {
    using namespace std::string_literals;
    std::vector<Lethal> rows;
    for (const LethalRequest& request : kLethalRequests) {
        rows.push_back({request.assertion, request.why, std::string(request.bytes)});
    }
    rows.push_back({"siz > 0", "an empty part name", FormCall(FormPart("", "x") + "--AbC--\r\n")});
    rows.push_back({"p != __null", "a form without a body",
                    Request("POST /rDx HTTP/1.1", {"Content-Type: multipart/form-data; boundary=AbC"})});
    for (const std::size_t length : {std::size_t{254}, std::size_t{255}, std::size_t{400}}) {
        const std::string boundary(length, 'b');
        rows.push_back({"blen == pRequest->ucBoundaryLen",
                        "a boundary of " + std::to_string(length) + " characters",
                        FormCall("--" + boundary + "\r\n" + std::string(500, 'x'), {}, boundary)});
    }
    rows.push_back({"alen > 0", "a packet that begins with a NUL", CallWith("\0"s + VersionPacket())});
    rows.push_back({"slen > 0", "a body while the terminator is empty", VersionCall(), {"SendEOT=1"}});
    return rows;
}

class LethalRequests : public testing::TestWithParam<std::tuple<std::size_t, int>> {};

std::string LethalName(const testing::TestParamInfo<LethalRequests::ParamType>& info) {
    return std::to_string(std::get<0>(info.param)) + ModeName(std::get<1>(info.param));
}

INSTANTIATE_TEST_SUITE_P(Row, LethalRequests,
                         testing::Combine(testing::Range(std::size_t{0}, LethalRows().size()),
                                          testing::Values(1, kSeveralThreads)),
                         LethalName);

TEST_P(LethalRequests, EndTheProcessByTheirAssertion) {
    const Lethal row = LethalRows()[std::get<0>(GetParam())];
    SCOPED_TRACE(row.why);
    Server server({.settings = row.settings, .threads = std::get<1>(GetParam())});
    ASSERT_TRUE(server.Start());
    Client client(server.Port());
    client.Send(row.bytes);
    client.FinishSending();
    const auto ending = server.WaitForEnd();
    ASSERT_TRUE(ending) << "the server goes on";
    EXPECT_EQ(ending->signal, SIGABRT);
    EXPECT_EQ(client.ReadUntilClosed(), "");
    const std::string errors = server.Errors();
    EXPECT_NE(errors.find("Assertion `" + row.assertion + "' failed."), std::string::npos) << errors;
    // The source is named as in the repository, without the folder of the build.
    EXPECT_THAT(errors, testing::ContainsRegex(": (common|http|rDxsd|server)/[A-Za-z_]+\\.cpp:[0-9]+: "));
}

} // namespace
} // namespace rdx::test
