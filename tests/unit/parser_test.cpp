#include "wddx/wddx.h"

#include "common/mt.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wddx.h"

#include <chrono>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
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

static_assert(offsetof(TagDef, dwId) == 0);
static_assert(sizeof(void*) != 8 || offsetof(TagDef, szName) == 8);
static_assert(sizeof(void*) != 8 || offsetof(TagDef, szAttr) == 16);
static_assert(sizeof(void*) != 8 || offsetof(TagDef, dwChildren) == 24);
static_assert(offsetof(TagDef, ucEmptyTag) == offsetof(TagDef, dwChildren) + 4);
static_assert(offsetof(TagDef, ucMultiChild) == offsetof(TagDef, dwChildren) + 5);
static_assert(offsetof(TagDef, ucMayBeEmpty) == offsetof(TagDef, dwChildren) + 6);
static_assert(offsetof(TagDef, ucNeedsChild) == offsetof(TagDef, dwChildren) + 7);
static_assert(sizeof(void*) != 8 || sizeof(TagDef) == 32);

static_assert(offsetof(WddxTag, bEnd) == 0);
static_assert(offsetof(WddxTag, bSelfClosed) == 1);
static_assert(offsetof(WddxTag, szName) == 2);
static_assert(offsetof(WddxTag, szAttrName) == 102);
static_assert(offsetof(WddxTag, szAttrValue) == 202);
static_assert(sizeof(WddxTag) == 302);

static_assert(offsetof(WddxElement, dwId) == 0);
static_assert(sizeof(void*) != 8 || offsetof(WddxElement, pszText) == 8);
static_assert(sizeof(void*) != 8 || offsetof(WddxElement, pPrev) == 16);
static_assert(sizeof(void*) != 8 || offsetof(WddxElement, pNext) == 24);
static_assert(sizeof(void*) != 8 || offsetof(WddxElement, pParent) == 32);
static_assert(sizeof(void*) != 8 || offsetof(WddxElement, pFirstChild) == 40);
static_assert(sizeof(void*) != 8 || sizeof(WddxElement) == 48);

constexpr std::size_t kLargestBody = 65536; // bytes of an argument packet under the default settings

struct FreeElement {
    void operator()(WddxElement* element) const { freeElements(element); }
};
using Element = std::unique_ptr<WddxElement, FreeElement>;
using Tag = std::unique_ptr<WddxTag, test::FreeMemory>;

// What the value in a packet reads as, printed; "" when the packet does not parse.
std::string Meaning(const std::string& value) {
    const Tree tree = Parse(Packet(value));
    return tree ? Printed(tree.get()) : "";
}

bool Parses(const std::string& packet) { return Parse(packet) != nullptr; }

// The table -------------------------------------------------------------------------------------------

TEST(TagTable, HasTheseRows) {
    const TagDef rows[] = {
        {1, "", nullptr, 2, 0, 0, 0, 1},
        {2, "wddxPacket", "version", 20, 0, 1, 0, 0},
        {4, "header", nullptr, 8, 0, 0, 1, 1},
        {8, "comment", nullptr, 0, 0, 0, 0, 0},
        {16, "data", nullptr, 32704, 0, 0, 0, 1},
        {4096, "struct", nullptr, 32, 0, 1, 1, 1},
        {32, "var", "name", 32704, 0, 0, 0, 1},
        {2048, "array", "length", 32704, 0, 1, 1, 0},
        {8192, "recordset", "rowCount", 65536, 0, 1, 0, 0},
        {65536, "field", "name", 18368, 0, 1, 0, 0},
        {64, "null", nullptr, 0, 1, 0, 0, 0},
        {256, "number", nullptr, 0, 0, 0, 0, 0},
        {1024, "string", nullptr, 0, 0, 0, 1, 0},
        {128, "boolean", "value", 0, 1, 0, 0, 0},
    };
    static_assert(std::size(rows) == WDDX_TAG_COUNT);
    for (int i = 0; i < WDDX_TAG_COUNT; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(g_astTagDef[i].dwId, rows[i].dwId);
        EXPECT_STREQ(g_astTagDef[i].szName, rows[i].szName);
        EXPECT_STREQ(g_astTagDef[i].szAttr, rows[i].szAttr);
        EXPECT_EQ(g_astTagDef[i].dwChildren, rows[i].dwChildren);
        EXPECT_EQ(g_astTagDef[i].ucEmptyTag, rows[i].ucEmptyTag);
        EXPECT_EQ(g_astTagDef[i].ucMultiChild, rows[i].ucMultiChild);
        EXPECT_EQ(g_astTagDef[i].ucMayBeEmpty, rows[i].ucMayBeEmpty);
        EXPECT_EQ(g_astTagDef[i].ucNeedsChild, rows[i].ucNeedsChild);
        EXPECT_EQ(lookupTagByName(rows[i].szName), i);
        EXPECT_EQ(lookupTagById(rows[i].dwId), i);
    }
}

