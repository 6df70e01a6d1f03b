// The library as an outside program sees it: loaded at run time, what stands for each module called and read
// by its plain name, with the records written out here as such a program would.

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/sem.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// The records.

struct HttpHeader {
    char* name;
    char* value;
};

struct HttpRequest {
    unsigned char ucMethod;
    unsigned char ucHttpVersion;
    char* pszUri;
    char pszSeparator[3];
    unsigned char ucNumOfGeneralHeaders;
    HttpHeader aGeneralHeaders[16];
    unsigned char ucNumOfRequestHeaders;
    HttpHeader aRequestHeaders[14];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[16];
    unsigned char ucMultipart;
    unsigned char ucKeepAlive;
    unsigned char ucBoundaryLen;
    char* pszBoundary;
    std::uint32_t uiBodyLength;
    char* pEntityBody;
    std::int32_t iSocket;
    char szPeerName[256];
};

struct HttpResponse {
    unsigned char ucHttpVersion;
    unsigned short usStatusCode;
    char* pszReason;
    char* pszReserved;
    char pszSeparator[3];
    unsigned char ucNumOfGeneralHeaders;
    HttpHeader aGeneralHeaders[16];
    unsigned char ucNumOfResponseHeaders;
    HttpHeader aResponseHeaders[8];
    unsigned char ucNumOfEntityHeaders;
    HttpHeader aEntityHeaders[16];
    std::uint32_t uiBodyLength;
    char* pEntityBody;
};

struct WddxValue;

struct TavrinRequest {
    std::int32_t number;
    char szFunctionName[33];
    char* pszWddxArgs;
    HttpRequest* request;
};

struct TavrinResponse {
    std::int32_t number;
    unsigned char flag;
    std::int32_t status;
    char* pszWddxResult;
};

struct TagDef {
    std::uint32_t dwId;
    const char* szName;
    const char* szAttr;
    std::uint32_t dwChildren;
    unsigned char ucEmptyTag;
    unsigned char ucMultiChild;
    unsigned char ucMayBeEmpty;
    unsigned char ucNeedsChild;
};

struct ServerFunction {
    const char* prefix;
    void* handler;
};

// What the library offers, by name.

void* Library() {
    static void* const library = dlopen(RDX_TEST_LIBRARY, RTLD_NOW);
    return library;
}

void* Symbol(const char* name) {
    void* symbol = dlsym(Library(), name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "%s is not there\n", name);
        std::abort();
    }
    return symbol;
}

template <typename F>
F* Function(const char* name) {
    return reinterpret_cast<F*>(Symbol(name));
}

template <typename T>
T& Global(const char* name) {
    return *static_cast<T*>(Symbol(name));
}

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};

using OwnedText = std::unique_ptr<char, FreeText>;

// A text that the stream functions have written.
class StreamText {
public:
    StreamText() : stream_(open_memstream(&text_, &size_)) {}
    ~StreamText() {
        std::fclose(stream_);
        std::free(text_);
    }
    StreamText(const StreamText&) = delete;
    StreamText& operator=(const StreamText&) = delete;

    FILE* Stream() const { return stream_; }
    std::string Text() const {
        std::fflush(stream_);
        return {text_, size_};
    }

private:
    char* text_ = nullptr;
    std::size_t size_ = 0;
    FILE* stream_;
};

std::string Printed(WddxValue* value, const char* comment = nullptr) {
    char* text = nullptr;
    const int result =
        Function<int(WddxValue*, const char*, char**)>("wddxPrintStreamToVar")(value, comment, &text);
    const OwnedText owned(text);
    return result == 1 ? text : "failed";
}

WddxValue* Parsed(const std::string& text) {
    return Function<WddxValue*(const char*)>("wddxParseStream")(text.c_str());
}

void Free(WddxValue* value) { Function<void(WddxValue**)>("wddxFree")(&value); }

TEST(Loaded, LibraryIsThere) { ASSERT_NE(Library(), nullptr) << dlerror(); }

// Before anything else runs in this process.
TEST(Loaded, GlobalsHaveTheirFirstValues) {
    EXPECT_EQ(Global<FILE*>("StdErr"), stderr);
    EXPECT_EQ(Global<FILE*>("StdOut"), stdout);
    EXPECT_EQ(Global<std::int32_t>("sigerr"), 0);
    EXPECT_EQ(Global<std::int32_t>("signalled"), 0);
    EXPECT_EQ(Global<std::uint32_t>("uiBuildNumber"), 418U);
    EXPECT_EQ(Global<std::uint32_t>("server_start_time"), 0U);
    EXPECT_EQ(Global<std::int32_t>("g_nRefCount"), 0);
    EXPECT_EQ(Global<std::uint32_t>("mtPrimaryThread"), 0xffffffffU);
    EXPECT_EQ(Global<std::uint32_t>("g_dwPostMaxSizeToRead"), 65536U);
    EXPECT_EQ(Global<std::uint32_t>("g_dwPostMaxContLength"), 65536U);
    EXPECT_EQ(Global<unsigned char>("ucTerminated"), 0);
    EXPECT_EQ(Global<unsigned char>("ucReconfigured"), 0);
}

