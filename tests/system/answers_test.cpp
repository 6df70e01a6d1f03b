// What a client gets for each kind of request, byte for byte.

#include "tests/system/curl_client.h"
#include "tests/system/modes.h"

namespace rdx::test {
namespace {

class Answers : public PlainServer {};
RDX_IN_BOTH_MODES(Answers);

TEST_P(Answers, GiveTheVersionToAPostedPacket) {
    EXPECT_EQ(Ask(Port(), VersionCall()).text, VersionAnswer());
}

TEST_P(Answers, GiveTheVersionToAForm) { EXPECT_EQ(Ask(Port(), VersionForm()).text, VersionAnswer()); }

TEST_P(Answers, TakeAFormWhosePartsComeInTheOtherOrder) {
    const std::string parts = FormPart("PostIt", "now") + FormPart("FunctionArgs", VersionPacket()) +
                              FormPart("FunctionName", "rdxGetVersion") + "--AbC--\r\n";
    EXPECT_EQ(Ask(Port(), FormCall(parts)).text, VersionAnswer());
}

TEST_P(Answers, TakeALowerCasePartHeader) {
    const std::string parts = "--AbC\r\ncontent-disposition: FORM-DATA; name=\"FunctionName\"\r\n\r\n"
                              "rdxGetVersion\r\n" +
                              FormPart("FunctionArgs", VersionPacket()) + "--AbC--\r\n";
    EXPECT_EQ(Ask(Port(), FormCall(parts)).text, VersionAnswer());
}

TEST_P(Answers, TakeTheArgumentsFromTheBodyOfAGet) {
    const std::string request =
        Request("GET /rDx?FunctionName=rdxGetVersion HTTP/1.1", {"Host: device"}, VersionPacket());
    EXPECT_EQ(Ask(Port(), request).text, VersionAnswer());
}

TEST_P(Answers, RefuseAGetWithoutArguments) {
    const std::string request = Request("GET /rDx?FunctionName=rdxGetVersion HTTP/1.1", {"Host: device"});
    EXPECT_EQ(Ask(Port(), request).text, BadRequestAnswer());
}

TEST_P(Answers, TakeTheVersionArgumentAsANumberOrABoolean) {
    const auto status = [this](const std::string& value) {
        return Ask(Port(),
                   Call("rdxGetVersion", Packet("<struct><var name='version'>" + value + "</var></struct>")))
            .status;
    };
    EXPECT_EQ(status("<number>0</number>"), 200);
    EXPECT_EQ(status("<number>-1</number>"), 200);
    EXPECT_EQ(status("<boolean value='false'/>"), 200);
    EXPECT_EQ(status("<boolean value='true'/>"), 200);
    EXPECT_EQ(status("<number>1.0</number>"), 400);
    EXPECT_EQ(status("<string>7</string>"), 400);
    EXPECT_EQ(status("<null/>"), 400);
}

TEST_P(Answers, TakeAPacketWithWhiteSpaceBetweenItsTags) {
    const std::string packet =
        "<?xml version='1.0'?>\r\n<wddxPacket version='1.0'>\n\t<header/>\n\t<data>\n\t\t<struct>\n"
        "\t\t\t<var name='version'>\n <number>7</number>\n</var>\n</struct>\n</data>\n</wddxPacket>\n";
    EXPECT_EQ(Ask(Port(), Call("rdxGetVersion", packet)).text, VersionAnswer());
}

TEST_P(Answers, TakeMethodNamesInAnyCase) {
    EXPECT_EQ(Ask(Port(), Call("RDXGETVERSION", VersionPacket())).text, VersionAnswer());
    EXPECT_EQ(Ask(Port(), Call("rdxgetversion", VersionPacket())).text, VersionAnswer());
}

TEST_P(Answers, TakeTargetsByTheirFirstFourCharactersInAnyCase) {
    for (const char* target : {"/rDx", "/rdx", "/RDX", "/RDXanything", "/rdx/and/more"}) {
        const std::string line = std::string("POST ") + target + "?FunctionName=rdxGetVersion HTTP/1.1";
        EXPECT_EQ(Ask(Port(), Request(line, {}, VersionPacket())).text, VersionAnswer()) << target;
    }
}

TEST_P(Answers, KnowNoOtherTarget) {
    for (const char* target : {"/nowhere", "/rD", "/", "rDx", "*", "/rD?x", "http://device/rDx"}) {
        const std::string line = std::string("GET ") + target + " HTTP/1.1";
        EXPECT_EQ(Ask(Port(), Request(line, {"Host: device"})).text, NotFoundAnswer()) << target;
    }
}

TEST_P(Answers, TakeRequestWordsInAnyCase) {
    const std::string line = "post /rDx?FunctionName=rdxGetVersion http/1.1";
    EXPECT_EQ(Ask(Port(), Request(line, {}, VersionPacket())).text, VersionAnswer());
}

TEST_P(Answers, TakeLinesThatEndInALineFeedAlone) {
    const std::string packet = VersionPacket();
    const std::string request =
        std::string(kVersionLine) + "\nContent-length: " + std::to_string(packet.size()) + "\n\n" + packet;
    EXPECT_EQ(Ask(Port(), request).text, VersionAnswer());
}

TEST_P(Answers, TakeAFormWhoseLinesEndInALineFeedAlone) {
    const std::string body = "--AbC\nContent-Disposition: form-data; name=\"FunctionName\"\n\nrdxGetVersion\n"
                             "--AbC\nContent-Disposition: form-data; name=\"FunctionArgs\"\n\n" +
                             VersionPacket() + "\n--AbC--\n";
    const std::string request = "POST /rDx HTTP/1.1\nContent-Type: multipart/form-data; boundary=AbC\n"
                                "Content-length: " +
                                std::to_string(body.size()) + "\n\n" + body;
    EXPECT_EQ(Ask(Port(), request).text, VersionAnswer());
}

TEST_P(Answers, RefuseProtectedMethodsWithoutCredentials) {
    for (const char* method : {"rdxAllocateDevice", "rdxReleaseDevice", "rdxSetIpConfiguration",
                               "rdxSetDeviceAttributes", "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest",
                               "rdxInitiateCfgRequest", "rdxGetVehicleStatus", "unknown"}) {
        EXPECT_EQ(Ask(Port(), Call(method, VersionPacket())).text, UnauthorizedAnswer()) << method;
    }
}

TEST_P(Answers, RefuseMethodsThatAreNotAllowed) {
    for (const char* method : {"PUT", "HEAD", "DELETE", "TRACE", "OPTIONS", "CONNECT", "FOO"}) {
        const std::string line = std::string(method) + " /rDx HTTP/1.1";
        EXPECT_EQ(Ask(Port(), Request(line, {"Host: device"})).text, NotAllowedAnswer()) << method;
    }
}

TEST_P(Answers, RefuseARequestWithoutHeaders) {
    EXPECT_EQ(Ask(Port(), "GET /rDx HTTP/1.0\r\n\r\n").text, BadRequestAnswer());
}

TEST_P(Answers, ReportOtherVersionsProtocolsAndHeadersAsServerErrors) {
    EXPECT_EQ(Ask(Port(), Request("GET /rDx HTTP/2.0", {"Host: device"})).text, ServerErrorAnswer());
    EXPECT_EQ(Ask(Port(), Request("GET /rDx FTP/1.0", {"Host: device"})).text, ServerErrorAnswer());
    EXPECT_EQ(Ask(Port(), Request("GET /rDx HTTP/1.1", {"X-Custom: 1"})).text, ServerErrorAnswer());
}

TEST_P(Answers, KnowNoTargetInAnEmptyRequestLine) { EXPECT_EQ(Ask(Port(), "\r\n").text, NotFoundAnswer()); }

TEST_P(Answers, TakeABodyOfTheLargestLengthAndNotOneByteMore) {
    const auto request = [](std::size_t size) {
        const std::string packet = VersionPacket();
        return Call("rdxGetVersion", std::string(size - packet.size(), ' ') + packet);
    };
    EXPECT_EQ(Ask(Port(), request(65536)).text, VersionAnswer());
    EXPECT_EQ(Ask(Port(), request(65537)).text, BadRequestAnswer());
}

TEST_P(Answers, TakeAPacketAsDeepAsABodyAllows) {
    const std::string version = "<var name='version'><number>7</number></var>";
    for (const auto& [begin, end] : {std::pair<std::string, std::string>{"<array length='1'>", "</array>"},
                                     {"<struct><var name='a'>", "</var></struct>"}}) {
        const std::size_t levels = (65536 - 400) / (begin.size() + end.size());
        std::string before;
        std::string after;
        for (std::size_t i = 0; i < levels; ++i) {
            before += begin;
            after += end;
        }
        const std::string packet = Packet("<struct><var name='deep'>" + before + "<null/>" + after +
                                          "</var>" + version + "</struct>");
        ASSERT_LE(packet.size(), 65536U);
        EXPECT_EQ(Ask(Port(), Call("rdxGetVersion", packet)).text, VersionAnswer())
            << levels << " of " << begin;
    }
}

TEST_P(Answers, TakeHeaderLinesOfTheLargestLengthAndNotOneByteMore) {
    const std::string header = "Host: " + std::string(505, 'h');
    ASSERT_EQ(header.size(), 511U);
    EXPECT_EQ(Ask(Port(), VersionCall({header})).status, 200);
    EXPECT_EQ(Ask(Port(), VersionCall({header + "h"})).status, 400);
}

TEST_P(Answers, TakeAsManyHeadersAsTheListsHold) {
    std::vector<std::string> headers;
    for (int i = 0; i < 16; ++i) headers.emplace_back("Via: 1.1 hop");
    for (int i = 0; i < 14; ++i) headers.emplace_back("Accept: */*");
    for (int i = 0; i < 15; ++i) headers.emplace_back("Allow: GET"); // Content-length makes 16
    EXPECT_EQ(Ask(Port(), VersionCall(headers)).text, VersionAnswer());
}

TEST_P(Answers, TakeHeaderNamesByTheirBeginningAndShortOnes) {
    EXPECT_EQ(Ask(Port(), VersionCall({"Ho: device", "X: 1", ": 2"})).text, VersionAnswer());
}

TEST_P(Answers, SatisfyAnOrdinaryClient) {
    CurlClient curl(Port());
    const CurlAnswer posted = curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket());
    EXPECT_EQ(posted.error, "");
    EXPECT_EQ(posted.head + posted.body, VersionAnswer());

    const CurlAnswer form =
        curl.PostForm("/rDx", {{"FunctionName", "rdxGetVersion"}, {"FunctionArgs", VersionPacket()}});
    EXPECT_EQ(form.error, "");
    EXPECT_EQ(form.head + form.body, VersionAnswer());

    EXPECT_EQ(curl.Get("/rDx?FunctionName=rdxGetVersion").status, 400);
    EXPECT_EQ(curl.Get("/elsewhere").body, kNotFoundPage);
    EXPECT_EQ(curl.Post("/rDx?FunctionName=rdxReleaseDevice", VersionPacket()).body, kUnauthorizedPage);
    curl.UseHeaders({"X-Custom: 1"});
    EXPECT_EQ(curl.Get("/elsewhere").status, 500);
}

TEST_P(Answers, SatisfyAnOrdinaryClientOfTheOldVersion) {
    CurlClient curl(Port());
    curl.UseHttp10(true);
    const CurlAnswer answer = curl.Post("/rDx?FunctionName=rdxGetVersion", VersionPacket());
    EXPECT_EQ(answer.error, "");
    EXPECT_EQ(answer.head + answer.body, VersionAnswer());
}

} // namespace
} // namespace rdx::test