TEST(TagTable, KnowsNothingElse) {
    for (const char* const name :
         {"String", "STRING", "strin", "strings", "dateTime", "binary", " ", "?xml"}) {
        EXPECT_EQ(lookupTagByName(name), -1) << name;
    }
    EXPECT_EQ(lookupTagByName(nullptr), -1);
    for (const unsigned int id : {0U, 3U, 512U, 16384U, 32768U, 131072U, UINT_MAX}) {
        EXPECT_EQ(lookupTagById(id), -1) << id;
    }
}

// Tags ------------------------------------------------------------------------------------------------

struct TagCase {
    const char* text;
    bool end;
    bool selfClosed;
    const char* name;
    const char* attrName;
    const char* attrValue;
    const char* rest;
};

TEST(GetNextTag, ReadsEveryForm) {
    const TagCase cases[] = {
        {"<data>x", false, false, "data", "", "", "x"},
        {"skipped <data>x", false, false, "data", "", "", "x"},
        {"</data>x", true, false, "data", "", "", "x"},
        {"</data >x", true, false, "data", "", "", "x"},
        {"</data \t\r\n>x", true, false, "data", "", "", "x"},
        {"</data a/b>x", true, false, "data", "", "", "b>x"},
        {"<null/>x", true, true, "null", "", "", "x"},
        {"<null/ >x", true, true, "null", "", "", ">x"},
        {"<null />x", true, true, "null", "", "", "x"},
        {"<null\t\r\n />x", true, true, "null", "", "", "x"},
        {"</null/>x", true, true, "null", "", "", "x"},
        {"<data >x", false, false, "data", "", "", "x"},
        {"<data\n>x", false, false, "data", "", "", "x"},
        {"<data\r>x", false, false, "data", "", "", "x"},
        {"<var name\t='a'>x", false, false, "var", "name", "a", "x"},
        {"<var name\n='a'>x", false, false, "var", "name", "a", "x"},
        {"<var name=\t'a'>x", false, false, "var", "name", "a", "x"},
        {"<var name=' \t\r\n=a '>x", false, false, "var", "name", "a ", "x"},
        {"<var name='a'>x", false, false, "var", "name", "a", "x"},
        {"<var name=\"a\">x", false, false, "var", "name", "a", "x"},
        {"<var name='a\">x", false, false, "var", "name", "a", "x"},
        {"<var name = 'a' >x", false, false, "var", "name", "a", "x"},
        {"<var\n\tname\r=\n'a'\n>x", false, false, "var", "name", "a", "x"},
        {"<var name a'>x", false, false, "var", "name", "a", "x"},
        {"<var name=  a b '>x", false, false, "var", "name", "a b ", "x"},
        {"<var name='&amp;<b>'>x", false, false, "var", "name", "&amp;<b>", "x"},
        {"<boolean value='true'/>x", true, true, "boolean", "value", "true", "x"},
        {"<boolean value='true' />x", true, true, "boolean", "value", "true", "x"},
        {"<boolean value='true' other='b'/>x", true, true, "boolean", "value", "true", "x"},
        {"<var name='a' other='b'>x", false, false, "var", "name", "a", "x"},
        {"<var name='a' b/c>x", false, false, "var", "name", "a", "c>x"},
        {"<var name=''><null/><var name='b'>x", false, false, "var", "name", "><null/><var name=", "x"},
        {"<?xml version='1.0'?>x", false, false, "?xml", "version", "1.0", "x"},
        {"<!DOCTYPE wddxPacket SYSTEM 'a.dtd'>x", false, false, "!DOCTYPE", "wddxPacket", "SYSTEM ", "x"},
        {"<>x", false, false, "", "", "", "x"},
        {"</>x", true, false, "", "", "", "x"},
        {"<//>x", true, true, "", "", "", "x"},
        {"< null/>'x>'", false, false, "", "null/>'x>'", "", nullptr},
        {"< data>", false, false, "", "", "", nullptr},
        {"<a<b>x", false, false, "a<b", "", "", "x"},
    };
    for (const TagCase& c : cases) {
        SCOPED_TRACE(c.text);
        const char* cursor = c.text;
        const Tag tag(getNextTag(&cursor));
        if (c.rest == nullptr) {
            EXPECT_EQ(tag, nullptr);
            EXPECT_EQ(cursor, c.text) << "left where it was";
            continue;
        }
        ASSERT_NE(tag, nullptr);
        EXPECT_EQ(tag->bEnd, c.end);
        EXPECT_EQ(tag->bSelfClosed, c.selfClosed);
        EXPECT_STREQ(tag->szName, c.name);
        EXPECT_STREQ(tag->szAttrName, c.attrName);
        EXPECT_STREQ(tag->szAttrValue, c.attrValue);
        EXPECT_STREQ(cursor, c.rest);
    }
}

