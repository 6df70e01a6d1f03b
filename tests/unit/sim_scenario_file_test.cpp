// The scenario's text and its mistakes, and the examples of its document.
#include "rDxsd/rDxSvcs.h"
#include "sim/ini.h"
#include "tests/support/guarded.h"
#include "tests/support/simulation.h"

#include <cstring>
#include <set>
#include <sstream>
#include <vector>

namespace {

using namespace rdx::sim;
using namespace rdx::test;

// --- The file -------------------------------------------------------------------------------------------

std::vector<std::string> MessagesFor(const std::string& text) {
    std::vector<std::string> messages;
    const GuardedBytes bytes(text);
    ReadScenario({bytes.begin(), text.size()}, "FILE", messages);
    return messages;
}

constexpr char kAnInt[] = "accepted: a number from -2147483648 to 2147483647";
const std::vector<std::pair<const char*, std::string>> kMistakes = {
    {"[rDxGetOwners]\nowner = me\n", "1: unknown section [rDxGetOwners]; accepted: rDxAllocateDevice, "},
    {"[]\n", "1: unknown section []; accepted: rDxAllocateDevice, "},
    {"\n\n[rDxGetOwner\nowner = me\n", "3: a section's line ends with ']'; its keys are left out"},
    {"owner = me\n", "1: 'owner' stands before the first [section]"},
    {"[rDxGetOwner]\nowner me\n", "2: neither '[section]' nor 'key = value'"},
    {"[rDxGetOwner]\n= me\n", "2: neither '[section]' nor 'key = value'"},
    {"[rDxGetOwner]\nvolts = 1\n",
     "2: unknown key 'volts' in [rDxGetOwner]; accepted: result, delay_ms, owner, allocated_by"},
    {"[rDxGetOwner]\nattribute = a b volatile\n", "2: unknown key 'attribute' in [rDxGetOwner]; accepted: "},
    {"[rDxGetOwner]\nresult = two\n", std::string("2: bad value 'two' for 'result'; ") + kAnInt},
    {"[rDxGetOwner]\nresult =\n", "2: bad value '' for 'result'; "},
    {"[rDxGetOwner]\nresult = 2 ; owned\n", "2: bad value '2 ; owned' for 'result'; "},
    {"[rDxGetOwner]\nresult = untouched\n", std::string("2: bad value 'untouched' for 'result'; ") + kAnInt},
    {"[rDxGetOwner]\nresult = 2147483648\n", "2: bad value '2147483648' for 'result'; "},
    {"[rDxGetOwner]\nresult = 99999999999999999999\n", "2: bad value '99999999999999999999' for 'result'; "},
    {"[rDxGetOwner]\nresult = 0x\n", "2: bad value '0x' for 'result'; "},
    {"[rDxGetOwner]\nresult = 0x-1\n", "2: bad value '0x-1' for 'result'; "},
    {"[rDxGetOwner]\nresult = +1\n", "2: bad value '+1' for 'result'; "},
    {"[rDxGetOwner]\ndelay_ms = -1\n",
     "2: bad value '-1' for 'delay_ms'; accepted: milliseconds from 0 to 600000"},
    {"[rDxGetOwner]\ndelay_ms = 600001\n", "2: bad value '600001' for 'delay_ms'; "},
    {"[rDxGetIpConfiguration]\nmode = x\n",
     std::string("2: bad value 'x' for 'mode'; ") + kAnInt + ", or untouched"},
    {"[rDxGetFirmwareRev]\nrevision = -2\n", "2: bad value '-2' for 'revision'; accepted: a number from 0 to "
                                             "4294967295, or -1 for all bits set, or untouched"},
    {"[rDxGetFirmwareRev]\nrevision = 4294967296\n", "2: bad value '4294967296' for 'revision'; "},
    {"[rDxUpdateDeviceFirmware]\nnew_revision = untouched\n",
     "2: bad value 'untouched' for 'new_revision'; accepted: a number from 0 to 4294967295, or -1 for all "
     "bits "
     "set"},
    {"[rDxGetOwner]\nowner = \"me\n",
     "2: bad value '\"me' for 'owner'; accepted: a text, if it is quoted with every quote closed and "},
    {"[rDxGetOwner]\nowner = \"me\" you\n", "2: bad value '\"me\" you' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\q\"\n", "2: bad value '\"\\q\"' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\x0\"\n", "2: bad value '\"\\x0\"' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\x00\"\n", "2: bad value '\"\\x00\"' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\xg1\"\n", "2: bad value '\"\\xg1\"' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\", "2: bad value '\"\\' for 'owner'; "},
    {"[rDxGetOwner]\nowner = \"\\x", "2: bad value '\"\\x' for 'owner'; "},
    {"[rdxGetDeviceAttributes]\nattribute = a b\n", "2: bad value 'a b' for 'attribute'; accepted: a name, a "
                                                    "value (both quoted texts or null) and persistent "
                                                    "or volatile"},
    {"[rdxGetDeviceAttributes]\nattribute = a b c\n", "2: bad value 'a b c' for 'attribute'; "},
    {"[rdxGetDeviceAttributes]\nattribute = a b \"volatile\"\n",
     "2: bad value 'a b \"volatile\"' for 'attribute'; "},
    {"[rdxGetDeviceAttributes]\nattribute = a b volatile c\n", "2: bad value 'a b volatile c' for "},
    {"[rdxGetDeviceAttributes]\nattribute = \"a b volatile\n", "2: bad value '\"a b volatile' for "},
    {"[rdxGetDeviceAttributes]\ncount = 1001\n",
     "2: bad value '1001' for 'count'; accepted: a number from -1 to 1000"},
};

TEST(ReadScenario, SaysWhereAMistakeIsAndWhatWouldBeAccepted) {
    for (const auto& [text, message] : kMistakes) {
        const std::vector<std::string> messages = MessagesFor(text);
        ASSERT_EQ(messages.size(), 1U) << text;
        EXPECT_TRUE(messages[0].starts_with("FILE:" + message)) << messages[0] << "\n" << message;
    }
}

TEST(ReadScenario, NamesEveryFunctionWhenASectionIsUnknown) {
    const std::string message = MessagesFor("[x]\n").at(0);
    for (std::size_t i = 0; i < kFunctions; ++i) {
        EXPECT_TRUE(Holds(message, std::string(NameOf(static_cast<Function>(i))))) << i;
    }
}

TEST(ReadScenario, RefusesANulInAValue) {
    using namespace std::string_literals;
    EXPECT_EQ(MessagesFor("[rDxGetOwner]\nowner = a\0b\n"s).size(), 1U);
    EXPECT_EQ(MessagesFor("[rDxGetOwner]\nowner = \"a\0b\"\n"s).size(), 1U);
    EXPECT_EQ(MessagesFor("[rdxGetDeviceAttributes]\nattribute = a\0 b volatile\n"s).size(), 1U);
    EXPECT_EQ(MessagesFor("[rDxGetOwner]\nresult = 1\0\n"s).size(), 1U);
}

TEST(ReadScenario, ReportsMistakesInTheOrderOfTheLines) {
    const std::vector<std::string> messages = MessagesFor("[rDxGetOwner]\nx = 1\n\ny\nz = 1\n");
    ASSERT_EQ(messages.size(), 3U);
    EXPECT_TRUE(messages[0].starts_with("FILE:2:"));
    EXPECT_TRUE(messages[1].starts_with("FILE:4:"));
    EXPECT_TRUE(messages[2].starts_with("FILE:5:"));
}

TEST(ReadScenario, AcceptsCommentsBlanksAnyCaseAndForeignLineEnds) {
    std::vector<std::string> messages;
    const Scenario scenario =
        ReadScenario("# one\r\n ; two = 2\r\n\r\n\t[ RDXGETOWNER ] \r\n"
                     "  Result=-7  \r\nOWNER =  a = b ; c \r\n[rDxGetOwner]\nresult = 8",
                     "FILE", messages);
    EXPECT_TRUE(messages.empty());
    const Rule& rule = scenario.For(Function::kGetOwner);
    EXPECT_EQ(rule.Number(Key::kResult, 0), 8) << "the later one counts";
    ASSERT_NE(rule.Find(Key::kOwner), nullptr);
    EXPECT_EQ(rule.Find(Key::kOwner)->text, "a = b ; c");
}

TEST(ReadScenario, ReadsEveryBeginningOfAScenario) {
    const std::string text =
        "[rdxGetDeviceAttributes]\nattribute = \"\\x41\\\"\" null volatile\ncount = 0x1F\n"
        "[rDxGetOwner]\nowner = \"\\n\\t\\r\\\\\"\nresult = -1\n";
    for (std::size_t length = 0; length <= text.size(); ++length) MessagesFor(text.substr(0, length));
    EXPECT_TRUE(MessagesFor(text).empty());
}

// --- The document ---------------------------------------------------------------------------------------

// The fenced examples of the document that are marked as `kind`.
std::vector<std::string> Examples(const std::string& kind) {
    std::istringstream document(ReadWhole(RDX_SOURCE_DIR "/docs/simulator.md"));
    std::vector<std::string> examples;
    bool inside = false;
    for (std::string line; std::getline(document, line);) {
        if (line.starts_with("```")) {
            inside = !inside && line == "```" + kind;
            if (inside) examples.emplace_back();
        } else if (inside) {
            examples.back() += line + "\n";
        }
    }
    return examples;
}

using FullKey = std::pair<std::string, std::string>; // section and key

TEST(SimulatorDocument, HasExamplesThatAreAccepted) {
    const std::vector<std::string> examples = Examples("ini");
    EXPECT_GT(examples.size(), 15U);
    for (const std::string& example : examples) {
        EXPECT_EQ(MessagesFor(example), std::vector<std::string>()) << example;
    }
}

TEST(SimulatorDocument, ShowsEveryKeyThatIsAccepted) {
    std::set<FullKey> shown;
    for (const std::string& example : Examples("ini")) {
        std::istringstream lines(example);
        std::string section;
        for (std::string line; std::getline(lines, line);) {
            if (line.starts_with("[")) section = line.substr(1, line.size() - 2);
            const std::size_t equals = line.find(" = ");
            if (equals == std::string::npos || line.starts_with("#")) continue;
            const std::string key = line.substr(0, equals);
            const bool common = key == "result" || key == "delay_ms";
            shown.insert({common ? "" : section, key});
        }
    }
    std::set<FullKey> accepted;
    for (const KeyRow& row : AllKeys()) {
        accepted.insert(
            {std::string(row.function ? NameOf(*row.function) : std::string_view{}), std::string(row.name)});
    }
    EXPECT_EQ(shown, accepted);
}

TEST(SimulatorDocument, NamesEveryFunction) {
    const std::string document = ReadWhole(RDX_SOURCE_DIR "/docs/simulator.md");
    for (std::size_t i = 0; i < kFunctions; ++i) {
        EXPECT_TRUE(Holds(document, Section(static_cast<Function>(i)))) << i;
    }
}

TEST(SimulatorDocument, QuotesAMessageAsItIs) {
    std::vector<std::string> messages;
    ReadScenario("[rDxGetOwner]\nvolts = 1\n", "scenario.ini", messages);
    ASSERT_EQ(messages.size(), 1U);
    EXPECT_EQ(Examples("text").at(0), "libDxSvcs: " + messages[0] + "\n");
}

TEST(SimulatorDocument, ShowsCallsAsTheyAreRecorded) {
    char location[] = "Location";
    char bay[] = "Bay \"2\"";
    char empty[] = "";
    char* const names[] = {location, nullptr};
    char* const values[] = {bay, empty};
    const int flags[] = {1, 0};
    std::string record = PrintCall("rDxAllocateDevice", {{"client", "10.0.0.7:40123"},
                                                         {"owner", kMe},
                                                         {"address", "10.0.0.7"},
                                                         {"ports", "3000,3001"},
                                                         {"flag", 1}});
    record += PrintCall("rDxSetDeviceAttributes", {{"owner", kMe},
                                                   {"names", std::span<char* const>(names)},
                                                   {"values", std::span<char* const>(values)},
                                                   {"persistence", std::span<const int>(flags)},
                                                   {"count", 2},
                                                   {"enforce", 3}});
    record += PrintCall("rDxUpdateDeviceFirmware", {{"owner", kMe},
                                                    {"url", "http://10.0.0.7/kavo.bin"},
                                                    {"revision", -1},
                                                    {"signed", 1},
                                                    {"method_of_trust", ""},
                                                    {"ca_certificate", ""}});
    record += PrintCall("rDxGetFirmwareRev", {});
    EXPECT_EQ(Examples("text").at(1), record);
}

TEST(SimulatorDocument, ShowsAStateFileAsTheDeviceWritesIt) {
    State state = FactoryState();
    state.claim = {kMe, "10.0.0.7:40123", "10.0.0.7", "3000,3001"};
    EXPECT_EQ(Examples("text").at(2), PrintState(state));
}

} // namespace
