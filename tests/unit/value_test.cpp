#include "wddx/wddx.h"

#include "tests/support/faults.h"
#include "tests/support/released.h"
#include "tests/support/wddx.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace rdx {
namespace {

using test::FailCall;
using test::Tree;

static_assert(WDDX_NULL == 0 && WDDX_STRING == 1 && WDDX_INTEGER == 2 && WDDX_FLOAT == 3 &&
              WDDX_BOOLEAN == 4 && WDDX_ARRAY == 5 && WDDX_STRUCT == 6);

static_assert(sizeof(WddxPayload) == 8);
static_assert(offsetof(WddxValue, type) == 0);
static_assert(offsetof(WddxValue, payload) == 8);
static_assert(sizeof(WddxValue) == 16);
static_assert(alignof(WddxValue) == 8);
static_assert(offsetof(WddxArray, count) == 0);
static_assert(sizeof(void*) != 8 || offsetof(WddxArray, elements) == 8);
static_assert(sizeof(void*) != 8 || sizeof(WddxArray) == 16);
static_assert(offsetof(WddxMember, name) == 0);
static_assert(offsetof(WddxMember, value) == sizeof(void*));
static_assert(offsetof(WddxMember, next) == 2 * sizeof(void*));
static_assert(sizeof(WddxMember) == 3 * sizeof(void*));

// The payload's eight bytes as one number.
std::uint64_t Bits(const WddxValue& value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value.payload, sizeof bits);
    return bits;
}

std::string TextOf(WddxValue* value) {
    char* text = nullptr;
    return wddxGetString(&text, value) == 1 ? text : "(none)";
}

TEST(CreateNull, MakesAZeroedValue) {
    const Tree value(wddxCreateNull());
    EXPECT_EQ(value->type, WDDX_NULL);
    EXPECT_EQ(Bits(*value), 0U);
}

TEST(CreateInteger, KeepsTheNumber) {
    for (const int number : {0, 1, -5, INT_MAX, INT_MIN}) {
        const Tree value(wddxCreateInteger(number));
        EXPECT_EQ(value->type, WDDX_INTEGER);
        EXPECT_EQ(value->payload.integer, number);
    }
    const Tree one(wddxCreateInteger(1));
    std::int32_t words[2];
    std::memcpy(words, &one->payload, sizeof words);
    EXPECT_EQ(words[0], 1) << "the first word holds the number";
    EXPECT_EQ(words[1], 0) << "the second one is unused";
}

TEST(CreateLongInteger, MakesAnIntegerOfTheLow32Bits) {
    const Tree value(wddxCreateLongInteger(-7));
    EXPECT_EQ(value->type, WDDX_INTEGER);
    EXPECT_EQ(value->payload.integer, -7);
    if constexpr (sizeof(long) == 8) {
        const Tree wide(wddxCreateLongInteger(0x1'FFFF'FFFEL));
        EXPECT_EQ(wide->payload.integer, -2);
    }
}

TEST(CreateFloat, KeepsTheNumber) {
    const Tree value(wddxCreateFloat(-0.125));
    EXPECT_EQ(value->type, WDDX_FLOAT);
    EXPECT_EQ(value->payload.floating, -0.125);
}

TEST(CreateBoolean, KeepsTheByteAsGiven) {
    for (const unsigned char byte : std::initializer_list<unsigned char>{0, 1, 2, 255}) {
        const Tree value(wddxCreateBoolean(byte));
        EXPECT_EQ(value->type, WDDX_BOOLEAN);
        EXPECT_EQ(value->payload.boolean, byte);
    }
}

TEST(CreateString, CopiesTheText) {
    char source[] = "text";
    const Tree value(wddxCreateString(source));
    source[0] = 'n';
    EXPECT_EQ(value->type, WDDX_STRING);
    EXPECT_STREQ(value->payload.string, "text");
}

TEST(CreateString, TakesNullForTheEmptyText) {
    const Tree value(wddxCreateString(nullptr));
    ASSERT_NE(value, nullptr);
    EXPECT_STREQ(value->payload.string, "");
}

TEST(CreateStruct, HasNoMembers) {
    const Tree value(wddxCreateStruct());
    EXPECT_EQ(value->type, WDDX_STRUCT);
    EXPECT_EQ(value->payload.members, nullptr);
    EXPECT_EQ(Bits(*value), 0U);
}

