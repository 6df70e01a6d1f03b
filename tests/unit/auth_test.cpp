#include "rDxsd/auth.h"

#include "tests/support/capture.h"
#include "tests/support/faults.h"
#include "tests/support/guarded.h"
#include "tests/support/released.h"
#include "tests/support/request.h"
#include "tests/support/shadow.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace rdx {
namespace {

std::string Encoded(const std::string& text) {
    const test::GuardedBytes bytes(text);
    std::vector<char> out((text.size() + 2) / 3 * 4 + 1, '?');
    EXPECT_EQ(Base64Encode(reinterpret_cast<const unsigned char*>(bytes.begin()), text.size(), out.data()),
              1);
    EXPECT_EQ(out.back(), '\0');
    return out.data();
}

struct Decoded {
    std::string bytes; // as many as the decoder terminated
    unsigned long reported;
};

Decoded Decode(const std::string& text) {
    const test::GuardedBytes guarded(text + '\0');
    std::vector<unsigned char> out(text.size() + 8, '?');
    unsigned long reported = 99;
    EXPECT_EQ(Base64Decode(guarded.begin(), out.data(), &reported), 1);
    EXPECT_EQ(out[reported + 1], '?') << "written behind the reported length: " << text;
    return {reinterpret_cast<char*>(out.data()), reported};
}

// ------------------------------------------------------------------------------------------------ Base64

struct Base64Case {
    std::string bytes;
    std::string text;
    unsigned long reported;
};

// With every value of the alphabet among them.
const Base64Case kBase64Cases[] = {
    {"", "", 0},
    {"f", "Zg==", 3},
    {"fo", "Zm8=", 3},
    {"foo", "Zm9v", 3},
    {"foob", "Zm9vYg==", 6},
    {"fooba", "Zm9vYmE=", 6},
    {"foobar", "Zm9vYmFy", 6},
    {"A", "QQ==", 3},
    {"\xFF\xFF\xFF", "////", 3},
    {"\xFB\xEF\xBE", "++++", 3},
    {"\x10\x51\x87\x20\x92\x8B\x30\xD3\x8F\x41\x14\x93\x51\x55\x97\x61\x96\x9B\x71\xD7\x9F\x82\x18\xA3\x92"
     "\x59\xA7\xA2\x9A\xAB\xB2\xDB\xAF\xC3\x1C\xB3\xD3\x5D\xB7\xE3\x9E\xBB\xF3\xDF\xBF",
     "EFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", 45},
};

TEST(Base64Encode, PadsWithEqualSigns) {
    for (const Base64Case& sample : kBase64Cases) EXPECT_EQ(Encoded(sample.bytes), sample.text);
}

TEST(Base64Encode, EncodesEveryByteAtEveryPlaceOfAGroup) {
    for (int value = 0; value < 256; ++value) {
        for (const std::size_t length : {1U, 2U, 3U, 4U}) {
            const std::string bytes(length, static_cast<char>(value));
            const std::string text = Encoded(bytes);
            EXPECT_EQ(text.size(), (length + 2) / 3 * 4);
            unsigned long reported = 0;
            unsigned char out[8] = {};
            Base64Decode(text.c_str(), out, &reported);
            EXPECT_EQ(std::string(reinterpret_cast<char*>(out), length), bytes);
            EXPECT_EQ(out[length], 0);
        }
    }
}

TEST(Base64Decode, ReportsWholeGroupsAndTerminatesAtTheTrueLength) {
    for (const Base64Case& sample : kBase64Cases) {
        const Decoded decoded = Decode(sample.text);
        EXPECT_EQ(decoded.bytes, sample.bytes);
        EXPECT_EQ(decoded.reported, sample.reported) << sample.text;
    }
}

struct DecodeCase {
    const char* why;
    std::string text;
    std::string bytes;
    unsigned long reported;
};

TEST(Base64Decode, EndsSilentlyAtTheFirstForeignByte) {
    const DecodeCase cases[] = {
        {"no padding, two characters", "QQ", "A", 3},
        {"no padding, three characters", "QUI", "AB", 3},
        {"blanks and tabs in front", " \t QUJD", "ABC", 3},
        {"a line feed in front", "\nQUJD", "", 0},
        {"a blank inside", "QUJD QUJD", "ABC", 3},
        {"an equal sign inside", "QQ==QUJD", "A", 3},
        {"a byte above 127", "QUJD\xFF", "ABC", 3},
        {"a minus sign", "QUJDQU-D", "ABCA", 6},
        {"only padding", "====", "", 0},
        {"nothing but blanks", " \t", "", 0},
        {"one character and the end", "Q", "@", 3},
        {"one character in the last group", "QUJDQ", "ABC@", 6},
        {"one character and padding", "Q===", "@", 3},
    };
    for (const DecodeCase& sample : cases) {
        const Decoded decoded = Decode(sample.text);
        EXPECT_EQ(decoded.bytes, sample.bytes) << sample.why;
        EXPECT_EQ(decoded.reported, sample.reported) << sample.why;
    }
}

TEST(Base64Decode, JudgesALoneCharacterByWhatFollowsItsEnd) {
    unsigned char out[8];
    unsigned long reported = 0;
    Base64Decode("Q=Q", out, &reported);
    EXPECT_EQ(out[0], '@');
    EXPECT_EQ(out[1], 0) << "a byte more, which is zero";
    EXPECT_EQ(out[2], 0) << "then the end";
    EXPECT_EQ(reported, 3U);
}

// ------------------------------------------------------------------------------------------- credentials

struct Checked {
    int result;
    std::unique_ptr<char, decltype(&std::free)> user{nullptr, std::free};
    std::unique_ptr<char, decltype(&std::free)> password{nullptr, std::free};
    std::string printed;
};

Checked Check(const std::string& encoded) {
    const test::CaptureStdout capture;
    char before[] = "before";
    char* user = before;
    char* password = before;
    Checked checked;
    checked.result = HandleBasicAuth(encoded.c_str(), &user, &password);
    checked.user.reset(user);
    checked.password.reset(password);
    checked.printed = capture.Text();
    return checked;
}

constexpr const char* kWrong = "\nHandleBasicAuth: pw (wrong)";

class Credentials : public testing::Test {
protected:
    test::ShadowEntry service_{"service", test::Encrypt("secret")};
};

TEST_F(Credentials, AreValidWithTheStoredPassword) {
    const Checked checked = Check(Encoded("service:secret"));
    EXPECT_EQ(checked.result, 1);
    EXPECT_STREQ(checked.user.get(), "service");
    EXPECT_STREQ(checked.password.get(), "secret");
    EXPECT_EQ(checked.printed, "");
}

TEST_F(Credentials, AreRefusedWithAWrongPassword) {
    const Checked checked = Check(Encoded("service:Secret"));
    EXPECT_EQ(checked.result, 0);
    EXPECT_STREQ(checked.user.get(), "service");
    EXPECT_STREQ(checked.password.get(), "Secret");
    EXPECT_EQ(checked.printed, kWrong);
}

TEST_F(Credentials, AreRefusedForAnUnknownUser) {
    const Checked checked = Check(Encoded("nobody:secret"));
    EXPECT_EQ(checked.result, 0);
    EXPECT_STREQ(checked.user.get(), "nobody");
    EXPECT_STREQ(checked.password.get(), "secret");
    EXPECT_EQ(checked.printed, "");
}

TEST_F(Credentials, AreRefusedWithoutAColon) {
    for (const char* text : {"", "service", "servicesecret"}) {
        const Checked checked = Check(Encoded(text));
        EXPECT_EQ(checked.result, 0) << text;
        EXPECT_EQ(checked.user, nullptr) << text;
        EXPECT_EQ(checked.password, nullptr) << text;
    }
    EXPECT_EQ(Check("?").result, 0);
}

TEST_F(Credentials, EndAtANul) {
    EXPECT_EQ(Check(Encoded(std::string("service\0:secret", 15))).user, nullptr);
    EXPECT_EQ(Check(Encoded(std::string("service:secret\0more", 19))).result, 1);
}

TEST_F(Credentials, AreCutAtTheFirstColon) {
    const test::ShadowEntry colon("colon", test::Encrypt("a:b"));
    const Checked checked = Check(Encoded("colon:a:b"));
    EXPECT_EQ(checked.result, 1);
    EXPECT_STREQ(checked.user.get(), "colon");
    EXPECT_STREQ(checked.password.get(), "a:b");
}

TEST_F(Credentials, MayHaveAnEmptyPassword) {
    const Checked wrong = Check(Encoded("service:"));
    EXPECT_EQ(wrong.result, 0);
    EXPECT_STREQ(wrong.password.get(), "");
    EXPECT_EQ(wrong.printed, kWrong) << "tested against the database";
    const test::ShadowEntry open("open", test::Encrypt(""));
    EXPECT_EQ(Check(Encoded("open:")).result, 1);
}

TEST_F(Credentials, MayHaveAnEmptyUser) {
    const Checked checked = Check(Encoded(":secret"));
    EXPECT_EQ(checked.result, 0);
    EXPECT_STREQ(checked.user.get(), "");
}

TEST_F(Credentials, NeedNoOutputs) {
    EXPECT_EQ(HandleBasicAuth(Encoded("service:secret").c_str(), nullptr, nullptr), 1);
    EXPECT_EQ(HandleBasicAuth(Encoded("nobody:secret").c_str(), nullptr, nullptr), 0);
    char* user = nullptr;
    EXPECT_EQ(HandleBasicAuth(Encoded("service:secret").c_str(), &user, nullptr), 1);
    EXPECT_STREQ(user, "service");
    std::free(user);
}

TEST_F(Credentials, MayBeEncryptedInEveryWayTheSystemKnows) {
    for (const char* setting :
         {"$6$rounds=1000$abc$", "$5$rounds=1000$abc$", "$1$abc$", "$y$j75$abcdefgh$"}) {
        const std::string stored = test::Encrypt("secret", setting);
        ASSERT_TRUE(stored.starts_with("$")) << setting;
        const test::ShadowEntry user("user", stored);
        EXPECT_EQ(Check(Encoded("user:secret")).result, 1) << stored;
        EXPECT_EQ(Check(Encoded("user:Secret")).result, 0) << stored;
    }
}

TEST_F(Credentials, NeverMatchWhatIsNoPassword) {
    const std::string good = test::Encrypt("secret");
    for (const std::string& stored : {std::string(), std::string("*"), std::string("!"), std::string("!!"),
                                      std::string("*0"), std::string("*1"), "!" + good, "*" + good,
                                      std::string("x"), good + "x", good.substr(0, good.size() - 1)}) {
        const test::ShadowEntry user("user", stored);
        for (const char* password : {"secret", "", "*0", "*1", "!", "x"}) {
            EXPECT_EQ(Check(Encoded("user:" + std::string(password))).result, 0) << stored << " " << password;
        }
    }
}

TEST_F(Credentials, OfFourThousandNinetySixCharactersAreRefusedUnread) {
    std::string text = "service:secret";
    text.resize(3072, '\0');
    std::string encoded = Encoded(text);
    ASSERT_EQ(encoded.size(), 4096U);
    const Checked refused = Check(encoded);
    EXPECT_EQ(refused.result, 0);
    EXPECT_EQ(refused.user, nullptr);
    encoded.pop_back();
    EXPECT_EQ(Check(encoded).result, 1) << "one character less is read";
}

TEST_F(Credentials, AreRefusedWhenThereAreNone) { EXPECT_EQ(HandleBasicAuth(nullptr, nullptr, nullptr), 0); }

TEST_F(Credentials, AreReadUpToTheirEndOnly) {
    const std::string good = Encoded("service:secret");
    for (std::size_t length = 0; length <= good.size(); ++length) {
        const test::CaptureStdout capture;
        const test::GuardedBytes text(good.substr(0, length) + '\0');
        // The padding says nothing that is needed.
        EXPECT_EQ(HandleBasicAuth(text.begin(), nullptr, nullptr), length >= good.find('=') ? 1 : 0)
            << length;
    }
}

TEST_F(Credentials, AreRefusedWhenMemoryIsShort) {
    const std::string encoded = Encoded("service:secret");
    for (const int nth : {1, 2}) {
        const test::FailCall fault("malloc", nth);
        const Checked checked = Check(encoded);
        EXPECT_TRUE(fault.Struck());
        EXPECT_EQ(checked.result, 0);
        EXPECT_EQ(checked.user != nullptr, nth == 2);
        EXPECT_EQ(checked.password, nullptr);
    }
    const test::FailCall fault("calloc");
    EXPECT_EQ(HandleBasicAuth(encoded.c_str(), nullptr, nullptr), 0);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Credentials, AreRefusedWhenTheDatabaseCannotBeRead) {
    const test::FailCall fault("getspnam_r", 1, EACCES);
    const Checked checked = Check(Encoded("service:secret"));
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(checked.result, 0);
    EXPECT_EQ(checked.printed, "");
}

TEST_F(Credentials, AreFoundBehindALongLine) {
    const test::FailCall fault("getspnam_r", 1, ERANGE);
    EXPECT_EQ(Check(Encoded("service:secret")).result, 1);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Credentials, AreRefusedWhenTheEntryIsTooLong) {
    const test::ShadowEntry user("user", test::Encrypt("secret") + std::string(2'000'000, 'x'));
    const Checked checked = Check(Encoded("user:secret"));
    EXPECT_EQ(checked.result, 0);
    EXPECT_EQ(checked.printed, "") << "the password was not even tried";
}

TEST_F(Credentials, AreRefusedWhenMemoryForTheEntryIsShort) {
    const test::FailCall fault("malloc", 3); // behind the copies of user and password
    EXPECT_EQ(Check(Encoded("service:secret")).result, 0);
    EXPECT_TRUE(fault.Struck());
}

TEST_F(Credentials, AreRefusedWhenNothingComesOfTheEncryption) {
    const test::FailCall fault("crypt_r", 1, EINVAL);
    const Checked checked = Check(Encoded("service:secret"));
    EXPECT_TRUE(fault.Struck());
    EXPECT_EQ(checked.result, 0);
    EXPECT_EQ(checked.printed, "");
}

// Neither the password nor the text that it is compared with, which is as good to who wants to guess.
TEST_F(Credentials, LeaveNothingInMemory) {
    const std::string password = "a password of thirty characters";
    const std::string stored = test::Encrypt(password);
    const test::ShadowEntry user("user", stored);
    const std::string encryption = stored.substr(stored.size() - 40);
    for (const std::string& given : {password, password + "!"}) {
        test::Request request;
        request.Authorization("Basic " + Encoded("user:" + given));
        const test::CaptureStdout capture;
        const test::SecretWatch watch({password, encryption});
        EXPECT_EQ(rDxCheckAuth(request.get()), given == password ? 0 : 1);
        EXPECT_EQ(watch.Left(), 0);
        EXPECT_EQ(watch.WipedOnStack(), 1U) << "the decoded header";
    }
}

// ------------------------------------------------------------------------------------------------ header

TEST_F(Credentials, ComeInTheAuthorizationHeader) {
    test::Request request;
    request.Authorization("Basic " + Encoded("service:secret"));
    const test::CaptureStdout capture;
    EXPECT_EQ(rDxCheckAuth(request.get()), 0);
    EXPECT_EQ(capture.Text(), "\nrDxCheckAuth: HandleBasicAuth=1");
}

TEST_F(Credentials, MayFollowTheSchemeInAnyLetterCase) {
    for (const char* scheme : {"basic ", "BASIC ", "bAsIc ", "Basic  \t "}) {
        test::Request request;
        request.Authorization(scheme + Encoded("service:secret"));
        const test::CaptureStdout capture;
        EXPECT_EQ(rDxCheckAuth(request.get()), 0) << scheme;
    }
}

TEST_F(Credentials, AreWrongInTheHeader) {
    test::Request request;
    request.Authorization("Basic " + Encoded("service:wrong"));
    const test::CaptureStdout capture;
    EXPECT_EQ(rDxCheckAuth(request.get()), 1);
    EXPECT_EQ(capture.Text(), std::string(kWrong) + "\nrDxCheckAuth: HandleBasicAuth=0");
}

TEST_F(Credentials, AreNotLookedAtUnderAnotherScheme) {
    const std::string good = Encoded("service:secret");
    for (const std::string& value : {std::string(), std::string("B"), std::string("Basic"), "Basic" + good,
                                     "Basic\t" + good, "Digest " + good, " Basic " + good, good}) {
        test::Request request;
        request.Authorization(value);
        const test::CaptureStdout capture;
        EXPECT_EQ(rDxCheckAuth(request.get()), 1) << value;
        EXPECT_EQ(capture.Text(), "") << value;
    }
}

TEST_F(Credentials, AreMissingWithoutTheHeader) {
    test::Request request;
    const test::CaptureStdout capture;
    EXPECT_EQ(rDxCheckAuth(request.get()), 1);
    EXPECT_EQ(capture.Text(), "");
}

TEST_F(Credentials, MayBeNothingAtAll) {
    test::Request request;
    request.Authorization("Basic ");
    const test::CaptureStdout capture;
    EXPECT_EQ(rDxCheckAuth(request.get()), 1);
    EXPECT_EQ(capture.Text(), "\nrDxCheckAuth: HandleBasicAuth=0");
}

} // namespace
} // namespace rdx
