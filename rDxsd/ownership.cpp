// Who the device belongs to.
#include "rDxsd/method.h"
#include "rDxsd/rDxsd.h"

#include <cstdio>

namespace {

using namespace rdx;

// Always passed when the device is allocated or released.
constexpr int kOwnershipFlag = 1;

// The configuration mode that "CfgMode" asks for.
unsigned long ConfigurationMode(int cfgMode) {
    if (cfgMode == 41603) return 1;
    return cfgMode == 41602 ? 2 : 0;
}

} // namespace

int ProcessAllocateDevice(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessAllocateDevice);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    DeviceText unused[2];
    const int done = rDxAllocateDevice(call->pHttpRequest->szPeerName, arguments.Text("DeviceOwner"),
                                       arguments.Text("IfhClientIpAddr"), arguments.Text("IfhClientTcpPorts"),
                                       unused[0].text, unused[1].text, kOwnershipFlag);
    std::printf("ProcessAllocateDevice: rDxAllocateDevice=%d \n", done);
    return StatusPacket(method, done).Assign(result);
}

int ProcessReleaseDevice(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessReleaseDevice);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    DeviceText releasedBy;
    const int done = rDxReleaseDevice(call->pHttpRequest->szPeerName, arguments.Text("DeviceOwner"),
                                      releasedBy.text, kOwnershipFlag);
    return StatusPacket(method, done, releasedBy.text).Assign(result);
}

int ProcessInitiateCfgRequest(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessInitiateCfgRequest);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    const int done =
        rDxInitiateCfgRequest(arguments.Text("DeviceOwner"), ConfigurationMode(arguments.Number("CfgMode")));
    return StatusPacket(method, done).Assign(result);
}