void ExpectTable(const char* name, const std::vector<std::string>& expected) {
    const char* const* table = &Global<const char*>(name);
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(table[i], expected[i]) << name << " " << i;
}

TEST(Loaded, TablesHoldTheirNames) {
    ExpectTable("aszSigNames",
                {"NIL",     "SIGHUP",  "SIGINT",  "SIGQUIT",   "SIGILL",   "SIGTRAP", "SIGABRT", "SIGEMT",
                 "SIGFPE",  "SIGKILL", "SIGBUS",  "SIGSEGV",   "SIGSYS",   "SIGPIPE", "SIGALRM", "SIGTERM",
                 "SIGUSR1", "SIGUSR2", "SIGCHLD", "SIGPWR",    "SIGWINCH", "SIGPOLL", "SIGSTOP", "SIGTSTP",
                 "SIGCONT", "SIGTTIN", "SIGTTOU", "SIGVTALRM", "SIGPROF"});
    ExpectTable("rdxCommands", {"rdxGetVersion", "rdxGetDeviceStatus", "rdxAllocateDevice",
                                "rdxReleaseDevice", "rdxSetIpConfiguration", "rdxSetDeviceAttributes",
                                "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest", "rdxInitiateCfgRequest"});
    ExpectTable("apszGeneralHeaders", {"Cache-Control", "Connection", "Date", "Pragma", "Trailer",
                                       "Transfer-Encoding", "Upgrade", "Via", "Warning"});
    ExpectTable("apszRequestHeaders", {"Accept",
                                       "Accept-Charset",
                                       "Accept-Encoding",
                                       "Accept-Language",
                                       "Authorization",
                                       "Cookie",
                                       "Expect",
                                       "From",
                                       "Host",
                                       "If-Modified-Since",
                                       "If-Match",
                                       "If-None-Match",
                                       "If-Range",
                                       "If-Unmodified-Since",
                                       "Max-Forwards",
                                       "Proxy-Authorization",
                                       "Range",
                                       "Referer",
                                       "TE",
                                       "User-Agent",
                                       "UA-OS",
                                       "UA-CPU",
                                       "UA-Language",
                                       "UA-Agent",
                                       "UA-color",
                                       "UA-pixels"});
    ExpectTable("apszResponseHeaders", {"Accept-Ranges", "Age", "ETag", "Location", "Proxy-Authenticate",
                                        "Retry-After", "Server", "Set-Cookie", "Vary", "WWW-Authenticate"});
    ExpectTable("apszEntityHeaders",
                {"Allow", "Content-Encoding", "Content-Language", "Content-Length", "Content-Location",
                 "Content-MD5", "Content-Range", "Content-Type", "Expires", "Last-Modified"});
    EXPECT_EQ(Global<int>("g_cnGeneralHeaders"), 9);
    EXPECT_EQ(Global<int>("g_cnReqHeaders"), 26);
    EXPECT_EQ(Global<int>("g_cnRespHeaders"), 10);
    EXPECT_EQ(Global<int>("g_cnEntityHeaders"), 10);
}

TEST(Loaded, HandlerTableLeadsToTheDeviceService) {
    const auto& entry = Global<ServerFunction>("rDxFunctions");
    EXPECT_STREQ(entry.prefix, "/rDx");
    EXPECT_EQ(entry.handler, Symbol("rDxHandler"));
    const auto find = Function<void*(char*)>("GetServerHandler");
    std::string target = "/RDXanything";
    EXPECT_EQ(find(target.data()), Symbol("rDxHandler"));
    target = "/rD";
    EXPECT_EQ(find(target.data()), nullptr);
    EXPECT_EQ(find(nullptr), nullptr);
}

TEST(Loaded, TagTableHasItsRows) {
    const TagDef* tags = &Global<TagDef>("g_astTagDef");
    const char* const names[] = {"",      "wddxPacket", "header", "comment", "data",   "struct", "var",
                                 "array", "recordset",  "field",  "null",    "number", "string", "boolean"};
    const std::uint32_t ids[] = {1, 2, 4, 8, 16, 4096, 32, 2048, 8192, 65536, 64, 256, 1024, 128};
    for (std::size_t i = 0; i < std::size(names); ++i) {
        EXPECT_STREQ(tags[i].szName, names[i]);
        EXPECT_EQ(tags[i].dwId, ids[i]);
    }
    EXPECT_STREQ(tags[7].szAttr, "length");
    EXPECT_EQ(tags[4].dwChildren, 32704U);
    EXPECT_EQ(tags[9].dwChildren, 18368U);
    EXPECT_EQ(tags[13].ucEmptyTag, 1);
    EXPECT_EQ(tags[5].ucMultiChild, 1);
    EXPECT_EQ(tags[12].ucMayBeEmpty, 1);
    EXPECT_EQ(tags[6].ucNeedsChild, 1);
}

