// The two checks of credentials: the text that the configuration demands of every request, and the user
// and password that protected methods want, held against a shadow database made for the test.

#include "tests/system/curl_client.h"
#include "tests/system/modes.h"

#include <crypt.h>

namespace rdx::test {
namespace {

constexpr const char* kInfo = "dXNlcjpwYXNz"; // user:pass

class ConfiguredText : public OwnServer {
protected:
    void SetUp() override { ASSERT_TRUE(server_.Start()); }

    Reply AskWith(const std::string& authorization) {
        return Ask(server_.Port(), VersionCall({"Authorization: " + authorization}));
    }

    Server server_{{.settings = {"AuthRequired=1", std::string("AuthInfo=") + kInfo, "AuthRealm=The Device"},
                    .threads = GetParam()}};
};
RDX_IN_BOTH_MODES(ConfiguredText);

TEST_P(ConfiguredText, IsDemandedOfEveryRequest) {
    const std::string refusal = UnauthorizedAnswer("The Device");
    EXPECT_EQ(Ask(server_.Port(), VersionCall()).text, refusal);
    EXPECT_EQ(Ask(server_.Port(), UnknownTarget()).text, refusal);
    EXPECT_EQ(Ask(server_.Port(), "\r\n").text, refusal);
}

TEST_P(ConfiguredText, LetsARequestPass) {
    EXPECT_EQ(AskWith(std::string("Basic ") + kInfo).text, VersionAnswer());
    EXPECT_EQ(AskWith(std::string("bASIC ") + kInfo).text, VersionAnswer());
    EXPECT_EQ(Ask(server_.Port(), VersionCall({std::string("authorization:   Basic ") + kInfo})).text,
              VersionAnswer());
}

TEST_P(ConfiguredText, IsComparedCharacterForCharacter) {
    for (const char* value : {"", "Basic", "Basic ", "Basic dXNlcjpwYXN", "Basic dXNlcjpwYXNzz",
                              "Basic DXNLCJPWYXNZ", "Basic  dXNlcjpwYXNz", "Basic dXNlcjpwYXNz ",
                              "Digest dXNlcjpwYXNz", "dXNlcjpwYXNz", "BasicdXNlcjpwYXNz"}) {
        EXPECT_EQ(AskWith(value).text, UnauthorizedAnswer("The Device")) << value;
    }
}

TEST_P(ConfiguredText, DoesNotReplaceTheUserOfAProtectedMethod) {
    const std::string request =
        Call("rdxReleaseDevice", VersionPacket(), {std::string("Authorization: Basic ") + kInfo});
    EXPECT_EQ(Ask(server_.Port(), request).text, UnauthorizedAnswer("The Device"));
}

TEST_P(ConfiguredText, IsWhatAnOrdinaryClientSends) {
    CurlClient curl(server_.Port());
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket()).status, 401);
    curl.UseCredentials("user:pass");
    const CurlAnswer answer = curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket());
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(answer.head + answer.body, VersionAnswer());
}

std::string Hash(const char* password, const char* salt) {
    crypt_data data = {};
    const char* hash = crypt_r(password, salt, &data);
    return hash == nullptr ? "*0" : hash;
}

std::string ShadowLine(const std::string& user, const std::string& hash) {
    return user + ":" + hash + ":19000:0:99999:7:::\n";
}

std::string Shadow() {
    return ShadowLine("tester", Hash("secret", "$6$rounds=1000$aSaltOfTheTest$")) +
           ShadowLine("other", Hash("pass:word", "$5$rounds=1000$anotherSalt$")) +
           ShadowLine("open", Hash("", "$6$rounds=1000$aSaltOfTheTest$")) + ShadowLine("none", "") +
           ShadowLine("locked", "!" + Hash("secret", "$6$rounds=1000$aSaltOfTheTest$")) +
           ShadowLine("disabled", "*") + ShadowLine("failed", "*0") + ShadowLine("failing", "*1") +
           ShadowLine("odd", "$9$unknown$hash");
}

// Calls an unknown method: the least that valid credentials are good for.
class ShadowDatabase : public OwnServer {
protected:
    void SetUp() override {
        server_ = std::make_unique<Server>(ServerOptions{.threads = GetParam(), .shadow = Shadow()});
        ASSERT_TRUE(server_->Start());
    }

    Reply AskAs(const std::string& user, const std::string& password) {
        return AskWith(BasicAuthorization(user, password));
    }

    Reply AskWith(const std::string& header) {
        return Ask(server_->Port(), Call("rdxNoSuchMethod", VersionPacket(), {header}));
    }

    std::unique_ptr<Server> server_;
};
RDX_IN_BOTH_MODES(ShadowDatabase);

std::string UnknownMethodAnswer() { return Answer(200, StatusPacket(42010, 9003)); }

TEST_P(ShadowDatabase, LetsAUserPassWhoseWordMatches) {
    EXPECT_EQ(AskAs("tester", "secret").text, UnknownMethodAnswer());
    EXPECT_EQ(AskAs("other", "pass:word").text, UnknownMethodAnswer());
    EXPECT_EQ(AskAs("open", "").text, UnknownMethodAnswer());
    EXPECT_EQ(CountOf("\nrDxCheckAuth: HandleBasicAuth=1", server_->Output()), 3);
    EXPECT_EQ(CountOf("pw (wrong)", server_->Output()), 0);
}

TEST_P(ShadowDatabase, TakesTheSchemeInAnyCase) {
    EXPECT_EQ(AskWith("Authorization: basic " + Base64("tester:secret")).text, UnknownMethodAnswer());
    EXPECT_EQ(AskWith("authorization: BASIC " + Base64("tester:secret")).text, UnknownMethodAnswer());
}

