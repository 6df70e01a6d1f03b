#include "wddx/wddx.h"

#include "common/mt.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wddx.h"

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <limits>
#include <locale.h>
#include <malloc.h>
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

const std::string kDeclarations = "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'>"
                                  "<wddxPacket version='1.0'>";
const std::string kPacketEnd = "</data></wddxPacket>";

char* NewText(std::string_view text) { return strndup(text.data(), text.size()); }

// The value as printed into a text behind "="; in brackets when printing fails, "(lost)" without text.
std::string PrintedToVar(WddxValue* value) {
    char* var = NewText("=");
    const int result = printWddxTagToVar(&var, value);
    const Text owner(var);
    if (var == nullptr) return "(lost)";
    EXPECT_EQ(var[0], '=');
    return result == 1 ? var + 1 : std::string("[") + (var + 1) + "]";
}

// A stream that takes so many bytes and refuses every byte behind them.
class LimitedStream {
public:
    explicit LimitedStream(std::size_t limit) : limit_(limit) {
        cookie_io_functions_t functions = {};
        functions.write = [](void* self, const char* data, std::size_t size) {
            return static_cast<LimitedStream*>(self)->Take(data, size);
        };
        stream_ = fopencookie(this, "w", functions);
        std::setvbuf(stream_, nullptr, _IONBF, 0);
    }
    ~LimitedStream() { std::fclose(stream_); }
    LimitedStream(const LimitedStream&) = delete;
    LimitedStream& operator=(const LimitedStream&) = delete;

    FILE* Get() const { return stream_; }
    const std::string& Taken() const { return taken_; }

private:
    ssize_t Take(const char* data, std::size_t size) {
        const std::size_t count = std::min(size, limit_ - taken_.size());
        taken_.append(data, count);
        return static_cast<ssize_t>(count);
    }

    FILE* stream_;
    std::size_t limit_;
    std::string taken_;
};

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

Tree StructOf(const char* name, WddxValue* value) {
    Tree structure(wddxCreateStruct());
    wddxSetStructVar(structure.get(), name, value);
    return structure;
}

Tree ArrayOf(WddxValue* first, WddxValue* second) {
    Tree array(wddxCreateArray(2));
    wddxSetArrayElem(array.get(), 0, first);
    wddxSetArrayElem(array.get(), 1, second);
    return array;
}

WddxValue* WithType(int type) {
    WddxValue* const value = wddxCreateNull();
    value->type = type;
    return value;
}

// A structure with values of every type.
Tree OneOfEach() {
    Tree all = StructOf("null", wddxCreateNull());
    wddxSetStructVar(all.get(), "string", wddxCreateString("a<b & 'c'"));
    wddxSetStructVar(all.get(), "integer", wddxCreateInteger(-5));
    wddxSetStructVar(all.get(), "float", wddxCreateFloat(0.5));
    wddxSetStructVar(all.get(), "boolean", wddxCreateBoolean(1));
    WddxValue* const inner = StructOf("y", wddxCreateBoolean(0)).release();
    wddxSetStructVar(all.get(), "array", ArrayOf(wddxCreateString(""), inner).release());
    return all;
}

const std::string kOneOfEach =
    "<struct><var name='null'><null/></var><var name='string'><string>a&lt;b &amp; "
    "&apos;c&apos;</string></var>"
    "<var name='integer'><number>-5</number></var><var name='float'><number>0.5</number></var>"
    "<var name='boolean'><boolean value='true'/></var><var name='array'><array length='2'><string></string>"
    "<struct><var name='y'><boolean value='false'/></var></struct></array></var></struct>";

// Values ----------------------------------------------------------------------------------------------

void ExpectPrints(WddxValue* value, const std::string& expected) {
    const Tree owner(value);
    EXPECT_EQ(Printed(value), expected);
    EXPECT_EQ(PrintedToVar(value), expected);
}

