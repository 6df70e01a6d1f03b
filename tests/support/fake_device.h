// The device library as unit tests see it: a script in its place, which records every call.
#ifndef RDX_TESTS_SUPPORT_FAKE_DEVICE_H
#define RDX_TESTS_SUPPORT_FAKE_DEVICE_H

#include "rDxsd/rDxSvcs.h"

#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace rdx::test {

// One attribute of the device; what is not there is a null pointer.
struct FakeAttribute {
    std::optional<std::string> name;
    std::optional<std::string> value;
    int persistent;
};

// What the functions put out, whatever they return. What is not set is left alone. Text buffers are filled
// up behind their text, so that a buffer too small shows under a sanitizer.
struct FakeOutputs {
    std::optional<std::string> allocated[2];  // rDxAllocateDevice
    std::optional<std::string> releasedBy;    // rDxReleaseDevice
    std::optional<std::string> owner;         // rDxGetOwner
    std::optional<std::string> allocatedBy;   //
    std::optional<std::string> deviceType;    // rDxGetDeviceType
    std::optional<unsigned long> controlled;  // rDxGetAllocStatus
    std::optional<std::string> allocation;    //
    std::optional<std::string> statusOwner;   //
    std::optional<std::string> controlledBy;  //
    std::optional<unsigned long> firmwareRev; // rDxGetFirmwareRev
    std::optional<std::string> ipAddress;     // rDxGetActiveIpConf
    std::optional<std::string> netmask;       //
    std::optional<std::string> gateway;       //
    std::optional<std::string> netInterface;  // rDxGetNetInterface
    std::optional<int> addressMode;           // rDxGetIpConfiguration
    std::optional<unsigned long> reboot;      // rDxSetIpConfiguration
    std::optional<Measures> measures;         // rDxGetVehicleStatus
    std::optional<unsigned long> most;        //
    std::optional<unsigned long> quality;     // rDxGetTransmissionQuality
    std::optional<unsigned long> testCode;    // rDxGetCurrentSelftestStatus
    std::optional<unsigned long> testReason;  //
    std::vector<FakeAttribute> attributes;    // rdxGetDeviceAttributes
    std::optional<int> attributeCount;        // instead of the number of `attributes`
    bool nullArrays = false;                  // null pointers instead of `attributes`
};

// Receives every call of the nineteen functions while it lives; one at a time. Results and outputs are set
// while no other thread calls. Arrays that were not handed back when it ends fail the test.
class FakeDevice {
public:
    FakeDevice();
    ~FakeDevice();
    FakeDevice(const FakeDevice&) = delete;
    FakeDevice& operator=(const FakeDevice&) = delete;

    // What each function returns; 0 for those not named.
    std::map<std::string, int> results;
    FakeOutputs outputs;

    // The calls so far, each as the function's name and its arguments in parentheses: texts in quotes, as
    // they are; null for a null pointer; of an output what it held before, which for a text the function's
    // contract promises to be a terminated one; "(...)" for arrays, element by element.
    std::vector<std::string> Calls() const;

    // The names of the functions called so far.
    std::vector<std::string> Names() const;

    void ForgetCalls();

    // How many sets of attribute arrays were given out and not handed back yet.
    int Lent() const;

    // For the functions themselves.
    struct Loan {
        std::list<std::string> texts;
        std::vector<char*> names;
        std::vector<char*> values;
        std::vector<int> persistence;
        int count;
        bool null;
    };
    int Take(const std::string& function, const std::string& arguments);
    Loan& Lend();
    bool TakeBack(char** names, char** values, const int* persistence, int count);

private:
    mutable std::mutex mutex_;
    std::vector<std::string> names_;
    std::vector<std::string> calls_;
    std::list<Loan> loans_;
};

} // namespace rdx::test

#endif
