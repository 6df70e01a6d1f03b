#include "http/httpreq.h"

#include "tests/support/assertion.h"
#include "tests/support/broken_requests.h"
#include "tests/support/faults.h"
#include "tests/support/request.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>

namespace {

using rdx::test::Bytes;
using rdx::test::FailCall;
using rdx::test::Request;

class DeathTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
using ReadMultipartDataDeathTest = DeathTest;

// A part's data, or the failure as "#-1". The body ends right before an unreadable page.
std::string Part(std::string_view body, unsigned int offset, const char* separator = "\r\n",
                 const char* boundary = "B") {
    Request request;
    request.Body(body).Multipart(boundary).Separator(separator);
    char untouched[] = "untouched";
    char* data = untouched;
    const int length = ReadMultipartData(request.get(), offset, &data);
    if (length < 0) {
        EXPECT_EQ(data, untouched) << "the output is left alone on failure";
        return "#" + std::to_string(length);
    }
    if (length == 0) {
        EXPECT_EQ(data, nullptr) << "no data, no copy";
        return "";
    }
    std::string part(data, static_cast<std::size_t>(length));
    EXPECT_EQ(data[length], '\0');
    std::free(data);
    return part;
}

constexpr std::string_view kBody =
    "\r\n--B\r\nContent-Disposition: form-data; name=\"x\"\r\n\r\nDATA\r\n--B--";

TEST(ReadMultipartData, FindsTheDataOfThePart) {
    EXPECT_EQ(Part(kBody, 1), "DATA");
    EXPECT_EQ(Part(kBody, 7), "DATA") << "from the boundary line's end on";
    const auto quote = static_cast<unsigned int>(kBody.rfind('"'));
    EXPECT_EQ(Part(kBody, quote), "DATA") << "from the name's closing quote on";
    EXPECT_EQ(Part(kBody, quote + 1), "DATA") << "from the head's end on";
}

TEST(ReadMultipartData, GoesOnToTheNextPart) {
    constexpr std::string_view kTwo = "--B\r\nA: 1\r\n\r\none\r\n--B\r\nA: 2\r\nB: 3\r\n\r\ntwo\r\n--B--\r\n";
    EXPECT_EQ(Part(kTwo, 3), "one");
    EXPECT_EQ(Part(kTwo, static_cast<unsigned int>(kTwo.find("one"))), "two");
}

TEST(ReadMultipartData, ReadsEveryKindOfData) {
    EXPECT_EQ(Part("--B\n\nDATA\n--B--", 1, "\n"), "DATA");
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\n\r\n\r\n\r\n--B--", 1), "\r\n\r\n") << "data of line ends";
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\na\r\nb: c\r\n--B--", 1), "a\r\nb: c");
    EXPECT_EQ(Part("--B\r\n\r\n--A\r\n-B\r\n--B--", 1), "--A\r\n-B") << "what only begins like a boundary";
    EXPECT_EQ(Part(Bytes("--B\r\nA: \0\r\n\r\n\0D\0\r\n--B--"), 1), std::string("\0D\0", 3));
    EXPECT_EQ(Part("--B\r\nContent-type: text/xml; charset=utf-8; and=more; and=more\r\n\r\nD\r\n--B--", 1),
              "D");
    EXPECT_EQ(Part("--B\r\ncontent-TYPE:\r\n\r\nD\r\n--B--", 1), "D");
    EXPECT_EQ(Part("--B\r\n\r\nD!!--B--", 1), "D") << "two characters before the boundary, whatever they are";
}

TEST(ReadMultipartData, GivesNothingForEmptyData) {
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\n\r\n--B--", 1), "");
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\n--B--", 1), "") << "not even a separator";
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\nx--B--", 1), "") << "half a separator";
}

TEST(ReadMultipartData, TellsWhatIsMissing) {
    EXPECT_EQ(Part("--B and no line end at all", 1), "#-1");
    EXPECT_EQ(Part("--B\r\nA: 1\r\nB: 2\r\n", 1), "#-2");
    EXPECT_EQ(Part("--B\r\nA: 1\n\nDATA\r\n--B--", 1), "#-2") << "line feeds are no separators here";
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\nDATA\r\n--A--", 1), "#-3");
    EXPECT_EQ(Part("--B\r\nA: 1\r\n\r\nDATA\r\n--", 1), "#-3");
    EXPECT_EQ(Part("\r\n", 1), "#-1");
    EXPECT_EQ(Part("xx", 1), "#-1");
}

TEST(ReadMultipartData, FindsNothingWhereOnlyASeparatorHasRoom) {
    EXPECT_EQ(Part("xx\r\n", 1), "#-1") << "a separator that ends the body";
    EXPECT_EQ(Part("xx\r\nx", 1), "#-2");
    EXPECT_EQ(Part("x\r\n\r\n", 1), "#-2");
    EXPECT_EQ(Part("x\r\n\r\nx", 1), "#-3");
    EXPECT_EQ(Part("x\r\n\r\n--B", 1), "");
    EXPECT_EQ(Part("x\r\n\r\n\r\n--", 1, "\r\n", ""), "#-3") << "a boundary that begins there";
    EXPECT_EQ(Part("x\r\n\r\n\r\n---", 1, "\r\n", ""), "");
}

TEST(ReadMultipartData, NeverReadsPastABodyThatIsCutOff) {
    for (std::size_t length = 2; length < kBody.size(); ++length) {
        const std::string_view prefix = kBody.substr(0, length);
        const std::size_t head = kBody.find("\r\n\r\n");
        // The last byte of a prefix never completes a separator.
        const std::string expected = length <= 7                       ? "#-1"
                                     : length <= head + 4              ? "#-2"
                                     : length < kBody.rfind("--B") + 3 ? "#-3"
                                                                       : "DATA";
        EXPECT_EQ(Part(prefix, 1), expected) << prefix;
    }
}

TEST(ReadMultipartData, StartsAnywhereInTheBody) {
    for (unsigned int offset = 1; offset < kBody.size(); ++offset) {
        const std::string part = Part(kBody, offset);
        if (offset <= kBody.find("\r\n\r\n")) {
            EXPECT_EQ(part, "DATA") << offset;
        } else {
            EXPECT_TRUE(part == "#-1" || part == "#-2") << offset << ": " << part;
        }
    }
}

TEST(ReadMultipartData, AcceptsARequestWithoutSeparator) {
    EXPECT_EQ(Part("xDATA--B--", 1, ""), "DATA") << "every place is a line's end then";
}

TEST(ReadMultipartData, FindsNothingWithoutABody) {
    Request request;
    request.Multipart("B");
    request->uiBodyLength = 100;
    char* data = nullptr;
    EXPECT_EQ(ReadMultipartData(request.get(), 1, &data), -1);
}

TEST_F(ReadMultipartDataDeathTest, AssertsItsArgumentsAndItsMemory) {
    const auto assertion = [](const char* text) {
        return rdx::test::Assertion("http/multipart.cpp", "ReadMultipartData", text);
    };
    char* data = nullptr;
    Request request;
    request.Body(kBody);
    const auto length = static_cast<unsigned int>(kBody.size());
    EXPECT_DEATH(ReadMultipartData(request.get(), 0, nullptr), assertion("uiOffset > 0"));
    EXPECT_DEATH(ReadMultipartData(request.get(), length, nullptr),
                 assertion("uiOffset < pReq->uiBodyLength"));
    EXPECT_DEATH(ReadMultipartData(request.get(), length - 1, nullptr), assertion("pBuf != __null"));
    EXPECT_DEATH(ReadMultipartData(request.get(), length - 1, &data),
                 assertion("pReq->pszBoundary != __null"));
    request.Multipart("B");
    EXPECT_DEATH(
        {
            const FailCall noMemory("malloc");
            ReadMultipartData(request.get(), 1, &data);
        },
        assertion("data != __null"));
}

} // namespace
