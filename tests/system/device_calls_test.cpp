// What of a call reaches the device, as its record of calls shows it, and which calls reach nothing.

#include "tests/support/client.h"
#include "tests/system/device_server.h"
#include "tests/system/messages.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <netinet/in.h>
#include <sys/socket.h>

namespace rdx::test {
namespace {

class DeviceCalls : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.Start());
        server_.Play(kEveryday);
        client_ = std::make_unique<Client>(server_.Port());
    }

    Reply Send(const std::string& request) {
        client_->Send(request);
        return client_->ReadAnswer();
    }

    // The calls of the device that a call of a method with this packet leads to.
    std::vector<std::string> CallsOf(const std::string& method, const std::string& packet) {
        EXPECT_EQ(Send(UserCall(method, packet)).status, 200) << packet;
        return server_.TakeCalls();
    }

    // The first of them.
    std::string CallOf(const std::string& method, const std::string& packet) {
        const std::vector<std::string> calls = CallsOf(method, packet);
        return calls.empty() ? "" : calls.front();
    }
    std::string CallWith(const std::string& method, const std::string& name, const std::string& value) {
        return CallOf(method, ArgumentsWith(method, name, value));
    }

    // The method is refused with 400 and reaches nothing.
    void ExpectRefusal(const std::string& method, const std::string& packet) {
        SCOPED_TRACE(method + packet);
        EXPECT_EQ(Send(UserCall(method, packet)).text, BadRequestAnswer());
        EXPECT_EQ(Send(UserForm(method, packet)).text, BadRequestAnswer());
        EXPECT_EQ(server_.TakeCalls(), std::vector<std::string>());
    }

    // This end of the connection as the server sees it.
    std::string Endpoint() const {
        sockaddr_in address = {};
        socklen_t size = sizeof address;
        getsockname(client_->Descriptor(), reinterpret_cast<sockaddr*>(&address), &size);
        return "\"127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "\"";
    }

    DeviceServer server_;
    std::unique_ptr<Client> client_;
};

using Lines = std::vector<std::string>;

