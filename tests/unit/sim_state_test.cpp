// The state file's text, the line format under it, and where the files are.
#include "sim/ini.h"
#include "sim/simulation.h"
#include "sim/state.h"
#include "tests/support/guarded.h"
#include "tests/support/simulation.h"

#include <unistd.h>

namespace {

using namespace rdx::sim;
using rdx::test::GuardedBytes;
using rdx::test::TemporaryFolder;

std::string AllBytes() {
    std::string text;
    for (int byte = 1; byte < 256; ++byte) text += static_cast<char>(byte);
    return text;
}

State FullState() {
    return {.claim = {"Müller & \"Söhne\"", AllBytes(), " \t", "null"},
            .releasedBy = "untouched",
            .ip = {3, "1.2.3.4", "255.0.0.0", "", "host\n[device]\nowner = \"x\""},
            .firmwareRevision = -1,
            .selfTestEnds = 1'700'000'000'000,
            .selfTestReason = 4294967295,
            .configurationMode = 2,
            .attributes = {{"null", "null", true}, {"persistent", "", true}, {AllBytes(), "v", false}}};
}

std::optional<State> Read(const std::string& text, std::string& error) {
    const GuardedBytes bytes(text);
    return ReadState({bytes.begin(), text.size()}, error);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
    const std::size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
}

TEST(ReadState, ReadsWhatPrintStateWrote) {
    for (const State& state : {FactoryState(), FullState()}) {
        std::string error;
        EXPECT_EQ(Read(PrintState(state), error), state) << error;
    }
}

TEST(ReadState, RefusesEveryBeginningOfAState) {
    const std::string text = PrintState(FullState());
    for (std::size_t length = 0; length < text.size(); ++length) {
        std::string error;
        EXPECT_FALSE(Read(text.substr(0, length), error).has_value()) << length;
        EXPECT_NE(error, "") << length;
    }
}

TEST(ReadState, SaysWhatIsWrong) {
    const std::string good = PrintState(FactoryState());
    const std::pair<std::string, std::string> rows[] = {
        {"", "1: there is nothing in it"},
        {"\n\n", "1: there is nothing in it"},
        {good + "owner = \"me\"\n", "19: the rest is missing"},
        {good + "[other]\n", "19: not a line of this file"},
        {good + "junk\n", "19: neither '[section]' nor 'key = value'"},
        {Replaced(good, "[device]", "[gadget]"), "2: not a line of this file"},
        {Replaced(good, "owner = \"\"", "owner = me"), "3: not a line of this file"},
        {Replaced(good, "owner = \"\"", "owner = \"me"), "3: not a line of this file"},
        {Replaced(good, "owner = \"\"", "owners = \"\""), "3: not a line of this file"},
        {Replaced(good, "ip_mode = 2", "ip_mode = 0"), "12: not a line of this file"},
        {Replaced(good, "ip_mode = 2", "ip_mode = 4"), "12: not a line of this file"},
        {Replaced(good, "revision = 4711", "revision = 4294967296"), "13: not a line of this file"},
        {Replaced(good, "revision = 4711", "revision = x"), "13: not a line of this file"},
        {Replaced(good, "_ends = 0", "_ends = -1"), "14: not a line of this file"},
        {Replaced(good, "_ends = 0", "_ends = 9223372036854775807"), "14: not a line of this file"},
        {Replaced(good, "_reason = 0", "_reason = -2"), "15: not a line of this file"},
        {Replaced(good, "_mode = 0", "_mode = 3"), "16: not a line of this file"},
        {Replaced(good, "\"Bay 1\" ", ""), "17: not a line of this file"},
        {Replaced(good, "\"Bay 1\"", "null"), "17: not a line of this file"},
        {Replaced(good, "\"Location\"", "null"), "17: not a line of this file"},
        {Replaced(good, "complete = 1", "complete = 2"), "18: not a line of this file"},
    };
    for (const auto& [text, message] : rows) {
        std::string error;
        EXPECT_FALSE(Read(text, error).has_value()) << text;
        EXPECT_EQ(error, message) << text;
    }
    std::string error;
    EXPECT_TRUE(Read(good, error).has_value()) << error;
}

TEST(ReadState, SurvivesEveryByteThatIsWrong) {
    const std::string good = PrintState(FactoryState());
    for (std::size_t at = 0; at < good.size(); ++at) {
        for (const char byte : {'\0', '\n', '"', '\\', '=', '[', '\xff'}) {
            std::string text = good;
            text[at] = byte;
            std::string error;
            Read(text, error);
        }
    }
}

TEST(Quote, MakesAWordThatReadsBackAsTheSameBytes) {
    const std::string text = AllBytes();
    const std::string quoted = Quote(text);
    for (const char c : quoted) EXPECT_TRUE(static_cast<unsigned char>(c) >= ' ' && c != 0x7f);
    const std::optional<Word> word = ReadText(quoted);
    ASSERT_TRUE(word.has_value());
    EXPECT_EQ(word->text, text);
    EXPECT_EQ(Quote("a\"\\\n\r\t\x01ü"), "\"a\\\"\\\\\\n\\r\\t\\x01ü\"");
}

TEST(SplitWords, TakesQuotedAndBareWords) {
    const auto words = SplitWords("  a\t\"b c\"  \"\" d\"e  ");
    ASSERT_TRUE(words.has_value());
    ASSERT_EQ(words->size(), 4U);
    EXPECT_EQ((*words)[0].text, "a");
    EXPECT_EQ((*words)[1].text, "b c");
    EXPECT_TRUE((*words)[1].quoted);
    EXPECT_EQ((*words)[2].text, "");
    EXPECT_EQ((*words)[3].text, "d\"e");
    EXPECT_FALSE((*words)[3].quoted);
    EXPECT_TRUE(SplitWords("")->empty());
}

// --- Where the files are --------------------------------------------------------------------------------

// Sets an environment variable while it lives; null takes it out.
class Variable {
public:
    Variable(const char* name, const char* value) : name_(name) {
        if (const char* const before = std::getenv(name)) before_ = before;
        Set(value);
    }
    ~Variable() { Set(before_ ? before_->c_str() : nullptr); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    void Set(const char* value) const {
        if (value == nullptr) {
            unsetenv(name_);
        } else {
            setenv(name_, value, 1);
        }
    }

    const char* name_;
    std::optional<std::string> before_;
};

TEST(PathsFromEnvironment, TakesTheNamesThatAreGiven) {
    const Variable state("RDX_SIM_STATE", "a"), scenario("RDX_SIM_SCENARIO", "b"),
        calls("RDX_SIM_CALLS", "c");
    const Paths paths = PathsFromEnvironment();
    EXPECT_EQ(paths.state, "a");
    EXPECT_EQ(paths.scenario, "b");
    EXPECT_EQ(paths.calls, "c");
}

TEST(PathsFromEnvironment, KeepsTheStateSomewhereUnlessToldOtherwise) {
    const TemporaryFolder folder;
    const Variable scenario("RDX_SIM_SCENARIO", nullptr), calls("RDX_SIM_CALLS", nullptr);
    const std::string ours = "/tmp/rdx-sim-" + std::to_string(geteuid()) + ".state";
    {
        const Variable state("RDX_SIM_STATE", nullptr), home("XDG_STATE_HOME", nullptr);
        const Paths paths = PathsFromEnvironment();
        EXPECT_EQ(paths.state, ours);
        EXPECT_EQ(paths.scenario, "");
        EXPECT_EQ(paths.calls, "");
    }
    {
        const Variable state("RDX_SIM_STATE", nullptr), home("XDG_STATE_HOME", "relative");
        EXPECT_EQ(PathsFromEnvironment().state, ours);
    }
    {
        const std::string path = folder / "new/state";
        const Variable state("RDX_SIM_STATE", nullptr), home("XDG_STATE_HOME", path.c_str());
        EXPECT_EQ(PathsFromEnvironment().state, path + "/rdx-sim.state");
        EXPECT_TRUE(std::filesystem::is_directory(path));
    }
    const Variable state("RDX_SIM_STATE", "");
    EXPECT_EQ(PathsFromEnvironment().state, "");
}

// The device that every process has without a test's doing.
TEST(CurrentSimulation, IsMadeFromTheEnvironmentAtFirstUse) {
    const TemporaryFolder folder;
    const std::string path = folder / "state";
    const Variable state("RDX_SIM_STATE", path.c_str());
    Simulation& simulation = CurrentSimulation();
    EXPECT_EQ(&simulation, &CurrentSimulation());
    EXPECT_EQ(simulation.device.Allocate({"me", "c", "", ""}), kDone);
    EXPECT_NE(rdx::test::ReadWhole(path).find("owner = \"me\""), std::string::npos);
    EXPECT_EQ(simulation.device.StartSelfTest("me", 0, milliseconds(1), 0), kDone);
    EXPECT_EQ(simulation.device.AwaitSelfTest(milliseconds(10'000)), kDone) << "in real time";
}

} // namespace