TEST_P(ShadowDatabase, RefusesAWrongWord) {
    for (const char* word : {"", "Secret", "secret ", "secre", "secrett", "secret\n"}) {
        EXPECT_EQ(AskAs("tester", word).text, UnauthorizedAnswer()) << word;
    }
    EXPECT_EQ(CountOf("\nHandleBasicAuth: pw (wrong)", server_->Output()), 6);
    EXPECT_EQ(CountOf("\nrDxCheckAuth: HandleBasicAuth=0", server_->Output()), 6);
}

TEST_P(ShadowDatabase, RefusesUsersItDoesNotKnow) {
    for (const char* user : {"stranger", "", "Tester", "tester "}) {
        EXPECT_EQ(AskAs(user, "secret").text, UnauthorizedAnswer()) << user;
    }
    EXPECT_EQ(CountOf("pw (wrong)", server_->Output()), 0);
}

TEST_P(ShadowDatabase, RefusesUsersWithoutAUsableWord) {
    for (const char* user : {"none", "locked", "disabled", "failed", "failing", "odd"}) {
        for (const char* word : {"", "secret", "!", "*", "*0", "*1"}) {
            EXPECT_EQ(AskAs(user, word).text, UnauthorizedAnswer()) << user << ":" << word;
        }
    }
}

TEST_P(ShadowDatabase, RefusesWhatIsNoPairOfUserAndWord) {
    for (const std::string& value :
         {std::string("Basic"), std::string("Basic "), "Basic " + Base64("tester"), "Basic " + Base64(":"),
          "Basic " + Base64(":secret"), std::string("Basic !!!!"), "Digest " + Base64("tester:secret"),
          "Basic" + Base64("tester:secret"), "Basic " + Base64("testersecret"),
          "Basic " + std::string(480, 'A')}) {
        EXPECT_EQ(AskWith("Authorization: " + value).text, UnauthorizedAnswer()) << value;
    }
}

TEST_P(ShadowDatabase, IsNotAskedForPublicMethods) {
    EXPECT_EQ(Ask(server_->Port(), VersionCall({BasicAuthorization("tester", "wrong")})).text,
              VersionAnswer());
    EXPECT_EQ(CountOf("HandleBasicAuth", server_->Output()), 0);
}

TEST_P(ShadowDatabase, LeavesAnUnknownMethodItsArguments) {
    const std::string request = Call("rdxNoSuchMethod", "junk", {BasicAuthorization("tester", "secret")});
    EXPECT_NE(Ask(server_->Port(), request).status, 200);
    EXPECT_EQ(Ask(server_->Port(), Call("rdxNoSuchMethod", Packet("<array length='1'><null/></array>"),
                                        {BasicAuthorization("tester", "secret")}))
                  .text,
              ServerErrorAnswer());
}

TEST_P(ShadowDatabase, ServesAnOrdinaryClient) {
    CurlClient curl(server_->Port());
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxNoSuchMethod", VersionPacket()).status, 401);
    curl.UseCredentials("tester:secret");
    const CurlAnswer answer = curl.Post("/rDx?FunctionName=rdxNoSuchMethod", VersionPacket());
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(answer.body, StatusPacket(42010, 9003));
    curl.UseCredentials("tester:wrong");
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxNoSuchMethod", VersionPacket()).status, 401);
}

// Several threads check at the same time, and each gets the result of its own user.
TEST(SeveralThreads, DoNotMixUpTheirUsers) {
    Server server({.threads = kSeveralThreads, .shadow = Shadow()});
    ASSERT_TRUE(server.Start());
    const std::string good = Call("rdxNoSuchMethod", VersionPacket(),
                                  {BasicAuthorization("tester", "secret"), "Connection: close"});
    const std::string bad = Call("rdxNoSuchMethod", VersionPacket(),
                                 {BasicAuthorization("other", "secret"), "Connection: close"});
    for (int round = 0; round < 20; ++round) {
        Client first(server.Port());
        Client second(server.Port());
        Client third(server.Port());
        first.Send(good);
        second.Send(bad);
        third.Send(good);
        EXPECT_EQ(first.ReadAnswer().text, UnknownMethodAnswer());
        EXPECT_EQ(second.ReadAnswer().text, UnauthorizedAnswer());
        EXPECT_EQ(third.ReadAnswer().text, UnknownMethodAnswer());
    }
}

// --- Where the users come from --------------------------------------------------------------------------

// A line that is longer than most, so that the server has to make more room, stands before the user's.
void ExpectAUserBehindALongLine(ServerOptions options) {
    options.shadow = ShadowLine("long", std::string(5000, 'x')) + Shadow();
    Server server(std::move(options));
    ASSERT_TRUE(server.Start());
    const auto ask = [&](const char* user, const char* password) {
        return Ask(server.Port(),
                   Call("rdxNoSuchMethod", VersionPacket(), {BasicAuthorization(user, password)}))
            .text;
    };
    EXPECT_EQ(ask("tester", "secret"), UnknownMethodAnswer());
    EXPECT_EQ(ask("other", "secret"), UnauthorizedAnswer());
    EXPECT_EQ(ask("stranger", "secret"), UnauthorizedAnswer());
}

TEST(Users, AreThoseOfTheSystem) {
    if (!CanReplaceShadow()) {
        GTEST_SKIP() << "this system gives no process an /etc/shadow of its own: users are preloaded";
    }
    ExpectAUserBehindALongLine({});
}

TEST(Users, CanBePreloaded) { ExpectAUserBehindALongLine({.preloaded = true}); }

} // namespace
} // namespace rdx::test
