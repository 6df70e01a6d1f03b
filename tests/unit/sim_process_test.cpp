// What the simulated device keeps and records, and how it does with threads and without memory.
#include "rDxsd/rDxSvcs.h"
#include "tests/support/faults.h"
#include "tests/support/simulated_calls.h"
#include "tests/support/simulation.h"

#include <cstring>
#include <functional>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using namespace rdx::sim;
using namespace std::chrono_literals;
using namespace rdx::test;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// --- State ----------------------------------------------------------------------------------------------

TEST_F(SimulatedDevice, RemembersItsOwnerWhenItStartsAgain) {
    ASSERT_EQ(Allocate("<\"Müller\" & Söhne\\>\t"), 0);
    Start();
    EXPECT_EQ(Owner(), "<\"Müller\" & Söhne\\>\t by 10.0.0.7:40123");
    EXPECT_EQ(Allocate(kMe), 1);
    EXPECT_EQ(Release("<\"Müller\" & Söhne\\>\t", "10.0.0.9:9"), 0);
    Start();
    Text by;
    EXPECT_EQ(rDxReleaseDevice("c", kMe, by.Out(), 1), 1);
    EXPECT_EQ(by.Get(), "10.0.0.9:9");
}

TEST_F(SimulatedDevice, WritesItsStateForItsOwnerAloneAndLeavesNothingElse) {
    ASSERT_EQ(Allocate(kMe), 0);
    struct stat status {};
    ASSERT_EQ(stat(paths.state.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder / "")) {
        names.insert(entry.path().filename());
    }
    EXPECT_EQ(names, (std::set<std::string>{"state", "scenario", "calls"}));
}

TEST_F(SimulatedDevice, StartsAsANewOneFromADamagedFile) {
    ASSERT_EQ(Allocate(kMe), 0);
    WriteWhole(paths.state, ReadWhole(paths.state) + "colour = red\n");
    CaptureStderr();
    Start();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.state + ":19: not a line of this file; the device starts as a new one\n");
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(Allocate(kHer), 0) << "and writes over it";
    Start();
    EXPECT_EQ(Owner(), "Workstation 8 by 10.0.0.7:40123");
}

TEST_F(SimulatedDevice, GoesOnWithoutAFileThatCannotBeWritten) {
    paths.state = folder / "missing" + "/state";
    Start();
    CaptureStderr();
    EXPECT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(SetAttributes(kMe, {{"a", "b", 1}}), 0);
    EXPECT_EQ(GetCapturedStderr(), "libDxSvcs: " + paths.state +
                                       ": No such file or directory; the device forgets its state when the "
                                       "process ends\n")
        << "said once";
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
    Start();
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, ReportsAStateFileThatIsNone) {
    paths.state = folder / "";
    CaptureStderr();
    Start();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.state + ": not a regular file; the device starts as a new one\n");
    EXPECT_EQ(Owner(), " by ");
}

TEST_F(SimulatedDevice, KeepsTheOldStateWhenTheNewOneCannotBeWritten) {
    ASSERT_EQ(Allocate(kMe), 0);
    const std::string before = ReadWhole(paths.state);
    CaptureStderr();
    {
        FailCall full("write", 2, ENOSPC); // the first one adds to the record of calls
        EXPECT_EQ(Release(kMe), 0);
        EXPECT_TRUE(full.Struck());
    }
    EXPECT_NE(GetCapturedStderr().find("No space left on device"), std::string::npos);
    EXPECT_EQ(ReadWhole(paths.state), before);
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(Allocate(kHer), 0);
    Start();
    EXPECT_EQ(Owner(), "Workstation 8 by 10.0.0.7:40123") << "the next change was written";
}

