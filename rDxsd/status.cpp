#include "common/memory.h"
#include "rDxsd/codes.h"
#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"
#include "rDxsd/values.h"

#include <cstdio>

unsigned int server_start_time = 0;

namespace {

using namespace rdx;

constexpr std::size_t kVersionResultSize = 4477;
constexpr int kProtocolVersion = 100;

// Blanks, tabs and the lower-case "status" are part of the protocol: clients rely on this very text.
constexpr char kVersionResult[] =
    "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
    "<header><comment>rDxGetVersion</comment></header><data>"
    "    <struct>"
    "        <var name='status'>\t\t\t<struct>\t\t\t\t<var name='code'><number>%d</number></var>"
    "\t\t\t</struct></var>"
    "        <var name='version'><number>%d</number></var>"
    "    </struct></data></wddxPacket>";
static_assert(sizeof kVersionResult < kVersionResultSize);

} // namespace

int ProcessGetVersion(TavrinRequest* call, TavrinResponse* result) {
    std::printf("\nProcessGetVersion");
    WddxValue* arguments = nullptr;
    const int parsed = ParseWddxPacketData(call->pszWddxArgs, &arguments);
    const OwnedValue argumentsOwner(arguments);
    int version = 0; // asked for, but every version is answered alike
    if (parsed != 0 || GetDataIntParam(arguments, "version", &version) != 0) return kBadCall;

    OwnedText text = AllocateBytes(kVersionResultSize);
    if (!text) return kNotAssigned;
    std::snprintf(text.get(), kVersionResultSize, kVersionResult, 0, kProtocolVersion);
    FreeTnResponse(result);
    result->pszWddxResult = text.release();
    result->iStatus = kStatusResult;
    result->ucFlag = 0;
    return 0;
}

int ProcessGetDeviceStatus(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
int ProcessGetVehicleStatus(TavrinRequest* call, TavrinResponse* result) {
    return ProcessUnknown(call, result);
}
