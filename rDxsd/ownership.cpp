// Who the device belongs to.
#include "rDxsd/codes.h"
#include "rDxsd/method.h"
#include "rDxsd/rDxsd.h"

#include <cstdio>

namespace {

using namespace rdx;

constexpr Outcome kAllocateOutcomes[] = {
    {1, 42030, 9001, Detail::kOwner}, // already allocated
    {3, 42101, 9002, Detail::kReason},
    {kAnyOther, 42101, 9000, Detail::kReason},
};

constexpr Outcome kReleaseOutcomes[] = {
    {1, 42102, 9011, Detail::kReleasedBy},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42102, 9013, Detail::kReason},
    {kAnyOther, 42102, 9014, Detail::kReason},
};

constexpr Outcome kInitiateOutcomes[] = {
    {1, 42601, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42601, 9034, Detail::kReason},
    {kAnyOther, 42601, 9080, Detail::kReason},
};

// Always passed when the device is allocated or released.
constexpr int kOwnershipFlag = 1;

// The configuration mode that "CfgMode" asks for.
unsigned long ConfigurationMode(int cfgMode) {
    if (cfgMode == 41603) return 1;
    return cfgMode == 41602 ? 2 : 0;
}

} // namespace

int ProcessAllocateDevice(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner", kOwnerMax);
    const char* const address = arguments.Text("IfhClientIpAddr", kAddressMax);
    const char* const ports = arguments.Text("IfhClientTcpPorts");
    if (owner == nullptr || address == nullptr || ports == nullptr) return kBadCall;
    DeviceText unused[2];
    const int done = rDxAllocateDevice(call->pHttpRequest->szPeerName, owner, address, ports, unused[0].text,
                                       unused[1].text, kOwnershipFlag);
    std::printf("ProcessAllocateDevice: rDxAllocateDevice=%d \n", done);
    return Answer(FindOutcome(kAllocateOutcomes, done)).Assign(result, "rDxAllocateDevice");
}

int ProcessReleaseDevice(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner");
    if (owner == nullptr) return kBadCall;
    DeviceText releasedBy;
    const int done = rDxReleaseDevice(call->pHttpRequest->szPeerName, owner, releasedBy.text, kOwnershipFlag);
    return Answer(FindOutcome(kReleaseOutcomes, done), releasedBy.text).Assign(result, "rdxReleaseDevice");
}

int ProcessInitiateCfgRequest(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner");
    const std::optional<int> mode = arguments.IntegerOrFlag("CfgMode");
    if (owner == nullptr || !mode) return kBadCall;
    const int done = rDxInitiateCfgRequest(owner, ConfigurationMode(*mode));
    return Answer(FindOutcome(kInitiateOutcomes, done)).Assign(result, nullptr);
}