TEST(GetNextTag, FindsNoneInWhatIsBrokenOff) {
    for (const char* const text :
         {"", "text", "<", "</", "<data", "</data", "</data ", "<data ", "<data/", "<data /", "<var name",
          "<var name=", "<var name='", "<var name='a", "<var name='a'", "<var name='a' b", "<null / >"}) {
        const test::GuardedBytes guarded(std::string_view(text, std::strlen(text) + 1));
        const char* cursor = guarded.begin();
        EXPECT_EQ(getNextTag(&cursor), nullptr) << text;
        EXPECT_EQ(cursor, guarded.begin()) << text;
    }
}

TEST(GetNextTag, NeedsAText) {
    const char* cursor = nullptr;
    EXPECT_EQ(getNextTag(&cursor), nullptr);
    EXPECT_EQ(getNextTag(nullptr), nullptr);
}

TEST(GetNextTag, WalksAlongTheText) {
    const std::string packet = Packet("<array length='1'><string>a</string></array>");
    const char* cursor = packet.c_str();
    std::string seen;
    while (const Tag tag{getNextTag(&cursor)})
        seen.append(tag->bEnd ? "/" : "").append(tag->szName).append(" ");
    EXPECT_EQ(seen, "wddxPacket /header data array string /string /array /data /wddxPacket ");
}