TEST_F(SimulatedDevice, KeepsNoStateWithoutAPath) {
    paths.state.clear();
    CaptureStderr();
    Start();
    EXPECT_EQ(Allocate(kMe), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
    Start();
    EXPECT_EQ(Owner(), " by ");
}

// --- Record of calls ------------------------------------------------------------------------------------

void CallEveryFunction() {
    Text a, b, c;
    unsigned long word = 0;
    Measures measures = {};
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    char location[] = "Location";
    char bay[] = "Bay \"2\"";
    char empty[] = "";
    char* names[] = {location, nullptr};
    char* values[] = {bay, empty};
    int flags[] = {1, 0};
    rDxAllocateDevice("10.0.0.7:40123", kMe, "10.0.0.7", "3000,3001", a.Out(), b.Out(), 1);
    rDxReleaseDevice("c", "x\ny", a.Out(), 1);
    rDxGetOwner(a.Out(), b.Out());
    rDxGetDeviceType(a.Out(), 4096);
    rDxGetAllocStatus(&word, a.Out(), b.Out(), c.Out(), nullptr);
    rDxGetFirmwareRev(&word);
    rDxGetActiveIpConf(a.Out(), b.Out(), c.Out(), 16);
    rDxGetNetInterface(a.Out(), 4096);
    rDxGetIpConfiguration(&configuration);
    rDxSetIpConfiguration(kMe, "1.2.3.4", "255.0.0.0", "", 4, nullptr, &word);
    rDxGetVehicleStatus(kMe, &measures, &word);
    rDxGetTransmissionQuality(&word);
    rDxRunDeviceSelfTest(kMe, 1, 0);
    rDxGetCurrentSelftestStatus(&word, &word);
    rDxInitiateCfgRequest(kMe, 2);
    rDxSetDeviceAttributes(kMe, names, values, flags, 2, 3);
    Arrays arrays;
    arrays.Get();
    arrays.Free();
    rDxUpdateDeviceFirmware(kMe, "http://10.0.0.7/kavo.bin", kAllBits, 1, "", "");
}

constexpr const char* kRecordOfEveryFunction =
    R"(rDxAllocateDevice client="10.0.0.7:40123" owner="Workstation 7" address="10.0.0.7" ports="3000,3001" flag=1
rDxReleaseDevice client="c" owner="x\ny" flag=1
rDxGetOwner
rDxGetDeviceType size=4096
rDxGetAllocStatus
rDxGetFirmwareRev
rDxGetActiveIpConf size=16
rDxGetNetInterface size=4096
rDxGetIpConfiguration length=8
rDxSetIpConfiguration owner="Workstation 7" ip_address="1.2.3.4" netmask="255.0.0.0" gateway="" mode=4 hostname=null
rDxGetVehicleStatus owner="Workstation 7"
rDxGetTransmissionQuality
rDxRunDeviceSelfTest owner="Workstation 7" mode=1 await=0
rDxGetCurrentSelftestStatus
rDxInitiateCfgRequest owner="Workstation 7" mode=2
rDxSetDeviceAttributes owner="Workstation 7" names=["Location",null] values=["Bay \"2\"",""] persistence=[1,0] count=2 enforce=3
rdxGetDeviceAttributes
rdxFreeDeviceAttributes count=2
rDxUpdateDeviceFirmware owner="Workstation 7" url="http://10.0.0.7/kavo.bin" revision=-1 signed=1 method_of_trust="" ca_certificate=""
)";

TEST_F(SimulatedDevice, RecordsWhatReachesIt) {
    CallEveryFunction();
    EXPECT_EQ(TakeCalls(), kRecordOfEveryFunction);
}

TEST_F(SimulatedDevice, SaysOnceThatCallsCannotBeRecorded) {
    paths.calls = folder / "missing" + "/calls";
    Start();
    CaptureStderr();
    Owner();
    Owner();
    EXPECT_EQ(GetCapturedStderr(),
              "libDxSvcs: " + paths.calls + ": No such file or directory; calls are not recorded\n");
    paths.calls.clear();
    Start();
    CaptureStderr();
    EXPECT_EQ(Owner(), " by ");
    EXPECT_EQ(GetCapturedStderr(), "");
}

