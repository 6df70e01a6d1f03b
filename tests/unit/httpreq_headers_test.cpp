#include "http/httpreq.h"

#include "common/config.h"
#include "tests/support/classifier.h"
#include "tests/support/header_lists.h"
#include "tests/support/request_reading.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace rdx::test;

using ConsumeHttpRequestTest = RequestTest;

// Header lists ------------------------------------------------------------------------------------------

TEST_F(ConsumeHttpRequestTest, SortsEveryNameOfTheTablesIntoItsList) {
    const auto count = [](const std::string& name) {
        const Read read = ReadWhole("POST /x HTTP/1.1\r\n" + name + ": 1\r\n\r\nb");
        EXPECT_EQ(read.code, 200) << name;
        return std::vector<int>{read->ucNumOfGeneralHeaders, read->ucNumOfRequestHeaders,
                                read->ucNumOfEntityHeaders};
    };
    for (const char* name : apszGeneralHeaders) EXPECT_EQ(count(name), (std::vector<int>{1, 0, 0})) << name;
    for (const char* name : apszRequestHeaders) EXPECT_EQ(count(name), (std::vector<int>{0, 1, 0})) << name;
    for (const char* name : apszEntityHeaders) EXPECT_EQ(count(name), (std::vector<int>{0, 0, 1})) << name;
}