TEST_F(DeviceCalls, CarryTheArgumentsOfTheMethods) {
    const auto calls = [this](const char* method) { return CallsOf(method, Arguments(method)); };
    EXPECT_EQ(calls("rdxGetVersion"), Lines());
    EXPECT_EQ(calls("rdxAllocateDevice"),
              Lines({"rDxAllocateDevice client=" + Endpoint() +
                     R"( owner="Workstation 7" address="10.0.0.7" ports="3000,3001" flag=1)"}));
    EXPECT_EQ(calls("rdxGetVehicleStatus"),
              Lines({R"(rDxGetVehicleStatus owner="Workstation 7")", "rDxGetTransmissionQuality"}));
    EXPECT_EQ(calls("rdxInitiateCfgRequest"),
              Lines({R"(rDxInitiateCfgRequest owner="Workstation 7" mode=1)"}));
    EXPECT_EQ(calls("rdxSetIpConfiguration"),
              Lines({R"(rDxSetIpConfiguration owner="Workstation 7" ip_address="192.168.0.20")"
                     R"( netmask="255.255.255.0" gateway="192.168.0.1" mode=1 hostname="bay-1")"}));
    EXPECT_EQ(
        calls("rdxSetDeviceAttributes"),
        Lines({R"(rDxSetDeviceAttributes owner="Workstation 7" names=["Location","DisplayName"])"
               R"( values=["Bay 2","Tester \"North\" & <South>"] persistence=[1,0] count=2 enforce=3)"}));
    EXPECT_EQ(calls("rdxUpdateDeviceFirmware"),
              Lines({R"(rDxUpdateDeviceFirmware owner="Workstation 7")"
                     R"( url="http://10.0.0.7/firmware?unit=kavo&rev=4712" revision=-1 signed=1)"
                     R"( method_of_trust="certificate" ca_certificate="-----BEGIN CERTIFICATE-----\n)"
                     R"(MIIBszCCAVmgAwIBAgIUQx\n-----END CERTIFICATE-----\n")"}));
    EXPECT_EQ(calls("rdxReleaseDevice"),
              Lines({"rDxReleaseDevice client=" + Endpoint() + R"( owner="Workstation 7" flag=1)"}));
    EXPECT_EQ(calls("rdxRunDeviceSelfTest"),
              Lines({R"(rDxRunDeviceSelfTest owner="Workstation 7" mode=0 await=0)",
                     "rDxGetCurrentSelftestStatus"}));
    EXPECT_EQ(
        calls("rdxGetDeviceStatus"),
        Lines({"rDxGetDeviceType size=4096", "rDxGetCurrentSelftestStatus", "rDxGetNetInterface size=4096",
               "rDxGetIpConfiguration length=8", "rDxGetActiveIpConf size=16", "rDxGetFirmwareRev",
               "rDxGetAllocStatus", "rdxGetDeviceAttributes", "rdxFreeDeviceAttributes count=2"}));
}

TEST_F(DeviceCalls, AskForTheOwnerWhereTheAnswerNamesOne) {
    const std::string& method = "rdxGetVehicleStatus";
    server_.Play(Result("rDxGetVehicleStatus", 2));
    EXPECT_EQ(CallsOf(method, Arguments(method)),
              Lines({R"(rDxGetVehicleStatus owner="Workstation 7")", "rDxGetOwner"}));
    server_.Play(Result("rDxGetVehicleStatus", 3));
    EXPECT_EQ(CallsOf(method, Arguments(method)), Lines({R"(rDxGetVehicleStatus owner="Workstation 7")"}));
}

TEST_F(DeviceCalls, NameTheClientOfEachConnection) {
    const std::string packet = Arguments("rdxReleaseDevice");
    for (int i = 0; i < 3; ++i) {
        client_ = std::make_unique<Client>(server_.Port());
        EXPECT_EQ(CallOf("rdxReleaseDevice", packet),
                  "rDxReleaseDevice client=" + Endpoint() + R"( owner="Workstation 7" flag=1)");
    }
}

TEST_F(DeviceCalls, TranslateTheWayOfAddressAssignment) {
    const std::pair<const char*, int> kModes[] = {
        {"<number>41202</number>", 2}, {"<number>41203</number>", 1},  {"<number>41204</number>", 3},
        {"<number>41290</number>", 4}, {"<number>12345</number>", 4},  {"<number>0</number>", 4},
        {"<number>1</number>", 4},     {"<number>-41202</number>", 4}, {"<boolean value='true'/>", 4}};
    for (const auto& [value, mode] : kModes) {
        const std::string call = CallWith("rdxSetIpConfiguration", "DhcpMode", value);
        EXPECT_EQ(CountOf(" mode=" + std::to_string(mode) + " hostname=", call), 1) << value << call;
    }
}

TEST_F(DeviceCalls, TranslateTheConfigurationMode) {
    const std::pair<const char*, int> kModes[] = {
        {"<number>41603</number>", 1}, {"<number>41602</number>", 2},  {"<number>5</number>", 0},
        {"<number>41601</number>", 0}, {"<number>0</number>", 0},      {"<number>1</number>", 0},
        {"<number>-1</number>", 0},    {"<boolean value='true'/>", 0}, {"<number>9999999999</number>", 0}};
    for (const auto& [value, mode] : kModes) {
        EXPECT_EQ(CallWith("rdxInitiateCfgRequest", "CfgMode", value),
                  R"(rDxInitiateCfgRequest owner="Workstation 7" mode=)" + std::to_string(mode))
            << value;
    }
}

std::string Attribute(const std::string& persistent, const std::string& enforce) {
    return "<struct><var name='AttributeName'><string>n</string></var><var name='AttributeValue'>"
           "<string>v</string></var><var name='IsPersistent'>" +
           persistent + "</var><var name='EnforceReg'>" + enforce + "</var></struct>";
}

std::string AttributesPacket(const std::vector<std::string>& elements) {
    std::string array = "<array length='" + std::to_string(elements.size()) + "'>";
    for (const std::string& element : elements) array += element;
    return ArgumentsWith("rdxSetDeviceAttributes", "SlpAttributes", array + "</array>");
}

TEST_F(DeviceCalls, CombineTheEnforcementOfAllAttributes) {
    const auto enforced = [this](const std::vector<std::string>& flags) {
        std::vector<std::string> elements;
        for (const std::string& flag : flags) elements.push_back(Attribute("<number>0</number>", flag));
        const std::string call = CallOf("rdxSetDeviceAttributes", AttributesPacket(elements));
        return call.substr(call.rfind(' ') + 1);
    };
    EXPECT_EQ(enforced({"<number>1</number>", "<number>2</number>"}), "enforce=3");
    EXPECT_EQ(enforced({"<number>0</number>", "<boolean value='false'/>"}), "enforce=0");
    EXPECT_EQ(enforced({"<boolean value='true'/>", "<number>4</number>", "<number>0</number>"}), "enforce=5");
    EXPECT_EQ(enforced({"<number>-1</number>", "<number>2</number>"}), "enforce=-1");
}

TEST_F(DeviceCalls, CarryAttributesWithoutNameOrValueAsNull) {
    const std::string flags = "<var name='IsPersistent'><number>7</number></var>"
                              "<var name='EnforceReg'><boolean value='true'/></var></struct>";
    const std::string null = "<struct><var name='AttributeName'><null/></var>"
                             "<var name='AttributeValue'><null/></var>";
    EXPECT_EQ(CallOf("rdxSetDeviceAttributes", AttributesPacket({"<struct>" + flags, null + flags})),
              R"(rDxSetDeviceAttributes owner="Workstation 7" names=[null,null] values=[null,null])"
              " persistence=[7,7] count=2 enforce=1");
    EXPECT_EQ(CallOf("rdxSetDeviceAttributes", AttributesPacket({})),
              R"(rDxSetDeviceAttributes owner="Workstation 7" names=[] values=[] persistence=[] count=0)"
              " enforce=0");
}

TEST_F(DeviceCalls, CarryMinusOneForEveryFirmwareRevision) {
    for (const char* revision : {"5", "-1", "4712", "2147483647", "-2147483648", "9999999999"}) {
        const std::string call = CallWith("rdxUpdateDeviceFirmware", "FirmwareRev",
                                          std::string("<number>") + revision + "</number>");
        EXPECT_EQ(CountOf(" revision=-1 signed=", call), 1) << revision << call;
    }
}

TEST_F(DeviceCalls, CarryWhatAnOptionalArgumentIsWithoutOne) {
    std::string update = Arguments("rdxUpdateDeviceFirmware");
    const std::string expected = R"(rDxUpdateDeviceFirmware owner="Workstation 7")"
                                 R"( url="http://10.0.0.7/firmware?unit=kavo&rev=4712" revision=-1 signed=0)"
                                 R"( method_of_trust="" ca_certificate="")";
    for (const char* name : {"IsSigned", "MethodOfTrust", "CaCert"}) {
        const std::string argument = "<var name='" + std::string(name) + "'>";
        const std::string value = ArgumentIn(update, name);
        Replace(update, argument + value + "</var>", argument + "<null/></var>");
    }
    EXPECT_EQ(CallOf("rdxUpdateDeviceFirmware", update), expected) << "null";
    for (const char* name : {"IsSigned", "MethodOfTrust", "CaCert"}) {
        Replace(update, "<var name='" + std::string(name) + "'><null/></var>", "");
    }
    EXPECT_EQ(CallOf("rdxUpdateDeviceFirmware", update), expected) << "missing";

    const std::string method = "rdxSetIpConfiguration";
    for (const std::string& packet :
         {ArgumentsWithout(method, "Hostname"), ArgumentsWith(method, "Hostname", "<null/>")}) {
        const std::string call = CallOf(method, packet);
        EXPECT_EQ(CountOf(R"( hostname="")", call), 1) << call;
    }
}

TEST_F(DeviceCalls, StartTheTestThatIsMeant) {
    const auto started = [this](const char* mode, const char* await) {
        std::string packet = ArgumentsWith("rdxRunDeviceSelfTest", "TestMode", StringValue(mode));
        Replace(packet, "<boolean value='false'/>", await);
        const std::string call = CallOf("rdxRunDeviceSelfTest", packet);
        return call.substr(call.rfind(" mode=") + 1);
    };
    EXPECT_EQ(started("", "<boolean value='false'/>"), "mode=0 await=0");
    EXPECT_EQ(started("", "<boolean value='true'/>"), "mode=0 await=1");
    EXPECT_EQ(started("SELFTESTSHORT", "<number>7</number>"), "mode=0 await=7");
    EXPECT_EQ(started("selftestshort", "<number>0</number>"), "mode=0 await=0");
    EXPECT_EQ(started("SelftestDetailed", "<boolean value='false'/>"), "mode=1 await=0");
    EXPECT_EQ(started("sELFTESTdETAILED", "<number>0</number>"), "mode=1 await=0");
}

TEST_F(DeviceCalls, DoNotStartADetailedTestThatIsAwaited) {
    std::string packet = ArgumentsWith("rdxRunDeviceSelfTest", "TestMode", StringValue("selftestdetailed"));
    for (const char* await : {"<boolean value='true'/>", "<number>-1</number>"}) {
        Replace(packet, ArgumentIn(packet, "AwaitResults"), await);
        EXPECT_EQ(CallsOf("rdxRunDeviceSelfTest", packet), Lines({"rDxGetCurrentSelftestStatus"})) << await;
    }
}

// --- Calls that reach no device -------------------------------------------------------------------------

enum Kind { kText = 1, kNumber = 2, kFlag = 4, kArray = 8, kStruct = 16, kNull = 32, kFloat = 64 };

struct Sample {
    Kind kind;
    const char* value;
};

constexpr Sample kSamples[] = {
    {kText, "<string>7</string>"},
    {kText, "<string></string>"},
    {kNumber, "<number>7</number>"},
    {kFloat, "<number>7.5</number>"},
    {kFlag, "<boolean value='true'/>"},
    {kArray, "<array length='1'><string>a</string></array>"},
    {kArray, "<array length='0'></array>"},
    {kStruct, "<struct><var name='a'><string>a</string></var></struct>"},
    {kNull, "<null/>"},
};

constexpr std::size_t kNoLimit = 0;

struct Argument {
    const char* method;
    const char* name;
    int kinds; // that are accepted
    bool required = true;
    std::size_t limit = kNoLimit;
};

constexpr Argument kArguments[] = {
    {"rdxGetVersion", "version", kNumber | kFlag},
    {"rdxAllocateDevice", "DeviceOwner", kText, true, 32},
    {"rdxAllocateDevice", "IfhClientIpAddr", kText, true, 16},
    {"rdxAllocateDevice", "IfhClientTcpPorts", kText},
    {"rdxReleaseDevice", "DeviceOwner", kText},
    {"rdxInitiateCfgRequest", "DeviceOwner", kText},
    {"rdxInitiateCfgRequest", "CfgMode", kNumber | kFlag},
    {"rdxGetVehicleStatus", "DeviceOwner", kText, true, 32},
    {"rdxSetIpConfiguration", "DeviceOwner", kText, true, 32},
    {"rdxSetIpConfiguration", "IpAddress", kText, true, 16},
    {"rdxSetIpConfiguration", "Netmask", kText, true, 16},
    {"rdxSetIpConfiguration", "DefaultGateway", kText, true, 16},
    {"rdxSetIpConfiguration", "DhcpMode", kNumber | kFlag},
    {"rdxSetIpConfiguration", "Hostname", kText, false},
    {"rdxSetDeviceAttributes", "DeviceOwner", kText},
    {"rdxSetDeviceAttributes", "SlpAttributes", kArray},
    {"rdxSetDeviceAttributes", "AttributeName", kText, false},
    {"rdxSetDeviceAttributes", "AttributeValue", kText, false},
    {"rdxSetDeviceAttributes", "IsPersistent", kNumber | kFlag},
    {"rdxSetDeviceAttributes", "EnforceReg", kNumber | kFlag},
    {"rdxRunDeviceSelfTest", "DeviceOwner", kText},
    {"rdxRunDeviceSelfTest", "TestMode", kText},
    {"rdxRunDeviceSelfTest", "AwaitResults", kNumber | kFlag},
    {"rdxUpdateDeviceFirmware", "DeviceOwner", kText},
    {"rdxUpdateDeviceFirmware", "DownloadUrl", kText},
    {"rdxUpdateDeviceFirmware", "FirmwareRev", kNumber},
    {"rdxUpdateDeviceFirmware", "IsSigned", kNumber, false},
    {"rdxUpdateDeviceFirmware", "MethodOfTrust", kText, false},
    {"rdxUpdateDeviceFirmware", "CaCert", kText, false},
};

class Refusals : public DeviceCalls {};

TEST_F(Refusals, MeetEachArgumentThatIsMissing) {
    for (const Argument& argument : kArguments) {
        if (argument.required)
            ExpectRefusal(argument.method, ArgumentsWithout(argument.method, argument.name));
    }
}

TEST_F(Refusals, MeetEachArgumentOfAnotherType) {
    for (const Argument& argument : kArguments) {
        for (const Sample& sample : kSamples) {
            const bool absent = sample.kind == kNull && !argument.required;
            if ((argument.kinds & sample.kind) != 0 || absent) continue;
            ExpectRefusal(argument.method, ArgumentsWith(argument.method, argument.name, sample.value));
        }
    }
}

TEST_F(Refusals, MeetEachArgumentThatIsTooLong) {
    for (const Argument& argument : kArguments) {
        if (argument.limit == kNoLimit) continue;
        for (const std::size_t length : {argument.limit + 1, argument.limit + 2, std::size_t{4096}}) {
            ExpectRefusal(argument.method, ArgumentsWith(argument.method, argument.name,
                                                         StringValue(std::string(length, 'x'))));
        }
    }
}

TEST_F(Refusals, MeetNoTextOfAnyLengthWhereThereIsNoLimit) {
    for (const Argument& argument : kArguments) {
        if (argument.limit != kNoLimit || (argument.kinds & kText) == 0) continue;
        if (std::string(argument.name) == "TestMode") continue; // a word of three
        const std::string packet =
            ArgumentsWith(argument.method, argument.name, StringValue(std::string(4096, 'x')));
        const std::string call = CallOf(argument.method, packet);
        EXPECT_EQ(CountOf("\"" + std::string(4096, 'x') + "\"", call), 1) << argument.method << argument.name;
    }
}

TEST_F(Refusals, MeetArgumentsWithoutTheirMeaning) {
    for (const char* mode : {"Selftest", "SelftestShort ", "short", "1", "SelftestShortSelftestDetailed"}) {
        ExpectRefusal("rdxRunDeviceSelfTest",
                      ArgumentsWith("rdxRunDeviceSelfTest", "TestMode", StringValue(mode)));
    }
    ExpectRefusal("rdxUpdateDeviceFirmware",
                  ArgumentsWith("rdxUpdateDeviceFirmware", "FirmwareRev", NumberValue(0)));
}

TEST_F(Refusals, MeetAttributesThatAreNone) {
    const std::string good = Attribute("<number>1</number>", "<number>1</number>");
    for (const char* element : {"<null/>", "<string>Location</string>", "<number>1</number>",
                                "<array length='1'><null/></array>"}) {
        ExpectRefusal("rdxSetDeviceAttributes", AttributesPacket({element}));
        ExpectRefusal("rdxSetDeviceAttributes", AttributesPacket({good, element}));
        ExpectRefusal("rdxSetDeviceAttributes", AttributesPacket({element, good}));
    }
}

TEST_F(Refusals, MeetArgumentsThatAreNoStructureOrNoPacket) {
    for (const std::string& method : Methods()) {
        if (method == "rdxGetDeviceStatus") continue; // reads none
        for (const std::string& packet :
             {Packet("<null/>"), Packet("<string>Workstation 7</string>"), Packet(""),
              Packet("<array length='1'><null/></array>"), std::string("junk"), std::string("<"),
              Packet("<struct></struct>")}) {
            ExpectRefusal(method, packet);
        }
    }
}

// A call without a body brings along a packet that cannot be read.
TEST_F(Refusals, MeetCallsWithoutArguments) {
    for (const std::string& method : Methods()) {
        const Reply answer =
            Send(Request("GET /rDx?FunctionName=" + method + " HTTP/1.1", {Authorization()}));
        const bool served = method == "rdxGetDeviceStatus";
        EXPECT_EQ(answer.status, served ? 200 : 400) << method;
        EXPECT_EQ(server_.TakeCalls().empty(), !served) << method;
    }
}

TEST_F(Refusals, MeetCallersWithoutCredentials) {
    std::vector<std::string> names = Methods();
    names.emplace_back("rdxUnknown");
    for (const std::string& method : names) {
        const std::string packet = method == "rdxUnknown" ? VersionPacket() : Arguments(method);
        const bool open = method == "rdxGetVersion" || method == "rdxGetDeviceStatus";
        for (const std::string& header :
             {std::string("Accept: text/html"), BasicAuthorization(kUser, "wrong"),
              BasicAuthorization("stranger", kPassword),
              "Authorization: Digest " + Base64("tester:secret")}) {
            const Reply answer = Send(Call(method, packet, {header}));
            EXPECT_EQ(answer.text == UnauthorizedAnswer(), !open) << method << header;
            EXPECT_EQ(answer.status, open ? 200 : 401) << method << header;
        }
        EXPECT_EQ(server_.TakeCalls().empty(), method != "rdxGetDeviceStatus") << method;
    }
}

TEST_F(DeviceCalls, ComeFromNamesInAnyCase) {
    server_.Play(Result("rDxAllocateDevice", 0) + Result("rDxReleaseDevice", 0)); // always the same answer
    for (std::string method : Methods()) {
        const std::string packet = Arguments(method);
        Reply answer = Send(UserCall(method, packet));
        const Lines calls = server_.TakeCalls();
        std::ranges::transform(method, method.begin(), [](unsigned char c) { return std::toupper(c); });
        answer = Send(UserCall(method, packet));
        EXPECT_EQ(answer.status, 200) << method;
        EXPECT_EQ(server_.TakeCalls(), calls);
    }
}

} // namespace
} // namespace rdx::test