// --- Threads and memory ---------------------------------------------------------------------------------

TEST_F(SimulatedDevice, HoldsNothingUpDuringADelay) {
    Play("[rDxGetDeviceType]\ndelay_ms = 60000\n");
    bool served = false;
    clock.sleep = [&](milliseconds time) {
        EXPECT_EQ(time, 60000ms);
        std::thread([&] {
            served = Allocate(kMe) == 0 && Owner() == "Workstation 7 by 10.0.0.7:40123";
        }).join();
    };
    Start();
    Text type;
    EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
    EXPECT_TRUE(served);
}

TEST_F(SimulatedDevice, ServesAWorkstationWhileAnotherAwaitsASelfTest) {
    ASSERT_EQ(Allocate(kMe), 0);
    std::string during;
    clock.sleep = [&](milliseconds time) {
        std::thread([&] { during = SelfTest(); }).join();
        now += time.count();
    };
    Start();
    EXPECT_EQ(rDxRunDeviceSelfTest(kMe, 0, 1), 0);
    EXPECT_EQ(during, "42500/0");
}

// A device that several workstations use at once, while its scenario changes.
class SharedDevice : public SimulatedDevice {
protected:
    static constexpr int kRounds = 60;

    void Watch() {
        SelfTest();
        Revision();
        Ip();
        Attributes();
    }

    void UseAsOwner(const char* me, int round) {
        EXPECT_EQ(++held, 1) << "the device has one owner at a time";
        EXPECT_EQ(Owner(), std::string(me) + " by 10.0.0.7:40123");
        EXPECT_NE(MeasureFor(me), 2);
        EXPECT_EQ(SetAttributes(me, {{"Owner", me, round % 2}}), 0);
        EXPECT_EQ(SetIp(me, "10.0.0.2"), 0);
        EXPECT_NE(rDxRunDeviceSelfTest(me, 0, 1), 2);
        EXPECT_NE(Update(me), 2);
        EXPECT_NE(rDxInitiateCfgRequest(me, 1), 2);
        --held;
        EXPECT_EQ(Release(me), 0);
    }

    void TakeTurns(const std::string& me) {
        for (int round = 0; round < kRounds; ++round) {
            Watch();
            if (Allocate(me.c_str()) != 0) continue;
            ++wins;
            UseAsOwner(me.c_str(), round);
        }
    }

    void ChangeTheScenario() {
        for (int round = 0; round < kRounds; ++round) {
            Play(round % 2 == 0 ? "[rDxGetDeviceType]\ntype = QRT\n" : "");
            Text type;
            EXPECT_EQ(rDxGetDeviceType(type.Out(), RDX_SVCS_TEXT_SIZE), 0);
            Pass(1s);
        }
    }

    std::atomic<int> held = 0;
    std::atomic<int> wins = 0;
};

// No line has been mixed with another.
void ExpectWholeLines(const std::string& calls) {
    std::istringstream lines(calls);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.starts_with("rDx") || line.starts_with("rdx")) << line;
    }
}

TEST_F(SharedDevice, IsSafeToCallFromManyThreads) {
    constexpr int kThreads = 6;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] { TakeTurns("Workstation " + std::to_string(t)); });
    }
    threads.emplace_back([this] { ChangeTheScenario(); });
    for (std::thread& thread : threads) thread.join();
    EXPECT_GT(wins, 0);
    ExpectWholeLines(ReadWhole(paths.calls));
}

// A device whose functions can each be called again and again, with the same result: 0, or -1 for a failure.
class ShortOfMemory : public SimulatedDevice {
protected:
    // Fails each allocation that the call makes in turn; returns how many there are.
    int FailEach(const std::function<int()>& call, const char* allocator) {
        const int before = CallsOf(allocator);
        EXPECT_EQ(call(), 0);
        const int count = CallsOf(allocator) - before;
        for (int nth = 1; nth <= count; ++nth) {
            FailCall noMemory(allocator, nth);
            EXPECT_EQ(call(), -1) << nth;
            EXPECT_TRUE(noMemory.Struck());
        }
        EXPECT_EQ(call(), 0) << "the device is as it was";
        return count;
    }