TEST(Loaded, EntryPointsReportWhatIsWrong) {
    EXPECT_EQ(Function<int(int, char**)>("rDxHttpCreateInstance")(0, nullptr), 0);
    EXPECT_EQ(Function<int()>("rDxHttpDeinitialize")(), 0);
    const auto run = Function<int(int, char**)>("rdxhttp_main");
    std::string words[] = {"program", "-x", "-c", "/nowhere/at/all"};
    char* unknown[] = {words[0].data(), words[1].data(), nullptr};
    EXPECT_EQ(run(2, unknown), -1);
    char* missing[] = {words[0].data(), words[2].data(), words[3].data(), nullptr};
    EXPECT_EQ(run(3, missing), -2);
}

TEST(Loaded, TextFunctionsCompareAndChange) {
    const auto compare = Function<int(const char*, const char*)>("stricmp");
    EXPECT_EQ(compare("Content-Type", "content-type"), 0);
    EXPECT_EQ(compare(nullptr, "a"), -1);
    EXPECT_EQ(compare("a", nullptr), 1);
    EXPECT_LT(compare("abc", "abd"), 0);
    EXPECT_EQ(Function<int(const char*, const char*, int)>("strnicmp")("Basic xyz", "BASIC", 5), 0);
    std::string text = "aBc1";
    EXPECT_EQ(Function<char*(char*)>("strupr")(text.data()), text.data());
    EXPECT_EQ(text, "ABC1");
    EXPECT_EQ(Function<char*(char*)>("strlwr")(text.data()), text.data());
    EXPECT_EQ(text, "abc1");
    EXPECT_STREQ(Function<const char*()>("DirSeparator")(), "/");
    EXPECT_EQ(Function<int(int)>("IsDirSeparator")('/'), 1);
    EXPECT_EQ(Function<int(const char*)>("IsAbsolutePathName")("etc"), 0);
    std::string path(64, 'x');
    const auto join = Function<int(const char*, const char*, char*, unsigned int)>("MakeAbsolutePathName");
    EXPECT_EQ(join("/etc/", "/tnd.ini", path.data(), 64), 0);
    EXPECT_STREQ(path.c_str(), "/etc/tnd.ini");
    EXPECT_EQ(join("/etc/", "/tnd.ini", path.data(), 5), -1);
}

TEST(Loaded, SplitsANameFromItsValue) {
    std::string name(8, 'x');
    std::string value(8, 'x');
    int nameSize = 8;
    int valueSize = 8;
    const auto split = Function<int(const char*, char*, int*, char*, int*)>("SplitEnvStr");
    EXPECT_EQ(split("A=B=C", name.data(), &nameSize, value.data(), &valueSize), 0);
    EXPECT_STREQ(name.c_str(), "A");
    EXPECT_STREQ(value.c_str(), "B=C");
    EXPECT_EQ(nameSize, 1);
    EXPECT_EQ(valueSize, 3);
}

TEST(Loaded, TimeFunctionsCount) {
    const auto between = Function<unsigned int(const char*, const char*)>("SecondsBetween");
    EXPECT_EQ(between("Thu Jan  1 00:00:10 1970", "Thu Jan  1 00:01:10 1970"), 60U);
    EXPECT_EQ(between("never", nullptr), 0xffffffffU);
    const auto leap = Function<int(int)>("IsLeapYear");
    EXPECT_EQ(leap(1900), 0);
    EXPECT_EQ(leap(2000), 1);
    const auto day = Function<int(int, const char*, int)>("DayOfYear");
    EXPECT_EQ(day(2023, "mar", 1), 60);
    EXPECT_EQ(day(2024, "mar", 1), 61);
    EXPECT_EQ(day(2023, "mar", 1), 61); // February keeps the length that a leap year gave it
    std::string stamp(128, 'x');
    EXPECT_EQ(Function<char*(char*, unsigned int)>("Now2")(stamp.data(), 127), stamp.data());
    EXPECT_EQ(std::strlen(stamp.c_str()), 8U);
    EXPECT_EQ(Function<char*(char*, unsigned int)>("Now")(stamp.data(), 100), stamp.data());
    EXPECT_EQ(std::strlen(stamp.c_str()), 24U);
}

TEST(Loaded, MakesNamesOfTemporaryFiles) {
    std::string name(256, '\0');
    EXPECT_EQ(Function<int(char*)>("TempFileName")(name.data()), 0);
    EXPECT_EQ(std::string(name.c_str()).substr(0, 7), "/tmp/tn");
    EXPECT_FALSE(std::filesystem::exists(name.c_str()));
}

