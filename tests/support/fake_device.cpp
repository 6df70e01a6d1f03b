#include "tests/support/fake_device.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using rdx::test::FakeDevice;

FakeDevice* installed = nullptr;

FakeDevice& Device() {
    if (installed == nullptr) {
        std::fputs("a function of the device was called without a FakeDevice\n", stderr);
        std::abort();
    }
    return *installed;
}

std::string Shown(const char* text) {
    if (text == nullptr) return "null";
    std::string quoted(1, '"');
    return quoted.append(text).append(1, '"');
}
std::string Shown(int number) { return std::to_string(number); }

// All bits set, which stands for "none", reads as -1.
std::string Shown(unsigned long number) { return std::to_string(static_cast<long>(number)); }

// What an output text holds before the call.
std::string ShownBuffer(const char* buffer, std::size_t size = RDX_SVCS_TEXT_SIZE) {
    if (buffer == nullptr) return "null";
    if (std::memchr(buffer, '\0', size) == nullptr) return "unterminated";
    return Shown(buffer);
}

template <typename T>
std::string ShownArray(const T* elements, int count) {
    std::string all = "(";
    for (int i = 0; i < count; ++i) all += (i > 0 ? ", " : "") + Shown(elements[i]);
    return all + ")";
}

template <typename... Rest>
std::string Listed(const std::string& first, const Rest&... rest) {
    return (first + ... + (", " + rest));
}

template <typename T>
void Put(T* output, const std::optional<T>& value) {
    if (value) *output = *value;
}

void Put(char* buffer, const std::optional<std::string>& text, std::size_t size = RDX_SVCS_TEXT_SIZE) {
    if (!text) return;
    if (text->size() > size) std::abort(); // no library may do that
    std::memcpy(buffer, text->data(), text->size());
    if (text->size() == size) return; // to the brim, without a NUL
    buffer[text->size()] = '\0';
    std::fill(buffer + text->size() + 1, buffer + size, '#');
}

} // namespace

namespace rdx::test {

FakeDevice::FakeDevice() {
    if (installed != nullptr) std::abort();
    installed = this;
}

FakeDevice::~FakeDevice() {
    EXPECT_EQ(Lent(), 0) << "attribute arrays were not handed back";
    installed = nullptr;
}

std::vector<std::string> FakeDevice::Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<std::string> FakeDevice::Names() const {
    const std::lock_guard lock(mutex_);
    return names_;
}

void FakeDevice::ForgetCalls() {
    const std::lock_guard lock(mutex_);
    names_.clear();
    calls_.clear();
}

int FakeDevice::Lent() const {
    const std::lock_guard lock(mutex_);
    return static_cast<int>(loans_.size());
}

int FakeDevice::Take(const std::string& function, const std::string& arguments) {
    const std::lock_guard lock(mutex_);
    names_.push_back(function);
    calls_.push_back(function + "(" + arguments + ")");
    const auto result = results.find(function);
    return result != results.end() ? result->second : 0;
}

FakeDevice::Loan& FakeDevice::Lend() {
    const auto pointer = [](Loan& loan, const std::optional<std::string>& text) {
        return text ? loan.texts.emplace_back(*text).data() : nullptr;
    };
    const std::lock_guard lock(mutex_);
    Loan& loan = loans_.emplace_back();
    for (const FakeAttribute& attribute : outputs.attributes) {
        loan.names.push_back(pointer(loan, attribute.name));
        loan.values.push_back(pointer(loan, attribute.value));
        loan.persistence.push_back(attribute.persistent);
    }
    loan.count = outputs.attributeCount.value_or(static_cast<int>(outputs.attributes.size()));
    loan.null = outputs.nullArrays;
    return loan;
}

bool FakeDevice::TakeBack(char** names, char** values, const int* persistence, int count) {
    const std::lock_guard lock(mutex_);
    const auto loan = std::find_if(loans_.begin(), loans_.end(), [=](Loan& candidate) {
        if (candidate.count != count) return false;
        if (candidate.null) return names == nullptr && values == nullptr && persistence == nullptr;
        return candidate.names.data() == names && candidate.values.data() == values &&
               candidate.persistence.data() == persistence;
    });
    if (loan == loans_.end()) return false;
    loans_.erase(loan);
    return true;
}

} // namespace rdx::test

int rDxAllocateDevice(const char* client, const char* owner, const char* clientIpAddress,
                      const char* clientTcpPorts, char* output1, char* output2, int flag) {
    const int result =
        Device().Take("rDxAllocateDevice",
                      Listed(Shown(client), Shown(owner), Shown(clientIpAddress), Shown(clientTcpPorts),
                             ShownBuffer(output1), ShownBuffer(output2), Shown(flag)));
    Put(output1, Device().outputs.allocated[0]);
    Put(output2, Device().outputs.allocated[1]);
    return result;
}

int rDxReleaseDevice(const char* client, const char* owner, char* releasedBy, int flag) {
    const int result = Device().Take(
        "rDxReleaseDevice", Listed(Shown(client), Shown(owner), ShownBuffer(releasedBy), Shown(flag)));
    Put(releasedBy, Device().outputs.releasedBy);
    return result;
}

int rDxGetOwner(char* owner, char* allocatedBy) {
    const int result = Device().Take("rDxGetOwner", Listed(ShownBuffer(owner), ShownBuffer(allocatedBy)));
    Put(owner, Device().outputs.owner);
    Put(allocatedBy, Device().outputs.allocatedBy);
    return result;
}

