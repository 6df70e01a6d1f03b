#include "http/httpreq.h"

#include "tests/support/assertion.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/request.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using rdx::test::GuardedBytes;
using rdx::test::Request;

auto Assertion(const std::string& function, const std::string& text) {
    return rdx::test::Assertion("http/query.cpp", function, text);
}

class DeathTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};
using GetQueryStringValueDeathTest = DeathTest;
using DecodeUrlStringDeathTest = DeathTest;

// The value of a parameter, or the failure as "#-2". The buffer of `size` bytes ends before an unreadable
// page.
std::string Query(const std::string& uri, const std::string& name, std::size_t size = 64) {
    Request request(uri);
    const GuardedBytes buffer(std::string(size, '#'));
    const int result =
        GetQueryStringValue(request.get(), name.c_str(), buffer.begin(), static_cast<unsigned>(size));
    if (result == 0) return buffer.begin();
    EXPECT_EQ(std::string(buffer.begin(), buffer.end()), std::string(size, '#')) << "untouched on failure";
    return "#" + std::to_string(result);
}

TEST(GetQueryStringValue, FindsAParameter) {
    const std::string uri = "/Tavrin?FunctionName=rdxGetVersion&x=1";
    EXPECT_EQ(Query(uri, "FunctionName"), "rdxGetVersion");
    EXPECT_EQ(Query(uri, "x"), "1");
    EXPECT_EQ(Query(uri, "y"), "#-2");
    EXPECT_EQ(Query("a=&b=1", "a"), "#-3");
    EXPECT_EQ(Query("a=&b=1", "b"), "1");
    EXPECT_EQ(Query("a=", "a"), "#-3");
    EXPECT_EQ(Query("a=1&", "a"), "1");
    EXPECT_EQ(Query("a", "a"), "#-2");
    EXPECT_EQ(Query("", "a"), "#-2");
}

TEST(GetQueryStringValue, SearchesTheKeyAnywhere) {
    EXPECT_EQ(Query("/p?xname=1&name=2", "name"), "1") << "in another name";
    EXPECT_EQ(Query("/name=0/p?name=2", "name"), "0/p?name=2") << "in the path";
    EXPECT_EQ(Query("/p?a=b=c&d", "a"), "b=c") << "in a value";
    EXPECT_EQ(Query("/p?a=b=c&d", "b"), "c");
    EXPECT_EQ(Query("/p?name=1&name=2", "name"), "1") << "the first counts";
    EXPECT_EQ(Query("/p?a=1", ""), "1") << "an empty name is found at the first equal sign";
    EXPECT_EQ(Query("/p?nanname=1", "name"), "1") << "behind a false start";
}

TEST(GetQueryStringValue, KeepsCaseAndEscapes) {
    EXPECT_EQ(Query("/p?Name=%20+%3a#f", "Name"), "%20+%3a#f");
    EXPECT_EQ(Query("/p?Name=1", "name"), "#-2");
}

TEST(GetQueryStringValue, TakesNamesOf126Characters) {
    const std::string name(126, 'n');
    EXPECT_EQ(Query("/p?" + name + "=1", name), "1");
    EXPECT_EQ(Query("/p?" + name + "n=1", name + "n"), "#-1");
    EXPECT_EQ(Query("/p?a=1", std::string(1000, 'n')), "#-1");
}

TEST(GetQueryStringValue, NeedsRoomForTheNul) {
    EXPECT_EQ(Query("a=12345", "a", 6), "12345");
    EXPECT_EQ(Query("a=12345", "a", 5), "#-4");
    EXPECT_EQ(Query("a=1", "a", 1), "#-4");
    EXPECT_EQ(Query("a=", "a", 1), "#-3") << "an empty value comes first";
}

TEST_F(GetQueryStringValueDeathTest, AssertsItsArguments) {
    const std::string function = "GetQueryStringValue";
    Request request("/x");
    HttpRequest empty{};
    char buffer[4];
    EXPECT_DEATH(GetQueryStringValue(nullptr, nullptr, nullptr, 0),
                 Assertion(function, "pstRequest != __null"));
    EXPECT_DEATH(GetQueryStringValue(&empty, nullptr, nullptr, 0),
                 Assertion(function, "pstRequest->pszUri != __null"));
    EXPECT_DEATH(GetQueryStringValue(request.get(), nullptr, nullptr, 0),
                 Assertion(function, "szName != __null"));
    EXPECT_DEATH(GetQueryStringValue(request.get(), "a", nullptr, 0), Assertion(function, "szBuf != __null"));
    EXPECT_DEATH(GetQueryStringValue(request.get(), "a", buffer, 0), Assertion(function, "uiBufsiz > 0"));
}