    Text a, b, c;
    unsigned long word = 0;
    Measures measures = {};
    RDXConf configuration = {RDX_CONF_LENGTH, 0};
    Arrays arrays;
    std::string nameText = "Location";
    std::string valueText = "a bay with a rather long name";
    char* name = nameText.data();
    char* value = valueText.data();
    int flag = 1;
    const std::vector<std::function<int()>> calls = {
        [&] { return rDxAllocateDevice("c", kHer, "d", "e", a.Out(), b.Out(), 1) == 1 ? 0 : -1; },
        [&] { return rDxReleaseDevice("a client with a longer name", kHer, a.Out(), 1) == 2 ? 0 : -1; },
        [&] { return rDxGetOwner(a.Out(), b.Out()); },
        [&] { return rDxGetDeviceType(a.Out(), RDX_SVCS_TEXT_SIZE); },
        [&] { return rDxGetAllocStatus(&word, a.Out(), b.Out(), c.Out(), nullptr); },
        [&] { return rDxGetFirmwareRev(&word); },
        [&] { return rDxGetActiveIpConf(a.Out(), b.Out(), c.Out(), 16); },
        [&] { return rDxGetNetInterface(a.Out(), RDX_SVCS_TEXT_SIZE); },
        [&] { return rDxGetIpConfiguration(&configuration); },
        [&] { return SetIp(kMe, "", "", "", 2, "a host with a rather long name"); },
        [&] { return MeasureFor(kMe, &measures, &word); },
        [&] { return rDxGetTransmissionQuality(&word); },
        [&] { return rDxInitiateCfgRequest(kMe, 1); },
        [&] { return rDxGetCurrentSelftestStatus(&word, &word); },
        [&] { return rDxSetDeviceAttributes(kMe, &name, &value, &flag, 1, 0); },
        [&] { return arrays.Get() == 0 ? arrays.Free() : -1; },
        [&] { return rdxFreeDeviceAttributes(nullptr, nullptr, nullptr, 0); },
        [&] {
            const int result = rDxRunDeviceSelfTest(kMe, 0, 0);
            Pass(2s);
            return result;
        },
        [&] {
            const int result = Update(kMe);
            Pass(5s);
            return result;
        },
    };
};

// The function says so, and the device is as it was.
TEST_F(ShortOfMemory, RefusesEveryCall) {
    ASSERT_EQ(Allocate(kMe), 0);
    int failed = 0;
    for (std::size_t i = 0; i < calls.size(); ++i) {
        for (const char* const allocator : {"malloc", "calloc"}) {
            SCOPED_TRACE(std::to_string(i) + " " + allocator);
            Play("# " + std::to_string(i) + allocator + "\n"); // so that each round reads it alike
            ASSERT_EQ(calls[i](), 0);
            failed += FailEach(calls[i], allocator);
        }
    }
    EXPECT_GT(failed, 100);
    EXPECT_EQ(Owner(), "Workstation 7 by 10.0.0.7:40123");
}

TEST_F(SimulatedDevice, GivesBackEverythingWhenMemoryForTheArraysIsShort) {
    for (int nth = 1; nth <= 3; ++nth) {
        FailCall noMemory("calloc", nth);
        Arrays arrays;
        EXPECT_EQ(arrays.Get(), -1) << nth;
        EXPECT_TRUE(noMemory.Struck());
        EXPECT_EQ(arrays.names, nullptr);
        EXPECT_EQ(arrays.values, nullptr);
        EXPECT_EQ(arrays.persistence, nullptr);
        EXPECT_EQ(arrays.count, -7);
    }
}

} // namespace