int rDxGetDeviceType(char* name, int size) {
    const int result = Device().Take("rDxGetDeviceType", Listed(ShownBuffer(name), Shown(size)));
    Put(name, Device().outputs.deviceType);
    return result;
}

int rDxGetAllocStatus(unsigned long* controlled, char* allocation, char* owner, char* controllingClient,
                      void* reserved) {
    const int result =
        Device().Take("rDxGetAllocStatus",
                      Listed(Shown(*controlled), ShownBuffer(allocation), ShownBuffer(owner),
                             ShownBuffer(controllingClient), std::string(reserved ? "not null" : "null")));
    Put(controlled, Device().outputs.controlled);
    Put(allocation, Device().outputs.allocation);
    Put(owner, Device().outputs.statusOwner);
    Put(controllingClient, Device().outputs.controlledBy);
    return result;
}

int rDxGetFirmwareRev(unsigned long* revision) {
    const int result = Device().Take("rDxGetFirmwareRev", Shown(*revision));
    Put(revision, Device().outputs.firmwareRev);
    return result;
}

int rDxGetActiveIpConf(char* ipAddress, char* netmask, char* gateway, int size) {
    const auto bytes = static_cast<std::size_t>(size);
    const int result =
        Device().Take("rDxGetActiveIpConf", Listed(ShownBuffer(ipAddress, bytes), ShownBuffer(netmask, bytes),
                                                   ShownBuffer(gateway, bytes), Shown(size)));
    Put(ipAddress, Device().outputs.ipAddress, bytes);
    Put(netmask, Device().outputs.netmask, bytes);
    Put(gateway, Device().outputs.gateway, bytes);
    return result;
}

int rDxGetNetInterface(char* name, int size) {
    const int result = Device().Take("rDxGetNetInterface", Listed(ShownBuffer(name), Shown(size)));
    Put(name, Device().outputs.netInterface);
    return result;
}

int rDxGetIpConfiguration(RDXConf* configuration) {
    const int result =
        Device().Take("rDxGetIpConfiguration", Shown(static_cast<unsigned long>(configuration->uiLength)));
    Put(&configuration->iMode, Device().outputs.addressMode);
    return result;
}

int rDxSetIpConfiguration(const char* owner, const char* ipAddress, const char* netmask, const char* gateway,
                          int mode, const char* hostname, unsigned long* rebootRequired) {
    const int result = Device().Take("rDxSetIpConfiguration",
                                     Listed(Shown(owner), Shown(ipAddress), Shown(netmask), Shown(gateway),
                                            Shown(mode), Shown(hostname), Shown(*rebootRequired)));
    Put(rebootRequired, Device().outputs.reboot);
    return result;
}

int rDxGetVehicleStatus(const char* owner, Measures* measures, unsigned long* mostState) {
    const int result = Device().Take("rDxGetVehicleStatus", Shown(owner));
    Put(measures, Device().outputs.measures);
    Put(mostState, Device().outputs.most);
    return result;
}

int rDxGetTransmissionQuality(unsigned long* quality) {
    const int result = Device().Take("rDxGetTransmissionQuality", Shown(*quality));
    Put(quality, Device().outputs.quality);
    return result;
}

int rDxRunDeviceSelfTest(const char* owner, int mode, int await) {
    return Device().Take("rDxRunDeviceSelfTest", Listed(Shown(owner), Shown(mode), Shown(await)));
}

int rDxGetCurrentSelftestStatus(unsigned long* code, unsigned long* reason) {
    const int result = Device().Take("rDxGetCurrentSelftestStatus", Listed(Shown(*code), Shown(*reason)));
    Put(code, Device().outputs.testCode);
    Put(reason, Device().outputs.testReason);
    return result;
}

int rDxInitiateCfgRequest(const char* owner, unsigned long mode) {
    return Device().Take("rDxInitiateCfgRequest", Listed(Shown(owner), Shown(mode)));
}

int rDxSetDeviceAttributes(const char* owner, char** names, char** values, int* persistence, int count,
                           int enforceRegistration) {
    return Device().Take("rDxSetDeviceAttributes",
                         Listed(Shown(owner), ShownArray(names, count), ShownArray(values, count),
                                ShownArray(persistence, count), Shown(count), Shown(enforceRegistration)));
}

int rdxGetDeviceAttributes(char*** names, char*** values, int** persistence, int* count) {
    const int result = Device().Take("rdxGetDeviceAttributes", "");
    if (result != 0) return *count = 7, result; // that must not be believed
    FakeDevice::Loan& loan = Device().Lend();
    *names = loan.null ? nullptr : loan.names.data();
    *values = loan.null ? nullptr : loan.values.data();
    *persistence = loan.null ? nullptr : loan.persistence.data();
    *count = loan.count;
    return result;
}

int rdxFreeDeviceAttributes(char** names, char** values, int* persistence, int count) {
    const int result = Device().Take("rdxFreeDeviceAttributes", Shown(count));
    EXPECT_TRUE(Device().TakeBack(names, values, persistence, count)) << "not what was given out";
    return result;
}

int rDxUpdateDeviceFirmware(const char* owner, const char* downloadUrl, unsigned long revision, int isSigned,
                            const char* methodOfTrust, const char* caCertificate) {
    return Device().Take("rDxUpdateDeviceFirmware",
                         Listed(Shown(owner), Shown(downloadUrl), Shown(revision), Shown(isSigned),
                                Shown(methodOfTrust), Shown(caCertificate)));
}
