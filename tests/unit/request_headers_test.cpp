#include "http/httpreq.h"

#include "common/config.h"
#include "tests/support/assertion.h"
#include "tests/support/faults.h"

#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace {

using rdx::test::FailCall;

auto Assertion(const std::string& function, const std::string& text) {
    return rdx::test::Assertion("http/request_headers.cpp", function, text);
}

// A request whose headers a test puts together.
class HeadersTest : public testing::Test {
protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
    void TearDown() override { FreeHttpRequest(&request_); }

    static HttpHeader Header(const char* name, const char* value) {
        HttpHeader header{};
        EXPECT_EQ(AllocHeader(&header, name, value), 0);
        return header;
    }
    void General(const char* name, const char* value) {
        request_.aGeneralHeaders[request_.ucNumOfGeneralHeaders++] = Header(name, value);
    }
    void Specific(const char* name, const char* value) {
        request_.aRequestHeaders[request_.ucNumOfRequestHeaders++] = Header(name, value);
    }
    void Entity(const char* name, const char* value) {
        request_.aEntityHeaders[request_.ucNumOfEntityHeaders++] = Header(name, value);
    }

    int Add(std::string name, std::string value) {
        HttpHeader header{name.data(), value.data()};
        return AddHeader2Request(&request_, &header);
    }
    // How many headers there are in each list.
    std::vector<int> Counts() const {
        return {request_.ucNumOfGeneralHeaders, request_.ucNumOfRequestHeaders,
                request_.ucNumOfEntityHeaders};
    }

    HttpRequest request_{};
};
using GetReqHeaderByNameTest = HeadersTest;
using GetReqHeaderByNameDeathTest = HeadersTest;
using IsHeaderAvailableTest = HeadersTest;
using IsHeaderAvailableDeathTest = HeadersTest;
using AddHeader2RequestTest = HeadersTest;
using AddHeader2RequestDeathTest = HeadersTest;
using IsAuthorizedTest = HeadersTest;
using CheckAuthTest = HeadersTest;

// Searching ---------------------------------------------------------------------------------------------

TEST_F(GetReqHeaderByNameTest, SearchesTheListsInTheirOrder) {
    Entity("Name", "entity");
    EXPECT_STREQ(GetReqHeaderByName(&request_, "Name"), "entity");
    Specific("Name", "request");
    EXPECT_STREQ(GetReqHeaderByName(&request_, "Name"), "request");
    General("Other", "other");
    General("Name", "general");
    General("Name", "later");
    EXPECT_STREQ(GetReqHeaderByName(&request_, "Name"), "general");
    EXPECT_EQ(GetReqHeaderByName(&request_, "Name"), request_.aGeneralHeaders[1].value) << "not a copy";
}

TEST_F(GetReqHeaderByNameTest, ComparesWholeNamesIgnoringCase) {
    Specific("User-Agent", "a");
    EXPECT_STREQ(GetReqHeaderByName(&request_, "uSER-aGENT"), "a");
    for (const char* name : {"User", "User-Agent2", "User-Agent ", "x"}) {
        EXPECT_EQ(GetReqHeaderByName(&request_, name), nullptr) << name;
    }
}

TEST_F(GetReqHeaderByNameTest, FindsNothingInNothing) {
    EXPECT_EQ(GetReqHeaderByName(&request_, "Host"), nullptr);
    EXPECT_EQ(GetReqHeaderByName(nullptr, "Host"), nullptr);
}

TEST_F(GetReqHeaderByNameTest, PassesOverHalfFilledHeaders) {
    General("Date", "now");
    request_.ucNumOfGeneralHeaders = 2; // the second has no name: its memory was short
    Specific("Host", "a");
    FreeHeaders(request_.aGeneralHeaders, 1);
    request_.aGeneralHeaders[0].name = strdup("Via"); // a name without a value
    EXPECT_STREQ(GetReqHeaderByName(&request_, "Host"), "a");
    EXPECT_EQ(GetReqHeaderByName(&request_, "Via"), nullptr);
}

TEST_F(GetReqHeaderByNameTest, NeverLeavesAListThatHasOverflowed) {
    request_.ucNumOfGeneralHeaders = request_.ucNumOfRequestHeaders = request_.ucNumOfEntityHeaders = 255;
    EXPECT_EQ(GetReqHeaderByName(&request_, "Host"), nullptr);
    request_.ucNumOfGeneralHeaders = request_.ucNumOfRequestHeaders = request_.ucNumOfEntityHeaders = 0;
}