TEST(GetNextTag, TakesTextsThatFitItsRecord) {
    const std::string fits(WDDX_TAG_TEXT_SIZE - 1, 'x');
    const std::string tooLong(WDDX_TAG_TEXT_SIZE, 'x');
    const auto read = [](const std::string& text) {
        const char* cursor = text.c_str();
        return Tag(getNextTag(&cursor));
    };
    EXPECT_EQ(read("<" + fits + ">")->szName, fits);
    EXPECT_EQ(read("<" + tooLong + ">"), nullptr);
    EXPECT_EQ(read("</" + fits + ">")->szName, fits);
    EXPECT_EQ(read("</" + tooLong + ">"), nullptr);
    EXPECT_EQ(read("<" + fits + "/>")->szName, fits);
    EXPECT_EQ(read("<" + tooLong + "/>"), nullptr);
    EXPECT_EQ(read("<a " + fits + "='v'>")->szAttrName, fits);
    EXPECT_EQ(read("<a " + tooLong + "='v'>"), nullptr);
    EXPECT_EQ(read("<a n='" + fits + "'>")->szAttrValue, fits);
    EXPECT_EQ(read("<a n='" + tooLong + "'>"), nullptr);
    EXPECT_NE(read("<a n='v' m='" + tooLong + "'>"), nullptr) << "further attributes are not looked at";
}

TEST(GetNextTag, GivesNullWhenMemoryIsShort) {
    const char* const text = "<data>";
    const char* cursor = text;
    const test::FailCall noMemory("calloc");
    EXPECT_EQ(getNextTag(&cursor), nullptr);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(cursor, text);
}

// Elements --------------------------------------------------------------------------------------------

WddxTag MakeTag(const char* name, const char* attrName = "", const char* attrValue = "") {
    WddxTag tag = {};
    std::strcpy(tag.szName, name);
    std::strcpy(tag.szAttrName, attrName);
    std::strcpy(tag.szAttrValue, attrValue);
    return tag;
}

// The element of row `row`, as a start tag makes it.
Element MakeElement(int row) {
    const TagDef& def = g_astTagDef[row];
    WddxTag tag = MakeTag(def.szName, def.szAttr == nullptr ? "" : def.szAttr, "1");
    tag.bEnd = tag.bSelfClosed = def.ucEmptyTag;
    return Element(checkTagAndCreateElement(&tag));
}

TEST(CreateElement, TakesItsTextFromTheAttributeOfItsRow) {
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        SCOPED_TRACE(g_astTagDef[row].szName);
        const Element element = MakeElement(row);
        ASSERT_NE(element, nullptr);
        EXPECT_EQ(element->dwId, g_astTagDef[row].dwId);
        EXPECT_STREQ(element->pszText, g_astTagDef[row].szAttr == nullptr ? nullptr : "1");
        EXPECT_EQ(element->pPrev, nullptr);
        EXPECT_EQ(element->pNext, nullptr);
        EXPECT_EQ(element->pParent, nullptr);
        EXPECT_EQ(element->pFirstChild, nullptr);
    }
}

TEST(CreateElement, NeedsTheAttributeOfItsRow) {
    for (const TagDef& row : g_astTagDef) {
        SCOPED_TRACE(row.szName);
        for (const char* const attribute : {"", "other", "Name", "names", "VERSION"}) {
            WddxTag tag = MakeTag(row.szName, attribute, "1");
            tag.bEnd = tag.bSelfClosed = row.ucEmptyTag;
            const Element element(checkTagAndCreateElement(&tag));
            EXPECT_EQ(element == nullptr, row.szAttr != nullptr) << attribute;
            EXPECT_TRUE(!element || element->pszText == nullptr) << "attributes without meaning are ignored";
        }
    }
}

TEST(CreateElement, IsSelfClosedWhereItsRowSaysSo) {
    for (const TagDef& row : g_astTagDef) {
        SCOPED_TRACE(row.szName);
        WddxTag tag = MakeTag(row.szName, row.szAttr == nullptr ? "" : row.szAttr, "1");
        EXPECT_EQ(Element(checkTagAndCreateElement(&tag)) == nullptr, row.ucEmptyTag == 1);
        tag.bEnd = 1;
        EXPECT_NE(Element(checkTagAndCreateElement(&tag)), nullptr);
        tag.bEnd = 0;
        tag.bSelfClosed = 1;
        EXPECT_NE(Element(checkTagAndCreateElement(&tag)), nullptr);
    }
}

