#include "http/http.h"

#include "http/header_list.h"
#include "tests/support/assertion.h"
#include "tests/support/classifier.h"
#include "tests/support/faults.h"
#include "tests/support/given_tables.h"
#include "tests/support/guarded.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>
#include <string>
#include <vector>

namespace {

using rdx::test::Classify;
using rdx::test::FailCall;
using rdx::test::GuardedBytes;

constexpr std::size_t kPointer = sizeof(void*);
static_assert(offsetof(HttpHeader, name) == 0);
static_assert(offsetof(HttpHeader, value) == kPointer);
static_assert(sizeof(HttpHeader) == 2 * kPointer);

auto Assertion(const std::string& function, const std::string& text) {
    return rdx::test::Assertion("http/http.cpp", function, text);
}

class DeathTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
using AssignHeaderDataDeathTest = DeathTest;
using AllocHeaderDeathTest = DeathTest;

// Tables ------------------------------------------------------------------------------------------------

rdx::test::Names NamesOf(std::span<const char* const> table) { return {table.begin(), table.end()}; }

TEST(HeaderTables, HoldTheseNamesInThisOrder) {
    EXPECT_EQ(NamesOf(apszGeneralHeaders), rdx::test::kGeneralHeaderNames);
    EXPECT_EQ(NamesOf(apszRequestHeaders), rdx::test::kRequestHeaderNames);
    EXPECT_EQ(NamesOf(apszResponseHeaders), rdx::test::kResponseHeaderNames);
    EXPECT_EQ(NamesOf(apszEntityHeaders), rdx::test::kEntityHeaderNames);
}

TEST(HeaderTables, AreCounted) {
    EXPECT_EQ(g_cnGeneralHeaders, std::ssize(apszGeneralHeaders));
    EXPECT_EQ(g_cnReqHeaders, std::ssize(apszRequestHeaders));
    EXPECT_EQ(g_cnRespHeaders, std::ssize(apszResponseHeaders));
    EXPECT_EQ(g_cnEntityHeaders, std::ssize(apszEntityHeaders));
}

// Classifiers -------------------------------------------------------------------------------------------

TEST(IsGeneralHeader, KnowsItsTable) { rdx::test::ExpectKnowsItsTable(IsGeneralHeader, apszGeneralHeaders); }

TEST(IsEntityHeader, KnowsItsTable) { rdx::test::ExpectKnowsItsTable(IsEntityHeader, apszEntityHeaders); }

TEST(IsGeneralHeader, RefusesMalformedLines) { rdx::test::ExpectRefusesMalformedLines(IsGeneralHeader); }
TEST(IsEntityHeader, RefusesMalformedLines) { rdx::test::ExpectRefusesMalformedLines(IsEntityHeader); }

TEST(IsGeneralHeader, TakesTheBeginningOfANameForIt) {
    EXPECT_EQ(Classify(IsGeneralHeader, "Con: x"), 1);
    EXPECT_EQ(Classify(IsEntityHeader, "Con: x"), 1);
    EXPECT_EQ(Classify(IsEntityHeader, "Content-length: 1"), 1);
    EXPECT_EQ(Classify(IsGeneralHeader, "Content-length: 1"), 0);
}

TEST(IsGeneralHeader, TakesAnEmptyRangeForALineWithoutColon) {
    char line[] = ":";
    char* colon = nullptr;
    EXPECT_EQ(IsGeneralHeader(line, line, &colon), -6);
    EXPECT_EQ(IsGeneralHeader(line + 1, line, &colon), -6);
    EXPECT_EQ(colon, nullptr);
}

// Cutting a line ----------------------------------------------------------------------------------------

// One header of a list, freed with the test.
class Stored {
public:
    Stored() = default;
    ~Stored() { FreeHeaders(&header_, 1); }
    Stored(const Stored&) = delete;
    Stored& operator=(const Stored&) = delete;

