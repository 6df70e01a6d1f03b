// Answers are XML to a parser that is not ours, and the texts in them are what the device or a client gave,
// whatever characters they hold.

#include "tests/support/client.h"
#include "tests/system/device_server.h"
#include "tests/system/messages.h"
#include "tests/system/xml.h"

#include <cstdlib>
#include <filesystem>
#include <memory>

namespace rdx::test {
namespace {

const std::vector<std::string>& OddTexts() {
    static const std::vector<std::string> kTexts = {
        "Workstation 7",
        "<",
        ">",
        "&",
        "'",
        "\"",
        "<Müller & \"Söhne\">'s",
        "</string><null/>",
        "&amp;&lt;&#65;",
        "&amp",
        "]]>",
        "<![CDATA[x]]>",
        "<!-- a -->",
        "<?pi x?>",
        "%s%d%n",
        "'\"'\"",
        "\xc3\x9f \xe2\x82\xac \xf0\x9f\x9a\x97", // of two, three and four bytes
        "  blanks  ",
        "tab\tand\nline",
        "back\\slash",
    };
    return kTexts;
}

TEST(Files, AreXml) {
    int files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(RDX_TEST_GOLDEN)) {
        if (entry.path().extension() != ".xml") continue;
        const XmlPacket packet(ReadFile(entry.path()));
        EXPECT_TRUE(packet.WellFormed()) << entry.path() << packet.Error();
        EXPECT_TRUE(packet.HasData()) << entry.path();
        ++files;
    }
    EXPECT_GT(files, 100);
}

TEST(Files, HoldWhatTheParserFinds) {
    const XmlPacket status(Golden("rdxGetDeviceStatus", "0"));
    EXPECT_EQ(status.TextAt("DeviceType"), "40018");
    EXPECT_EQ(status.TextAt("IfUsage/1/Channel"), "DIAGBUS");
    EXPECT_EQ(status.TextAt("SlpAttributes/0/AttributeName"), "Location");
    EXPECT_EQ(status.TextAt("Status/params"), std::nullopt);
    EXPECT_EQ(status.TextAt("status"), std::nullopt);
    EXPECT_FALSE(XmlPacket("<string>a & b</string>").WellFormed());
    EXPECT_FALSE(XmlPacket(kInvalidPage).HasData());
}

class Texts : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        client_ = std::make_unique<Client>(server_.Port());
    }

    // The answer to a call, which must be XML and of which the request was XML too.
    std::unique_ptr<XmlPacket> Send(const std::string& method, const std::string& packet) {
        const XmlPacket request(packet);
        EXPECT_TRUE(request.WellFormed()) << packet << request.Error();
        client_->Send(UserCall(method, packet));
        const Reply answer = client_->ReadAnswer();
        EXPECT_EQ(answer.status, 200) << packet;
        auto parsed = std::make_unique<XmlPacket>(answer.body);
        EXPECT_TRUE(parsed->WellFormed()) << answer.body << parsed->Error();
        return parsed;
    }
    std::unique_ptr<XmlPacket> Send(const std::string& method) { return Send(method, Arguments(method)); }

    DeviceServer server_;
    std::unique_ptr<Client> client_;
};

// Runs a test's body with each of the texts.
template <typename Body>
void WithEachText(Body body) {
    for (const std::string& text : OddTexts()) {
        SCOPED_TRACE(text);
        body(text);
    }
}

TEST_F(Texts, OfTheDeviceComeThroughAsOwners) {
    WithEachText([this](const std::string& text) {
        const std::string owner =
            "[rDxGetOwner]\nowner = " + Quoted(text) + "\nallocated_by = " + Quoted(text + "/") + "\n";
        const std::pair<const char*, int> kOwned[] = {
            {"rdxAllocateDevice", 1},       {"rdxReleaseDevice", 2},       {"rdxInitiateCfgRequest", 2},
            {"rdxSetIpConfiguration", 2},   {"rdxSetDeviceAttributes", 2}, {"rdxRunDeviceSelfTest", 2},
            {"rdxUpdateDeviceFirmware", 2}, {"rdxGetVehicleStatus", 2}};
        for (const auto& [method, result] : kOwned) {
            server_.Play(owner + Result(method, result)); // the device's function is named alike
            const auto answer = Send(method);
            EXPECT_EQ(answer->TextAt("Status/params/0/DeviceOwner"), text) << method;
            EXPECT_EQ(answer->TextAt("Status/params/0/AllocatedBy"), text + "/") << method;
        }
    });
}

TEST_F(Texts, OfTheDeviceComeThroughAsTheClientThatReleasedIt) {
    WithEachText([this](const std::string& text) {
        server_.Play(Result("rDxReleaseDevice", 1) + "released_by = " + Quoted(text) + "\n");
        EXPECT_EQ(Send("rdxReleaseDevice")->TextAt("Status/params/0/ReleasedBy"), text);
    });
}