TEST_F(GetReqHeaderByNameDeathTest, AssertsItsName) {
    const std::string function = "GetReqHeaderByName";
    EXPECT_DEATH(GetReqHeaderByName(&request_, nullptr), Assertion(function, "szName != __null"));
    EXPECT_DEATH(GetReqHeaderByName(&request_, ""), Assertion(function, "strlen( szName ) != 0"));
}

TEST_F(IsHeaderAvailableTest, NamesTheFirstListThatHoldsTheHeader) {
    EXPECT_EQ(IsHeaderAvailable(&request_, "Name"), 0);
    Entity("Name", "1");
    EXPECT_EQ(IsHeaderAvailable(&request_, "nAME"), 3);
    Specific("Name", "2");
    EXPECT_EQ(IsHeaderAvailable(&request_, "NAME"), 2);
    General("Name", "3");
    EXPECT_EQ(IsHeaderAvailable(&request_, "Name"), 1);
    EXPECT_EQ(IsHeaderAvailable(&request_, "Nam"), 0);
    EXPECT_EQ(IsHeaderAvailable(&request_, ""), 0);
    EXPECT_EQ(IsHeaderAvailable(nullptr, "Name"), 0);
}

TEST_F(IsHeaderAvailableTest, AcceptsListsWithOneFreeEntry) {
    request_.ucNumOfGeneralHeaders = 15;
    request_.ucNumOfRequestHeaders = 13;
    request_.ucNumOfEntityHeaders = 15;
    EXPECT_EQ(IsHeaderAvailable(&request_, "Name"), 0);
}

TEST_F(IsHeaderAvailableDeathTest, AssertsEveryCountBeforeItSearches) {
    General("Name", "1");
    request_.ucNumOfRequestHeaders = 14;
    EXPECT_DEATH(IsHeaderAvailable(&request_, "Name"), Assertion("IsHeaderAvailable", "nHeaders < 14"));
    request_.ucNumOfRequestHeaders = 0;
    request_.ucNumOfEntityHeaders = 16;
    EXPECT_DEATH(IsHeaderAvailable(&request_, "Name"), Assertion("IsHeaderAvailable", "nHeaders < 16"));
}

TEST_F(IsHeaderAvailableDeathTest, AssertsItsNameAndTheCounts) {
    const std::string function = "IsHeaderAvailable";
    EXPECT_DEATH(IsHeaderAvailable(&request_, nullptr), Assertion(function, "pszHeader != __null"));
    HttpRequest general{};
    general.ucNumOfGeneralHeaders = 16;
    EXPECT_DEATH(IsHeaderAvailable(&general, "Host"), Assertion(function, "nHeaders < 16"));
    HttpRequest specific{};
    specific.ucNumOfRequestHeaders = 14;
    EXPECT_DEATH(IsHeaderAvailable(&specific, "Host"), Assertion(function, "nHeaders < 14"));
    HttpRequest entity{};
    entity.ucNumOfEntityHeaders = 16;
    EXPECT_DEATH(IsHeaderAvailable(&entity, "Host"), Assertion(function, "nHeaders < 16"));
}

// Adding ------------------------------------------------------------------------------------------------

TEST_F(AddHeader2RequestTest, AppendsEveryNameOfTheTablesToItsList) {
    const struct {
        std::span<const char* const> names;
        std::vector<int> counts;
    } rows[] = {
        {apszGeneralHeaders, {1, 0, 0}}, {apszRequestHeaders, {0, 1, 0}}, {apszEntityHeaders, {0, 0, 1}}};
    for (const auto& row : rows) {
        for (const char* name : row.names) {
            EXPECT_EQ(Add(name, "v"), 0) << name;
            EXPECT_EQ(Counts(), row.counts) << name;
            EXPECT_STREQ(GetReqHeaderByName(&request_, name), "v");
            FreeHttpRequest(&request_);
        }
    }
}

TEST_F(AddHeader2RequestTest, AppendsAtTheEndAndKeepsTheCallersSpelling) {
    EXPECT_EQ(Add("host", "1"), 0);
    EXPECT_EQ(Add("Content-length", "2"), 0);
    EXPECT_EQ(Add("HOST", ""), 0);
    EXPECT_EQ(Counts(), (std::vector<int>{0, 2, 1}));
    EXPECT_STREQ(request_.aRequestHeaders[0].name, "host");
    EXPECT_STREQ(request_.aRequestHeaders[1].name, "HOST");
    EXPECT_STREQ(request_.aRequestHeaders[1].value, "");
    EXPECT_STREQ(request_.aEntityHeaders[0].name, "Content-length");
}

TEST_F(AddHeader2RequestTest, RefusesNamesThatAreInNoTable) {
    for (const char* name : {"Accept-Ranges", "Server", "X-Custom", "Con", "Hos", "Hosts", "Host:", ""}) {
        EXPECT_EQ(Add(name, "v"), -1) << name;
    }
    EXPECT_EQ(Counts(), (std::vector<int>{0, 0, 0}));
}

