#include "rDxsd/method_rows.h"

#include "rDxsd/rDxsd.h"
#include "tests/support/fake_device.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

namespace rdx {
namespace {

std::string Changed(std::string text, int (*change)(int)) {
    std::ranges::transform(text, text.begin(), [change](char c) { return static_cast<char>(change(c)); });
    return text;
}

TEST(Methods, BeginWithTheCommandsThatClientsKnow) {
    ASSERT_GE(Methods().size(), std::size(rdxCommands));
    for (std::size_t i = 0; i < std::size(rdxCommands); ++i) EXPECT_STREQ(Methods()[i].name, rdxCommands[i]);
}

TEST(Methods, AreServedToEverybodyOnlyWhenTheyTellOfTheDeviceAlone) {
    std::vector<std::string> open;
    for (const MethodRow& row : Methods()) {
        if (row.access == Access::kPublic) open.push_back(row.name);
    }
    EXPECT_EQ(open, (std::vector<std::string>{"rdxGetVersion", "rdxGetDeviceStatus"}));
}

TEST(FindMethod, IgnoresLetterCase) {
    for (const MethodRow& row : Methods()) {
        const std::string name = row.name;
        for (const std::string& called : {name, Changed(name, std::toupper), Changed(name, std::tolower)}) {
            EXPECT_EQ(&FindMethod(called), &row) << called;
        }
    }
}

TEST(FindMethod, TakesNoPartOfANameForIt) {
    for (const MethodRow& row : Methods()) {
        const std::string name = row.name;
        for (const std::string& called : {name + "x", "x" + name, name.substr(1), name + ' ',
                                          name.substr(0, name.size() - 1), name + std::string(1, '\0')}) {
            EXPECT_EQ(&FindMethod(called), &kUnknownMethod) << called;
        }
    }
    EXPECT_EQ(&FindMethod(""), &kUnknownMethod);
}

TEST(FindMethod, HidesFromStrangersThatANameIsUnknown) {
    EXPECT_EQ(kUnknownMethod.handler, ProcessUnknown);
    EXPECT_EQ(kUnknownMethod.access, Access::kAuthenticated);
}

TEST(RowOf, IsTheRowThatNamesTheHandler) {
    for (const MethodRow& row : Methods()) EXPECT_EQ(&RowOf(row.handler), &row) << row.name;
    EXPECT_EQ(&RowOf(ProcessUnknown), &kUnknownMethod);
}

constexpr StatusRow kStatuses[] = {
    {1, 11, 111, Detail::kOwner}, {-1, 12, 112, Detail::kReason}, {kAnyOther, 13, 113, Detail::kReason}};

TEST(StatusOf, IsTheRowOfAResult) {
    EXPECT_EQ(&StatusOf(kStatuses, 1), &kStatuses[0]);
    EXPECT_EQ(&StatusOf(kStatuses, -1), &kStatuses[1]);
}

TEST(StatusOf, IsTheLastRowForEveryOtherResult) {
    for (const int result : {2, -2, 13, 113, INT_MAX, INT_MIN}) {
        EXPECT_EQ(&StatusOf(kStatuses, result), &kStatuses[2]) << result;
    }
}

TEST(StatusOf, KnowsSuccessWithoutARow) {
    const StatusRow& status = StatusOf(kStatuses, 0);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(status.reason, 0);
    EXPECT_EQ(status.detail, Detail::kNone);
}

} // namespace
} // namespace rdx
