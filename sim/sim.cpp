// The simulated device: a libDxSvcs.so for machines without the hardware.
//
// It answers every call as a healthy device that nobody owns would, and keeps nothing: what a call sets
// is accepted and forgotten. There is no state, so concurrent calls need no care.

#include "rDxsd/rDxSvcs.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <string_view>

#include <net/if.h>

namespace {

// What the device says of itself.
constexpr std::string_view kDeviceType = "KAVO";
constexpr unsigned long kFirmwareRevision = 4711;
constexpr std::string_view kIpAddress = "192.168.0.10";
constexpr std::string_view kNetmask = "255.255.255.0";
constexpr std::string_view kGateway = "192.168.0.1";
constexpr int kAddressMode = 2;
constexpr Measures kMeasures = {.iReserved0 = 0,
                                .iTerminal15 = 12400, // millivolts of a battery at rest
                                .iTerminal30 = 12600,
                                .iReserved3 = 0,
                                .iReserved4 = 0,
                                .iKLine = 2,
                                .iLLine = 2,
                                .iTdPeriod = 375,
                                .iTdValid = 1};
constexpr unsigned long kMostRingClosed = 0;
constexpr unsigned long kTransmissionQuality = 98;

struct Attribute {
    const char* name;
    const char* value;
    int persistent;
};
constexpr std::array<Attribute, 2> kAttributes = {{
    {"Location", "Bay 1", 1},
    {"DisplayName", "Simulated device", 0},
}};

// Copies `text` into a buffer of `size` bytes, cut to fit and terminated.
void Answer(char* buffer, int size, std::string_view text) {
    if (buffer == nullptr || size <= 0) return;
    const std::size_t length = std::min(text.size(), static_cast<std::size_t>(size) - 1);
    std::copy_n(text.data(), length, buffer);
    buffer[length] = '\0';
}

template <typename T>
void Answer(T* output, T value) {
    if (output != nullptr) *output = value;
}

// One entry for each attribute, zeroed.
template <typename T>
T* AllocateArray() {
    return static_cast<T*>(std::calloc(kAttributes.size(), sizeof(T)));
}

char* CopyText(std::string_view text) {
    auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
    Answer(copy, static_cast<int>(text.size()) + 1, text);
    return copy;
}

} // namespace

int rDxAllocateDevice(const char*, const char*, const char*, const char*, char* output1, char* output2, int) {
    Answer(output1, RDX_SVCS_TEXT_SIZE, "");
    Answer(output2, RDX_SVCS_TEXT_SIZE, "");
    return 0;
}

int rDxReleaseDevice(const char*, const char*, char* releasedBy, int) {
    Answer(releasedBy, RDX_SVCS_TEXT_SIZE, "");
    return 0;
}

int rDxGetOwner(char* owner, char* allocatedBy) {
    Answer(owner, RDX_SVCS_TEXT_SIZE, "");
    Answer(allocatedBy, RDX_SVCS_TEXT_SIZE, "");
    return 0;
}

int rDxGetDeviceType(char* name, int size) {
    Answer(name, size, kDeviceType);
    return 0;
}

int rDxGetAllocStatus(unsigned long* controlled, char* allocation, char* owner, char* controllingClient,
                      void*) {
    Answer(controlled, 0UL);
    Answer(allocation, RDX_SVCS_TEXT_SIZE, "0");
    Answer(owner, RDX_SVCS_TEXT_SIZE, "");
    Answer(controllingClient, RDX_SVCS_TEXT_SIZE, "");
    return 0;
}

int rDxGetFirmwareRev(unsigned long* revision) {
    Answer(revision, kFirmwareRevision);
    return 0;
}

int rDxGetActiveIpConf(char* ipAddress, char* netmask, char* gateway, int size) {
    Answer(ipAddress, size, kIpAddress);
    Answer(netmask, size, kNetmask);
    Answer(gateway, size, kGateway);
    return 0;
}

// The server asks the system for this interface's hardware address, so the name must exist here.
int rDxGetNetInterface(char* name, int size) {
    Answer(name, size, if_nametoindex("eth0") != 0 ? "eth0" : "lo");
    return 0;
}

int rDxGetIpConfiguration(RDXConf* configuration) {
    if (configuration == nullptr || configuration->uiLength < RDX_CONF_LENGTH) return -1;
    configuration->iMode = kAddressMode;
    return 0;
}

int rDxSetIpConfiguration(const char*, const char*, const char*, const char*, int, const char*,
                          unsigned long* rebootRequired) {
    Answer(rebootRequired, 1UL);
    return 0;
}

int rDxGetVehicleStatus(const char*, Measures* measures, unsigned long* mostState) {
    Answer(measures, kMeasures);
    Answer(mostState, kMostRingClosed);
    return 0;
}

int rDxGetTransmissionQuality(unsigned long* quality) {
    Answer(quality, kTransmissionQuality);
    return 0;
}

int rDxRunDeviceSelfTest(const char*, int, int) { return 0; }

int rDxGetCurrentSelftestStatus(unsigned long* code, unsigned long* reason) {
    Answer(code, 0UL);
    Answer(reason, 0UL);
    return 0;
}

int rDxInitiateCfgRequest(const char*, unsigned long) { return 0; }

int rDxSetDeviceAttributes(const char*, char**, char**, int*, int, int) { return 0; }

int rdxGetDeviceAttributes(char*** names, char*** values, int** persistence, int* count) {
    if (names == nullptr || values == nullptr || persistence == nullptr || count == nullptr) return -1;
    *names = AllocateArray<char*>();
    *values = AllocateArray<char*>();
    *persistence = AllocateArray<int>();
    *count = static_cast<int>(kAttributes.size());
    bool complete = *names != nullptr && *values != nullptr && *persistence != nullptr;
    for (std::size_t i = 0; complete && i < kAttributes.size(); ++i) {
        (*names)[i] = CopyText(kAttributes[i].name);
        (*values)[i] = CopyText(kAttributes[i].value);
        (*persistence)[i] = kAttributes[i].persistent;
        complete = (*names)[i] != nullptr && (*values)[i] != nullptr;
    }
    if (complete) return 0;
    rdxFreeDeviceAttributes(*names, *values, *persistence, *count);
    *names = nullptr;
    *values = nullptr;
    *persistence = nullptr;
    *count = 0;
    return -1;
}

int rdxFreeDeviceAttributes(char** names, char** values, int* persistence, int count) {
    for (int i = 0; i < count; ++i) {
        if (names != nullptr) std::free(names[i]);
        if (values != nullptr) std::free(values[i]);
    }
    std::free(names);
    std::free(values);
    std::free(persistence);
    return 0;
}

int rDxUpdateDeviceFirmware(const char*, const char*, unsigned long, int, const char*, const char*) {
    return 0;
}