TEST(Loaded, SettingsComeFromAFile) {
    Function<void()>("SetDefaultConfig")();
    EXPECT_STREQ(&Global<char>("szConfigSvcPort"), "www");
    EXPECT_STREQ(&Global<char>("szConfigSvcAddr"), "127.0.0.1");
    EXPECT_STREQ(&Global<char>("szConfigAuthRealm"), "Tavrin");
    EXPECT_STREQ(&Global<char>("szClientAddresses"), "127.0.0.1");
    EXPECT_EQ(Global<unsigned char>("ucProtocolVersion"), 11);
    EXPECT_EQ(Global<unsigned char>("ucVerbosity"), 3);
    EXPECT_EQ(Global<std::uint32_t>("uiVoltageMaxAge"), 120U);

    const std::string path =
        (std::filesystem::temp_directory_path() / ("rdx-test-" + std::to_string(getpid()) + ".ini")).string();
    std::ofstream(path) << "[HTTP]\nVerbosity=VERBOSITY_NONE\nServicePort=1234\nMethodsAllowed=GET,POST\n"
                           "AuthRealm=Here\nVoltageFile=/v\n[TCP]\nRemoteHost=far.example\n";
    const auto read = Function<int(const char*, const char*)>("ReadIniFile");
    EXPECT_EQ(read(path.c_str(), "HTTP"), 0);
    EXPECT_EQ(read(path.c_str(), "tcp"), 0); // selects the reader, but no header of the file
    EXPECT_EQ(read(path.c_str(), "TCP"), 0);
    EXPECT_EQ(read(path.c_str(), "FTP"), -3);
    EXPECT_EQ(read("", "HTTP"), -1);
    EXPECT_EQ(read("/nowhere/at/all", "HTTP"), -4);
    std::filesystem::remove(path);
    EXPECT_STREQ(&Global<char>("szConfigSvcPort"), "1234");
    EXPECT_STREQ(&Global<char>("szConfigAuthRealm"), "Here");
    EXPECT_STREQ(&Global<char>("szConfigVoltageFile"), "/v");
    EXPECT_STREQ(&Global<char>("szMorbelRemoteHost"), "far.example");
    EXPECT_EQ(Global<unsigned char>("ucVerbosity"), 0);
    const int* allowed = &Global<int>("aiMethodsAllowed");
    EXPECT_EQ(std::vector<int>(allowed, allowed + 8), (std::vector<int>{1, 0, 1, 0, 0, 0, 0, 0}));

    StreamText silent;
    Function<int(FILE*)>("DumpConfiguration")(silent.Stream());
    EXPECT_EQ(silent.Text(), "");
    Global<unsigned char>("ucVerbosity") = 3; // an outside program may set what it reads
    StreamText dump;
    Function<int(FILE*)>("DumpConfiguration")(dump.Stream());
    EXPECT_NE(dump.Text().find("\n            Service port: 1234\n"), std::string::npos);
    Function<void()>("SetDefaultConfig")();
}

TEST(Loaded, ValuesAreBuiltReadAndPrinted) {
    WddxValue* array = Function<WddxValue*(int)>("wddxCreateArray")(3);
    const auto setElement = Function<void(WddxValue*, int, WddxValue*)>("wddxSetArrayElem");
    setElement(array, 0, Function<WddxValue*(double)>("wddxCreateFloat")(1e7));
    setElement(array, 1, Function<WddxValue*(unsigned char)>("wddxCreateBoolean")(1));
    WddxValue* value = Function<WddxValue*()>("wddxCreateStruct")();
    const auto set = Function<void(WddxValue*, const char*, WddxValue*)>("wddxSetStructVar");
    set(value, "text", Function<WddxValue*(const char*)>("wddxCreateString")("a<b"));
    set(value, "number", Function<WddxValue*(int)>("wddxCreateInteger")(-5));
    set(value, "long", Function<WddxValue*(long)>("wddxCreateLongInteger")(2147483647));
    set(value, "array", array);
    set(value, "nothing", Function<WddxValue*()>("wddxCreateNull")());

    const auto get = Function<WddxValue*(WddxValue*, const char*)>("wddxGetStructVar");
    int number = 0;
    EXPECT_EQ(Function<int(int*, WddxValue*)>("wddxGetInteger")(&number, get(value, "number")), 1);
    EXPECT_EQ(number, -5);
    long wide = 0;
    EXPECT_EQ(Function<int(long*, WddxValue*)>("wddxGetLongInteger")(&wide, get(value, "number")), 1);
    EXPECT_EQ(wide, -5);
    double real = 0;
    EXPECT_EQ(Function<int(double*, WddxValue*)>("wddxGetFloat")(&real, get(value, "number")), 0);
    char* text = nullptr;
    EXPECT_EQ(Function<int(char**, WddxValue*)>("wddxGetString")(&text, get(value, "text")), 1);
    EXPECT_STREQ(text, "a<b");
    EXPECT_EQ(Function<int(WddxValue*)>("wddxGetType")(value), 6);
    EXPECT_EQ(Function<int(WddxValue*)>("wddxGetType")(nullptr), -1);
    EXPECT_EQ(Function<int(WddxValue*)>("wddxGetArraySize")(get(value, "array")), 3);
    EXPECT_EQ(Function<WddxValue*(WddxValue*, int)>("wddxGetArrayElem")(value, 0), nullptr);

    const std::string packet =
        "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
        "<header><comment>hi</comment></header><data><struct><var name='text'><string>a&lt;b</string></var>"
        "<var name='number'><number>-5</number></var><var name='long'><number>2147483647</number></var>"
        "<var name='array'><array length='3'><number>1E+07</number><boolean value='true'/><null/></array>"
        "</var><var name='nothing'><null/></var></struct></data></wddxPacket>";
    EXPECT_EQ(Printed(value, "hi"), packet);
    StreamText stream;
    EXPECT_EQ(Function<int(FILE*, WddxValue*, const char*)>("wddxPrintStream")(stream.Stream(), value, "hi"),
              1);
    EXPECT_EQ(stream.Text(), packet);
    Free(value);

    WddxValue* again = Parsed(packet);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(Printed(again, "hi"), packet);
    Free(again);
    EXPECT_EQ(Parsed("<wddxPacket version='1.0'><header/><data/></wddxPacket>"), nullptr);
    EXPECT_EQ(Function<WddxValue*(int)>("wddxCreateArray")(0), nullptr);
}