TEST(CreateElement, RefusesUnknownNames) {
    for (const char* const name : {"dateTime", "binary", "Null", "x"}) {
        WddxTag tag = MakeTag(name);
        EXPECT_EQ(checkTagAndCreateElement(&tag), nullptr) << name;
    }
    EXPECT_EQ(checkTagAndCreateElement(nullptr), nullptr);
}

TEST(CreateElement, GivesNullWhenMemoryIsShort) {
    test::FailEveryAllocation([] { return MakeElement(lookupTagByName("var")) != nullptr; });
}

// The shortest good form of each row's tag.
const char* const kGoodForms[WDDX_TAG_COUNT] = {
    "<><wddxPacket version='1.0'><data><null/></data></wddxPacket></>",
    "<wddxPacket version='1.0'><data><null/></data></wddxPacket>",
    "<header/>",
    "<comment>c</comment>",
    "<data><null/></data>",
    "<struct/>",
    "<var name='x'><null/></var>",
    "<array length='0'/>",
    "<recordset rowCount='1'><field name='f'><null/></field></recordset>",
    "<field name='f'><null/></field>",
    "<null/>",
    "<number>1</number>",
    "<string/>",
    "<boolean value='true'/>",
};

// Whether the content, followed by the end tag, is good for an element of the row.
bool ContentIsGood(int row, const std::string& content) {
    const Element element = MakeElement(row);
    const std::string text = content + "</" + g_astTagDef[row].szName + ">rest";
    const char* cursor = text.c_str();
    const int result = parseTagContent(&cursor, element.get());
    EXPECT_STREQ(cursor, result == 1 ? "rest" : text.c_str()) << content;
    return result == 1;
}

TEST(ParseTagContent, AllowsTheChildrenOfTheTable) {
    for (int parent = 0; parent < WDDX_TAG_COUNT; ++parent) {
        for (int child = 0; child < WDDX_TAG_COUNT; ++child) {
            const bool allowed = (g_astTagDef[parent].dwChildren & g_astTagDef[child].dwId) != 0;
            EXPECT_EQ(ContentIsGood(parent, kGoodForms[child]), allowed)
                << g_astTagDef[parent].szName << " in " << g_astTagDef[child].szName;
        }
    }
}

TEST(ParseTagContent, AllowsASecondChildWhereTheTableDoes) {
    for (int parent = 0; parent < WDDX_TAG_COUNT; ++parent) {
        for (int child = 0; child < WDDX_TAG_COUNT; ++child) {
            if ((g_astTagDef[parent].dwChildren & g_astTagDef[child].dwId) == 0) continue;
            const std::string twice = Repeated(2, kGoodForms[child]);
            EXPECT_EQ(ContentIsGood(parent, twice), g_astTagDef[parent].ucMultiChild == 1)
                << g_astTagDef[parent].szName << " in " << g_astTagDef[child].szName;
        }
    }
    EXPECT_FALSE(ContentIsGood(lookupTagByName("data"), "<null/><string/>")) << "of another kind";
}

TEST(ParseTagContent, AllowsNoContentWhereTheTableDoes) {
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        EXPECT_EQ(ContentIsGood(row, ""), g_astTagDef[row].ucMayBeEmpty == 1) << g_astTagDef[row].szName;
    }
}

TEST(ParseTagContent, AllowsTextInThreeTagsOnly) {
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        const std::string name = g_astTagDef[row].szName;
        const bool takesText = name == "comment" || name == "number" || name == "string";
        // "null" has no attribute and no children, but its start tag cannot stand before a content.
        if (name == "null") continue;
        EXPECT_EQ(ContentIsGood(row, "text"), takesText) << name;
        EXPECT_FALSE(ContentIsGood(row, "text<null/>")) << name;
    }
}

TEST(ParseTagContent, RefusesTextBeforeTheFirstChild) {
    for (int parent = 0; parent < WDDX_TAG_COUNT; ++parent) {
        for (int child = 0; child < WDDX_TAG_COUNT; ++child) {
            EXPECT_FALSE(ContentIsGood(parent, std::string("\n") + kGoodForms[child]))
                << g_astTagDef[parent].szName << " in " << g_astTagDef[child].szName;
        }
    }
}

