// Every good argument packet, mutated in every place: the answer is 400 or a well-formed packet, nothing
// reaches the device that a method must not pass on, and the server keeps no memory of it.

#include "tests/support/client.h"
#include "tests/system/device_server.h"
#include "tests/system/messages.h"
#include "tests/system/modes.h"
#include "tests/system/mutations.h"
#include "tests/system/xml.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <gtest/gtest-spi.h>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <unistd.h>

namespace rdx::test {
namespace {

// --- What a method may pass on --------------------------------------------------------------------------

// One line of the device's record of calls.
struct DeviceCall {
    std::string function;
    std::map<std::string, std::string> arguments; // as they stand there
};

// The end of the quoted text that begins at `at`, behind its quote.
std::size_t EndOfText(const std::string& line, std::size_t at) {
    for (++at; at < line.size() && line[at] != '"'; ++at) {
        if (line[at] == '\\') ++at;
    }
    return at + 1;
}

// The end of the value that begins at `at`: a text, a list in brackets, or a word.
std::size_t EndOfValue(const std::string& line, std::size_t at) {
    if (line[at] == '"') return EndOfText(line, at);
    const bool list = line[at] == '[';
    while (at < line.size() && line[at] != (list ? ']' : ' ')) {
        at = list && line[at] == '"' ? EndOfText(line, at) : at + 1;
    }
    return list ? at + 1 : at;
}

DeviceCall ParseCall(const std::string& line) {
    std::size_t at = std::min(line.find(' '), line.size());
    DeviceCall call = {line.substr(0, at), {}};
    while (at < line.size()) {
        const std::size_t equals = line.find('=', at);
        const std::size_t end = std::min(EndOfValue(line, equals + 1), line.size());
        call.arguments[line.substr(at + 1, equals - at - 1)] = line.substr(equals + 1, end - equals - 1);
        at = end;
    }
    return call;
}

// How many characters a quoted text has.
std::size_t LengthOf(const std::string& quoted) {
    std::size_t length = 0;
    for (std::size_t at = 1; at + 1 < quoted.size(); ++length) {
        const bool escaped = quoted[at] == '\\';
        at += escaped ? std::size_t{quoted[at + 1] == 'x' ? 4U : 2U} : 1;
    }
    return length;
}

// How many elements a list has.
int CountIn(const std::string& list) {
    int count = list == "[]" ? 0 : 1;
    for (std::size_t at = 1; at + 1 < list.size();) {
        if (list[at] == ',') ++count;
        at = list[at] == '"' ? EndOfText(list, at) : at + 1;
    }
    return count;
}

bool IsNumber(const std::string& value) {
    const std::size_t sign = value.starts_with('-') ? 1 : 0;
    return value.size() > sign && std::all_of(value.begin() + static_cast<std::ptrdiff_t>(sign), value.end(),
                                              [](unsigned char c) { return std::isdigit(c) != 0; });
}

enum class Allowed { kNumber, kText, kClient, kList, kWords };

struct ArgumentRule {
    const char* function;
    const char* argument;
    Allowed allowed;
    std::size_t limit = 0;       // characters of a text; 0: any number
    const char* words = nullptr; // those that are allowed, each with a blank before and behind it
};

constexpr ArgumentRule kRules[] = {
    {"rDxAllocateDevice", "client", Allowed::kClient},
    {"rDxAllocateDevice", "owner", Allowed::kText, 32},
    {"rDxAllocateDevice", "address", Allowed::kText, 16},
    {"rDxAllocateDevice", "ports", Allowed::kText},
    {"rDxAllocateDevice", "flag", Allowed::kWords, 0, " 1 "},
    {"rDxReleaseDevice", "client", Allowed::kClient},
    {"rDxReleaseDevice", "owner", Allowed::kText},
    {"rDxReleaseDevice", "flag", Allowed::kWords, 0, " 1 "},
    {"rDxInitiateCfgRequest", "owner", Allowed::kText},
    {"rDxInitiateCfgRequest", "mode", Allowed::kWords, 0, " 0 1 2 "},
    {"rDxSetIpConfiguration", "owner", Allowed::kText, 32},
    {"rDxSetIpConfiguration", "ip_address", Allowed::kText, 16},
    {"rDxSetIpConfiguration", "netmask", Allowed::kText, 16},
    {"rDxSetIpConfiguration", "gateway", Allowed::kText, 16},
    {"rDxSetIpConfiguration", "mode", Allowed::kWords, 0, " 1 2 3 4 "},
    {"rDxSetIpConfiguration", "hostname", Allowed::kText},
    {"rDxGetVehicleStatus", "owner", Allowed::kText, 32},
    {"rDxRunDeviceSelfTest", "owner", Allowed::kText},
    {"rDxRunDeviceSelfTest", "mode", Allowed::kWords, 0, " 0 1 "},
    {"rDxRunDeviceSelfTest", "await", Allowed::kNumber},
    {"rDxSetDeviceAttributes", "owner", Allowed::kText},
    {"rDxSetDeviceAttributes", "names", Allowed::kList},
    {"rDxSetDeviceAttributes", "values", Allowed::kList},
    {"rDxSetDeviceAttributes", "persistence", Allowed::kList},
    {"rDxSetDeviceAttributes", "count", Allowed::kNumber},
    {"rDxSetDeviceAttributes", "enforce", Allowed::kNumber},
    {"rDxUpdateDeviceFirmware", "owner", Allowed::kText},
    {"rDxUpdateDeviceFirmware", "url", Allowed::kText},
    {"rDxUpdateDeviceFirmware", "revision", Allowed::kWords, 0, " -1 "},
    {"rDxUpdateDeviceFirmware", "signed", Allowed::kNumber},
    {"rDxUpdateDeviceFirmware", "method_of_trust", Allowed::kText},
    {"rDxUpdateDeviceFirmware", "ca_certificate", Allowed::kText},
    {"rDxGetDeviceType", "size", Allowed::kWords, 0, " 4096 "},
    {"rDxGetNetInterface", "size", Allowed::kWords, 0, " 4096 "},
    {"rDxGetActiveIpConf", "size", Allowed::kWords, 0, " 16 "},
    {"rDxGetIpConfiguration", "length", Allowed::kWords, 0, " 8 "},
    {"rdxFreeDeviceAttributes", "count", Allowed::kNumber},
};

bool Permits(const ArgumentRule& rule, const std::string& value) {
    switch (rule.allowed) {
    case Allowed::kNumber:
        return IsNumber(value);
    case Allowed::kText:
        return value.starts_with('"') && (rule.limit == 0 || LengthOf(value) <= rule.limit);
    case Allowed::kClient:
        return value.starts_with("\"127.0.0.1:") && value.size() <= sizeof "\"127.0.0.1:65535";
    case Allowed::kList:
        return value.starts_with('[');
    case Allowed::kWords:
        break;
    }
    return CountOf(" " + value + " ", rule.words) == 1;
}

// What belongs together is right together.
bool Agrees(const DeviceCall& call) {
    const auto& arguments = call.arguments;
    if (call.function == "rDxRunDeviceSelfTest") {
        return arguments.at("mode") == "0" || arguments.at("await") == "0";
    }
    if (call.function != "rDxSetDeviceAttributes") return true;
    return std::ranges::all_of(
        std::to_array<const char*>({"names", "values", "persistence"}), [&](const char* list) {
            return std::to_string(CountIn(arguments.at(list))) == arguments.at("count");
        });
}

void ExpectAllowed(const std::string& line) {
    const DeviceCall call = ParseCall(line);
    std::size_t known = 0;
    for (const ArgumentRule& rule : kRules) {
        if (rule.function != call.function) continue;
        const auto argument = call.arguments.find(rule.argument);
        ASSERT_NE(argument, call.arguments.end()) << line << " without " << rule.argument;
        EXPECT_TRUE(Permits(rule, argument->second)) << line.substr(0, 1000) << "\n" << rule.argument;
        ++known;
    }
    EXPECT_EQ(call.arguments.size(), known) << line;
    EXPECT_TRUE(Agrees(call)) << line;
}

TEST(TheRules, RefuseWhatNoMethodMayPassOn) {
    const auto refused = [](const std::string& line) {
        testing::TestPartResultArray failures;
        const testing::ScopedFakeTestPartResultReporter reporter(
            testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &failures);
        ExpectAllowed(line);
        return failures.size() > 0;
    };
    EXPECT_FALSE(refused(R"(rDxGetVehicleStatus owner="12345678901234567890123456789\x1b\"\\")"));
    EXPECT_TRUE(refused(R"(rDxGetVehicleStatus owner="123456789012345678901234567890\x1b\"\\")"));
    EXPECT_TRUE(refused("rDxGetVehicleStatus owner=null"));
    EXPECT_TRUE(refused("rDxGetVehicleStatus"));
    EXPECT_TRUE(refused("rDxGetOwner owner=\"a\""));
    EXPECT_FALSE(refused("rDxGetOwner"));
    EXPECT_TRUE(refused("rDxInitiateCfgRequest owner=\"\" mode=3"));
    EXPECT_TRUE(refused("rDxInitiateCfgRequest owner=\"\" mode=-1"));
    EXPECT_FALSE(refused("rDxInitiateCfgRequest owner=\" mode=3\" mode=2"));
    EXPECT_TRUE(refused("rDxRunDeviceSelfTest owner=\"\" mode=1 await=1"));
    EXPECT_FALSE(refused("rDxRunDeviceSelfTest owner=\"\" mode=0 await=-7"));
    const std::string set = "rDxSetDeviceAttributes owner=\"\" names=[null,\"],\\\"\"] values=";
    EXPECT_FALSE(refused(set + "[\"\",null] persistence=[0,-1] count=2 enforce=0"));
    EXPECT_TRUE(refused(set + "[\"\",null] persistence=[0,-1] count=3 enforce=0"));
    EXPECT_TRUE(refused(set + "[\",\"] persistence=[0,-1] count=2 enforce=0"));
    EXPECT_FALSE(refused(R"(rDxReleaseDevice client="127.0.0.1:4" owner="" flag=1)"));
    EXPECT_TRUE(refused(R"(rDxReleaseDevice client="" owner="" flag=1)"));
    EXPECT_TRUE(refused(R"(rDxReleaseDevice client="127.0.0.1:4" owner="" flag=0)"));
}

// --- The calls ------------------------------------------------------------------------------------------

// Nothing that a mutated packet starts takes time.
constexpr const char* kQuickDevice = R"(
[rDxRunDeviceSelfTest]
short_ms = 0
detailed_ms = 0
[rDxUpdateDeviceFirmware]
update_ms = 0
)";

// With one thread the loop serves all of them in one pass. Several threads promise an answer to each request
// only where one connection speaks at a time; so there is but one.
std::size_t ConnectionsFor(int threads) { return threads == 1 ? 8 : 1; }

class Caller {
public:
    Caller(int port, int threads) {
        for (std::size_t i = 0; i < ConnectionsFor(threads); ++i) connections_.emplace_back(port);
    }

    // Sends as many requests at a time as there are connections, then reads their answers.
    std::vector<Reply> Send(std::span<const std::string> requests) {
        std::vector<Reply> answers;
        while (!requests.empty()) {
            const std::size_t count = std::min(requests.size(), connections_.size());
            for (std::size_t i = 0; i < count; ++i) connections_[i].Send(requests[i]);
            for (std::size_t i = 0; i < count; ++i) answers.push_back(connections_[i].ReadAnswer());
            requests = requests.subspan(count);
        }
        return answers;
    }

private:
    std::vector<Client> connections_;
};

// So many requests are looked at together.
constexpr std::size_t kBatch = 8;

using Way = std::string (*)(const std::string& method, const std::string& packet);

// The function of the device that a method is about.
std::string FunctionOf(const std::string& method) {
    if (method == "rdxGetVersion") return "none";
    return method == "rdxGetDeviceStatus" ? "rDxGetDeviceType" : "rDx" + method.substr(3);
}

ServerOptions Quiet(int threads) { return {.settings = {"Verbosity=VERBOSITY_NONE"}, .threads = threads}; }

struct Served {
    std::string method;
    int threads;
};

std::vector<Served> AllServedByOneThread() {
    std::vector<Served> all;
    for (const std::string& method : Methods()) all.push_back({method, 1});
    return all;
}

std::string NameOf(const testing::TestParamInfo<Served>& info) { return info.param.method; }

class MutatedPackets : public testing::TestWithParam<Served> {
protected:
    void SetUp() override {
        server_.Play(kQuickDevice);
        ASSERT_TRUE(server_.Start());
        ASSERT_EQ(Ask(server_.Port(), UserCall("rdxAllocateDevice", Arguments("rdxAllocateDevice"))).status,
                  200);
        server_.TakeCalls();
        caller_ = std::make_unique<Caller>(server_.Port(), GetParam().threads);
    }

    // True for an answer that says what was done.
    static bool CheckAnswer(const Reply& answer) {
        if (answer.text == BadRequestAnswer()) return false;
        EXPECT_EQ(answer.status, 200) << answer.text;
        const XmlPacket packet(answer.body);
        EXPECT_TRUE(packet.WellFormed() && packet.HasData()) << answer.text << packet.Error();
        return true;
    }

    // As many calls of the method's function as there are answers that say what it did; all calls allowed.
    void CheckCalls(int answered, const std::string& function) {
        const std::vector<std::string> calls = server_.TakeCalls();
        const auto own = std::ranges::count_if(
            calls, [&](const std::string& line) { return ParseCall(line).function == function; });
        EXPECT_EQ(own, function == "none" ? 0 : answered);
        if (answered == 0 && function != "rDxRunDeviceSelfTest") { // which says what it did not do
            EXPECT_EQ(calls, std::vector<std::string>());
        }
        for (const std::string& line : calls) ExpectAllowed(line);
    }

    void Check(const std::string& method, std::span<const Mutation> mutations, Way way) {
        std::vector<std::string> requests;
        std::string whys;
        for (const Mutation& mutation : mutations) {
            requests.push_back(way(method, mutation.packet));
            whys += mutation.why.substr(0, 200) + "\n";
        }
        SCOPED_TRACE(whys);
        int answered = 0;
        for (const Reply& answer : caller_->Send(requests)) {
            const bool refusedBefore = CountOf("<number>9064</number>", answer.body) > 0;
            const bool done = CheckAnswer(answer);
            ++(done ? answers_ : refusals_);
            if (done && !refusedBefore) ++answered;
        }
        CheckCalls(answered, FunctionOf(method));
    }

    DeviceServer server_{Quiet(GetParam().threads)};
    std::unique_ptr<Caller> caller_;
    int answers_ = 0;
    int refusals_ = 0;
};

INSTANTIATE_TEST_SUITE_P(Of, MutatedPackets, testing::ValuesIn(AllServedByOneThread()), NameOf);
// Several threads take time with one connection: a method that looks at its packet, and the one that does
// not.
INSTANTIATE_TEST_SUITE_P(ServedBySeveralThreads, MutatedPackets,
                         testing::Values(Served{"rdxAllocateDevice", kSeveralThreads},
                                         Served{"rdxGetDeviceStatus", kSeveralThreads}),
                         NameOf);

TEST_P(MutatedPackets, AreRefusedOrAnswered) {
    const std::string& method = GetParam().method;
    const std::vector<Mutation> mutations = MutationsOf(Arguments(method));
    EXPECT_GT(mutations.size(), 200U);
    for (const Way way : {&UserCall, &UserForm}) {
        std::span<const Mutation> left = mutations;
        while (!left.empty() && !HasFailure()) {
            const auto batch = left.first(std::min(left.size(), kBatch));
            Check(method, batch, way);
            left = left.subspan(batch.size());
        }
    }
    EXPECT_GT(answers_, 0);
    EXPECT_EQ(refusals_ > 0, method != "rdxGetDeviceStatus"); // which reads no packet
    EXPECT_EQ(CountOf("libDxSvcs:", server_.Process().Errors()), 0) << server_.Process().Errors();
}

// --- Memory ---------------------------------------------------------------------------------------------

#ifndef RDX_TEST_SANITIZED // a sanitizer keeps freed memory for a while

// One heap for everything that is allocated, so that it can be told from the threads' stacks, of which the
// system keeps some for the next ones.
ServerOptions WithOneHeap(int threads) {
    ServerOptions options = Quiet(threads);
    options.environment = {{"MALLOC_ARENA_MAX", "1"}, {"MALLOC_MMAP_MAX_", "0"}};
    return options;
}

// What the process has in use of its heap, or -1.
long HeapKilobytes(pid_t process) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/smaps");
    bool heap = false;
    for (std::string line; std::getline(maps, line);) {
        if (line.ends_with("[heap]")) heap = true;
        if (heap && line.starts_with("Rss:")) return std::stol(line.substr(sizeof "Rss:" - 1));
    }
    return -1;
}

// All that the process holds in memory, the stacks of threads included.
long ResidentKilobytes(pid_t process) {
    std::ifstream statm("/proc/" + std::to_string(process) + "/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Every mutation of every method, both ways; of which each `step`th is taken.
std::vector<std::string> AllRequests(std::size_t step) {
    std::vector<std::string> requests;
    std::size_t count = 0;
    for (const std::string& method : Methods()) {
        for (const Mutation& mutation : MutationsOf(Arguments(method))) {
            for (const Way way : {&UserCall, &UserForm}) {
                if (count++ % step == 0) requests.push_back(way(method, mutation.packet));
            }
        }
    }
    return requests;
}

// Over its one connection a server with several threads serves a fraction of what one with one thread does.
struct Amount {
    std::size_t step;
    std::size_t calls;
};
constexpr Amount kFewer = {12, 2500};
constexpr Amount kAll = {1, 20000};

class Memory : public OwnServer {
protected:
    // Sends `count` of the requests, from the first again where they end.
    void Send(Caller& caller, std::size_t count) {
        for (std::size_t sent = 0; sent < count; sent += kBatch) {
            const std::size_t first = sent % (requests_.size() - kBatch);
            for (const Reply& answer : caller.Send(std::span(requests_).subspan(first, kBatch))) {
                ASSERT_TRUE(answer.status == 200 || answer.status == 400) << answer.text;
            }
        }
    }

    const Amount amount_ = GetParam() == 1 ? kAll : kFewer;
    const std::vector<std::string> requests_ = AllRequests(amount_.step);
};
RDX_IN_BOTH_MODES(Memory);

// The heap mostly grows by less than 20 kB over such numbers of calls. The smallest block of memory takes 32
// bytes: one that stays behind with every call shows as 78 kB with the fewer of them, each time they are
// made. Threads that happen to allocate side by side can spread the heap by as much, but only once.
constexpr long kSlackKilobytes = 64;
constexpr int kRounds = 3;

// The system keeps some stacks for the next threads; of one that stayed behind with each call no more than
// these would fit.
constexpr long kProcessSlackKilobytes = 512;

TEST_P(Memory, StaysFlatOverThousandsOfMutatedPackets) {
    DeviceServer server(WithOneHeap(GetParam()));
    server.Play(kQuickDevice);
    ASSERT_TRUE(server.Start());
    Caller caller(server.Port(), GetParam());
    Send(caller, requests_.size()); // until everything that is kept on purpose is there
    std::vector<long> heap = {HeapKilobytes(server.Process().Pid())};
    ASSERT_GT(heap.front(), 0);
    const long resident = ResidentKilobytes(server.Process().Pid());
    ASSERT_GT(resident, 0);
    const auto growth = [&] { return heap.back() - heap.end()[-2]; };
    do {
        Send(caller, amount_.calls);
        heap.push_back(HeapKilobytes(server.Process().Pid()));
    } while (growth() > kSlackKilobytes && heap.size() <= kRounds);
    EXPECT_LE(growth(), kSlackKilobytes) << "kB: " << testing::PrintToString(heap);
    EXPECT_LE(ResidentKilobytes(server.Process().Pid()) - resident, kProcessSlackKilobytes);
}

#endif

} // namespace
} // namespace rdx::test
