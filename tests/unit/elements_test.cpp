#include "wddx/wddx.h"

#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace rdx {
namespace {

using test::Packet;
using test::Repeated;
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

struct FreeElement {
    void operator()(WddxElement* element) const { freeElements(element); }
};
using Element = std::unique_ptr<WddxElement, FreeElement>;
using Tag = std::unique_ptr<WddxTag, test::FreeMemory>;

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

} // namespace
} // namespace rdx
