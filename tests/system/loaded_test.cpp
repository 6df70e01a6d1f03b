// The library as an outside program sees it: what stands for each module, called and read by its plain name.
#include "tests/system/loaded.h"

#include "tests/support/given_tables.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/sem.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace rdx::test;

TEST(Loaded, LibraryIsThere) { ASSERT_NE(Library(), nullptr) << dlerror(); }

void ExpectFirstValues() {
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

// In a process in which nothing else has run.
TEST(Loaded, GlobalsHaveTheirFirstValues) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            ExpectFirstValues();
            std::exit(testing::Test::HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

void ExpectTable(const char* name, const std::vector<std::string>& expected) {
    const char* const* table = &Global<const char*>(name);
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(table[i], expected[i]) << name << " " << i;
}

TEST(Loaded, TablesHoldTheirNames) {
    ExpectTable("aszSigNames", kSignalNames);
    ExpectTable("rdxCommands", {"rdxGetVersion", "rdxGetDeviceStatus", "rdxAllocateDevice",
                                "rdxReleaseDevice", "rdxSetIpConfiguration", "rdxSetDeviceAttributes",
                                "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest", "rdxInitiateCfgRequest"});
    ExpectTable("apszGeneralHeaders", kGeneralHeaderNames);
    ExpectTable("apszRequestHeaders", kRequestHeaderNames);
    ExpectTable("apszResponseHeaders", kResponseHeaderNames);
    ExpectTable("apszEntityHeaders", kEntityHeaderNames);
    EXPECT_EQ(Global<int>("g_cnGeneralHeaders"), std::ssize(kGeneralHeaderNames));
    EXPECT_EQ(Global<int>("g_cnReqHeaders"), std::ssize(kRequestHeaderNames));
    EXPECT_EQ(Global<int>("g_cnRespHeaders"), std::ssize(kResponseHeaderNames));
    EXPECT_EQ(Global<int>("g_cnEntityHeaders"), std::ssize(kEntityHeaderNames));
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