TEST(Loaded, EntitiesAreReplacedBothWays) {
    const OwnedText coded(Function<char*(const char*, int)>("convertUtf82Xml")("a&<>\"'", 6));
    EXPECT_STREQ(coded.get(), "a&amp;&lt;&gt;&quot;&apos;");
    const OwnedText plain(
        Function<char*(const char*, int)>("convertXml2Utf8")("a&amp;&lt;&gt;&quot;&apos;", 26));
    EXPECT_STREQ(plain.get(), "a&<>\"'");
}

TEST(Loaded, StatusPacketsAreBuiltAndArgumentsRead) {
    WddxValue* packet =
        Function<WddxValue*(int, int, WddxValue*)>("CreateWddxStatusPacket")(42010, 9003, nullptr);
    EXPECT_EQ(
        Printed(packet),
        "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
        "<header/><data><struct><var name='Status'><struct><var name='code'><number>42010</number></var>"
        "<var name='msg'><number>9003</number></var><var name='params'><null/></var></struct></var>"
        "</struct></data></wddxPacket>");
    EXPECT_EQ(Function<WddxValue*(WddxValue*)>("GetStatusParams")(packet), nullptr);

    TavrinResponse response = {};
    response.status = -99;
    EXPECT_EQ(Function<int(TavrinResponse*, WddxValue*)>("AssignResult")(&response, packet), 0);
    EXPECT_EQ(response.status, 0);
    EXPECT_NE(std::string(response.pszWddxResult).find("<header><comment></comment></header>"),
              std::string::npos);
    TavrinResponse copy = {};
    EXPECT_EQ(Function<int(TavrinResponse*, TavrinResponse*)>("CopyTnResponse")(&copy, &response), 0);
    EXPECT_STREQ(copy.pszWddxResult, response.pszWddxResult);
    Function<void(TavrinResponse*)>("FreeTnResponse")(&copy);
    Function<void(TavrinResponse*)>("FreeTnResponse")(&response);
    EXPECT_EQ(response.pszWddxResult, nullptr);
    Free(packet);

    std::string arguments = "<wddxPacket version='1.0'>\n<header/><data><struct>\n"
                            "<var name='text'><string> x </string></var><var name='flag'><boolean "
                            "value='true'/></var><var name='list'><array length='0'></array></var>"
                            "</struct></data></wddxPacket>";
    WddxValue* data = nullptr;
    ASSERT_EQ(Function<int(char*, WddxValue**)>("ParseWddxPacketData")(arguments.data(), &data), 0);
    std::string name = "text";
    EXPECT_STREQ(Function<char*(WddxValue*, char*)>("GetDataStringParam")(data, name.data()), " x ");
    int flag = 0;
    name = "flag";
    EXPECT_EQ(Function<int(WddxValue*, char*, int*)>("GetDataIntParam")(data, name.data(), &flag), 0);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(Function<WddxValue*(WddxValue*, char*)>("GetDataArrayParam")(data, name.data()), nullptr);
    name = "list";
    EXPECT_NE(Function<WddxValue*(WddxValue*, char*)>("GetDataArrayParam")(data, name.data()), nullptr);
    Free(data);
}

TEST(Loaded, PacketsCanBeShownInAPage) {
    const auto show = Function<int(const char*, char*, unsigned int)>("Wddx2Html");
    std::string page(64, 'x');
    EXPECT_EQ(show("<a>", page.data(), 64), 0);
    EXPECT_STREQ(page.c_str(), "&lt;a&gt;");
    EXPECT_EQ(show("<a>", page.data(), 9), -2);
}