TEST(PrintTag, PrintsEveryType) {
    ExpectPrints(wddxCreateNull(), "<null/>");
    ExpectPrints(wddxCreateString("a<b"), "<string>a&lt;b</string>");
    ExpectPrints(wddxCreateString(""), "<string></string>");
    ExpectPrints(wddxCreateString("\"'&>"), "<string>&quot;&apos;&amp;&gt;</string>");
    ExpectPrints(wddxCreateString("%s%n \xC3\xA4\n"), "<string>%s%n \xC3\xA4\n</string>");
    ExpectPrints(wddxCreateInteger(-5), "<number>-5</number>");
    ExpectPrints(wddxCreateInteger(INT_MIN), "<number>-2147483648</number>");
    ExpectPrints(wddxCreateLongInteger(INT_MAX), "<number>2147483647</number>");
    ExpectPrints(wddxCreateBoolean(0), "<boolean value='false'/>");
    ExpectPrints(wddxCreateBoolean(1), "<boolean value='true'/>");
    ExpectPrints(wddxCreateBoolean(200), "<boolean value='true'/>");
    ExpectPrints(wddxCreateArray(2), "<array length='2'><null/><null/></array>");
    ExpectPrints(StructOf("x", wddxCreateBoolean(1)).release(),
                 "<struct><var name='x'><boolean value='true'/></var></struct>");
    ExpectPrints(OneOfEach().release(), kOneOfEach);
}

TEST(PrintTag, PrintsFloatsWithSixDigits) {
    struct Case {
        double number;
        const char* printed;
    };
    const Case cases[] = {
        {0.5, "0.5"},
        {1e7, "1E+07"},
        {2, "2"},
        {0, "0"},
        {-0.0, "-0"},
        {100000, "100000"},
        {1000000, "1E+06"},
        {999999.4, "999999"},
        {999999.5, "1E+06"},
        {0.0001, "0.0001"},
        {0.00001, "1E-05"},
        {0.000012345678, "1.23457E-05"},
        {3.14159265, "3.14159"},
        {-1.7976931348623157e308, "-1.79769E+308"},
        {5e-324, "4.94066E-324"},
        {HUGE_VAL, "INF"},
        {-HUGE_VAL, "-INF"},
    };
    for (const Case& c : cases) {
        ExpectPrints(wddxCreateFloat(c.number), std::string("<number>") + c.printed + "</number>");
    }
    ExpectPrints(wddxCreateFloat(std::copysign(NAN, 1.0)), "<number>NAN</number>");
}

TEST(PrintTag, PutsMemberNamesAsTheyAre) {
    const std::string longName(300, 'n');
    ExpectPrints(StructOf("a&b<c", wddxCreateNull()).release(),
                 "<struct><var name='a&b<c'><null/></var></struct>");
    ExpectPrints(StructOf(longName.c_str(), wddxCreateNull()).release(),
                 "<struct><var name='" + longName + "'><null/></var></struct>");
}

TEST(PrintTag, PrintsAMemberWithAnEmptyName) {
    ExpectPrints(StructOf("", wddxCreateNull()).release(), "<struct><var name=''><null/></var></struct>");
}

TEST(PrintTag, PrintsAnArrayWithoutElements) {
    const Tree array = Parse(Packet("<array length='0'/>"));
    EXPECT_EQ(Printed(array.get()), "<array length='0'></array>");
    EXPECT_EQ(PrintedToVar(array.get()), "<array length='0'></array>");
}

TEST(PrintTag, FailsForWhatHasNoPrintedForm) {
    for (const int type : {-1, 7, 99, INT_MAX, INT_MIN}) {
        const Tree unknown(WithType(type));
        EXPECT_EQ(Printed(unknown.get()), "-") << type;
        EXPECT_EQ(PrintedToVar(unknown.get()), "[]") << type;
    }
    for (const int type : {WDDX_STRING, WDDX_ARRAY}) { // without text, without block
        const Tree hollow(WithType(type));
        EXPECT_EQ(Printed(hollow.get()), "-") << type;
        EXPECT_EQ(PrintedToVar(hollow.get()), "[]") << type;
    }
}