// The decoded text and the result. The text's NUL is the last byte before an unreadable page.
std::pair<std::string, int> Decode(const std::string& text) {
    const GuardedBytes bytes(std::string_view(text.c_str(), text.size() + 1));
    const int result = DecodeUrlString(bytes.begin());
    return {bytes.begin(), result};
}

using Decoded = std::pair<std::string, int>;

TEST(DecodeUrlString, DecodesItsFourEscapes) {
    EXPECT_EQ(Decode("a%20b"), Decoded("a b", 0));
    EXPECT_EQ(Decode("a%25b"), Decoded("a%b", -1)) << "a decoded percent sign begins an escape again";
    EXPECT_EQ(Decode("a%3Ab"), Decoded("a:b", 0));
    EXPECT_EQ(Decode("a%5Cb"), Decoded("a\\b", 0));
    EXPECT_EQ(Decode("%20%3A%5C"), Decoded(" :\\", 0));
    EXPECT_EQ(Decode("%20"), Decoded(" ", 0));
    EXPECT_EQ(Decode("a+b"), Decoded("a+b", 0));
    EXPECT_EQ(Decode("plain"), Decoded("plain", 0));
}

TEST(DecodeUrlString, DecodesWhatItHasDecoded) {
    EXPECT_EQ(Decode("%2520"), Decoded(" ", 0));
    EXPECT_EQ(Decode("%252520"), Decoded(" ", 0));
    EXPECT_EQ(Decode("a%253Ab"), Decoded("a:b", 0));
    EXPECT_EQ(Decode("%25"), Decoded("%", -1));
    EXPECT_EQ(Decode("%2525"), Decoded("%", -1));
    EXPECT_EQ(Decode("%25%20"), Decoded("%%20", -1));
}

TEST(DecodeUrlString, StopsAtAnyOtherEscape) {
    EXPECT_EQ(Decode("a%3a"), Decoded("a%3a", -1));
    EXPECT_EQ(Decode("a%5cb"), Decoded("a%5cb", -1));
    EXPECT_EQ(Decode("a%2Fb"), Decoded("a%2Fb", -1));
    EXPECT_EQ(Decode("%20%41%20"), Decoded(" %41%20", -1)) << "decoded up to there";
    EXPECT_EQ(Decode("%00"), Decoded("%00", -1));
    EXPECT_EQ(Decode("%%20"), Decoded("%%20", -1));
}

TEST(DecodeUrlString, NeverReadsBehindAnEscapeThatIsCutOff) {
    for (const char* text : {"%", "%2", "a%", "a%2", "a%3", "%20%", "%20%2"}) {
        const auto [decoded, result] = Decode(text);
        EXPECT_EQ(result, -1) << text;
    }
    EXPECT_EQ(Decode("%20%"), Decoded(" %", -1));
    EXPECT_EQ(Decode("%20%2"), Decoded(" %2", -1));
}

TEST(DecodeUrlString, RefusesAnEmptyText) { EXPECT_EQ(Decode(""), Decoded("", -1)); }

TEST(DecodeUrlString, KnowsNoOtherPairOfBytes) {
    for (int first = 1; first < 256; ++first) {
        for (int second = 1; second < 256; ++second) {
            char text[] = {'%', static_cast<char>(first), static_cast<char>(second), '\0'};
            const std::string pair = text + 1;
            const bool known = pair == "20" || pair == "3A" || pair == "5C";
            ASSERT_EQ(DecodeUrlString(text), known ? 0 : -1) << pair;
        }
    }
}

TEST(DecodeUrlString, LeavesOnlyWhatStoodBehindTheNewNul) {
    char text[] = "a%20b%20c";
    EXPECT_EQ(DecodeUrlString(text), 0);
    EXPECT_EQ(std::string(text, sizeof text), std::string("a b c\0c\0c\0", 10));
}

TEST(QueryStrings, AreReadAndDecodedWithoutMemoryOfTheirOwn) {
    Request request("/p?a=%2520");
    char value[16];
    const int before = rdx::test::CallsOf("malloc");
    EXPECT_EQ(GetQueryStringValue(request.get(), "a", value, sizeof value), 0);
    EXPECT_EQ(DecodeUrlString(value), 0);
    EXPECT_EQ(rdx::test::CallsOf("malloc"), before);
    EXPECT_STREQ(value, " ");
}

TEST_F(DecodeUrlStringDeathTest, AssertsItsText) {
    EXPECT_DEATH(DecodeUrlString(nullptr), Assertion("DecodeUrlString", "szUrlString != __null"));
}

} // namespace