TEST(Loaded, Base64GoesBothWays) {
    std::string coded(64, 'x');
    const unsigned char bytes[] = {'t', 'e', 's', 't', 'e', 'r', ':', '1', 0, 0};
    EXPECT_EQ(
        Function<int(const unsigned char*, unsigned long, char*)>("Base64Encode")(bytes, 8, coded.data()), 1);
    EXPECT_STREQ(coded.c_str(), "dGVzdGVyOjE=");
    unsigned char plain[64];
    unsigned long length = 0;
    EXPECT_EQ(
        Function<int(const char*, unsigned char*, unsigned long*)>("Base64Decode")("QQ==", plain, &length),
        1);
    EXPECT_EQ(length, 3UL);
    EXPECT_EQ(plain[0], 'A');
    EXPECT_EQ(plain[1], 0);
}

// A request that an outside program has put together.
class RequestByHand {
public:
    explicit RequestByHand(const char* target) { request_.pszUri = strdup(target); }
    ~RequestByHand() { Function<void(HttpRequest*)>("FreeHttpRequest")(&request_); }
    RequestByHand(const RequestByHand&) = delete;
    RequestByHand& operator=(const RequestByHand&) = delete;

    HttpRequest* Get() { return &request_; }

    int Add(std::string name, std::string value) {
        HttpHeader header = {name.data(), value.data()};
        return Function<int(HttpRequest*, HttpHeader*)>("AddHeader2Request")(&request_, &header);
    }

    void SetBody(const std::string& body) {
        request_.pEntityBody = static_cast<char*>(std::malloc(body.size()));
        std::memcpy(request_.pEntityBody, body.data(), body.size());
        request_.uiBodyLength = static_cast<std::uint32_t>(body.size());
    }

private:
    HttpRequest request_ = {};
};

TEST(Loaded, RequestsCarryHeadersAndParameters) {
    RequestByHand request("/Tavrin?FunctionName=rdxGetVersion&x=1&none=");
    EXPECT_EQ(request.Add("Host", "device"), 0);
    EXPECT_EQ(request.Add("content-length", "5"), 0);
    EXPECT_EQ(request.Add("Connection", "close"), 0);
    EXPECT_EQ(request.Add("Accept-Ranges", "bytes"), -1);
    const auto available = Function<int(HttpRequest*, const char*)>("IsHeaderAvailable");
    EXPECT_EQ(available(request.Get(), "CONNECTION"), 1);
    EXPECT_EQ(available(request.Get(), "host"), 2);
    EXPECT_EQ(available(request.Get(), "Content-Length"), 3);
    EXPECT_EQ(available(request.Get(), "Age"), 0);
    EXPECT_STREQ(Function<char*(HttpRequest*, const char*)>("GetReqHeaderByName")(request.Get(), "HOST"),
                 "device");

    std::string value(32, 'x');
    const auto query = Function<int(HttpRequest*, const char*, char*, unsigned int)>("GetQueryStringValue");
    EXPECT_EQ(query(request.Get(), "FunctionName", value.data(), 32), 0);
    EXPECT_STREQ(value.c_str(), "rdxGetVersion");
    EXPECT_EQ(query(request.Get(), "y", value.data(), 32), -2);
    EXPECT_EQ(query(request.Get(), "none", value.data(), 32), -3);
    EXPECT_EQ(query(request.Get(), "FunctionName", value.data(), 13), -4);
    std::string escaped = "a%2520b";
    EXPECT_EQ(Function<int(char*)>("DecodeUrlString")(escaped.data()), 0);
    EXPECT_STREQ(escaped.c_str(), "a b");
}

TEST(Loaded, DeviceServiceAnswersACall) {
    RequestByHand request("/rDx?FunctionName=rdxGetVersion");
    request.SetBody(
        "<wddxPacket version='1.0'><header/><data><struct><var name='version'><number>7</number></var>"
        "</struct></data></wddxPacket>");
    std::vector<char> output(132096, 'x');
    unsigned long length = output.size();
    unsigned char terminate = 1;
    const auto handle = Function<int(HttpRequest*, char*, unsigned long*, unsigned char*)>("rDxHandler");
    const std::int32_t calls = Global<std::int32_t>("g_nRefCount");
    EXPECT_EQ(handle(request.Get(), output.data(), &length, &terminate), 0);
    EXPECT_EQ(Global<std::int32_t>("g_nRefCount"), calls + 1);
    EXPECT_EQ(length, std::strlen(output.data()));
    EXPECT_NE(std::string(output.data()).find("<var name='version'><number>100</number></var>"),
              std::string::npos);
    EXPECT_EQ(terminate, 0);
    length = 100;
    EXPECT_EQ(handle(request.Get(), output.data(), &length, &terminate), -3);

    RequestByHand protectedCall("/rDx?FunctionName=rdxReleaseDevice");
    length = output.size();
    EXPECT_EQ(handle(protectedCall.Get(), output.data(), &length, &terminate), -401);
    RequestByHand unnamed("/rDx");
    EXPECT_EQ(handle(unnamed.Get(), output.data(), &length, &terminate), 400);
    EXPECT_EQ(Function<int(HttpRequest*)>("rDxCheckAuth")(unnamed.Get()), 1);
}

