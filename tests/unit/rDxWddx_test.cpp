#include "rDxsd/rDxWddx.h"

#include "rDxsd/values.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"

#include <chrono>
#include <gtest/gtest.h>
#include <string>

namespace rdx {
namespace {

// The text a value prints as.
std::string Printed(WddxValue* value) {
    char* text = static_cast<char*>(std::calloc(1, 1));
    const int printed = printWddxTagToVar(&text, value);
    std::string result = printed == 1 ? text : "(not printed)";
    std::free(text);
    return result;
}

std::string Printed(const OwnedValue& value) { return Printed(value.get()); }

std::string PacketOf(const std::string& value) {
    return "<wddxPacket version='1.0'><header/><data>" + value + "</data></wddxPacket>";
}

// The parsed arguments of a packet whose structure holds `members`.
OwnedValue ArgumentsOf(const std::string& members) {
    std::string packet = PacketOf("<struct>" + members + "</struct>");
    WddxValue* arguments = nullptr;
    EXPECT_EQ(ParseWddxPacketData(packet.data(), &arguments), 0) << packet;
    return OwnedValue(arguments);
}

// Runs `make` with the first, the second ... call of `function` failing, until one run needs no more calls.
// Every run that a fault struck must give null. `make` gets a value to hand on. Returns how many were struck.
template <typename Make>
int FailEach(const char* function, Make make) {
    for (int nth = 1;; ++nth) {
        OwnedValue detail(wddxCreateString("detail"));
        const test::FailCall fault(function, nth);
        const OwnedValue value(make(std::move(detail)));
        if (!fault.Struck()) {
            EXPECT_NE(value, nullptr);
            return nth - 1;
        }
        EXPECT_EQ(value, nullptr) << function << " " << nth;
    }
}

constexpr const char* kStatusOfSeven =
    "<struct><var name='code'><number>7</number></var><var name='msg'><number>-9</number></var>"
    "<var name='params'><null/></var></struct>";

TEST(CreateWddxStatus, HoldsCodeReasonAndDetailInThisOrder) {
    WddxValue* const params = wddxCreateArray(1);
    EXPECT_EQ(Printed(OwnedValue(CreateWddxStatus(42010, 9003, params))),
              "<struct><var name='code'><number>42010</number></var>"
              "<var name='msg'><number>9003</number></var>"
              "<var name='params'><array length='1'><null/></array></var></struct>");
}

TEST(CreateWddxStatus, TurnsMissingDetailIntoANullValue) {
    EXPECT_EQ(Printed(OwnedValue(CreateWddxStatus(7, -9, nullptr))), kStatusOfSeven);
}

TEST(CreateWddxStatus, IsNullWhenMemoryIsShort) {
    const auto make = [](OwnedValue detail) { return CreateWddxStatus(1, 2, detail.release()); };
    EXPECT_GT(FailEach("malloc", make), 0);
    EXPECT_GT(FailEach("calloc", make), 0);
    EXPECT_GT(FailEach("calloc", [](const OwnedValue&) { return CreateWddxStatus(1, 2, nullptr); }), 0);
}

TEST(CreateWddxStatusPacket, HoldsTheStatusUnderACapitalKey) {
    EXPECT_EQ(Printed(OwnedValue(CreateWddxStatusPacket(7, -9, nullptr))),
              "<struct><var name='Status'>" + std::string(kStatusOfSeven) + "</var></struct>");
}

TEST(CreateWddxStatusPacket, IsNullWhenMemoryIsShort) {
    const auto make = [](OwnedValue detail) { return CreateWddxStatusPacket(1, 2, detail.release()); };
    EXPECT_GT(FailEach("malloc", make), 0);
    EXPECT_GT(FailEach("calloc", make), 0);
}

TEST(GetStatusParams, FindsNothingInAPacketMadeHere) {
    const OwnedValue packet(CreateWddxStatusPacket(7, -9, wddxCreateString("detail")));
    EXPECT_EQ(GetStatusParams(packet.get()), nullptr);
}

TEST(GetStatusParams, FindsTheDetailUnderTheLowerCaseKey) {
    const OwnedValue packet(wddxCreateStruct());
    ASSERT_TRUE(SetMember(packet, "status", OwnedValue(CreateWddxStatus(7, -9, wddxCreateString("detail")))));
    EXPECT_EQ(Printed(GetStatusParams(packet.get())), "<string>detail</string>");
}

TEST(GetStatusParams, OfNoPacketIsNull) { EXPECT_EQ(GetStatusParams(nullptr), nullptr); }

TEST(CreateWddxOwner, NamesTheAllocatingClientFirst) {
    EXPECT_EQ(Printed(OwnedValue(CreateWddxOwner("bay 4", "192.0.2.7:51234"))),
              "<struct><var name='AllocatedBy'><string>192.0.2.7:51234</string></var>"
              "<var name='DeviceOwner'><string>bay 4</string></var></struct>");
}

TEST(CreateWddxOwner, TurnsMissingTextsIntoEmptyOnes) {
    EXPECT_EQ(Printed(OwnedValue(CreateWddxOwner(nullptr, nullptr))),
              "<struct><var name='AllocatedBy'><string></string></var>"
              "<var name='DeviceOwner'><string></string></var></struct>");
}

TEST(CreateWddxOwner, IsNullWhenMemoryIsShort) {
    const auto make = [](const OwnedValue&) { return CreateWddxOwner("owner", "client"); };
    EXPECT_GT(FailEach("malloc", make), 0);
    EXPECT_GT(FailEach("calloc", make), 0);
}

TEST(SetMember, RefusesWhatDoesNotExist) {
    const OwnedValue structure(wddxCreateStruct());
    EXPECT_FALSE(SetMember(structure, "name", nullptr));
    EXPECT_FALSE(SetMember(nullptr, "name", OwnedValue(wddxCreateNull())));
    const OwnedValue number(wddxCreateInteger(1));
    EXPECT_FALSE(SetMember(number, "name", OwnedValue(wddxCreateNull())));
}

// ------------------------------------------------------------------------------------------------ parsing

struct PacketCase {
    const char* why;
    std::string text;
    int code;
};

TEST(ParseWddxPacketData, TellsWhatIsWrong) {
    const PacketCase cases[] = {
        {"an unterminated tag", "<wddxPacket version='1.0'><header/><data><struct", -2},
        {"no packet", "hello", 400},
        {"nothing but white space", " \r\n\t", 400},
        {"a self-closed data element", "<wddxPacket version='1.0'><header/><data/></wddxPacket>", 400},
        {"an empty structure", PacketOf("<struct></struct>"), 400},
        {"an unknown tag", PacketOf("<struct><var name='a'><date/></var></struct>"), 400},
        {"an array", PacketOf("<array length='1'><null/></array>"), -3},
        {"an empty array", PacketOf("<array length='0'></array>"), -3},
        {"a text", PacketOf("<string>a</string>"), -3},
        {"a null value", PacketOf("<null/>"), -3},
        {"a good packet", PacketOf("<struct><var name='a'><null/></var></struct>"), 0},
    };
    for (PacketCase packet : cases) {
        const OwnedValue before(wddxCreateNull());
        WddxValue* value = before.get();
        EXPECT_EQ(ParseWddxPacketData(packet.text.data(), &value), packet.code) << packet.why;
        EXPECT_EQ(value != nullptr, packet.code == 0) << packet.why;
        const OwnedValue owner(value);
    }
}

TEST(ParseWddxPacketData, RefusesAMissingText) {
    const OwnedValue before(wddxCreateNull());
    WddxValue* value = before.get();
    EXPECT_EQ(ParseWddxPacketData(nullptr, &value), -1);
    EXPECT_EQ(value, nullptr);
}

TEST(ParseWddxPacketData, AcceptsWhiteSpaceBetweenTags) {
    std::string packet =
        "<?xml version='1.0'?>\r\n<wddxPacket version='1.0'>\n <header/>\n <data>\n  <struct>\n\t"
        "<var name='a'>\n<number> 12 </number>\n</var></struct></data></wddxPacket>\n";
    WddxValue* arguments = nullptr;
    ASSERT_EQ(ParseWddxPacketData(packet.data(), &arguments), 0);
    const OwnedValue owner(arguments);
    int number = 0;
    EXPECT_EQ(GetDataIntParam(arguments, "a", &number), 0);
    EXPECT_EQ(number, 12);
}

TEST(ParseWddxPacketData, ReadsNothingBehindTheText) {
    const std::string good = PacketOf("<struct><var name='a'><string> x </string></var></struct>");
    for (std::size_t length = 1; length <= good.size(); ++length) {
        const test::GuardedBytes text(good.substr(0, length) + '\0');
        WddxValue* value = nullptr;
        const int code = ParseWddxPacketData(text.begin(), &value);
        const OwnedValue owner(value);
        EXPECT_EQ(code == 0, length == good.size()) << good.substr(0, length);
    }
}

TEST(ParseWddxPacketDataDeathTest, EndsTheProcessOnAnEmptyText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char text[] = "";
    WddxValue* value = nullptr;
    EXPECT_DEATH(ParseWddxPacketData(text, &value),
                 "rDxsd/rDxWddx\\.cpp:[0-9]+: int TrimWddxArgs\\(char ?\\*\\): Assertion `alen > 0' failed");
}

// ------------------------------------------------------------------------------------------------ reading

constexpr const char* kEveryType =
    "<var name='text'><string>abc</string></var><var name='empty'><string></string></var>"
    "<var name='number'><number>-12</number></var><var name='float'><number>1.5</number></var>"
    "<var name='yes'><boolean value='true'/></var><var name='no'><boolean value='false'/></var>"
    "<var name='null'><null/></var><var name='array'><array length='1'><null/></array></var>"
    "<var name='struct'><struct><var name='x'><null/></var></struct></var>";

TEST(GetDataStringParam, ReadsStringsOnly) {
    const OwnedValue arguments = ArgumentsOf(kEveryType);
    EXPECT_STREQ(GetDataStringParam(arguments.get(), "text"), "abc");
    EXPECT_STREQ(GetDataStringParam(arguments.get(), "empty"), "");
    for (const char* name : {"number", "float", "yes", "null", "array", "struct", "TEXT", "missing"}) {
        EXPECT_EQ(GetDataStringParam(arguments.get(), name), nullptr) << name;
    }
    EXPECT_EQ(GetDataStringParam(nullptr, "text"), nullptr);
}

TEST(GetDataStringParam, PointsIntoTheTree) {
    const OwnedValue arguments = ArgumentsOf(kEveryType);
    char* text = nullptr;
    ASSERT_EQ(wddxGetString(&text, wddxGetStructVar(arguments.get(), "text")), 1);
    EXPECT_EQ(GetDataStringParam(arguments.get(), "text"), text);
}

TEST(GetDataIntParam, ReadsIntegersAndBooleans) {
    const OwnedValue arguments = ArgumentsOf(kEveryType);
    int number = 99;
    EXPECT_EQ(GetDataIntParam(arguments.get(), "number", &number), 0);
    EXPECT_EQ(number, -12);
    EXPECT_EQ(GetDataIntParam(arguments.get(), "yes", &number), 0);
    EXPECT_EQ(number, 1);
    EXPECT_EQ(GetDataIntParam(arguments.get(), "no", &number), 0);
    EXPECT_EQ(number, 0);
}

TEST(GetDataIntParam, LeavesTheNumberAloneOtherwise) {
    const OwnedValue arguments = ArgumentsOf(kEveryType);
    for (const char* name : {"text", "float", "null", "array", "struct", "Number", "missing"}) {
        int number = 99;
        EXPECT_EQ(GetDataIntParam(arguments.get(), name, &number), -1) << name;
        EXPECT_EQ(number, 99) << name;
    }
    EXPECT_EQ(GetDataIntParam(nullptr, "number", nullptr), -1);
    EXPECT_EQ(GetDataIntParam(arguments.get(), "yes", nullptr), -1);
}

TEST(GetDataIntParam, CountsEveryTrueByteAsOne) {
    const OwnedValue structure(wddxCreateStruct());
    ASSERT_TRUE(SetMember(structure, "flag", OwnedValue(wddxCreateBoolean(200))));
    int number = 0;
    EXPECT_EQ(GetDataIntParam(structure.get(), "flag", &number), 0);
    EXPECT_EQ(number, 1);
}

TEST(GetDataArrayParam, ReadsArraysOnly) {
    const OwnedValue arguments = ArgumentsOf(kEveryType);
    EXPECT_EQ(wddxGetArraySize(GetDataArrayParam(arguments.get(), "array")), 1);
    for (const char* name : {"text", "number", "float", "yes", "null", "struct", "Array", "missing"}) {
        EXPECT_EQ(GetDataArrayParam(arguments.get(), name), nullptr) << name;
    }
    EXPECT_EQ(GetDataArrayParam(nullptr, "array"), nullptr);
}

// ----------------------------------------------------------------------------------------------- trimming

struct TrimCase {
    const char* why;
    std::string text;
    int code;
    std::string trimmed;
};

const TrimCase kTrimCases[] = {
    {"a packet with a string",
     "<wddxPacket version='1.0'><header/><data><struct>\n <var name='a'><string> x </string></var></struct>"
     "</data></wddxPacket>",
     0,
     "<wddxPacket version='1.0'><header/><data><struct><var name='a'><string> x </string></var></struct>"
     "</data></wddxPacket>"},
    {"each blank there is", "a\rb\nc\td e", 0, "abcde"},
    {"other white space stays", "a\vb\fc", 0, "a\vb\fc"},
    {"nothing but blanks", " \r\n\t", 0, ""},
    {"nothing to trim", "abc", 0, "abc"},
    {"blanks inside a tag stay", "< a  b='c d' > x", 0, "< a  b='c d' >x"},
    {"blanks in a string stay", "<string> a\r\n\tb </string> c", 0, "<string> a\r\n\tb </string>c"},
    {"a string ends at the next tag", "<string> a <null/> b", 0, "<string> a <null/>b"},
    {"the last tag of a run counts", "<var><string> a", 0, "<var><string> a"},
    {"an end tag opens nothing", "</string> a", 0, "</string>a"},
    {"a self-closed tag opens nothing", "<string/> a", 0, "<string/>a"},
    {"a blank in the tag opens nothing", "<string > a", 0, "<string >a"},
    {"a shorter tag opens nothing", "<> a <s> b <str> c <strin> d", 0, "<>a<s>b<str>c<strin>d"},
    {"a longer tag opens nothing", "<strings> a", 0, "<strings>a"},
    {"letter case counts", "<STRING> a", 0, "<STRING>a"},
    {"a tag ends at the first \">\"", "<a b='>'> c", 0, "<a b='>'>c"},
    {"a \"<\" inside a tag is the tag's", "<a <string> b", 0, "<a <string>b"},
    {"bytes above 127 stay", "\xFF \xE4", 0, "\xFF\xE4"},
    {"an unterminated tag", "a b <c d", -1, "ab<c d"},
    {"an unterminated tag behind a string", "<string> a </string", -1, "<string> a </string"},
    {"nothing but an unterminated tag", "<", -1, "<"},
};

TEST(TrimWddxArgs, RemovesBlanksOutsideTagsAndStrings) {
    for (const TrimCase& sample : kTrimCases) {
        std::string text = sample.text;
        EXPECT_EQ(TrimWddxArgs(text.data()), sample.code) << sample.why;
        EXPECT_EQ(std::string(text.c_str()), sample.trimmed) << sample.why;
    }
}

TEST(TrimWddxArgs, StaysInsideTheTextAtEveryLength) {
    for (const TrimCase& sample : kTrimCases) {
        for (std::size_t length = 1; length <= sample.text.size(); ++length) {
            const test::GuardedBytes text(sample.text.substr(0, length) + '\0');
            TrimWddxArgs(text.begin());
            EXPECT_EQ(text.end()[-1], '\0');
        }
    }
}

TEST(TrimWddxArgs, TakesTimeInProportionToTheText) {
    // A step back over the rest of the text for each blank would take minutes.
    std::string text;
    for (int i = 0; i < 1'000'000; ++i) text += " a\n<b>";
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(TrimWddxArgs(text.data()), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    EXPECT_EQ(std::string_view(text.c_str()).size(), 4'000'000U);
}

TEST(TrimWddxArgsDeathTest, EndsTheProcessOnAMissingOrEmptyText) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        TrimWddxArgs(nullptr),
        "rDxsd/rDxWddx\\.cpp:[0-9]+: int TrimWddxArgs\\(char ?\\*\\): Assertion `p != __null' failed");
    char empty[] = "";
    EXPECT_DEATH(TrimWddxArgs(empty), "Assertion `alen > 0' failed");
}

} // namespace
} // namespace rdx