TEST(ParseTagContent, SkipsTextBehindATag) {
    EXPECT_TRUE(ContentIsGood(lookupTagByName("data"), "<null/> text "));
    EXPECT_TRUE(ContentIsGood(lookupTagByName("struct"), "<var name='x'><null/>\n</var>\n"));
    EXPECT_TRUE(ContentIsGood(lookupTagByName("array"), "<null/> text <null/>"));
}

TEST(ParseTagContent, AllowsSelfClosedChildrenThatMayBeEmpty) {
    struct Case {
        const char* parent;
        const char* child;
        bool good;
    };
    const Case cases[] = {
        {"wddxPacket", "<header/>", true},
        {"wddxPacket", "<data/>", false},
        {"header", "<comment/>", false},
        {"struct", "<var name='x'/>", false},
        {"data", "<struct/>", true},
        {"data", "<array length='0'/>", true},
        {"data", "<recordset rowCount='0'/>", false},
        {"recordset", "<field name='f'/>", false},
        {"data", "<null/>", true},
        {"data", "<number/>", false},
        {"data", "<string/>", true},
        {"data", "<boolean value='x'/>", true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ContentIsGood(lookupTagByName(c.parent), c.child), c.good) << c.child << " in " << c.parent;
    }
}

TEST(ParseTagContent, NeedsTheEndTagOfTheElement) {
    for (int row = 0; row < WDDX_TAG_COUNT; ++row) {
        const Element element = MakeElement(lookupTagByName("string"));
        const std::string text = std::string("</") + g_astTagDef[row].szName + ">";
        const char* cursor = text.c_str();
        EXPECT_EQ(parseTagContent(&cursor, element.get()), std::string(g_astTagDef[row].szName) == "string")
            << text;
    }
}

TEST(ParseTagContent, FailsWhenTheTextEndsOrATagIsUnknown) {
    for (const char* const content : {"", "text", "<", "<null/>", "<null/", "<x/></data>", "<null/></x>",
                                      "<null/><x>", "<null></null></data>", "<null/></Data>"}) {
        const Element element = MakeElement(lookupTagByName("data"));
        const char* cursor = content;
        EXPECT_EQ(parseTagContent(&cursor, element.get()), 0) << content;
        EXPECT_EQ(cursor, content);
    }
}

TEST(ParseTagContent, NeedsItsArguments) {
    const char* cursor = "</string>";
    EXPECT_EQ(parseTagContent(&cursor, nullptr), 0);
    const Element element = MakeElement(lookupTagByName("string"));
    EXPECT_EQ(parseTagContent(nullptr, element.get()), 0);
    cursor = nullptr;
    EXPECT_EQ(parseTagContent(&cursor, element.get()), 0);
    cursor = "</string>";
    element->dwId = 512;
    EXPECT_EQ(parseTagContent(&cursor, element.get()), 0) << "an id of no row";
}

TEST(ParseTagContent, LinksParentsChildrenAndSiblings) {
    const Element array = MakeElement(lookupTagByName("array"));
    const char* cursor = "<string>a&lt;b</string><null/><struct><var name='v'><null/></var></struct></array>";
    ASSERT_EQ(parseTagContent(&cursor, array.get()), 1);
    const WddxElement* const first = array->pFirstChild;
    const WddxElement* const second = first->pNext;
    const WddxElement* const third = second->pNext;
    EXPECT_EQ(first->dwId, 1024U);
    EXPECT_EQ(second->dwId, 64U);
    EXPECT_EQ(third->dwId, 4096U);
    EXPECT_STREQ(first->pszText, "a<b");
    EXPECT_EQ(second->pszText, nullptr);
    EXPECT_EQ(third->pNext, nullptr);
    EXPECT_EQ(first->pPrev, nullptr);
    EXPECT_EQ(second->pPrev, first);
    EXPECT_EQ(third->pPrev, second);
    EXPECT_EQ(first->pParent, array.get());
    EXPECT_EQ(second->pParent, nullptr);
    EXPECT_EQ(third->pParent, nullptr);
    const WddxElement* const var = third->pFirstChild;
    EXPECT_EQ(var->pParent, third);
    EXPECT_STREQ(var->pszText, "v");
    EXPECT_EQ(var->pFirstChild->dwId, 64U);
}

