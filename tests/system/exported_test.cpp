// The names that librDxsH.so offers to other programs, and the ones that it wants from others.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <dlfcn.h>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// What the device library offers.
const std::set<std::string> kDeviceFunctions = {"rDxAllocateDevice",
                                                "rDxGetActiveIpConf",
                                                "rDxGetAllocStatus",
                                                "rDxGetCurrentSelftestStatus",
                                                "rDxGetDeviceType",
                                                "rDxGetFirmwareRev",
                                                "rDxGetIpConfiguration",
                                                "rDxGetNetInterface",
                                                "rDxGetOwner",
                                                "rDxGetTransmissionQuality",
                                                "rDxGetVehicleStatus",
                                                "rDxInitiateCfgRequest",
                                                "rDxReleaseDevice",
                                                "rDxRunDeviceSelfTest",
                                                "rDxSetDeviceAttributes",
                                                "rDxSetIpConfiguration",
                                                "rDxUpdateDeviceFirmware",
                                                "rdxFreeDeviceAttributes",
                                                "rdxGetDeviceAttributes"};

Names ListedNames() {
    Names names;
    std::ifstream file(RDX_TEST_EXPORTED);
    for (std::string name; std::getline(file, name);) names.push_back(name);
    return names;
}

std::string TextOf(const std::string& path) {
    std::ifstream file(path);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    EXPECT_NE(text, "") << path;
    return text;
}

// What the expression captures, each time it matches.
Names Captures(const std::string& text, const char* expression) {
    const std::regex pattern(expression);
    return {std::sregex_token_iterator(text.begin(), text.end(), pattern, 1), std::sregex_token_iterator()};
}

// The last word of each line that nm prints, without a version; the compiler's own names left out.
Names NamesBy(const std::string& options) {
    Names names;
    FILE* pipe = popen(("nm -D " + options + " " + RDX_TEST_LIBRARY).c_str(), "r");
    if (pipe == nullptr) return names;
    std::array<char, 4096> line;
    while (std::fgets(line.data(), line.size(), pipe) != nullptr) {
        std::string name = line.data();
        name.erase(name.find_last_not_of('\n') + 1);
        name.erase(0, name.rfind(' ') + 1);
        name.erase(std::min(name.find('@'), name.size()));
        if (name.rfind("__", 0) != 0 && name != "_init" && name != "_fini") names.push_back(name);
    }
    EXPECT_EQ(pclose(pipe), 0);
    std::sort(names.begin(), names.end());
    return names;
}

TEST(Exported, NamesAreTheListedOnes) { EXPECT_EQ(NamesBy("--defined-only"), ListedNames()); }

TEST(Exported, ListIsSortedAndHasNoNameTwice) {
    const Names names = ListedNames();
    EXPECT_GT(names.size(), 200U);
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

TEST(Exported, NamesAreThoseOfTheVersionScript) {
    EXPECT_EQ(Captures(TextOf(RDX_TEST_MAP), R"((\w+);)"), ListedNames());
}

std::string WithoutComments(std::string code) {
    for (std::size_t at = code.find("/*"); at != std::string::npos; at = code.find("/*", at)) {
        code.erase(at, code.find("*/", at) + 2 - at);
    }
    return code;
}

// What the expression captures in the installed headers.
std::set<std::string> DeclaredNames(const char* expression) {
    std::set<std::string> found;
    std::istringstream paths(RDX_TEST_HEADERS);
    for (std::string path; paths >> path;) {
        const Names names = Captures(WithoutComments(TextOf(path)), expression);
        found.insert(names.begin(), names.end());
    }
    return found;
}

TEST(Exported, NamesAreDeclaredInTheInstalledHeaders) {
    const std::set<std::string> words = DeclaredNames(R"(([A-Za-z_]\w*))");
    for (const std::string& name : ListedNames()) EXPECT_EQ(words.count(name), 1U) << name;
}

// A marked name that the version script lacks would be hidden without a word.
TEST(Exported, NamesAreAllThatAreMarked) {
    std::set<std::string> names = DeclaredNames(R"(RDX_API\s+\w[^;(\[]*?[\s*](\w+)\s*[;(\[])");
    for (const std::string& name : kDeviceFunctions) EXPECT_EQ(names.erase(name), 1U) << name;
    EXPECT_EQ(Names(names.begin(), names.end()), ListedNames());
}

TEST(Exported, NamesAreFoundAtRunTime) {
    void* library = dlopen(RDX_TEST_LIBRARY, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const std::string& name : ListedNames()) {
        EXPECT_NE(dlsym(library, name.c_str()), nullptr) << name;
    }
}

TEST(Wanted, DeviceFunctionsAreThoseOfTheContract) {
    ASSERT_EQ(kDeviceFunctions.size(), 19U);
    std::set<std::string> wanted;
    for (const std::string& name : NamesBy("--undefined-only")) {
        if (name.starts_with("rDx") || name.starts_with("rdx")) wanted.insert(name);
    }
    EXPECT_EQ(wanted, kDeviceFunctions);
}

} // namespace