TEST(CreateArray, HoldsNullValues) {
    const Tree array(wddxCreateArray(3));
    EXPECT_EQ(array->type, WDDX_ARRAY);
    EXPECT_EQ(array->payload.array->count, 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(wddxGetType(wddxGetArrayElem(array.get(), i)), WDDX_NULL) << i;
    EXPECT_NE(wddxGetArrayElem(array.get(), 0), wddxGetArrayElem(array.get(), 1));
}

TEST(CreateArray, NeedsOneElementAtLeast) {
    EXPECT_EQ(wddxCreateArray(0), nullptr);
    EXPECT_EQ(wddxCreateArray(-5), nullptr);
    EXPECT_EQ(wddxCreateArray(INT_MIN), nullptr);
}

TEST(Create, GivesNullWhenMemoryIsShort) {
    test::FailEveryAllocation([] { return Tree(wddxCreateNull()) != nullptr; });
    test::FailEveryAllocation([] { return Tree(wddxCreateInteger(1)) != nullptr; });
    test::FailEveryAllocation([] { return Tree(wddxCreateLongInteger(1)) != nullptr; });
    test::FailEveryAllocation([] { return Tree(wddxCreateFloat(1)) != nullptr; });
    test::FailEveryAllocation([] { return Tree(wddxCreateBoolean(1)) != nullptr; });
    test::FailEveryAllocation([] { return Tree(wddxCreateStruct()) != nullptr; });
    const int mallocs = test::CallsOf("malloc");
    test::FailEveryAllocation([] { return Tree(wddxCreateString("text")) != nullptr; });
    EXPECT_GT(test::CallsOf("malloc"), mallocs);
}

TEST(CreateArray, GivesNullWhereverMemoryRunsShort) {
    // The value, its block, its slots and each element.
    for (int nth = 1; nth <= 6; ++nth) {
        const FailCall noMemory("calloc", nth);
        EXPECT_EQ(wddxCreateArray(3), nullptr) << nth;
        EXPECT_TRUE(noMemory.Struck()) << nth;
    }
}

class Structure : public testing::Test {
protected:
    WddxValue* Get(const char* name) { return wddxGetStructVar(structure_.get(), name); }
    void Set(const char* name, WddxValue* value) { wddxSetStructVar(structure_.get(), name, value); }
    std::string Names() {
        std::string names;
        for (const WddxMember* m = structure_->payload.members; m != nullptr; m = m->next) {
            names += m->name + std::string(" ");
        }
        return names;
    }

    Tree structure_{wddxCreateStruct()};
};

TEST_F(Structure, KeepsItsMembersInOrderOfInsertion) {
    Set("b", wddxCreateInteger(1));
    Set("a", wddxCreateInteger(2));
    Set("", wddxCreateInteger(3));
    Set("c", wddxCreateInteger(4));
    EXPECT_EQ(Names(), "b a  c ");
    EXPECT_EQ(Get("b")->payload.integer, 1);
    EXPECT_EQ(Get("")->payload.integer, 3);
}

TEST_F(Structure, CopiesTheName) {
    char name[] = "name";
    Set(name, wddxCreateNull());
    name[0] = 'f';
    EXPECT_EQ(Names(), "name ");
}

TEST_F(Structure, ReplacesAMemberInItsPlace) {
    Set("first", wddxCreateString("old"));
    Set("second", wddxCreateNull());
    WddxValue* const replacement = wddxCreateString("new");
    Set("first", replacement);
    EXPECT_EQ(Names(), "first second ");
    EXPECT_EQ(Get("first"), replacement);
    EXPECT_EQ(TextOf(Get("first")), "new");
}

TEST_F(Structure, ComparesNamesByteByByte) {
    Set("Status", wddxCreateInteger(1));
    Set("status", wddxCreateInteger(2));
    Set("Stat", wddxCreateInteger(3));
    EXPECT_EQ(Names(), "Status status Stat ");
    EXPECT_EQ(Get("STATUS"), nullptr);
    EXPECT_EQ(Get("Statu"), nullptr);
}

TEST_F(Structure, TakesNullForANullValue) {
    Set("new", nullptr);
    EXPECT_EQ(wddxGetType(Get("new")), WDDX_NULL);
    Set("old", wddxCreateInteger(1));
    Set("old", nullptr);
    EXPECT_EQ(wddxGetType(Get("old")), WDDX_NULL);
}

TEST_F(Structure, LeavesTheValueThatIsThereAlready) {
    WddxValue* const value = wddxCreateString("kept");
    Set("name", value);
    Set("name", value);
    EXPECT_EQ(Get("name"), value);
    EXPECT_EQ(TextOf(value), "kept");
}

TEST_F(Structure, IsNotTouchedByASetterWithBadArguments) {
    const Tree value(wddxCreateInteger(1));
    wddxSetStructVar(nullptr, "name", value.get());
    Set(nullptr, value.get());
    EXPECT_EQ(structure_->payload.members, nullptr);
    for (WddxValue* const other : {wddxCreateNull(), wddxCreateInteger(3), wddxCreateArray(1)}) {
        const Tree owner(other);
        const std::uint64_t before = Bits(*other);
        wddxSetStructVar(other, "name", value.get());
        EXPECT_EQ(Bits(*other), before);
        EXPECT_EQ(wddxGetStructVar(other, "name"), nullptr);
    }
    EXPECT_EQ(value->payload.integer, 1) << "not taken";
}

TEST_F(Structure, GivesNullForWhatItHasNot) {
    EXPECT_EQ(Get("name"), nullptr);
    Set("name", wddxCreateNull());
    EXPECT_EQ(Get(nullptr), nullptr);
    EXPECT_EQ(Get("other"), nullptr);
    EXPECT_EQ(wddxGetStructVar(nullptr, "name"), nullptr);
}

TEST_F(Structure, PassesOverAMemberWithoutName) {
    Set("a", wddxCreateInteger(1));
    Set("b", wddxCreateInteger(2));
    test::Text name(structure_->payload.members->name);
    structure_->payload.members->name = nullptr;
    EXPECT_EQ(Get("b")->payload.integer, 2);
    EXPECT_EQ(Get("a"), nullptr);
}

TEST_F(Structure, LeavesTheValueToTheCallerWhenMemoryIsShort) {
    Set("before", wddxCreateInteger(1));
    for (const char* const allocator : {"malloc", "calloc"}) { // the name and the member
        const Tree value(wddxCreateInteger(2));
        const FailCall noMemory(allocator);
        Set("name", value.get());
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(Names(), "before ");
        EXPECT_EQ(value->payload.integer, 2);
    }
}

TEST_F(Structure, HasNoMemberWithoutAValueWhenMemoryIsShort) {
    const FailCall noMemory("calloc", 2); // the null value behind the member
    Set("name", nullptr);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(structure_->payload.members, nullptr);
}

TEST_F(Structure, KeepsTheOldValueWhenThereIsNoMemoryForNull) {
    Set("name", wddxCreateInteger(1));
    const FailCall noMemory("calloc");
    Set("name", nullptr);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(Get("name")->payload.integer, 1);
}

TEST(SetArrayElem, ReplacesTheElement) {
    const Tree array(wddxCreateArray(2));
    wddxSetArrayElem(array.get(), 0, wddxCreateString("first"));
    wddxSetArrayElem(array.get(), 1, wddxCreateInteger(2));
    wddxSetArrayElem(array.get(), 0, wddxCreateString("again"));
    EXPECT_EQ(TextOf(wddxGetArrayElem(array.get(), 0)), "again");
    EXPECT_EQ(wddxGetArrayElem(array.get(), 1)->payload.integer, 2);
    EXPECT_EQ(wddxGetArraySize(array.get()), 2);
}

TEST(SetArrayElem, TakesNullForANullValue) {
    const Tree array(wddxCreateArray(1));
    wddxSetArrayElem(array.get(), 0, wddxCreateInteger(1));
    wddxSetArrayElem(array.get(), 0, nullptr);
    EXPECT_EQ(wddxGetType(wddxGetArrayElem(array.get(), 0)), WDDX_NULL);
}

TEST(SetArrayElem, LeavesTheValueThatIsThereAlready) {
    const Tree array(wddxCreateArray(1));
    WddxValue* const value = wddxCreateString("kept");
    wddxSetArrayElem(array.get(), 0, value);
    wddxSetArrayElem(array.get(), 0, value);
    EXPECT_EQ(wddxGetArrayElem(array.get(), 0), value);
    EXPECT_EQ(TextOf(value), "kept");
}

TEST(SetArrayElem, IgnoresAnIndexOutOfRange) {
    const Tree array(wddxCreateArray(2));
    WddxValue* const before[] = {wddxGetArrayElem(array.get(), 0), wddxGetArrayElem(array.get(), 1)};
    const Tree value(wddxCreateInteger(1));
    for (const int i : {2, -1, 3, INT_MAX, INT_MIN}) {
        wddxSetArrayElem(array.get(), i, value.get());
        EXPECT_EQ(wddxGetArrayElem(array.get(), i), nullptr) << i;
    }
    EXPECT_EQ(wddxGetArrayElem(array.get(), 0), before[0]);
    EXPECT_EQ(wddxGetArrayElem(array.get(), 1), before[1]);
    EXPECT_EQ(value->payload.integer, 1) << "not taken";
}

TEST(SetArrayElem, IgnoresWhatIsNoArray) {
    const Tree structure(wddxCreateStruct());
    const Tree value(wddxCreateInteger(1));
    wddxSetArrayElem(nullptr, 0, value.get());
    wddxSetArrayElem(structure.get(), 0, value.get());
    EXPECT_EQ(structure->payload.members, nullptr);
    EXPECT_EQ(wddxGetArrayElem(nullptr, 0), nullptr);
    EXPECT_EQ(wddxGetArrayElem(structure.get(), 0), nullptr);
}

TEST(SetArrayElem, KeepsTheOldElementWhenThereIsNoMemoryForNull) {
    const Tree array(wddxCreateArray(1));
    WddxValue* const before = wddxGetArrayElem(array.get(), 0);
    const FailCall noMemory("calloc");
    wddxSetArrayElem(array.get(), 0, nullptr);
    EXPECT_TRUE(noMemory.Struck());
    EXPECT_EQ(wddxGetArrayElem(array.get(), 0), before);
}

TEST(GetArraySize, IsNegativeForWhatIsNoArray) {
    EXPECT_EQ(wddxGetArraySize(nullptr), -1);
    EXPECT_EQ(wddxGetArraySize(Tree(wddxCreateStruct()).get()), -1);
    EXPECT_EQ(wddxGetArraySize(Tree(wddxCreateNull()).get()), -1);
    const Tree array(wddxCreateArray(7));
    EXPECT_EQ(wddxGetArraySize(array.get()), 7);
}

TEST(GetArraySize, IsNegativeForAnArrayWithoutBlock) {
    const Tree array(wddxCreateNull());
    array->type = WDDX_ARRAY;
    EXPECT_EQ(wddxGetArraySize(array.get()), -1);
    EXPECT_EQ(wddxGetArrayElem(array.get(), 0), nullptr);
    const Tree value(wddxCreateNull());
    wddxSetArrayElem(array.get(), 0, value.get());
    EXPECT_EQ(array->payload.array, nullptr);
}

// One value of each type; the index is the type's code.
std::vector<Tree> OneOfEach() {
    std::vector<Tree> values;
    values.emplace_back(wddxCreateNull());
    values.emplace_back(wddxCreateString("text"));
    values.emplace_back(wddxCreateInteger(-3));
    values.emplace_back(wddxCreateFloat(0.5));
    values.emplace_back(wddxCreateBoolean(1));
    values.emplace_back(wddxCreateArray(1));
    values.emplace_back(wddxCreateStruct());
    return values;
}

// Checks that a reader accepts one type only, and leaves the output alone otherwise.
template <typename Out>
void ExpectReads(int (*read)(Out*, WddxValue*), int type, Out untouched) {
    for (const Tree& value : OneOfEach()) {
        Out out = untouched;
        EXPECT_EQ(read(&out, value.get()), value->type == type) << value->type;
        EXPECT_EQ(out == untouched, value->type != type) << value->type;
        EXPECT_EQ(read(nullptr, value.get()), 0) << value->type;
    }
    Out out = untouched;
    EXPECT_EQ(read(&out, nullptr), 0);
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(read(nullptr, nullptr), 0);
}

TEST(Readers, AcceptOneTypeAndLeaveTheOutputAloneOtherwise) {
    ExpectReads<int>(wddxGetInteger, WDDX_INTEGER, 77);
    ExpectReads<long>(wddxGetLongInteger, WDDX_INTEGER, 77);
    ExpectReads<double>(wddxGetFloat, WDDX_FLOAT, 77);
    ExpectReads<unsigned char>(wddxGetBoolean, WDDX_BOOLEAN, 77);
    ExpectReads<char*>(wddxGetString, WDDX_STRING, nullptr);
}

TEST(Readers, GiveWhatWasStored) {
    const Tree integer(wddxCreateLongInteger(INT_MIN));
    int number = 0;
    ASSERT_EQ(wddxGetInteger(&number, integer.get()), 1);
    EXPECT_EQ(number, INT_MIN);
    const Tree floating(wddxCreateFloat(1e300));
    double real = 0;
    ASSERT_EQ(wddxGetFloat(&real, floating.get()), 1);
    EXPECT_EQ(real, 1e300);
    const Tree boolean(wddxCreateBoolean(0));
    unsigned char byte = 9;
    ASSERT_EQ(wddxGetBoolean(&byte, boolean.get()), 1);
    EXPECT_EQ(byte, 0);
    const Tree string(wddxCreateString("text"));
    char* text = nullptr;
    ASSERT_EQ(wddxGetString(&text, string.get()), 1);
    EXPECT_EQ(text, string->payload.string) << "no copy";
}

TEST(GetLongInteger, KeepsTheSign) {
    for (const int number : {-1, INT_MIN, INT_MAX, 0}) {
        const Tree value(wddxCreateInteger(number));
        long wide = 0x55;
        ASSERT_EQ(wddxGetLongInteger(&wide, value.get()), 1);
        EXPECT_EQ(wide, static_cast<long>(number));
    }
}

TEST(GetType, IsTheCode) {
    EXPECT_EQ(wddxGetType(nullptr), -1);
    int code = 0;
    for (const Tree& value : OneOfEach()) EXPECT_EQ(wddxGetType(value.get()), code++);
}

TEST(Free, NullsTheHolder) {
    WddxValue* value = wddxCreateString("text");
    wddxFree(&value);
    EXPECT_EQ(value, nullptr);
    wddxFree(&value);
    EXPECT_EQ(value, nullptr);
    wddxFree(nullptr);
}

TEST(Free, ReleasesAWholeTree) {
    const int before = test::LiveBlocks();
    WddxValue* root = wddxCreateStruct();
    WddxValue* array = wddxCreateArray(3);
    WddxValue* inner = wddxCreateStruct();
    wddxSetStructVar(inner, "text", wddxCreateString("deep"));
    wddxSetStructVar(inner, "list", wddxCreateArray(2));
    wddxSetArrayElem(array, 1, inner);
    wddxSetArrayElem(array, 2, wddxCreateString("last"));
    wddxSetStructVar(root, "list", array);
    wddxSetStructVar(root, "text", wddxCreateString("behind"));
    EXPECT_GT(test::LiveBlocks(), before);
    wddxFree(&root);
    EXPECT_EQ(root, nullptr);
    EXPECT_EQ(test::LiveBlocks(), before);
}

TEST(Free, TakesATreeWithHoles) {
    WddxValue* array = wddxCreateArray(2);
    wddxFree(&array->payload.array->elements[1]);
    WddxValue* structure = wddxCreateStruct();
    wddxSetStructVar(structure, "a", array);
    wddxSetStructVar(structure, "b", wddxCreateNull());
    wddxFree(&structure->payload.members->next->value);
    wddxFree(&structure);
    EXPECT_EQ(structure, nullptr);
}

TEST(FreeValueStruct, LeavesTheValueItself) {
    for (const Tree& value : OneOfEach()) {
        const int type = value->type;
        const bool owns = type == WDDX_STRING || type == WDDX_ARRAY || type == WDDX_STRUCT;
        const std::uint64_t before = Bits(*value);
        freeValueStruct(value.get());
        EXPECT_EQ(value->type, type);
        EXPECT_EQ(Bits(*value), owns ? 0U : before) << type;
    }
    freeValueStruct(nullptr);
}

TEST(FreeValueStruct, TakesAnUnknownType) {
    const Tree value(wddxCreateInteger(5));
    value->type = 99;
    freeValueStruct(value.get());
    EXPECT_EQ(value->type, 99);
}

TEST(Free, NeedsNoStackForDepth) {
    test::OnStackOf(std::size_t{128} * 1024, [] {
        WddxValue* root = wddxCreateNull();
        for (int depth = 0; depth < 200'000; ++depth) {
            WddxValue* const around = depth % 2 == 0 ? wddxCreateStruct() : wddxCreateArray(2);
            wddxSetStructVar(around, "x", root);
            wddxSetArrayElem(around, depth % 3 == 0, root);
            root = around;
        }
        wddxFree(&root);
        EXPECT_EQ(root, nullptr);
    });
}

} // namespace
} // namespace rdx
