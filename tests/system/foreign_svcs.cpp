// Another device library: the nineteen functions and nothing behind them, as an integrator would build it.
// Printed once it is loaded, so that a test can tell which library a server got.

#include "rDxsd/rDxSvcs.h"

#include <cstdio>
#include <cstring>

namespace {

struct Announcement {
    Announcement() { std::fputs("\nforeign device library loaded\n", stderr); }
};

const Announcement announcement;

} // namespace

extern "C" {

int rDxAllocateDevice(const char*, const char*, const char*, const char*, char*, char*, int) { return 0; }

int rDxReleaseDevice(const char*, const char*, char*, int) { return 0; }

int rDxGetOwner(char* owner, char* allocatedBy) {
    std::strcpy(owner, "foreign owner");
    std::strcpy(allocatedBy, "192.0.2.1:1");
    return 0;
}

int rDxGetDeviceType(char* name, int) {
    std::strcpy(name, "SOLAN");
    return 0;
}

int rDxGetAllocStatus(unsigned long* controlled, char*, char*, char*, void*) {
    *controlled = 0;
    return 0;
}

int rDxGetFirmwareRev(unsigned long* revision) {
    *revision = 815; // another one than the simulated device has
    return 0;
}

int rDxGetActiveIpConf(char*, char*, char*, int) { return 0; }

int rDxGetNetInterface(char* name, int) {
    std::strcpy(name, "lo");
    return 0;
}

int rDxGetIpConfiguration(RDXConf* configuration) {
    configuration->iMode = 2;
    return 0;
}

int rDxSetIpConfiguration(const char*, const char*, const char*, const char*, int, const char*,
                          unsigned long*) {
    return 3;
}

int rDxGetVehicleStatus(const char*, Measures*, unsigned long*) { return 3; }

int rDxGetTransmissionQuality(unsigned long*) { return 1; }

int rDxRunDeviceSelfTest(const char*, int, int) { return 3; }

int rDxGetCurrentSelftestStatus(unsigned long*, unsigned long*) { return 0; }

int rDxInitiateCfgRequest(const char*, unsigned long) { return 3; }

int rDxSetDeviceAttributes(const char*, char**, char**, int*, int, int) { return 3; }

int rdxGetDeviceAttributes(char*** names, char*** values, int** persistence, int* count) {
    *names = nullptr;
    *values = nullptr;
    *persistence = nullptr;
    *count = 0;
    return 0;
}

int rdxFreeDeviceAttributes(char**, char**, int*, int) { return 0; }

int rDxUpdateDeviceFirmware(const char*, const char*, unsigned long, int, const char*, const char*) {
    return 3;
}
}
