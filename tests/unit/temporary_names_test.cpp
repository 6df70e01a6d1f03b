#include "common/portability.h"

#include "common/portability_internal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <sys/random.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

// What the look for a free temporary name finds on this thread: so many names taken first, then the error.
namespace {
thread_local int namesTaken = 0;
thread_local int lookError = 0;
thread_local bool randomFails = false;
} // namespace

extern "C" {
int __real_lstat(const char* path, struct stat* status);
int __wrap_lstat(const char* path, struct stat* status);
ssize_t __real_getrandom(void* bytes, std::size_t size, unsigned flags);
ssize_t __wrap_getrandom(void* bytes, std::size_t size, unsigned flags);

int __wrap_lstat(const char* path, struct stat* status) {
    if (namesTaken > 0) {
        --namesTaken;
        return 0;
    }
    if (lookError == 0) return __real_lstat(path, status);
    errno = lookError;
    return -1;
}

ssize_t __wrap_getrandom(void* bytes, std::size_t size, unsigned flags) {
    return randomFails ? -1 : __real_getrandom(bytes, size, flags);
}
}

namespace rdx {
namespace {

// --- temporary names --------------------------------------------------------------------------------------

TEST(TempFileName, IsAFreshNameInTheTemporaryDirectory) {
    char path[TEMP_FILE_NAME_SIZE];
    ASSERT_EQ(TempFileName(path), 0);
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/tn[A-Za-z0-9]{6}"))) << path;
    EXPECT_NE(access(path, F_OK), 0) << "no file is created";
}

TEST(TempFileName, ReplacesAllSixCharacters) {
    std::set<char> seen[6];
    for (int i = 0; i < 200; ++i) {
        char path[TEMP_FILE_NAME_SIZE];
        ASSERT_EQ(TempFileName(path), 0);
        for (std::size_t c = 0; c < 6; ++c) seen[c].insert(path[sizeof "/tmp/tn" - 1 + c]);
    }
    for (const auto& characters : seen) EXPECT_GT(characters.size(), 20U);
}

TEST(TempFileName, DiffersFromThreadToThread) {
    std::mutex mutex;
    std::set<std::string> names;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int n = 0; n < 50; ++n) {
                char path[TEMP_FILE_NAME_SIZE];
                EXPECT_EQ(TempFileName(path), 0);
                const std::lock_guard lock(mutex);
                names.insert(path);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(names.size(), 200U);
}

TEST(TempFileName, PassesOverNamesInUse) {
    char path[TEMP_FILE_NAME_SIZE];
    namesTaken = 3;
    EXPECT_EQ(TempFileName(path), 0);
    EXPECT_EQ(namesTaken, 0);
}

TEST(TempFileName, GivesUpWhenEveryNameIsInUse) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    namesTaken = INT_MAX;
    EXPECT_EQ(TempFileName(path), -1);
    namesTaken = 0;
    EXPECT_STREQ(path, "before");
}

TEST(TempFileName, FailsWhereTheDirectoryCannotBeLookedAt) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    lookError = EACCES;
    EXPECT_EQ(TempFileName(path), -1);
    lookError = 0;
    EXPECT_STREQ(path, "before");
}

TEST(TempFileName, FailsWithoutRandomBytes) {
    char path[TEMP_FILE_NAME_SIZE] = "before";
    randomFails = true;
    EXPECT_EQ(TempFileName(path), -1);
    randomFails = false;
    EXPECT_STREQ(path, "before");
}

TEST(PlaceTempName, RefusesAnEmptyName) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("", path), -1);
}

TEST(PlaceTempName, PutsANameBelowTheTemporaryDirectory) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/tnabcdef");
    EXPECT_EQ(PlaceTempName("/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/tnabcdef") << "a separator alone makes no folder";
    EXPECT_EQ(PlaceTempName("folder/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/tmp/folder/tnabcdef");
}

TEST(PlaceTempName, TakesANameWithItsFolderAsItIs) {
    char path[TEMP_FILE_NAME_SIZE];
    EXPECT_EQ(PlaceTempName("/var/tnabcdef", path), 0);
    EXPECT_STREQ(path, "/var/tnabcdef");
    EXPECT_EQ(PlaceTempName("//", path), 0);
    EXPECT_STREQ(path, "//");
}

TEST(PlaceTempName, RefusesAPathOf256Characters) {
    char path[TEMP_FILE_NAME_SIZE];
    const std::string folder = "/var/";
    EXPECT_EQ(PlaceTempName(folder + std::string(250, 'x'), path), 0);
    EXPECT_EQ(std::string(path).size(), 255U);
    EXPECT_EQ(PlaceTempName(folder + std::string(251, 'x'), path), -2);
    EXPECT_EQ(PlaceTempName(std::string(250, 'x'), path), 0);
    EXPECT_EQ(std::string(path).size(), 255U);
    EXPECT_EQ(PlaceTempName(std::string(251, 'x'), path), -3);
    EXPECT_EQ(PlaceTempName("/" + std::string(250, 'x'), path), 0);
    EXPECT_EQ(PlaceTempName("/" + std::string(251, 'x'), path), -3);
}

} // namespace
} // namespace rdx