TEST(Loaded, RequestLinesAreTakenApart) {
    int* allowed = &Global<int>("aiMethodsAllowed");
    allowed[0] = 1;
    const std::string line = "get /x http/1.0";
    HttpRequest request = {};
    const auto parse = Function<int(const char*, const char*, HttpRequest*)>("ParseHttpMethodLine");
    EXPECT_EQ(parse(line.data(), line.data() + line.size(), &request), 0);
    EXPECT_STREQ(request.pszUri, "/x");
    EXPECT_EQ(request.ucHttpVersion, 10);
    EXPECT_EQ(request.ucKeepAlive, 0);
    Function<void(HttpRequest*)>("FreeHttpRequest")(&request);
    const std::string post = "POST /x HTTP/1.1";
    EXPECT_EQ(parse(post.data(), post.data() + post.size(), &request), -405);
    Function<void(HttpRequest*)>("FreeHttpRequest")(&request);
    allowed[0] = 0;
}

TEST(Loaded, HeaderLinesAreSortedAndCut) {
    const std::string line = "Connection: : close";
    char* colon = nullptr;
    const auto classify = [&](const char* name, const std::string& text) {
        return Function<int(const char*, const char*, char**)>(name)(text.data(), text.data() + text.size(),
                                                                     &colon);
    };
    EXPECT_EQ(classify("IsRequestHeader", "accept-charset: x"), 1);
    EXPECT_EQ(classify("IsResponseHeader", "Server: x"), 1);
    EXPECT_EQ(classify("IsEntityHeader", "X-Foo: 1"), 0);
    EXPECT_EQ(classify("IsGeneralHeader", "X: 1"), -6);
    EXPECT_EQ(classify("IsGeneralHeader", line), 1);
    HttpHeader headers[1] = {};
    const auto assign =
        Function<int(const char*, char*, const char*, HttpHeader*, unsigned char, int)>("AssignHeaderData");
    EXPECT_EQ(assign(line.data(), colon, line.data() + line.size(), headers, 0, 1), 1);
    EXPECT_EQ(assign(line.data(), colon, line.data() + line.size(), headers, 1, 1), -6);
    EXPECT_STREQ(headers[0].name, "Connection");
    EXPECT_STREQ(headers[0].value, "close");
    Function<void(HttpHeader*, int)>("FreeHeaders")(headers, 1);
    EXPECT_EQ(headers[0].name, nullptr);
}

TEST(Loaded, ResponsesAreBuiltAndWritten) {
    HttpResponse* response = nullptr;
    const auto create = Function<int(HttpResponse**, unsigned short, const char*, const char*, unsigned int)>(
        "CreateHttpResponse");
    EXPECT_EQ(create(&response, 600, "text/html", "abc", 3), -7);
    ASSERT_EQ(create(&response, 200, "text/html", "abc", 3), 0);
    EXPECT_EQ(response->ucHttpVersion, 11);
    EXPECT_EQ(response->usStatusCode, 200);
    EXPECT_EQ(response->ucNumOfGeneralHeaders, 3);
    EXPECT_EQ(response->ucNumOfEntityHeaders, 2);
    EXPECT_EQ(response->uiBodyLength, 3U);
    const std::string expected =
        "HTTP/1.1 200 OK\r\nDate: Tue, 30 April 2002 12:08:00 GMT\r\n"
        "Last-modified: Tue, 30 April 2002 12:08:00 GMT\r\nAccept-Ranges: bytes\r\n"
        "Server: Halvor Dx httpd/0.1\r\nContent-type: text/html\r\nContent-length: 3\r\n"
        "\r\nabc";
    std::vector<char> wire(1000);
    const auto write = Function<int(HttpResponse*, char*, unsigned int)>("SerializeHttpResponse");
    EXPECT_EQ(write(response, wire.data(), 1000), static_cast<int>(expected.size()));
    EXPECT_EQ(std::string(wire.data(), expected.size()), expected);
    EXPECT_EQ(write(response, wire.data(), 100), -2);
    Function<void(HttpResponse*)>("FreeHttpResponse")(response);
    std::free(response);

    HttpResponse parsed = {};
    const std::string line = "HTTP/1.0 404 Not found";
    EXPECT_EQ(Function<int(const char*, const char*, HttpResponse*)>("ParseHttpStatusLine")(
                  line.data(), line.data() + line.size(), &parsed),
              0);
    EXPECT_EQ(parsed.usStatusCode, 404);
    EXPECT_STREQ(parsed.pszReason, "Not found");
    Function<void(HttpResponse*)>("FreeHttpResponse")(&parsed);
}