TEST_F(Texts, OfTheDeviceComeThroughInItsStatus) {
    WithEachText([this](const std::string& text) {
        const std::string quoted = Quoted(text);
        server_.Play("[rDxGetAllocStatus]\ncontrolled = 1\nallocation = " + quoted + "\nowner = " + quoted +
                     "\ncontrolling_client = " + quoted + "\n[rdxGetDeviceAttributes]\nattribute = " +
                     quoted + " " + Quoted(text + text) + " volatile\n");
        const auto answer = Send("rdxGetDeviceStatus");
        for (const char* path : {"IsAllocated", "DeviceOwner", "IfUsage/0/ControlledBy",
                                 "IfUsage/1/ControlledBy", "SlpAttributes/0/AttributeName"}) {
            EXPECT_EQ(answer->TextAt(path), text) << path;
        }
        EXPECT_EQ(answer->TextAt("SlpAttributes/0/AttributeValue"), text + text);
        EXPECT_EQ(answer->TextAt("Status/code"), "0");
    });
}

TEST_F(Texts, OfTheDeviceComeThroughAsAddresses) {
    constexpr std::size_t kLongest = 15;
    WithEachText([this](const std::string& text) {
        if (text.size() > kLongest) return;
        const std::string quoted = Quoted(text);
        server_.Play("[rDxGetActiveIpConf]\nip_address = " + quoted + "\nnetmask = " + quoted +
                     "\ngateway = " + quoted + "\n");
        const auto answer = Send("rdxGetDeviceStatus");
        for (const char* path : {"IpAddress", "Netmask", "DefaultGateway"}) {
            EXPECT_EQ(answer->TextAt(path), text) << path;
        }
    });
}

// The longest texts, of the character that takes the most room in an answer.
TEST_F(Texts, OfTheDeviceComeThroughAtTheirFullLength) {
    const std::string text(4095, '"');
    const std::string quoted = Quoted(text);
    server_.Play("[rDxGetAllocStatus]\ncontrolled = 1\nallocation = " + quoted + "\nowner = " + quoted +
                 "\ncontrolling_client = " + quoted + "\n");
    const auto answer = Send("rdxGetDeviceStatus");
    EXPECT_EQ(answer->TextAt("DeviceOwner"), text);
    EXPECT_EQ(answer->TextAt("IfUsage/1/ControlledBy"), text);
}

// --- There and back -------------------------------------------------------------------------------------

TEST_F(Texts, OfAClientComeBackAsTheOwner) {
    WithEachText([this](const std::string& text) {
        const std::string owner = StringValue(text);
        EXPECT_EQ(Send("rdxAllocateDevice", ArgumentsWith("rdxAllocateDevice", "DeviceOwner", owner))
                      ->TextAt("Status/code"),
                  "0");
        EXPECT_EQ(Send("rdxGetDeviceStatus")->TextAt("DeviceOwner"), text);
        EXPECT_EQ(Send("rdxGetVehicleStatus",
                       ArgumentsWith("rdxGetVehicleStatus", "DeviceOwner", StringValue(text + "!")))
                      ->TextAt("Status/params/0/DeviceOwner"),
                  text);
        EXPECT_EQ(Send("rdxReleaseDevice", ArgumentsWith("rdxReleaseDevice", "DeviceOwner", owner))
                      ->TextAt("Status/code"),
                  "0");
    });
}

std::string AttributePacket(const std::string& name, const std::string& value) {
    return ArgumentsWith("rdxSetDeviceAttributes", "SlpAttributes",
                         "<array length='1'><struct><var name='AttributeName'>" + StringValue(name) +
                             "</var><var name='AttributeValue'>" + value +
                             "</var><var name='IsPersistent'><boolean value='true'/></var>"
                             "<var name='EnforceReg'><number>0</number></var></struct></array>");
}

// The device's own two attributes come first.
TEST_F(Texts, OfAClientComeBackAsAttributes) {
    Send("rdxAllocateDevice");
    WithEachText([this](const std::string& text) {
        EXPECT_EQ(Send("rdxSetDeviceAttributes", AttributePacket(text, StringValue(text + text)))
                      ->TextAt("Status/code"),
                  "0");
        const auto status = Send("rdxGetDeviceStatus");
        EXPECT_EQ(status->TextAt("SlpAttributes/2/AttributeName"), text);
        EXPECT_EQ(status->TextAt("SlpAttributes/2/AttributeValue"), text + text);
        Send("rdxSetDeviceAttributes", AttributePacket(text, "<null/>")); // takes it away
        EXPECT_EQ(Send("rdxGetDeviceStatus")->TextAt("SlpAttributes/2/AttributeName"), std::nullopt);
    });
}

// --- The machine's name ---------------------------------------------------------------------------------

TEST_F(Texts, OfTheMachineComeThroughAsItsName) {
    if (!CanHaveOwnName()) GTEST_SKIP() << "this system gives no process a machine's name of its own";
    for (const char* name : {"bay-1", "<&>\"'", "\xc3\xbc-\xe2\x82\xac", "]]>&amp;"}) {
        DeviceServer named({.machineName = name});
        ASSERT_TRUE(named.Start());
        const Reply answer = Ask(named.Port(), Call("rdxGetDeviceStatus", VersionPacket()));
        const XmlPacket status(answer.body);
        EXPECT_TRUE(status.WellFormed()) << answer.text << status.Error();
        EXPECT_EQ(status.TextAt("Hostname"), name);
    }
}

} // namespace
} // namespace rdx::test
