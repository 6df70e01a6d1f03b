#include "rDxsd/device_info.h"

#include "rDxsd/rDxsd.h"
#include "tests/support/capture.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_device.h"
#include "tests/support/faults.h"
#include "tests/support/interfaces.h"
#include "tests/support/process.h"
#include "tests/support/wddx.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iterator>
#include <mutex>
#include <net/if.h>
#include <optional>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// The time of day; nothing: what the system says.
std::optional<timeval> timeOfDay;

// The interfaces asked for, the sockets they were asked through, and the address that every one has;
// nothing: what the system says.
std::mutex queriesMutex;
std::vector<std::string> askedFor;
std::vector<int> askedThrough;
std::optional<std::array<unsigned char, MAC_ADDRESS_SIZE>> everyAddress;

// How many threads have to want a socket before any of them gets one, and how many do.
std::atomic<int> socketsTogether = 0;
std::atomic<int> socketsWanted = 0;
std::atomic<int> shutDownHow = -1; // of the last socket that was shut down

} // namespace

extern "C" {
int __real_gettimeofday(timeval* now, void* zone);
int __wrap_gettimeofday(timeval* now, void* zone);
int __real_ioctl(int descriptor, unsigned long request, ...);
int __wrap_ioctl(int descriptor, unsigned long request, ...);
}

int __wrap_gettimeofday(timeval* now, void* zone) {
    if (!timeOfDay) return __real_gettimeofday(now, zone);
    *now = *timeOfDay;
    return 0;
}

int __wrap_ioctl(int descriptor, unsigned long request, ...) {
    va_list arguments;
    va_start(arguments, request);
    auto* const interface = va_arg(arguments, ifreq*);
    va_end(arguments);
    EXPECT_EQ(request, static_cast<unsigned long>(SIOCGIFHWADDR));
    {
        const std::lock_guard lock(queriesMutex);
        askedFor.emplace_back(interface->ifr_name, strnlen(interface->ifr_name, IFNAMSIZ));
        askedThrough.push_back(descriptor);
    }
    if (!everyAddress) return __real_ioctl(descriptor, request, interface);
    std::memcpy(interface->ifr_hwaddr.sa_data, everyAddress->data(), everyAddress->size());
    return 0;
}