    HttpHeader* get() { return &header_; }
    HttpHeader* operator->() { return &header_; }

private:
    HttpHeader header_{};
};

int Assign(Stored& stored, std::string_view line) {
    const GuardedBytes bytes(line);
    return AssignHeaderData(bytes.begin(), bytes.begin() + line.find(':'), bytes.end(), stored.get(), 0, 1);
}

TEST(AssignHeaderData, CutsNameAndValue) {
    const struct {
        std::string_view line;
        const char* name;
        const char* value;
    } rows[] = {
        {"Connection:keep-alive", "Connection", "keep-alive"},
        {"Connection: : close", "Connection", "close"},
        {"Connection:\tclose", "Connection", "\tclose"},
        {"Connection: \tclose", "Connection", "\tclose"},
        {"Name::  value", "Name", "value"},
        {"Name: value \t ", "Name", "value \t "},
        {"Name: a:b", "Name", "a:b"},
        {" Name : value", " Name ", "value"},
        {"nAmE: vAlUe", "nAmE", "vAlUe"},
        {"Name:", "Name", ""},
        {"Name: ", "Name", ""},
        {"Name: :: :", "Name", ""},
        {": value", "", "value"},
        {":", "", ""},
        {"X:1", "X", "1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        Stored stored;
        ASSERT_EQ(Assign(stored, row.line), 1);
        EXPECT_STREQ(stored->name, row.name);
        EXPECT_STREQ(stored->value, row.value);
    }
}

TEST(AssignHeaderData, EndsTextsAtANulForWhoeverReadsThem) {
    Stored stored;
    ASSERT_EQ(Assign(stored, std::string_view("Na\0me: va\0lue", 13)), 1);
    EXPECT_STREQ(stored->name, "Na");
    EXPECT_STREQ(stored->value, "va");
}

TEST(AssignHeaderData, FillsTheEntryOfItsIndex) {
    HttpHeader headers[16] = {};
    char line[] = "Date: now";
    EXPECT_EQ(AssignHeaderData(line, line + 4, line + 9, headers, 15, 16), 1);
    EXPECT_STREQ(headers[15].name, "Date");
    EXPECT_STREQ(headers[15].value, "now");
    FreeHeaders(headers, 16);
}

TEST(AssignHeaderData, StoresNothingInAFullList) {
    char line[] = "Date: now";
    for (const int index : {16, 17, 255}) {
        HttpHeader headers[16] = {};
        EXPECT_EQ(AssignHeaderData(line, line + 4, line + 9, headers, static_cast<unsigned char>(index), 16),
                  -6);
        for (const HttpHeader& header : headers) {
            EXPECT_EQ(header.name, nullptr);
            EXPECT_EQ(header.value, nullptr);
        }
    }
    HttpHeader header{};
    EXPECT_EQ(AssignHeaderData(line, line + 4, line + 9, &header, 0, 0), -6);
    EXPECT_EQ(AssignHeaderData(line, line + 4, line + 9, &header, 0, -1), -6);
}

TEST(AssignHeaderData, ReportsMissingMemoryForTheName) {
    Stored stored;
    const FailCall noMemory("malloc");
    EXPECT_EQ(Assign(stored, "Date: now"), -1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(stored->name, nullptr);
    EXPECT_EQ(stored->value, nullptr);
}

TEST(AssignHeaderData, KeepsTheNameWhenMemoryIsShortForTheValue) {
    Stored stored;
    const FailCall noMemory("malloc", 2);
    EXPECT_EQ(Assign(stored, "Date: now"), -1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_STREQ(stored->name, "Date");
    EXPECT_EQ(stored->value, nullptr);
}

TEST_F(AssignHeaderDataDeathTest, AssertsItsArguments) {
    char line[] = "Date: now";
    char* const colon = line + 4;
    char* const end = line + 9;
    HttpHeader header{};
    const std::string function = "AssignHeaderData";
    EXPECT_DEATH(AssignHeaderData(nullptr, nullptr, nullptr, nullptr, 0, 1),
                 Assertion(function, "p != __null"));
    EXPECT_DEATH(AssignHeaderData(line, nullptr, nullptr, nullptr, 0, 1), Assertion(function, "q != __null"));
    EXPECT_DEATH(AssignHeaderData(line, nullptr, end, nullptr, 0, 1),
                 Assertion(function, "pcolon != __null"));
    EXPECT_DEATH(AssignHeaderData(line, line, end, nullptr, 0, 1),
                 Assertion(function, "*pcolon == (char)':'"));
    EXPECT_DEATH(AssignHeaderData(line, colon, end, nullptr, 0, 1), Assertion(function, "pHdr != __null"));
    EXPECT_DEATH(AssignHeaderData(line, line, end, &header, 1, 1),
                 Assertion(function, "*pcolon == (char)':'"))
        << "also when the list is full";
}

// Their lengths are signed: a colon that does not lie in the line makes one that is not above 0.
TEST_F(AssignHeaderDataDeathTest, AssertsAColonInsideTheLine) {
    char text[] = ":Date: now";
    char* const line = text + 1;
    HttpHeader header{};
    EXPECT_DEATH(AssignHeaderData(line, text, text + 10, &header, 0, 1),
                 Assertion("AssignHeaderData", "lname > 0"));
    EXPECT_DEATH(AssignHeaderData(line, line + 4, line + 4, &header, 0, 1),
                 Assertion("AssignHeaderData", "lvalue > 0"));
    EXPECT_DEATH(AssignHeaderData(line, line + 4, line + 2, &header, 0, 1),
                 Assertion("AssignHeaderData", "lvalue > 0"));
    EXPECT_EQ(AssignHeaderData(line, line + 4, line + 5, &header, 0, 1), 1) << "an empty value";
    EXPECT_STREQ(header.value, "");
    FreeHeaders(&header, 1);
}

// Filling from texts ------------------------------------------------------------------------------------

TEST(AllocHeader, CopiesBothTexts) {
    Stored stored;
    char name[] = "Server";
    char value[] = "x y";
    EXPECT_EQ(AllocHeader(stored.get(), name, value), 0);
    name[0] = value[0] = '?';
    EXPECT_STREQ(stored->name, "Server");
    EXPECT_STREQ(stored->value, "x y");
}

TEST(AllocHeader, ReportsMissingMemoryForTheName) {
    Stored stored;
    const FailCall noMemory("malloc");
    EXPECT_EQ(AllocHeader(stored.get(), "Server", "x"), -1);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(stored->name, nullptr);
    EXPECT_EQ(stored->value, nullptr);
}

TEST(AllocHeader, KeepsTheNameWhenMemoryIsShortForTheValue) {
    Stored stored;
    const FailCall noMemory("malloc", 2);
    EXPECT_EQ(AllocHeader(stored.get(), "Server", "x"), -2);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_STREQ(stored->name, "Server");
    EXPECT_EQ(stored->value, nullptr);
}

TEST_F(AllocHeaderDeathTest, AssertsItsArguments) {
    HttpHeader header{};
    const std::string function = "AllocHeader";
    EXPECT_DEATH(AllocHeader(nullptr, nullptr, nullptr), Assertion(function, "pHeader != __null"));
    EXPECT_DEATH(AllocHeader(&header, nullptr, nullptr), Assertion(function, "name != __null"));
    EXPECT_DEATH(AllocHeader(&header, "", nullptr), Assertion(function, "value != __null"));
    EXPECT_DEATH(AllocHeader(&header, "", ""), Assertion(function, "nlen > 0"));
    EXPECT_DEATH(AllocHeader(&header, "n", ""), Assertion(function, "vlen > 0"));
}

TEST(FreeHeaders, NullsEveryPointerUpToTheCount) {
    HttpHeader headers[3] = {};
    for (HttpHeader& header : headers) ASSERT_EQ(AllocHeader(&header, "n", "v"), 0);
    FreeHeaders(headers, 2);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(headers[i].name, nullptr);
        EXPECT_EQ(headers[i].value, nullptr);
    }
    EXPECT_STREQ(headers[2].name, "n");
    FreeHeaders(headers, 3);
    EXPECT_EQ(headers[2].value, nullptr);
    FreeHeaders(headers, 3);
}

TEST(FreeHeaders, AcceptsWhatIsNotThere) {
    FreeHeaders(nullptr, 16);
    HttpHeader half{};
    half.name = strdup("n");
    FreeHeaders(&half, 0);
    FreeHeaders(&half, -1);
    EXPECT_STREQ(half.name, "n");
    FreeHeaders(&half, 1);
    EXPECT_EQ(half.name, nullptr);
}

// Bounded appending -------------------------------------------------------------------------------------

// A buffer whose last byte lies right before an unreadable page.
class Output {
public:
    explicit Output(std::size_t size) : bytes_(std::string(size, '#')), cursor(bytes_.begin()) {}
    int Text(const char* text) { return AssertedStrCopy(&cursor, bytes_.end() - 1, text); }
    int Bytes(const void* data, unsigned int n) {
        return AssertedMemCopy(&cursor, bytes_.end() - 1, data, n);
    }
    std::string Content() const { return {bytes_.begin(), bytes_.end()}; }
    std::size_t Written() const { return static_cast<std::size_t>(cursor - bytes_.begin()); }

private:
    GuardedBytes bytes_;

public:
    char* cursor;
};

TEST(AssertedStrCopy, KeepsAByteSpareBehindTheNul) {
    Output fits(10);
    EXPECT_EQ(fits.Text("12345678"), 0);
    EXPECT_EQ(fits.Written(), 8U);
    EXPECT_EQ(fits.Content(), std::string("12345678\0#", 10));
    Output full(10);
    EXPECT_EQ(full.Text("123456789"), -2);
    EXPECT_EQ(full.Written(), 0U);
    EXPECT_EQ(full.Content(), "##########");
}

TEST(AssertedStrCopy, GoesOnWhereItStopped) {
    Output output(10);
    EXPECT_EQ(output.Text("123"), 0);
    EXPECT_EQ(output.Text("45678"), 0);
    EXPECT_EQ(output.Content(), std::string("12345678\0#", 10));
    EXPECT_EQ(output.Text("9"), -2);
    EXPECT_EQ(output.Text("a text that is far longer than all of the buffer"), -2);
    EXPECT_EQ(output.Written(), 8U);
}

TEST(AssertedStrCopy, RefusesAnEmptyText) {
    Output output(10);
    EXPECT_EQ(output.Text(""), -9);
    EXPECT_EQ(output.Text(nullptr), -9);
    EXPECT_EQ(output.Content(), "##########");
    EXPECT_EQ(Output(1).Text(""), -9) << "also where nothing would fit";
}

TEST(AssertedStrCopy, FindsNoRoomInTheSmallestBuffers) {
    EXPECT_EQ(Output(1).Text("1"), -2);
    EXPECT_EQ(Output(2).Text("1"), -2);
    EXPECT_EQ(Output(3).Text("1"), 0);
}

TEST(AssertedMemCopy, KeepsAByteSpare) {
    Output fits(10);
    EXPECT_EQ(fits.Bytes("ab\0defgh", 8), 0);
    EXPECT_EQ(fits.Written(), 8U);
    EXPECT_EQ(fits.Content(), std::string("ab\0defgh##", 10)) << "no NUL is written";
    Output full(10);
    EXPECT_EQ(full.Bytes("123456789", 9), -2);
    EXPECT_EQ(full.Written(), 0U);
    EXPECT_EQ(full.Content(), "##########");
}

TEST(AssertedMemCopy, AcceptsNothingAtAll) {
    Output output(10);
    EXPECT_EQ(output.Bytes(nullptr, 0), 0);
    EXPECT_EQ(output.Bytes("x", 0), 0);
    EXPECT_EQ(output.Written(), 0U);
    EXPECT_EQ(output.Content(), "##########");
    EXPECT_EQ(Output(1).Bytes(nullptr, 0), -2) << "nothing needs the spare byte too";
}

TEST(AssertedMemCopy, ComparesLengthsThatNoPointerCouldHold) {
    Output output(10);
    EXPECT_EQ(output.Bytes("x", 0xFFFFFFFFU), -2);
    EXPECT_EQ(output.Written(), 0U);
}

TEST(AssertedMemCopy, RefusesBytesThatAreNotThere) {
    Output output(10);
    EXPECT_EQ(output.Bytes(nullptr, 1), -2);
    EXPECT_EQ(output.Written(), 0U);
}

TEST(AssertedMemCopy, OverwritesTheNulOfTheTextBefore) {
    Output output(10);
    EXPECT_EQ(output.Text("ab"), 0);
    EXPECT_EQ(output.Bytes("cd", 2), 0);
    EXPECT_EQ(output.Content(), "abcd######");
}

} // namespace