TEST(PrintTag, FailsForNullArguments) {
    const Tree value(wddxCreateNull());
    EXPECT_EQ(Printed(nullptr), "-");
    EXPECT_EQ(PrintedToVar(nullptr), "[]");
    EXPECT_EQ(printWddxTag(nullptr, value.get()), 0);
    EXPECT_EQ(printWddxTagToVar(nullptr, value.get()), 0);
    char* lost = nullptr;
    EXPECT_EQ(printWddxTagToVar(&lost, value.get()), 0);
    EXPECT_EQ(lost, nullptr);
}

TEST(PrintTag, StopsAtTheFirstElementThatFails) {
    const Tree array = ArrayOf(wddxCreateInteger(1), WithType(7));
    EXPECT_EQ(Printed(array.get()), "-<array length='2'><number>1</number>");
    EXPECT_EQ(PrintedToVar(array.get()), "[<array length='2'><number>1</number>]");
    wddxFree(&array->payload.array->elements[0]);
    EXPECT_EQ(Printed(array.get()), "-<array length='2'>") << "an element that is not there";
    EXPECT_EQ(PrintedToVar(array.get()), "[<array length='2'>]");
}

TEST(PrintTag, FailsForAMemberWithoutName) {
    const Tree structure = StructOf("a", wddxCreateNull());
    wddxSetStructVar(structure.get(), "b", wddxCreateNull());
    const Text name(structure->payload.members->next->name);
    structure->payload.members->next->name = nullptr;
    EXPECT_EQ(Printed(structure.get()), "-<struct><var name='a'><null/></var>");
    EXPECT_EQ(PrintedToVar(structure.get()), "[<struct><var name='a'><null/></var>]");
}

// The two printers differ -----------------------------------------------------------------------------

TEST(EmptyStruct, IsPrintedToAStreamAndRefusedInAText) {
    const Tree empty(wddxCreateStruct());
    EXPECT_EQ(Printed(empty.get()), "<struct></struct>");
    EXPECT_EQ(PrintedToVar(empty.get()), "[]");
    const Tree array = ArrayOf(wddxCreateNull(), wddxCreateStruct());
    EXPECT_EQ(Printed(array.get()), "<array length='2'><null/><struct></struct></array>");
    EXPECT_EQ(PrintedToVar(array.get()), "[<array length='2'><null/>]");
}

TEST(MemberThatFails, StopsAStreamAndIsLeftOutOfAText) {
    Tree structure = StructOf("a", WithType(7));
    wddxSetStructVar(structure.get(), "b", wddxCreateInteger(1));
    EXPECT_EQ(Printed(structure.get()), "-<struct><var name='a'>");
    EXPECT_EQ(PrintedToVar(structure.get()),
              "<struct><var name='a'></var><var name='b'><number>1</number></var></struct>");
}

TEST(MemberThatFails, IsLeftOutFromTheInnermostStructAroundIt) {
    // An element that fails takes its array with it, up to the next member.
    Tree structure = StructOf("inner", ArrayOf(wddxCreateInteger(1), WithType(7)).release());
    wddxSetStructVar(structure.get(), "empty", wddxCreateStruct());
    const Tree array = ArrayOf(structure.release(), wddxCreateNull());
    EXPECT_EQ(PrintedToVar(array.get()),
              "<array length='2'><struct><var name='inner'><array length='2'><number>1</number></var>"
              "<var name='empty'></var></struct><null/></array>");
    EXPECT_EQ(Printed(array.get()),
              "-<array length='2'><struct><var name='inner'><array length='2'><number>1</number>");
}

TEST(MemberThatFails, MayBeAValueThatIsNotThere) {
    const Tree structure = StructOf("a", wddxCreateNull());
    wddxFree(&structure->payload.members->value);
    EXPECT_EQ(Printed(structure.get()), "-<struct><var name='a'>");
    EXPECT_EQ(PrintedToVar(structure.get()), "<struct><var name='a'></var></struct>");
}