TEST_F(AddHeader2RequestTest, FillsEveryListToItsCapacity) {
    for (int i = 0; i < 16; ++i) EXPECT_EQ(Add("Via", "v"), 0);
    for (int i = 0; i < 14; ++i) EXPECT_EQ(Add("Host", "v"), 0);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(Add("Allow", "v"), 0);
    EXPECT_EQ(Counts(), (std::vector<int>{16, 14, 16}));
}

TEST_F(AddHeader2RequestTest, LeavesTheRequestAloneWhenMemoryIsShort) {
    for (const int nth : {1, 2}) {
        const FailCall noMemory("malloc", nth);
        EXPECT_EQ(Add("Host", "v"), -1);
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(Counts(), (std::vector<int>{0, 0, 0}));
        EXPECT_EQ(request_.aRequestHeaders[0].name, nullptr);
    }
}

TEST_F(AddHeader2RequestDeathTest, AssertsTheHeaderAndTheRoom) {
    const std::string function = "AddHeader2Request";
    char text[] = "Host";
    HttpHeader nameless{nullptr, text};
    EXPECT_DEATH(AddHeader2Request(&request_, &nameless), Assertion(function, "pHeader->name != __null"));
    HttpHeader valueless{text, nullptr};
    EXPECT_DEATH(AddHeader2Request(&request_, &valueless), Assertion(function, "pHeader->value != __null"));
    HttpRequest full{};
    full.ucNumOfGeneralHeaders = full.ucNumOfEntityHeaders = 16;
    full.ucNumOfRequestHeaders = 14;
    const struct {
        const char* name;
        const char* text;
    } rows[] = {{"Via", "nHeaders < 16"}, {"Host", "nHeaders < 14"}, {"Allow", "nHeaders < 16"}};
    for (const auto& row : rows) {
        std::string name = row.name;
        HttpHeader header{name.data(), text};
        EXPECT_DEATH(AddHeader2Request(&full, &header), Assertion(function, row.text)) << row.name;
    }
}

// Credentials -------------------------------------------------------------------------------------------

TEST_F(IsAuthorizedTest, ComparesTheCredentialsAsTheyCome) {
    std::strcpy(szConfigAuthInfo, "dTpw");
    for (const char* value : {"Basic dTpw", "BASIC dTpw", "basic dTpw"})
        EXPECT_EQ(IsAuthorized(value), 1) << value;
    for (const char* value :
         {"", "B", "Basic", "Basic ", "Basic dTp", "Basic dTpwx", "Basic dtpw", "Basic  dTpw", " Basic dTpw",
          "Basic\tdTpw", "Digest dTpw", "dTpw", "Basic dTpw "}) {
        EXPECT_EQ(IsAuthorized(value), 0) << value;
    }
    EXPECT_EQ(IsAuthorized(nullptr), 0);
}

TEST_F(IsAuthorizedTest, TakesCredentialsOf48Characters) {
    const std::string credentials(48, 'c');
    std::strcpy(szConfigAuthInfo, credentials.c_str());
    EXPECT_EQ(IsAuthorized(("Basic " + credentials).c_str()), 1);
    EXPECT_EQ(IsAuthorized(("Basic " + credentials + "c").c_str()), 0);
}

TEST_F(IsAuthorizedTest, TakesNoCredentialsForNone) {
    EXPECT_EQ(IsAuthorized("Basic "), 1) << "none are configured and none are sent";
    EXPECT_EQ(IsAuthorized("Basic x"), 0);
    EXPECT_EQ(IsAuthorized("Basic"), 0);
}

TEST_F(CheckAuthTest, PassesEveryRequestUnlessRequired) {
    EXPECT_EQ(CheckAuth(-1, &request_), 0);
    Specific("Authorization", "Basic wrong");
    EXPECT_EQ(CheckAuth(-1, &request_), 0);
}

TEST_F(CheckAuthTest, LooksAtTheAuthorizationHeaderWhenRequired) {
    ucAuthRequired = 1;
    std::strcpy(szConfigAuthInfo, "dTpw");
    EXPECT_EQ(CheckAuth(-1, &request_), -1);
    Specific("Proxy-Authorization", "Basic dTpw");
    EXPECT_EQ(CheckAuth(-1, &request_), -1);
    Specific("authorization", "Basic dTpw");
    EXPECT_EQ(CheckAuth(-1, &request_), 0);
    Specific("Authorization", "Basic wrong");
    EXPECT_EQ(CheckAuth(-1, &request_), 0) << "the first counts";
}

} // namespace