// A listening socket of the library's and a client socket of the library's that is connected to it.
TEST(Loaded, SocketsCarryRequestsAndLines) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int server = -1;
    ASSERT_EQ(Function<int(const char*, unsigned short, int, int*)>("CreateSrvSocketExt")("127.0.0.1", 0, 5,
                                                                                          &server),
              0);
    socklen_t size = sizeof address;
    ASSERT_EQ(getsockname(server, reinterpret_cast<sockaddr*>(&address), &size), 0);
    int client = -1;
    const std::string port = std::to_string(ntohs(address.sin_port));
    ASSERT_EQ(
        Function<int(const char*, const char*, int*)>("CreateClntSocket")("127.0.0.1", port.c_str(), &client),
        0);
    const int accepted = accept(server, nullptr, nullptr);
    ASSERT_GE(accepted, 0);

    const std::string line = "abc\r\ndef\n";
    EXPECT_EQ(Function<int(int, const char*, int)>("SendSocket")(client, line.data(),
                                                                 static_cast<int>(line.size())),
              static_cast<int>(line.size()));
    char text[16] = {};
    char end[4] = {};
    const auto read = Function<int(int, char*, unsigned int, char*)>("ReadLineFromSocket");
    EXPECT_EQ(read(accepted, text, sizeof text, end), 3);
    EXPECT_STREQ(text, "abc");
    EXPECT_STREQ(end, "\r\n");
    EXPECT_EQ(read(accepted, text, 3, end), -3);
    EXPECT_EQ(Function<int(int, char*, int, char)>("RecvSocket")(accepted, text, 1, 0), 1);

    Global<int>("aiMethodsAllowed") = 1;
    const std::string asked = "GET /x HTTP/1.1\r\nHost: a\r\n\r\n";
    EXPECT_EQ(Function<int(int, const char*, unsigned int)>("WriteSocket")(
                  client, asked.data(), static_cast<unsigned int>(asked.size())),
              static_cast<int>(asked.size()));
    HttpRequest* request = nullptr;
    ASSERT_EQ(Function<int(int, HttpRequest**)>("ConsumeHttpRequest")(accepted, &request), 200);
    EXPECT_STREQ(request->pszUri, "/x");
    EXPECT_STREQ(request->pszSeparator, "\r\n");
    EXPECT_EQ(request->ucKeepAlive, 1);
    EXPECT_EQ(request->iSocket, accepted);
    EXPECT_EQ(std::string(request->szPeerName).substr(0, 10), "127.0.0.1:");
    EXPECT_EQ(request->ucNumOfRequestHeaders, 1);
    EXPECT_STREQ(request->aRequestHeaders[0].value, "a");
    Function<void(HttpRequest*)>("FreeHttpRequest")(request);
    std::free(request);
    Global<int>("aiMethodsAllowed") = 0;

    const auto closeSocket = Function<int(int)>("CloseSocket");
    EXPECT_EQ(closeSocket(client), 0);
    EXPECT_EQ(closeSocket(accepted), 0);
    EXPECT_EQ(closeSocket(server), 0);
    EXPECT_EQ(closeSocket(-1), -1);
    EXPECT_EQ(Function<int()>("IsClientGranted")(), 1);
    EXPECT_EQ(Function<int()>("InitSockLib")(), 0);
}

int bodyRan = 0;

void* Body(void* argument) {
    __atomic_store_n(static_cast<int*>(argument), 1, __ATOMIC_RELEASE);
    Function<void(unsigned long)>("ThreadTerminate")(65537);
    return nullptr;
}

TEST(Loaded, ThreadsAreStartedAndCounted) {
    Global<FILE*>("outlog") = stdout;
    EXPECT_EQ(Function<int()>("InitThreadLib")(), 0);
    EXPECT_EQ(Function<std::uint32_t()>("PrimaryThreadID")(), Function<std::uint32_t()>("CurrentThreadID")());
    std::uint32_t thread = 0;
    ASSERT_EQ(
        Function<int(void* (*)(void*), void*, std::uint32_t*)>("ThreadCreate")(&Body, &bodyRan, &thread), 0);
    EXPECT_NE(thread, 0U);
    EXPECT_NE(thread, 0xffffffffU);
    const auto running = Function<int()>("NumOfThreads");
    for (int i = 0; i < 10000 && running() != 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(running(), 0);
    EXPECT_EQ(__atomic_load_n(&bodyRan, __ATOMIC_ACQUIRE), 1);
}

TEST(Loaded, SemaphoresAreTakenAndGiven) {
    const int key = 0x52540000 + (getpid() & 0xffff);
    const auto take = Function<int(int, int)>("SemaP");
    const auto value = Function<int(int)>("SemaGetValue");
    ASSERT_EQ(value(key), -1);
    EXPECT_EQ(take(key, 1), -1);
    ASSERT_EQ(Function<int(int)>("SemaCreate")(key), 0);
    EXPECT_EQ(value(key), 1);
    EXPECT_EQ(take(key, 0), 0);
    EXPECT_EQ(take(key, 1), -2);
    EXPECT_EQ(Function<int(int)>("SemaV")(key), 0);
    EXPECT_EQ(value(key), 1);
    semctl(semget(key, 1, 0), 0, IPC_RMID);
}

} // namespace