// Packets ---------------------------------------------------------------------------------------------

TEST(PrintStream, PrintsAPacket) {
    const Tree value = OneOfEach();
    const LimitedStream stream(kNoLimit);
    EXPECT_EQ(wddxPrintStream(stream.Get(), value.get(), nullptr), 1);
    EXPECT_EQ(stream.Taken(), kDeclarations + "<header/><data>" + kOneOfEach + kPacketEnd);
}

TEST(PrintStream, PutsTheCommentAsItIs) {
    const Tree value(wddxCreateNull());
    for (const char* const comment : {"", "hi", "a & <b> %s %n"}) {
        const LimitedStream stream(kNoLimit);
        EXPECT_EQ(wddxPrintStream(stream.Get(), value.get(), comment), 1);
        EXPECT_EQ(stream.Taken(), kDeclarations + "<header><comment>" + comment +
                                      "</comment></header><data><null/>" + kPacketEnd);
    }
}

TEST(PrintStream, PrintsNothingWithoutAValue) {
    const LimitedStream stream(kNoLimit);
    EXPECT_EQ(wddxPrintStream(stream.Get(), nullptr, "hi"), 0);
    EXPECT_EQ(stream.Taken(), "");
    EXPECT_EQ(wddxPrintStream(nullptr, Tree(wddxCreateNull()).get(), "hi"), 0);
}

TEST(PrintStream, StopsAtAValueThatFails) {
    const Tree value(WithType(7));
    const LimitedStream stream(kNoLimit);
    EXPECT_EQ(wddxPrintStream(stream.Get(), value.get(), nullptr), 0);
    EXPECT_EQ(stream.Taken(), kDeclarations + "<header/><data>");
}

TEST(PrintStream, FailsWhereverAWriteFails) {
    const Tree value = OneOfEach();
    const std::string whole =
        kDeclarations + "<header><comment>c</comment></header><data>" + kOneOfEach + kPacketEnd;
    for (std::size_t limit = 0; limit <= whole.size(); ++limit) {
        const LimitedStream stream(limit);
        EXPECT_EQ(wddxPrintStream(stream.Get(), value.get(), "c"), limit == whole.size()) << limit;
        EXPECT_EQ(stream.Taken(), whole.substr(0, limit));
    }
}

// What wddxPrintStreamToVar gives.
struct VarResult {
    int result;
    Text text;
};

VarResult PrintToVar(WddxValue* value, const char* comment) {
    char* text = nullptr;
    const int result = wddxPrintStreamToVar(value, comment, &text);
    return {result, Text(text)};
}

TEST(PrintStreamToVar, PrintsTheSameAsTheStream) {
    const Tree value = OneOfEach();
    for (const char* const comment : {static_cast<const char*>(nullptr), "", "a & <b> %s %n"}) {
        const LimitedStream stream(kNoLimit);
        ASSERT_EQ(wddxPrintStream(stream.Get(), value.get(), comment), 1);
        const VarResult printed = PrintToVar(value.get(), comment);
        EXPECT_EQ(printed.result, 1);
        EXPECT_EQ(printed.text.get(), stream.Taken());
    }
}

TEST(PrintStreamToVar, KeepsWhatWasPrintedBeforeAFailure) {
    const VarResult empty = PrintToVar(Tree(wddxCreateStruct()).get(), nullptr);
    EXPECT_EQ(empty.result, 0);
    EXPECT_EQ(empty.text.get(), kDeclarations + "<header/><data>");
    const VarResult array = PrintToVar(ArrayOf(wddxCreateNull(), WithType(7)).get(), "c");
    EXPECT_EQ(array.result, 0);
    EXPECT_EQ(array.text.get(),
              kDeclarations + "<header><comment>c</comment></header><data><array length='2'><null/>");
}

