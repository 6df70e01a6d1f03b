#include "wddx/wddx.h"

#include "common/mt.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace rdx {
namespace {

using test::Packet;
using test::Parse;
using test::Printed;
using test::Repeated;
using test::Text;
using test::Tree;

constexpr std::size_t kLargestBody = 65536; // bytes of an argument packet under the default settings

// What the value in a packet reads as, printed; "" when the packet does not parse.
std::string Meaning(const std::string& value) {
    const Tree tree = Parse(Packet(value));
    return tree ? Printed(tree.get()) : "";
}

bool Parses(const std::string& packet) { return Parse(packet) != nullptr; }

// Values ----------------------------------------------------------------------------------------------

TEST(CreateWddxValue, FailsForWhatIsNoValue) {
    EXPECT_EQ(createWddxValue(nullptr), nullptr);
    for (const unsigned int id : {0U, 1U, 2U, 4U, 8U, 16U, 32U, 512U, 8192U, 16384U, 65536U}) {
        WddxElement element = {};
        element.dwId = id;
        EXPECT_EQ(createWddxValue(&element), nullptr) << id;
    }
}

TEST(CreateWddxValue, FailsForElementsThatLackTheirText) {
    for (const unsigned int id : {128U, 256U, 2048U}) {
        WddxElement element = {};
        element.dwId = id;
        EXPECT_EQ(createWddxValue(&element), nullptr) << id;
    }
}

TEST(CreateWddxValue, FailsForAStructWithBadMembers) {
    WddxElement null = {};
    null.dwId = 64;
    char name[] = "x";
    WddxElement var = {};
    var.dwId = 32;
    var.pszText = name;
    var.pFirstChild = &null;
    WddxElement structure = {};
    structure.dwId = 4096;
    structure.pFirstChild = &var;
    EXPECT_NE(Tree(createWddxValue(&structure)), nullptr);
    var.pszText = nullptr;
    EXPECT_EQ(createWddxValue(&structure), nullptr) << "no name";
    var.pszText = name;
    var.pFirstChild = nullptr;
    EXPECT_EQ(createWddxValue(&structure), nullptr) << "no value";
    var.pFirstChild = &null;
    var.dwId = 64;
    EXPECT_EQ(createWddxValue(&structure), nullptr) << "no var";
}

struct Reading {
    const char* text;
    const char* meaning; // as printed; "" when it does not parse
};

constexpr Reading kReadings[] = {
    {"<null/>", "<null/>"},
    {"<null />", "<null/>"},
    {"<null></null>", ""},
    {"<null>x</null>", ""},
    {"<boolean value='true'/>", "<boolean value='true'/>"},
    {"<boolean value='false'/>", "<boolean value='false'/>"},
    {"<boolean value='TRUE'/>", "<boolean value='false'/>"},
    {"<boolean value='true '/>", "<boolean value='false'/>"},
    {"<boolean value='1'/>", "<boolean value='false'/>"},
    {"<boolean value='true'></boolean>", ""},
    {"<boolean/>", ""},
    {"<boolean Value='true'/>", ""},
    {"<boolean other='x' value='true'/>", ""},
    {"<number>12</number>", "<number>12</number>"},
    {"<number>-5</number>", "<number>-5</number>"},
    {"<number>+5</number>", "<number>5</number>"},
    {"<number> \t12 apples</number>", "<number>12</number>"},
    {"<number>twelv</number>", "<number>0</number>"},
    {"<number>0x10</number>", "<number>0</number>"},
    {"<number>010</number>", "<number>10</number>"},
    {"<number>2147483647</number>", "<number>2147483647</number>"},
    {"<number>2147483648</number>", "<number>2147483647</number>"},
    {"<number>-2147483649</number>", "<number>-2147483648</number>"},
    {"<number>99999999999999999999999999</number>", "<number>2147483647</number>"},
    {"<number>1&amp;2</number>", "<number>1</number>"},
    {"<number>&bad;</number>", "<number>0</number>"},
    {"<number></number>", ""},
    {"<number/>", ""},
    {"<number><null/></number>", ""},
    {"<number>1</string>", ""},
    {"<number>1.5</number>", "<number>1.5</number>"},
    {"<number unit='x'>1</number>", "<number>1</number>"},
    {"<string></string>", "<string></string>"},
    {"<string/>", "<string></string>"},
    {"<string> a \n b </string>", "<string> a \n b </string>"},
    {"<string>a&amp;b</string>", "<string>a&amp;b</string>"},
    {"<string>a&#65;b</string>", "<string>a</string>"},
    {"<string>a&nbsp;b</string>", "<string>a</string>"},
    {"<string>&lt;&gt;&quot;&apos;</string>", "<string>&lt;&gt;&quot;&apos;</string>"},
    {"<string>\xC3\xA4\xFF\x01</string>", "<string>\xC3\xA4\xFF\x01</string>"},
    {"<string><null/></string>", ""},
    {"<string>a<b</string>", ""},
    {"<array length='0'></array>", "<array length='0'></array>"},
    {"<array length='0'/>", "<array length='0'></array>"},
    {"<array length='0'><null/></array>", "<array length='0'></array>"},
    {"<array length='x'><null/></array>", "<array length='0'></array>"},
    {"<array length='1'><null/></array>", "<array length='1'><null/></array>"},
    {"<array length='1'><null/><null/></array>", "<array length='1'><null/></array>"},
    {"<array length='1'><null/><struct/></array>", "<array length='1'><null/></array>"},
    {"<array length='2'><null/></array>", ""},
    {"<array length='1'/>", ""},
    {"<array length='1'></array>", ""},
    {"<array length='-1'></array>", ""},
    {"<array length='2000000000'><null/></array>", ""},
    {"<array length='99999999999'><null/></array>", ""},
    {"<array length='2'><null/><struct/></array>", ""},
    {"<array><null/></array>", ""},
    {"<array length='1'> <null/></array>", ""},
    {"<array length='2'><string>a</string><number>1</number></array>",
     "<array length='2'><string>a</string><number>1</number></array>"},
    {"<struct></struct>", ""},
    {"<struct/>", ""},
    {"<struct><var name='x'><null/></var></struct>", "<struct><var name='x'><null/></var></struct>"},
    {"<struct><var name='x'><null/></var><var name='x'><string/></var></struct>",
     "<struct><var name='x'><null/></var><var name='x'><string></string></var></struct>"},
    {"<struct><var name='b'><null/></var><var name='a'><null/></var></struct>",
     "<struct><var name='b'><null/></var><var name='a'><null/></var></struct>"},
    {"<struct><var name='a&amp;b'><null/></var></struct>",
     "<struct><var name='a&amp;b'><null/></var></struct>"},
    {"<struct>\n<var name='x'><null/></var></struct>", ""},
    {"<struct><var name='x'>\n<null/></var></struct>", ""},
    {"<struct><var name='x'><null/>\n</var>\n</struct>", "<struct><var name='x'><null/></var></struct>"},
    {"<struct><var name='x'></var></struct>", ""},
    {"<struct><var name='x'/></struct>", ""},
    {"<struct><var><null/></var></struct>", ""},
    {"<struct><var name='x'><null/><null/></var></struct>", ""},
    {"<struct><var name='x'><null/></struct></var>", ""},
    {"<struct><var name='x'><struct/></var></struct>", ""},
    {"<struct><null/></struct>", ""},
    {"<var name='x'></var>", ""},
    {"<var name='x'><null/></var>", ""},
    {"<recordset rowCount='1'><field name='f'><null/></field></recordset>", ""},
    {"<array length='1'><recordset rowCount='1'><field name='f'><null/></field></recordset></array>", ""},
    {"<field name='f'><null/></field>", ""},
    {"<dateTime>2001-01-01T00:00:00</dateTime>", ""},
    {"<binary length='1'>AA</binary>", ""},
    {"<struct><var name='x'><dateTime>x</dateTime></var></struct>", ""},
    {"<array length='0'><binary>AA</binary></array>", ""},
    {"<!-- remark --><null/>", ""},
    {"<![CDATA[x]]>", ""},
    {"<NULL/>", ""},
    {"", ""},
    {" <null/>", ""},
    {"<null/> ", "<null/>"},
    {"<null/><null/>", ""},
    {"<>", ""},
    {"</>", ""},
    {"text", ""},
};

TEST(ParseStream, ReadsValues) {
    for (const Reading& reading : kReadings)
        EXPECT_EQ(Meaning(reading.text), reading.meaning) << reading.text;
}

// The float that a number's text reads as.
double FloatOf(const std::string& text) {
    const Tree tree = Parse(Packet("<number>" + text + "</number>"));
    double number = 0;
    EXPECT_EQ(wddxGetFloat(&number, tree.get()), 1) << text;
    return number;
}

TEST(ParseStream, ReadsANumberWithPointOrExponentAsFloat) {
    EXPECT_EQ(FloatOf("1e3"), 1000.0);
    EXPECT_EQ(FloatOf("1E3"), 1000.0);
    EXPECT_EQ(FloatOf("-1.25"), -1.25);
    EXPECT_EQ(FloatOf("+.5"), 0.5);
    EXPECT_EQ(FloatOf("5."), 5.0);
    EXPECT_EQ(FloatOf(" \t2.5 volts"), 2.5);
    EXPECT_EQ(FloatOf("1.2.3"), 1.2);
    EXPECT_EQ(FloatOf("1e"), 1.0);
    EXPECT_EQ(FloatOf("1e-400"), 0.0);
    EXPECT_EQ(FloatOf("1e400"), HUGE_VAL);
    EXPECT_EQ(FloatOf("-1e400"), -HUGE_VAL);
    EXPECT_EQ(FloatOf("0.1"), 0.1);
    EXPECT_EQ(FloatOf("1.7976931348623157e308"), 1.7976931348623157e308);
    EXPECT_EQ(FloatOf(std::string(400, '0') + "1.5"), 1.5);
}

TEST(ParseStream, ReadsWhatIsNoDecimalNumberAsZero) {
    for (const char* const text :
         {"hello", ".", "e", "E5", "-.", "0x1e", "-0X1.8p1", "nan.", "inf.e", "- 1.5", "+-1.5"}) {
        EXPECT_EQ(FloatOf(text), 0.0) << text;
    }
}

TEST(ParseStream, LeavesNothingElseOfAnInteger) {
    const Tree tree = Parse(Packet("<number>12</number>"));
    double number = 0;
    EXPECT_EQ(wddxGetFloat(&number, tree.get()), 0);
    int integer = 0;
    EXPECT_EQ(wddxGetInteger(&integer, tree.get()), 1);
    EXPECT_EQ(integer, 12);
}

TEST(ParseStream, FindsNoValueBetweenQuotesWithNothingInThem) {
    // Both quotes are skipped in search of the value's first character; it ends at a quote that belongs
    // elsewhere.
    EXPECT_EQ(Meaning("<struct><var name=''><null/></var></struct>"), "");
    EXPECT_EQ(Meaning("<struct><var name=''>x'><null/></var></struct>"),
              "<struct><var name='>x'><null/></var></struct>");
}

TEST(ParseStream, GivesAnEmptyArrayItsBlock) {
    const Tree tree = Parse(Packet("<array length='0'></array>"));
    EXPECT_EQ(wddxGetArraySize(tree.get()), 0);
    EXPECT_EQ(wddxGetArrayElem(tree.get(), 0), nullptr);
}

TEST(ParseStream, FindsTheFirstOfTwoMembersOfOneName) {
    const Tree tree = Parse(Packet("<struct><var name='x'><number>1</number></var>"
                                   "<var name='x'><number>2</number></var></struct>"));
    int number = 0;
    EXPECT_EQ(wddxGetInteger(&number, wddxGetStructVar(tree.get(), "x")), 1);
    EXPECT_EQ(number, 1);
}

TEST(ParseStream, RefusesAHugeArrayBeforeItAllocatesAnything) {
    const std::string packet = Packet("<array length='2000000000'><null/><null/></array>");
    const int before = test::CallsOf("calloc");
    EXPECT_FALSE(Parses(packet));
    EXPECT_LT(test::CallsOf("calloc") - before, 20);
}

// Packets ---------------------------------------------------------------------------------------------

struct PacketCase {
    bool good;
    const char* why;
    const char* packet;
};

constexpr PacketCase kPackets[] = {
    {false, "nothing", ""},
    {false, "no tag", "text"},
    {false, "no known tag", "<?xml version='1.0'?><html><body/></html>"},
    {false, "only the start", "<wddxPacket version='1.0'>"},
    {false, "no version", "<wddxPacket><header/><data><null/></data></wddxPacket>"},
    {false, "other attribute first",
     "<wddxPacket xmlns='x' version='1.0'><header/><data><null/></data></wddxPacket>"},
    {false, "name in another case", "<WddxPacket version='1.0'><header/><data><null/></data></WddxPacket>"},
    {false, "data is the first known tag", "<data><null/></data>"},
    {false, "a value is the first known tag", "<null/>"},
    {false, "an end tag is the first known tag", "</wddxPacket>"},
    {false, "a blank makes a tag without name, which is the document's",
     "< ><wddxPacket version='1.0'><header/><data><null/></data></wddxPacket>"},
    {false, "no data", "<wddxPacket version='1.0'><header/></wddxPacket>"},
    {false, "no content", "<wddxPacket version='1.0'></wddxPacket>"},
    {false, "self-closed data", "<wddxPacket version='1.0'><header/><data/></wddxPacket>"},
    {false, "empty data", "<wddxPacket version='1.0'><header/><data></data></wddxPacket>"},
    {false, "two values", "<wddxPacket version='1.0'><header/><data><null/><null/></data></wddxPacket>"},
    {false, "two headers before the data",
     "<wddxPacket version='1.0'><header/><header/><data><null/></data></wddxPacket>"},
    {false, "text before the header",
     "<wddxPacket version='1.0'> <header/><data><null/></data></wddxPacket>"},
    {false, "text in the header",
     "<wddxPacket version='1.0'><header>x</header><data><null/></data></wddxPacket>"},
    {false, "empty comment",
     "<wddxPacket version='1.0'><header><comment></comment></header><data><null/></data></wddxPacket>"},
    {false, "two comments",
     "<wddxPacket version='1.0'><header><comment>a</comment><comment>b</comment></header>"
     "<data><null/></data></wddxPacket>"},
    {false, "a packet in the packet",
     "<wddxPacket version='1.0'><wddxPacket version='1.0'><data><null/></data>"
     "</wddxPacket></wddxPacket>"},
    {false, "unknown tag in the packet", "<wddxPacket version='1.0'><x/><data><null/></data></wddxPacket>"},
    {false, "no end tag", "<wddxPacket version='1.0'><header/><data><null/></data>"},
    {false, "another end tag", "<wddxPacket version='1.0'><header/><data><null/></data></data>"},
    {false, "bad second data",
     "<wddxPacket version='1.0'><header/><data><null/></data><data><x/></data></wddxPacket>"},
    {true, "data before the header", "<wddxPacket version='1.0'><data><null/></data><header/></wddxPacket>"},
    {true, "a second data is not looked at",
     "<wddxPacket version='1.0'><data><null/></data><data><struct/></data></wddxPacket>"},
    {true, "no header", "<wddxPacket version='1.0'><data><null/></data></wddxPacket>"},
    {true, "another version", "<wddxPacket version='0.9'><data><null/></data></wddxPacket>"},
    {true, "further attributes", "<wddxPacket version='1.0' xmlns='x'><data><null/></data></wddxPacket>"},
    {true, "empty header", "<wddxPacket version='1.0'><header></header><data><null/></data></wddxPacket>"},
    {true, "a comment",
     "<wddxPacket version='1.0'><header><comment>a &amp; "
     "b</comment></header><data><null/></data></wddxPacket>"},
    {true, "white space behind tags",
     "<wddxPacket version='1.0'><header/>\n<data><null/>\n</data>\n</wddxPacket>"},
    {true, "the self-closed form of the packet's start is no end ",
     "<wddxPacket version='1.0'/><data><null/></data></wddxPacket>"},
    {true, "declarations before",
     "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'><header/>"
     "<data><null/></data></wddxPacket>"},
    {true, "a declaration with an address",
     "<!DOCTYPE wddxPacket SYSTEM 'http://host/dtd/x.dtd'><wddxPacket "
     "version='1.0'><data><null/></data></wddxPacket>"},
    {true, "white space and unknown tags before",
     "\n <html> <br/></p>\n<wddxPacket version='1.0'><data><null/></data></wddxPacket>"},
    {true, "anything behind", "<wddxPacket version='1.0'><data><null/></data></wddxPacket><x><data>"},
};

TEST(ParseStream, ReadsPackets) {
    for (const PacketCase& c : kPackets) {
        const Tree tree = Parse(c.packet);
        EXPECT_EQ(tree != nullptr, c.good) << c.why;
        EXPECT_TRUE(!tree || tree->type == WDDX_NULL) << c.why;
    }
}

TEST(ParseStream, TakesNullForAFailure) { EXPECT_EQ(wddxParseStream(nullptr), nullptr); }

TEST(ParseStream, RefusesTagsWithTextsThatDoNotFitTheirRecord) {
    const std::string fits(WDDX_TAG_TEXT_SIZE - 1, 'x');
    const std::string tooLong(WDDX_TAG_TEXT_SIZE, 'x');
    const std::string longest(60'000, 'x');
    const auto var = [](const std::string& name) {
        return Packet("<struct><var name='" + name + "'><null/></var></struct>");
    };
    EXPECT_TRUE(Parses(var(fits)));
    for (const std::string& text : {tooLong, longest}) {
        EXPECT_FALSE(Parses(var(text))) << "value";
        EXPECT_FALSE(Parses(Packet("<string " + text + "='a'>b</string>"))) << "attribute name";
        EXPECT_FALSE(Parses(Packet("<" + text + "/>"))) << "name";
        EXPECT_FALSE(Parses(Packet("<string>b</" + text + ">"))) << "end tag";
        EXPECT_FALSE(Parses("<" + text + ">" + Packet("<null/>"))) << "unknown tag before the packet";
    }
    EXPECT_TRUE(Parses("<" + fits + ">" + Packet("<null/>")));
    EXPECT_TRUE(Parses(Packet("<string a='b' c='" + longest + "'>d</string>"))) << "not looked at";
}

// Packets that use everything.
const std::vector<std::string>& GoodPackets() {
    static const std::vector<std::string> packets = {
        Packet("<null/>"),
        "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>" +
            Packet("<string>a&lt;b</string>"),
        "<wddxPacket version=\"1.0\" ><header><comment>some &apos;text&apos;</comment></header>"
        "<data><struct><var name=\"a\" ><array length=\"3\"><number>-1</number><number>2.5e3</number>"
        "<boolean value=\"true\" /></array></var><var name='b'><string></string></var></struct></data>"
        "</wddxPacket>",
        Packet("<array length='2'><struct><var name='x'><null /></var><var name='x'><string/></var></struct>"
               "<array length='0'/></array>"),
    };
    return packets;
}

TEST(ParseStream, FailsForEveryPartOfAPacket) {
    for (const std::string& packet : GoodPackets()) {
        EXPECT_TRUE(Parses(packet)) << packet;
        for (std::size_t size = 0; size < packet.size(); ++size) {
            const std::string part = packet.substr(0, size);
            const test::GuardedBytes guarded(std::string_view(part.c_str(), size + 1));
            EXPECT_EQ(wddxParseStream(guarded.begin()), nullptr) << part;
        }
    }
}

TEST(ParseStream, SurvivesEveryChangedByte) {
    int parsed = 0;
    for (const std::string& packet : GoodPackets()) {
        for (std::size_t i = 0; i < packet.size(); ++i) {
            for (const char c : std::string_view("\0<>/'\"&= \n9x\xFF", 13)) {
                std::string changed = packet;
                changed[i] = c;
                const test::GuardedBytes guarded(std::string_view(changed.c_str(), changed.size() + 1));
                const Tree tree(wddxParseStream(guarded.begin()));
                parsed += tree != nullptr;
                EXPECT_TRUE(!tree || Printed(tree.get()).front() == '<') << changed;
            }
        }
    }
    EXPECT_GT(parsed, 0);
}

TEST(ParseStream, FailsWhereverMemoryRunsShort) {
    const std::string deep =
        Packet(Repeated(20, "<array length='1'>") + "<null/>" + Repeated(20, "</array>"));
    std::vector<std::string> packets = GoodPackets();
    packets.push_back(deep); // the places where parsing is under way outgrow their first room
    for (const std::string& packet : packets) {
        test::FailEveryAllocation([&] { return Parses(packet); });
    }
}

// The packet with as many levels as the size allows.
std::string DeepestPacket(std::size_t size, const std::string& open, const std::string& close) {
    const std::size_t frame = Packet("<null/>").size();
    const int levels = static_cast<int>((size - frame) / (open.size() + close.size()));
    return Packet(Repeated(levels, open) + "<null/>" + Repeated(levels, close));
}

TEST(ParseStream, TakesTheDeepestPacketOnTheStackOfAServingThread) {
    test::OnStackOf(MT_STACK_SIZE, [] {
        for (const std::string& packet :
             {DeepestPacket(kLargestBody, "<array length=1'>", "</array>"),
              DeepestPacket(kLargestBody, "<struct><var name=x'>", "</var></struct>")}) {
            ASSERT_LE(packet.size(), kLargestBody);
            const Tree tree = Parse(packet);
            ASSERT_NE(tree, nullptr);
            const Tree again = Parse(Packet(Printed(tree.get())));
            ASSERT_NE(again, nullptr);
            EXPECT_EQ(Printed(again.get()), Printed(tree.get()));
        }
        EXPECT_FALSE(Parses("<wddxPacket version='1'><data>" + Repeated(3110, "<struct><var name=x'>")));
        EXPECT_FALSE(Parses("<wddxPacket version='1'><data>" + Repeated(3850, "<array length=1'>")));
    });
}

TEST(ParseStream, NeedsNoStackForDepth) {
    test::OnStackOf(std::size_t{128} * 1024, [] {
        EXPECT_TRUE(Parses(DeepestPacket(1'000'000, "<array length='1'>", "</array>")));
        EXPECT_TRUE(Parses(DeepestPacket(1'000'000, "<struct><var name='x'>", "</var></struct>")));
    });
}

// A structure of `count` members, each a short string.
std::string WidePacket(int count) {
    return Packet("<struct>" + Repeated(count, "<var name='x'><string>abc</string></var>") + "</struct>");
}

TEST(ParseStream, TakesTimeInProportionToThePacket) {
    // 2 million characters: anything slower than in proportion would take many minutes.
    constexpr int kMembers = 50'000;
    const auto start = std::chrono::steady_clock::now();
    const Tree wide = Parse(WidePacket(kMembers));
    EXPECT_NE(wide, nullptr);
    EXPECT_TRUE(Parses(Packet("<string>" + std::string(2'000'000, 'x') + "</string>")));
    EXPECT_FALSE(Parses(Repeated(200'000, "<x a='b'>")));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST(ConvertXml2Utf8, DecodesTheNamedEntities) {
    const auto decoded = [](std::string_view text) {
        const test::GuardedBytes guarded(text);
        const Text result(convertXml2Utf8(guarded.begin(), static_cast<int>(text.size())));
        return result ? std::string(result.get()) : "(none)";
    };
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("plain"), "plain");
    EXPECT_EQ(decoded("&amp;&lt;&gt;&quot;&apos;"), "&<>\"'");
    EXPECT_EQ(decoded("a&amp;amp;b"), "a&amp;b") << "once only";
    EXPECT_EQ(decoded("\xC3\xA4\xFF"), "\xC3\xA4\xFF");
    for (const char* const cut :
         {"a&", "a&&amp;", "a&am", "a&amp", "a&AMP;", "a&#65;", "a&#x41;", "a& amp;"}) {
        EXPECT_EQ(decoded(cut), "a") << cut;
    }
    EXPECT_EQ(decoded(std::string_view("a\0b", 3)), "(none)");
    EXPECT_EQ(decoded(std::string_view("a&x\0b", 5)), "(none)");
}

TEST(ConvertXml2Utf8, TakesOnePlaceForAnUnknownEntity) {
    const Text decoded(convertXml2Utf8("a&#;b", 5));
    EXPECT_EQ(std::string(decoded.get(), 6), std::string("a\0#;b\0", 6));
}

TEST(ConvertXml2Utf8, ReadsNoFurtherThanItsLength) {
    const Text decoded(convertXml2Utf8("ab&amp;", 2));
    EXPECT_STREQ(decoded.get(), "ab");
    const Text cut(convertXml2Utf8("a&amp;", 5));
    EXPECT_STREQ(cut.get(), "a");
}

TEST(ConvertXml2Utf8, FailsForBadArgumentsAndWithoutMemory) {
    EXPECT_EQ(convertXml2Utf8(nullptr, 0), nullptr);
    EXPECT_EQ(convertXml2Utf8("a", -1), nullptr);
    const test::FailCall noMemory("calloc");
    EXPECT_EQ(convertXml2Utf8("a", 1), nullptr);
    EXPECT_TRUE(noMemory.Struck());
}

} // namespace
} // namespace rdx