// In the place of the system's own, to which the fault injection hands on.
extern "C" int socket(int domain, int type, int protocol) noexcept {
    ++socketsWanted;
    EXPECT_TRUE(rdx::test::Eventually([] { return socketsWanted >= socketsTogether; }));
    EXPECT_EQ(domain, AF_INET);
    EXPECT_EQ(type & ~SOCK_CLOEXEC, SOCK_DGRAM);
    return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int shutdown(int descriptor, int how) noexcept {
    shutDownHow = how;
    return static_cast<int>(syscall(SYS_shutdown, descriptor, how));
}

namespace rdx::test {
namespace {

class DeviceInfo : public testing::Test {
protected:
    DeviceInfo() {
        askedFor.clear();
        askedThrough.clear();
    }
    ~DeviceInfo() override { everyAddress.reset(); }

    std::string Mac() {
        // The size says nothing of the buffer.
        char text[MAC_ADDRESS_TEXT_SIZE];
        std::fill(std::begin(text), std::end(text), 'x');
        EXPECT_EQ(GetMacAddress(text, 3), 0);
        EXPECT_NE(std::memchr(text, '\0', sizeof text), nullptr);
        return text;
    }

    // What a failing query prints.
    struct Failure {
        int result;
        std::string error;
        std::string trace;
    };
    template <typename Query>
    static Failure Fail(Query query) {
        const CaptureStdout capture;
        testing::internal::CaptureStderr();
        const int result = query();
        return {result, testing::internal::GetCapturedStderr(), capture.Text()};
    }

    FakeDevice device_;
};

// ------------------------------------------------------------------------------------------ GetMacAddress

TEST_F(DeviceInfo, TellsTheAddressOfTheDevicesInterface) {
    device_.outputs.netInterface = "lo";
    EXPECT_EQ(Mac(), "00:00:00:00:00:00");
    EXPECT_EQ(device_.Calls(), std::vector<std::string>{R"(rDxGetNetInterface("", 4096))"});
    EXPECT_EQ(askedFor, std::vector<std::string>{"lo"});
}

TEST_F(DeviceInfo, TellsTheAddressOfEveryInterfaceOfTheMachine) {
    const auto addresses = HardwareAddresses();
    EXPECT_TRUE(addresses.contains("lo"));
    for (const auto& [name, address] : addresses) {
        device_.outputs.netInterface = name;
        EXPECT_EQ(Mac(), address) << name;
    }
}

TEST_F(DeviceInfo, PrintsSixBytesInSmallHexadecimalDigits) {
    everyAddress = {0x00, 0x1B, 0x2C, 0xFF, 0x0A, 0x80};
    EXPECT_EQ(Mac(), "00:1b:2c:ff:0a:80");
    everyAddress = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(Mac(), "ff:ff:ff:ff:ff:ff");
}

TEST_F(DeviceInfo, TakesTheDefaultInterfaceWithoutAName) {
    everyAddress = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(Mac(), "01:02:03:04:05:06");
    device_.outputs.netInterface = "";
    Mac();
    device_.outputs.netInterface = "lo";
    for (const int failure : {1, -1}) {
        device_.results["rDxGetNetInterface"] = failure;
        Mac();
    }
    EXPECT_EQ(askedFor, std::vector<std::string>(4, "eth0"));
}

TEST_F(DeviceInfo, HasAnEmptyTextForAMissingInterface) {
    device_.outputs.netInterface = "no-such-if";
    const Failure failure = Fail([&] {
        EXPECT_EQ(Mac(), "");
        return 0;
    });
    EXPECT_EQ(failure.error, "SIOCGHWADDR: No such device\n");
    EXPECT_EQ(failure.trace, "\nGetMacAddressByName error");
}

// ------------------------------------------------------------------------------------ GetMacAddressByName

TEST_F(DeviceInfo, CopiesSixBytes) {
    everyAddress = {0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02};
    std::array<unsigned char, MAC_ADDRESS_SIZE + 1> bytes;
    bytes.fill(0x55);
    const int shutDown = CallsOf("shutdown");
    shutDownHow = -1;
    EXPECT_EQ(GetMacAddressByName("eth7", bytes.data()), 0);
    EXPECT_EQ(bytes, (std::array<unsigned char, 7>{0xDE, 0xAD, 0xBE, 0xEF, 0x01, 0x02, 0x55}));
    EXPECT_EQ(CallsOf("shutdown"), shutDown + 1);
    EXPECT_EQ(shutDownHow, SHUT_RDWR);
}

TEST_F(DeviceInfo, AnswersAgainAfterItsSocketWasShutDown) {
    for (int i = 0; i < 3; ++i) {
        std::array<unsigned char, MAC_ADDRESS_SIZE> bytes;
        bytes.fill(0x55);
        EXPECT_EQ(GetMacAddressByName("lo", bytes.data()), 0);
        EXPECT_EQ(bytes, (std::array<unsigned char, 6>{}));
    }
}

TEST_F(DeviceInfo, SaysWhyAnAddressCannotBeRead) {
    for (const char* const name : {"no-such-if", "lo ", "l", "%s%n"}) {
        std::array<unsigned char, MAC_ADDRESS_SIZE> bytes;
        bytes.fill(0x55);
        const std::array<unsigned char, MAC_ADDRESS_SIZE> untouched = bytes;
        const int shutDown = CallsOf("shutdown");
        const Failure failure = Fail([&] { return GetMacAddressByName(name, bytes.data()); });
        EXPECT_EQ(failure.result, -1);
        EXPECT_EQ(failure.error, "SIOCGHWADDR: No such device\n");
        EXPECT_EQ(failure.trace, "\nGetMacAddressByName error");
        EXPECT_EQ(bytes, untouched);
        EXPECT_EQ(CallsOf("shutdown"), shutDown);
    }
}

TEST_F(DeviceInfo, CutsALongNameToWhatTheSystemTakes) {
    everyAddress = {1, 2, 3, 4, 5, 6};
    unsigned char bytes[MAC_ADDRESS_SIZE];
    for (const std::size_t length : {14U, 15U, 16U, 17U, 60000U}) {
        EXPECT_EQ(GetMacAddressByName(std::string(length, 'e').c_str(), bytes), 0);
        EXPECT_EQ(askedFor.back(), std::string(std::min<std::size_t>(length, IFNAMSIZ - 1), 'e'));
    }
    EXPECT_EQ(GetMacAddressByName("", bytes), 0);
    EXPECT_EQ(askedFor.back(), "");
}

// ------------------------------------------------------------------------------------- the socket for it

void AskOften(int threads, int calls) {
    const auto ask = [=] {
        unsigned char bytes[MAC_ADDRESS_SIZE];
        for (int i = 0; i < calls; ++i) {
            if (GetMacAddressByName("lo", bytes) != 0) std::abort();
        }
    };
    std::vector<std::thread> all;
    for (int i = 0; i < threads; ++i) all.emplace_back(ask);
    for (std::thread& thread : all) thread.join();
}

TEST_F(DeviceInfo, AsksThroughOneSocket) {
    const int before = test::OpenDescriptors();
    for (int i = 0; i < 1000; ++i) Mac();
    EXPECT_LE(test::OpenDescriptors(), before + 1);
    EXPECT_EQ(std::ranges::count(askedThrough, askedThrough.front()), 1000);
    EXPECT_NE(fcntl(askedThrough.front(), F_GETFD) & FD_CLOEXEC, 0);
}

// A process of its own for each: the socket is opened once in a process.
class FirstUse : public testing::Test {
protected:
    FirstUse() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(FirstUse, OpensOneSocketAndKeepsIt) {
    EXPECT_EXIT(
        {
            const int before = test::OpenDescriptors();
            AskOften(1, 1);
            const int after = test::OpenDescriptors();
            AskOften(1, 1000);
            std::_Exit(after == before + 1 && test::OpenDescriptors() == after ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(FirstUse, KeepsOneSocketOfSeveralOpenedAtOnce) {
    EXPECT_EXIT(
        {
            socketsTogether = 8;
            const int before = test::OpenDescriptors();
            AskOften(8, 125);
            const bool keptOne = test::OpenDescriptors() == before + 1;
            std::_Exit(keptOne && socketsWanted == 8 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(FirstUse, SurvivesThatNoSocketCanBeOpened) {
    EXPECT_EXIT(
        {
            unsigned char bytes[MAC_ADDRESS_SIZE];
            const FailCall fault("socket", 1, EMFILE);
            const bool refused = GetMacAddressByName("lo", bytes) == -1 && fault.Struck();
            std::_Exit(refused && askedFor.empty() && GetMacAddressByName("lo", bytes) == 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "SIOCGHWADDR: Too many open files");
}

// ------------------------------------------------------------------------------------------- GetTickCount

class TickCount : public testing::Test {
protected:
    ~TickCount() override {
        timeOfDay.reset();
        server_start_time = 0;
    }
};

TEST_F(TickCount, CountsMillisecondsSinceTheServersStart) {
    const struct {
        unsigned int start;
        timeval now;
        uint32_t ticks;
    } cases[] = {{1000, {1000, 0}, 0},
                 {1000, {1000, 999}, 0},
                 {1000, {1000, 1000}, 1},
                 {1000, {1000, 999999}, 999},
                 {1000, {1001, 0}, 1000},
                 {1000, {1059, 123456}, 59123},
                 {1000, {1000 + 4294967, 295999}, UINT32_MAX},
                 {1000, {1000 + 4294967, 296000}, 0}, // after 49 days it starts afresh
                 {1000, {1000 + 4294968, 0}, 704},
                 {1000, {999, 0}, UINT32_MAX - 999}, // a clock set back
                 {0, {1700000000, 500000}, static_cast<uint32_t>(1700000000500ULL)},
                 {0xFFFFFFFF, {0x100000001, 7000}, 2007}}; // beyond 32 bits of seconds
    for (const auto& [start, now, ticks] : cases) {
        server_start_time = start;
        timeOfDay = now;
        EXPECT_EQ(GetTickCount(), ticks) << start << ' ' << now.tv_sec << ' ' << now.tv_usec;
    }
}

TEST_F(TickCount, GoesOnWithTheTime) {
    server_start_time = static_cast<unsigned int>(time(nullptr)) - 10;
    const uint32_t first = GetTickCount();
    EXPECT_GE(first, 10000U);
    EXPECT_LT(first, 70000U);
    EXPECT_TRUE(Eventually([&] { return GetTickCount() != first; }));
    EXPECT_LT(GetTickCount() - first, 60000U);
}

// ------------------------------------------------------------------------------- CreateSlpAttributesArray

TEST(CreateSlpAttributesArray, GivesANullValue) {
    const Tree value(CreateSlpAttributesArray());
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(wddxGetType(value.get()), WDDX_NULL);
}

TEST(CreateSlpAttributesArray, GivesNothingWhenMemoryIsShort) {
    FailEveryAllocation([] {
        const Tree value(CreateSlpAttributesArray());
        return value != nullptr;
    });
}

} // namespace
} // namespace rdx::test