TEST(PrintStreamToVar, FailsWithoutAPlaceForTheText) {
    EXPECT_EQ(wddxPrintStreamToVar(Tree(wddxCreateNull()).get(), nullptr, nullptr), 0);
}

TEST(PrintStreamToVar, LeavesWhatStandsBeforeANullValue) {
    const VarResult printed = PrintToVar(nullptr, "hi");
    EXPECT_EQ(printed.result, 0);
    EXPECT_EQ(std::string(printed.text.get()),
              kDeclarations + "<header><comment>hi</comment></header><data>");
}

TEST(PrintStreamToVar, FitsTheTextExactly) {
    const Tree value(wddxCreateString(std::string(60'000, 'x').c_str()));
    const VarResult printed = PrintToVar(value.get(), nullptr);
    ASSERT_EQ(printed.result, 1);
    const std::size_t size = std::strlen(printed.text.get()) + 1;
    EXPECT_LT(malloc_usable_size(printed.text.get()) - size, 64U);
}

// Memory ----------------------------------------------------------------------------------------------

TEST(PrintStream, FailsWhereverMemoryRunsShort) {
    Tree value = OneOfEach();
    for (int i = 0; i < 40; ++i) value = StructOf("x", value.release());
    FILE* const null = std::fopen("/dev/null", "w");
    test::FailEveryAllocation([&] { return wddxPrintStream(null, value.get(), "c") == 1; });
    std::fclose(null);
}

TEST(PrintStreamToVar, GivesATextOrNothingWhereverMemoryRunsShort) {
    Tree value = OneOfEach();
    for (int i = 0; i < 40; ++i) value = StructOf("x", value.release());
    const VarResult whole = PrintToVar(value.get(), "c");
    ASSERT_EQ(whole.result, 1);
    int lost = 0;
    test::FailEveryAllocation(
        [&] {
            const VarResult printed = PrintToVar(value.get(), "c");
            lost += printed.result == 0;
            EXPECT_EQ(printed.text == nullptr, printed.result == 0);
            return printed.result == 1;
        },
        test::AnyResult);
    EXPECT_GT(lost, 3);
}

TEST(PrintStreamToVar, GivesNullWhenThereIsNoMemoryForTheFirstText) {
    const Tree value(wddxCreateNull());
    const test::FailCall noMemory("malloc");
    const VarResult printed = PrintToVar(value.get(), nullptr);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(printed.result, 0);
    EXPECT_EQ(printed.text, nullptr);
}

TEST(PrintStreamToVar, FailsWhenTheTextIsLostBeforeTheValue) {
    const Tree value(wddxCreateNull());
    const std::string comment(1000, 'c');
    const test::FailCall noMemory("realloc");
    const VarResult printed = PrintToVar(value.get(), comment.c_str());
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(printed.result, 0);
    EXPECT_EQ(printed.text, nullptr);
}

TEST(PrintStreamToVar, CountsTheValueAloneWhenTheTextIsLostBehindIt) {
    // Finds a text that outgrows its room only with the packet's end.
    int found = 0;
    for (std::size_t length = 1; length < 600; ++length) {
        const Tree value(wddxCreateString(std::string(length, 'x').c_str()));
        const test::FailCall noMemory("realloc");
        const VarResult printed = PrintToVar(value.get(), nullptr);
        found += noMemory.Struck() && printed.result == 1 && printed.text == nullptr;
    }
    EXPECT_GT(found, 0);
}

TEST(PrintTagToVar, KeepsATextThatCouldNotBeMadeSmaller) {
    char* var = NewText("");
    const Tree value(wddxCreateNull());
    const test::FailCall noMemory("realloc", 2); // the first one makes room
    EXPECT_EQ(printWddxTagToVar(&var, value.get()), 1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_STREQ(var, "<null/>");
    std::free(var);
}

TEST(PrintTagToVar, LosesTheTextWhenMemoryIsShort) {
    char* var = NewText("before");
    const Tree value(wddxCreateNull());
    const test::FailCall noMemory("realloc");
    EXPECT_EQ(printWddxTagToVar(&var, value.get()), 0);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(var, nullptr);
}

TEST(PrintTagToVar, LeavesOutAStringThatCouldNotBeEscaped) {
    const Tree structure = StructOf("a", wddxCreateString("text"));
    const test::FailCall noMemory("calloc");
    EXPECT_EQ(PrintedToVar(structure.get()), "<struct><var name='a'></var></struct>");
    EXPECT_TRUE(noMemory.Struck());
}

// Size and depth --------------------------------------------------------------------------------------

TEST(Printing, TakesTimeInProportionToTheTree) {
    // 8 million characters: anything slower than in proportion would take many minutes.
    constexpr int kElements = 400'000;
    const Tree wide(wddxCreateArray(kElements));
    for (int i = 0; i < kElements; ++i) wddxSetArrayElem(wide.get(), i, wddxCreateInteger(i));
    const auto start = std::chrono::steady_clock::now();
    const int before = test::CallsOf("realloc");
    const VarResult printed = PrintToVar(wide.get(), nullptr);
    EXPECT_EQ(printed.result, 1);
    EXPECT_LT(test::CallsOf("realloc") - before, 30);
    FILE* const null = std::fopen("/dev/null", "w");
    EXPECT_EQ(wddxPrintStream(null, wide.get(), nullptr), 1);
    std::fclose(null);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

TEST(Printing, WorksOnTheStackOfAServingThread) {
    // The deepest trees that fit into the largest argument packet.
    for (const int levels : {2620, 1819}) {
        test::OnStackOf(MT_STACK_SIZE, [levels] {
            const bool arrays = levels == 2620;
            const std::string open = arrays ? "<array length='1'>" : "<struct><var name='x'>";
            const std::string close = arrays ? "</array>" : "</var></struct>";
            const std::string text = Repeated(levels, open) + "<null/>" + Repeated(levels, close);
            const Tree tree = Parse(Packet(text));
            ASSERT_NE(tree, nullptr);
            EXPECT_EQ(Printed(tree.get()), text);
            EXPECT_EQ(PrintedToVar(tree.get()), text);
        });
    }
}

TEST(Printing, NeedsNoStackForDepth) {
    test::OnStackOf(std::size_t{128} * 1024, [] {
        Tree tree(wddxCreateNull());
        for (int i = 0; i < 200'000; ++i) tree = StructOf("x", tree.release());
        EXPECT_EQ(PrintedToVar(tree.get()).size(), Printed(tree.get()).size());
    });
}

// There and back --------------------------------------------------------------------------------------

TEST(PrintedPacket, ReadsBackAsTheSameTree) {
    const std::string values[] = {
        kOneOfEach,
        "<null/>",
        "<array length='0'></array>",
        "<number>1.5</number>",
        "<number>-2147483648</number>",
        "<string>&amp;amp;&lt;&gt;&quot;&apos;</string>",
        "<array length='2'><boolean value='true'/><null/></array>",
    };
    for (const std::string& value : values) {
        const Tree tree = Parse(Packet(value));
        ASSERT_NE(tree, nullptr) << value;
        const VarResult printed = PrintToVar(tree.get(), "comment");
        const Tree again(wddxParseStream(printed.text.get()));
        ASSERT_NE(again, nullptr) << value;
        EXPECT_EQ(Printed(again.get()), value);
    }
}

TEST(PrintedPacket, ReadsEveryStringBack) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text = {'a', static_cast<char>(byte), 'b'};
        const Tree string(wddxCreateString(text.c_str()));
        const Tree again(wddxParseStream(PrintToVar(string.get(), nullptr).text.get()));
        char* read = nullptr;
        ASSERT_EQ(wddxGetString(&read, again.get()), 1) << byte;
        EXPECT_EQ(read, text) << byte;
    }
}

TEST(PrintedPacket, ReadsAWholeFloatBackAsAnInteger) {
    const Tree number(wddxCreateFloat(2));
    const Tree again(wddxParseStream(PrintToVar(number.get(), nullptr).text.get()));
    EXPECT_EQ(wddxGetType(again.get()), WDDX_INTEGER);
    const Tree large(wddxCreateFloat(1e7));
    const Tree largeAgain(wddxParseStream(PrintToVar(large.get(), nullptr).text.get()));
    EXPECT_EQ(wddxGetType(largeAgain.get()), WDDX_FLOAT);
}

// The locale ------------------------------------------------------------------------------------------

// While it lives, the process has a locale whose decimal point is a comma, if there is one to be had.
class CommaLocale {
public:
    CommaLocale() {
        uselocale(LC_GLOBAL_LOCALE); // that of this thread would hide it
        for (const char* const name : {"de_DE.UTF-8", "fr_FR.UTF-8", "es_ES.UTF-8", "ru_RU.UTF-8"}) {
            if (Set(name)) return;
        }
        char pattern[] = "/tmp/rdx_locale_XXXXXX";
        if (mkdtemp(pattern) == nullptr) return;
        directory_ = pattern;
        const std::string command =
            "localedef -i de_DE -f UTF-8 " + directory_ + "/de_DE.UTF-8 >" + directory_ + "/log 2>&1";
        if (std::system(command.c_str()) != 0) return;
        setenv("LOCPATH", directory_.c_str(), 1);
        Set("de_DE.UTF-8");
    }
    ~CommaLocale() {
        setlocale(LC_ALL, "C");
        if (directory_.empty()) return;
        unsetenv("LOCPATH");
        std::filesystem::remove_all(directory_);
    }
    CommaLocale(const CommaLocale&) = delete;
    CommaLocale& operator=(const CommaLocale&) = delete;

    bool IsSet() const { return isSet_; }

private:
    bool Set(const char* name) {
        isSet_ = setlocale(LC_ALL, name) != nullptr && std::strcmp(localeconv()->decimal_point, ",") == 0;
        return isSet_;
    }

    std::string directory_;
    bool isSet_ = false;
};

TEST(Numbers, HaveAPointWhateverTheLocale) {
    const CommaLocale comma;
    if (!comma.IsSet()) GTEST_SKIP() << "this machine has no locale with a decimal comma";
    char text[16];
    std::snprintf(text, sizeof text, "%G", 0.5);
    ASSERT_STREQ(text, "0,5");
    ExpectPrints(wddxCreateFloat(0.5), "<number>0.5</number>");
    ExpectPrints(wddxCreateInteger(1234567), "<number>1234567</number>");
    const Tree tree = Parse(Packet("<number>2.5</number>"));
    double number = 0;
    ASSERT_EQ(wddxGetFloat(&number, tree.get()), 1);
    EXPECT_EQ(number, 2.5);
    const Tree withComma = Parse(Packet("<number>2,5e1</number>"));
    ASSERT_EQ(wddxGetFloat(&number, withComma.get()), 1);
    EXPECT_EQ(number, 2.0);
    std::snprintf(text, sizeof text, "%G", 0.5);
    EXPECT_STREQ(text, "0,5") << "the locale of the process is left";
}

TEST(Numbers, LeaveTheLocaleOfTheThread) {
    uselocale(LC_GLOBAL_LOCALE);
    ExpectPrints(wddxCreateFloat(0.5), "<number>0.5</number>");
    EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
    ASSERT_NE(Parse(Packet("<number>2.5</number>")), nullptr);
    EXPECT_EQ(uselocale(nullptr), LC_GLOBAL_LOCALE);
}

// Texts -----------------------------------------------------------------------------------------------

TEST(AddTextToVar, AppendsWithAndWithoutFormat) {
    char* var = NewText("old");
    EXPECT_EQ(addTextToVar(&var, nullptr, "+new"), 0);
    EXPECT_STREQ(var, "old+new");
    EXPECT_EQ(addTextToVar(&var, "<a>%s</a>", "text"), 0);
    EXPECT_STREQ(var, "old+new<a>text</a>");
    EXPECT_EQ(addTextToVar(&var, "%s", ""), 0);
    EXPECT_EQ(addTextToVar(&var, nullptr, ""), 0);
    EXPECT_STREQ(var, "old+new<a>text</a>");
    EXPECT_EQ(addTextToVar(&var, "[%s]", "%s%n%d"), 0);
    EXPECT_EQ(addTextToVar(&var, "%s.", "a"), 0);
    EXPECT_EQ(addTextToVar(&var, ":%s", "b"), 0);
    EXPECT_STREQ(var, "old+new<a>text</a>[%s%n%d]a.:b");
    std::free(var);
}

TEST(AddTextToVar, AppendsAFormatWithoutPlaceAsItIs) {
    char* var = NewText("");
    EXPECT_EQ(addTextToVar(&var, "plain", "not put in"), 0);
    EXPECT_STREQ(var, "plain");
    std::free(var);
}

TEST(AddTextToVar, FitsTheTextExactly) {
    char* var = NewText("");
    const std::string text(100'000, 'x');
    EXPECT_EQ(addTextToVar(&var, "<%s>", text.c_str()), 0);
    EXPECT_EQ(std::strlen(var), text.size() + 2);
    EXPECT_LT(malloc_usable_size(var) - text.size(), 64U);
    std::free(var);
}

TEST(AddTextToVar, LosesTheTextWhenMemoryIsShort) {
    for (const char* const format : {static_cast<const char*>(nullptr), "<%s>"}) {
        char* var = NewText("old");
        const test::FailCall noMemory("realloc");
        EXPECT_EQ(addTextToVar(&var, format, "new"), -1);
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(var, nullptr);
        EXPECT_EQ(addTextToVar(&var, format, "more"), -1) << "a lost text does not begin again";
        EXPECT_EQ(var, nullptr);
    }
}

TEST(AddTextToVar, FailsForNullArguments) {
    EXPECT_EQ(addTextToVar(nullptr, "%s", "a"), -1);
    char* var = NewText("old");
    EXPECT_EQ(addTextToVar(&var, "%s", nullptr), -1);
    EXPECT_STREQ(var, "old");
    std::free(var);
}

TEST(ConvertUtf82Xml, EscapesFiveCharacters) {
    const auto escaped = [](std::string_view text) {
        const test::GuardedBytes guarded(text);
        const Text result(convertUtf82Xml(guarded.begin(), static_cast<int>(text.size())));
        return result ? std::string(result.get()) : "(none)";
    };
    EXPECT_EQ(escaped(""), "");
    EXPECT_EQ(escaped("plain"), "plain");
    EXPECT_EQ(escaped("&<>\"'"), "&amp;&lt;&gt;&quot;&apos;");
    EXPECT_EQ(escaped("&amp;"), "&amp;amp;");
    EXPECT_EQ(escaped("\xC3\xA4\xFF\x01\n"), "\xC3\xA4\xFF\x01\n");
    EXPECT_EQ(escaped(std::string(1000, '\'')), Repeated(1000, "&apos;"));
    EXPECT_EQ(escaped(std::string_view("a\0b", 3)), "(none)");
}

TEST(ConvertUtf82Xml, ReadsNoFurtherThanItsLength) {
    const Text cut(convertUtf82Xml("a<b", 2));
    EXPECT_STREQ(cut.get(), "a&lt;");
}

TEST(ConvertUtf82Xml, FailsForBadArgumentsAndWithoutMemory) {
    EXPECT_EQ(convertUtf82Xml(nullptr, 0), nullptr);
    EXPECT_EQ(convertUtf82Xml("a", -1), nullptr);
    const test::FailCall noMemory("calloc");
    EXPECT_EQ(convertUtf82Xml("a", 1), nullptr);
    EXPECT_TRUE(noMemory.Struck());
}

} // namespace
} // namespace rdx