TEST(FreeElements, LeavesTheSiblings) {
    const Element array = MakeElement(lookupTagByName("array"));
    const char* cursor = "<struct><var name='v'><null/></var></struct><string>kept</string></array>";
    ASSERT_EQ(parseTagContent(&cursor, array.get()), 1);
    WddxElement* const first = array->pFirstChild;
    array->pFirstChild = first->pNext;
    freeElements(first);
    EXPECT_STREQ(array->pFirstChild->pszText, "kept");
    freeElements(nullptr);
}

// The data element ------------------------------------------------------------------------------------

// What parseElements finds when the packet has these elements, by their ids; 0 for nothing.
unsigned int Located(std::initializer_list<unsigned int> underRoot, std::initializer_list<unsigned int> ids) {
    WddxElement root = {};
    std::vector<WddxElement> packets(underRoot.size());
    std::vector<WddxElement> inside(ids.size());
    const auto link = [](WddxElement& parent, std::vector<WddxElement>& row,
                         std::initializer_list<unsigned int> of) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            row[i].dwId = of.begin()[i];
            (i == 0 ? parent.pFirstChild : row[i - 1].pNext) = &row[i];
        }
    };
    link(root, packets, underRoot);
    if (!packets.empty()) link(packets[0], inside, ids);
    const WddxElement* const found = parseElements(&root);
    return found == nullptr ? 0 : found->dwId;
}

TEST(ParseElements, FindsTheDataInTheFirstOrSecondPlace) {
    EXPECT_EQ(Located({2}, {16}), 16U);
    EXPECT_EQ(Located({2}, {4, 16}), 16U);
    EXPECT_EQ(Located({2}, {16, 4}), 16U);
    EXPECT_EQ(Located({2}, {16, 16}), 16U);
    EXPECT_EQ(Located({2}, {4, 16, 4}), 16U);
}

TEST(ParseElements, FindsNothingElsewhere) {
    EXPECT_EQ(parseElements(nullptr), nullptr);
    EXPECT_EQ(Located({}, {}), 0U);
    EXPECT_EQ(Located({2}, {}), 0U);
    EXPECT_EQ(Located({2}, {4}), 0U);
    EXPECT_EQ(Located({2}, {4, 4}), 0U);
    EXPECT_EQ(Located({2}, {4, 4, 16}), 0U);
    EXPECT_EQ(Located({2, 2}, {16}), 0U);
    EXPECT_EQ(Located({4}, {16}), 0U);
}

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
    {true, "the self-closed form of the packet's start is no end (kept)",
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

TEST(CreateWddxValue, LeavesTheElementsWhenMemoryIsShort) {
    const Element element = MakeElement(lookupTagByName("array"));
    const char* cursor = "<string>a</string></array>";
    ASSERT_EQ(parseTagContent(&cursor, element.get()), 1);
    test::FailEveryAllocation([&] { return Tree(createWddxValue(element.get())) != nullptr; });
    EXPECT_STREQ(element->pFirstChild->pszText, "a");
}

TEST(ParseTagContent, FailsWhereverMemoryRunsShort) {
    test::FailEveryAllocation([] {
        const Element element = MakeElement(lookupTagByName("array"));
        const char* cursor = "<string>a</string><struct><var name='x'><null/></var></struct></array>";
        return element && parseTagContent(&cursor, element.get()) == 1;
    });
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
