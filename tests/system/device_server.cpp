#include "tests/system/device_server.h"

#include "tests/support/escaped.h"
#include "tests/system/messages.h"

#include <algorithm>
#include <crypt.h>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace rdx::test {

namespace {

// The oldest kind of hash: checking it takes next to no time, which counts when a test calls often.
std::string Shadow() {
    crypt_data data = {};
    const char* hash = crypt_r(kPassword, "ab", &data);
    if (hash == nullptr || *hash == '*') hash = crypt_r(kPassword, "$5$rounds=1000$aSaltOfTheTest$", &data);
    return std::string(kUser) + ":" + (hash == nullptr ? "*" : hash) + ":19000:0:99999:7:::\n";
}

struct Extent {
    std::size_t begin;
    std::size_t length;
};

// Where an argument stands in a packet, and its value alone.
Extent Find(const std::string& packet, const std::string& name, bool valueAlone) {
    const std::string open = "<var name='" + name + "'>";
    const std::string close = "</var>";
    const std::size_t begin = packet.find(open);
    if (begin == std::string::npos) std::abort();
    std::size_t end = begin + open.size();
    for (int depth = 1; depth > 0;) { // past the arguments that its value holds
        const std::size_t inner = packet.find("<var ", end);
        const std::size_t closing = packet.find(close, end);
        if (closing == std::string::npos) std::abort();
        depth += inner < closing ? 1 : -1;
        end = inner < closing ? inner + 1 : closing + close.size();
    }
    if (!valueAlone) return {begin, end - begin};
    return {begin + open.size(), end - begin - open.size() - close.size()};
}

} // namespace

const char* const kEveryday = R"(
[rDxGetOwner]
owner = Workstation 7
allocated_by = 10.0.0.7:40123
[rDxReleaseDevice]
released_by = 10.0.0.7:40123
[rDxGetDeviceType]
type = KAVO
[rDxGetNetInterface]
interface = lo
[rDxGetIpConfiguration]
mode = 2
[rDxGetActiveIpConf]
ip_address = 192.168.0.10
netmask = 255.255.255.0
gateway = 192.168.0.1
[rDxGetFirmwareRev]
revision = 4711
[rDxGetAllocStatus]
controlled = 1
allocation = 1
owner = Workstation 7
controlling_client = 10.0.0.7
[rDxGetCurrentSelftestStatus]
code = 0
reason = 0
[rDxGetVehicleStatus]
terminal15 = 12300
terminal30 = 12500
td_period = 375
td_valid = 1
kline = 5
lline = 6
most = 1
[rDxGetTransmissionQuality]
quality = 95
)";

DeviceServer::DeviceServer(ServerOptions options) : server_(With(std::move(options))) {}

ServerOptions DeviceServer::With(ServerOptions options) const {
    options.shadow = Shadow();
    options.environment.emplace_back("RDX_SIM_SCENARIO", scenario_);
    options.environment.emplace_back("RDX_SIM_CALLS", calls_);
    return options;
}

void DeviceServer::Play(std::string_view scenario) const {
    WriteFile(scenario_ + ".new", std::string(scenario));
    std::filesystem::rename(scenario_ + ".new", scenario_);
}

std::vector<std::string> DeviceServer::TakeCalls() {
    std::ifstream record(calls_, std::ios::binary);
    record.seekg(seen_);
    std::vector<std::string> calls;
    for (std::string line; std::getline(record, line);) {
        seen_ += static_cast<std::streamoff>(line.size() + 1);
        calls.push_back(line);
    }
    return calls;
}

std::string Authorization() { return BasicAuthorization(kUser, kPassword); }

std::string UserCall(const std::string& method, const std::string& packet) {
    return Call(method, packet, {Authorization()});
}

std::string UserForm(const std::string& method, const std::string& packet) {
    return FormCall(FormPart("FunctionName", method) + FormPart("FunctionArgs", packet) + "--AbC--\r\n",
                    {Authorization()});
}

std::string GoldenPath(const std::string& method, const std::string& name) {
    return std::string(RDX_TEST_GOLDEN) + "/" + method + "/" + name + ".xml";
}

std::string Golden(const std::string& method, const std::string& name) {
    std::string text = ReadFile(GoldenPath(method, name));
    if (text.empty()) ADD_FAILURE() << "no " << GoldenPath(method, name);
    return text;
}

const std::vector<std::string>& Methods() {
    static const std::vector<std::string> kMethods = [] {
        std::vector<std::string> names;
        for (const auto& folder : std::filesystem::directory_iterator(RDX_TEST_GOLDEN)) {
            if (std::filesystem::exists(folder.path() / "arguments.xml"))
                names.push_back(folder.path().filename());
        }
        std::ranges::sort(names);
        return names;
    }();
    return kMethods;
}

std::string Arguments(const std::string& method) { return Golden(method, "arguments"); }

std::string ArgumentsWith(const std::string& method, const std::string& name, const std::string& value) {
    std::string packet = Arguments(method);
    const Extent old = Find(packet, name, true);
    return packet.replace(old.begin, old.length, value);
}

std::string ArgumentsWithout(const std::string& method, const std::string& name) {
    std::string packet = Arguments(method);
    const Extent old = Find(packet, name, false);
    return packet.erase(old.begin, old.length);
}

std::string ArgumentIn(const std::string& packet, const std::string& name) {
    const Extent value = Find(packet, name, true);
    return packet.substr(value.begin, value.length);
}

void Replace(std::string& text, const std::string& what, const std::string& by) {
    const std::size_t at = text.find(what);
    if (at != std::string::npos) text.replace(at, what.size(), by);
}

std::string Result(const std::string& function, int result) {
    return "[" + function + "]\nresult = " + std::to_string(result) + "\n";
}

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

std::string StringValue(std::string_view text) { return "<string>" + Escaped(text) + "</string>"; }

std::string NumberValue(int number) { return "<number>" + std::to_string(number) + "</number>"; }

} // namespace rdx::test