TEST_F(ConsumeHttpRequestTest, KeepsTheOrderOfArrivalAndRepeatedNames) {
    const Read read =
        ReadWhole("GET /x HTTP/1.1\r\nHost: 1\r\nVia: 1\r\nHost: 2\r\nAllow: 1\r\nVia: 2\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(Headers(read->aGeneralHeaders, read->ucNumOfGeneralHeaders), (Texts{"Via=1", "Via=2"}));
    EXPECT_EQ(Headers(read->aRequestHeaders, read->ucNumOfRequestHeaders), (Texts{"Host=1", "Host=2"}));
    EXPECT_EQ(Headers(read->aEntityHeaders, read->ucNumOfEntityHeaders), (Texts{"Allow=1"}));
}

TEST_F(ConsumeHttpRequestTest, PutsShortNamesAmongTheGeneralHeaders) {
    const Read read = ReadWhole("GET /x HTTP/1.1\r\nX: 1\r\n: 2\r\n:\r\nH: a\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(Headers(read->aGeneralHeaders, read->ucNumOfGeneralHeaders), (Texts{"X=1", "=2", "=", "H=a"}));
}

TEST_F(ConsumeHttpRequestTest, FillsEveryListToItsCapacity) {
    const Read read = ReadWhole("GET /x HTTP/1.1\r\n" + Repeat("Via: a\r\n", 16) + Repeat("Host: a\r\n", 14) +
                                Repeat("Allow: a\r\n", 16) + "\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read->ucNumOfGeneralHeaders, 16);
    EXPECT_EQ(read->ucNumOfRequestHeaders, 14);
    EXPECT_EQ(read->ucNumOfEntityHeaders, 16);
    EXPECT_STREQ(read->aGeneralHeaders[15].value, "a");
    EXPECT_STREQ(read->aRequestHeaders[13].value, "a");
    EXPECT_STREQ(read->aEntityHeaders[15].value, "a");
}

TEST_F(ConsumeHttpRequestTest, CountsHeadersBehindAFullListWithoutAnyEffect) {
    const Read general =
        ReadWhole("GET /x HTTP/1.1\r\n" + Repeat("Via: a\r\n", 16) + "Connection: close\r\n\r\n");
    ASSERT_EQ(general.code, 200);
    EXPECT_EQ(general->ucNumOfGeneralHeaders, 17);
    EXPECT_EQ(general->ucKeepAlive, 1);
    EXPECT_EQ(general->ucNumOfRequestHeaders, 0);

    const Read request = ReadWhole("GET /x HTTP/1.1\r\n" + Repeat("Host: a\r\n", 15) + "\r\n");
    ASSERT_EQ(request.code, 200);
    EXPECT_EQ(request->ucNumOfRequestHeaders, 15);
    EXPECT_EQ(request->ucNumOfEntityHeaders, 0);

    const Read entity = ReadWhole("GET /x HTTP/1.1\r\n" + Repeat("Allow: a\r\n", 16) +
                                  "Content-length: 0\r\nContent-type: multipart/form-data\r\n\r\n");
    ASSERT_EQ(entity.code, 200);
    EXPECT_EQ(entity->ucNumOfEntityHeaders, 18);
    EXPECT_EQ(entity->uiBodyLength, 0U);
    EXPECT_EQ(entity->ucMultipart, 0);
}

TEST_F(ConsumeHttpRequestTest, NeverCountsAnOverflowingListRoundTo0) {
    for (const int count : {254, 255, 256, 257, 300, 600}) {
        const Read read = ReadWhole("GET /x HTTP/1.1\r\n" + Repeat("Via: a\r\n", count) +
                                    Repeat("Host: a\r\n", count) + Repeat("Allow: a\r\n", count) + "\r\n");
        ASSERT_EQ(read.code, 200);
        EXPECT_EQ(read->ucNumOfGeneralHeaders, std::min(count, 255));
        EXPECT_EQ(read->ucNumOfRequestHeaders, std::min(count, 255));
        EXPECT_EQ(read->ucNumOfEntityHeaders, std::min(count, 255));
    }
}

// Multipart ---------------------------------------------------------------------------------------------

std::string WithContentType(const std::string& value) {
    return "POST /x HTTP/1.1\r\nContent-Type: " + value + "\r\n\r\n";
}

TEST_F(ConsumeHttpRequestTest, TakesTheBoundaryUpToTheValuesEnd) {
    const struct {
        const char* value;
        const char* boundary;
    } rows[] = {
        {"multipart/form-data; boundary=AbC", "--AbC"},
        {"multipart/form-data;boundary=AbC", "--AbC"},
        {"multipart/form-databoundary=AbC", "--AbC"},
        {"multipart/form-data; charset=x; boundary=AbC", "--AbC"},
        {"multipart/form-data; boundary=AbC; charset=x", "--AbC; charset=x"},
        {"multipart/form-data; boundary=\"AbC\"", "--\"AbC\""},
        {"multipart/form-data; boundary=AbC ", "--AbC "},
        {"multipart/form-data; boundary=--AbC", "----AbC"},
        {"multipart/form-data; boundary=a boundary=b", "--a boundary=b"},
        {"multipart/form-data; boundary=", "--"},
    };
    for (const auto& row : rows) {
        const Read read = ReadWhole(WithContentType(row.value));
        ASSERT_EQ(read.code, 200) << row.value;
        EXPECT_EQ(read->ucMultipart, 1) << row.value;
        EXPECT_STREQ(read->pszBoundary, row.boundary);
        EXPECT_EQ(read->ucBoundaryLen, std::strlen(row.boundary)) << row.value;
    }
}

TEST_F(ConsumeHttpRequestTest, TakesOtherContentTypesForNoMultipart) {
    for (const char* value :
         {"text/xml", "Multipart/form-data; boundary=a", "multipart/mixed; boundary=a", "", " multipart",
          "\tmultipart/form-data", "x multipart/form-data; boundary=a"}) {
        const Read read = ReadWhole(WithContentType(value));
        ASSERT_EQ(read.code, 200) << value;
        EXPECT_EQ(read->ucMultipart, 0) << value;
        EXPECT_EQ(read->pszBoundary, nullptr) << value;
    }
    const Read abbreviated = ReadWhole("GET /x HTTP/1.1\r\nContent-Typ: multipart/form-data\r\n\r\n");
    EXPECT_EQ(abbreviated.code, 200);
}

TEST_F(ConsumeHttpRequestTest, TakesTheLastBoundary) {
    const Read read = ReadWhole("POST /x HTTP/1.1\r\nContent-type: multipart/form-data; boundary=first\r\n"
                                "Content-type: multipart/form-data; boundary=2\r\n\r\n");
    ASSERT_EQ(read.code, 200);
    EXPECT_STREQ(read->pszBoundary, "--2");
    EXPECT_EQ(read->ucBoundaryLen, 3);
}

TEST_F(ConsumeHttpRequestTest, KeepsABoundarysLengthIn8Bits) {
    for (const int length : {1, 252, 253, 254, 255, 256, 460}) {
        const std::string boundary(static_cast<std::size_t>(length), 'b');
        const Read read = ReadWhole(WithContentType("multipart/form-data; boundary=" + boundary));
        ASSERT_EQ(read.code, 200) << length;
        EXPECT_EQ(read->pszBoundary, "--" + boundary);
        EXPECT_EQ(read->ucBoundaryLen, (length + 2) % 256);
        EXPECT_EQ(read->ucMultipart, 1);
    }
}

TEST_F(ConsumeHttpRequestTest, AcceptsMultipartWithoutBoundaryOnlyWhereSupported) {
    EXPECT_EQ(CodeOf(WithContentType("multipart/form-data")), -400);
    ucSupportNetscapeVM = 1;
    const Read read = ReadWhole(WithContentType("multipart/form-data"));
    ASSERT_EQ(read.code, 200);
    EXPECT_EQ(read->ucMultipart, 0);
    EXPECT_EQ(read->pszBoundary, nullptr);
    EXPECT_EQ(CodeOf("GET /x HTTP/1.1\r\nContent-type: multipart/form-data\r\n\r\n"), -400)
        << "it must be posted all the same";
}

TEST(IsRequestHeader, KnowsItsTable) { rdx::test::ExpectKnowsItsTable(IsRequestHeader, apszRequestHeaders); }

TEST(IsRequestHeader, RefusesMalformedLines) { rdx::test::ExpectRefusesMalformedLines(IsRequestHeader); }

TEST(IsRequestHeader, GoesOnBehindANameThatIsABeginning) {
    EXPECT_EQ(rdx::test::Classify(IsRequestHeader, "Accept-Charset: utf-8"), 1);
    EXPECT_EQ(rdx::test::Classify(IsRequestHeader, "accept-charset: x"), 1);
    EXPECT_EQ(rdx::test::Classify(IsRequestHeader, "Accept-Ranges: bytes"), 0);
}

} // namespace
