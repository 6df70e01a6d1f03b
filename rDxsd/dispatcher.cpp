#include "common/text.h"
#include "rDxsd/auth.h"
#include "rDxsd/codes.h"
#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"
#include "rDxsd/values.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

int g_nRefCount = 0;

const char* const rdxCommands[RDX_COMMAND_COUNT] = {
    "rdxGetVersion",           "rdxGetDeviceStatus",    "rdxAllocateDevice",
    "rdxReleaseDevice",        "rdxSetIpConfiguration", "rdxSetDeviceAttributes",
    "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest",  "rdxInitiateCfgRequest"};

namespace {

using namespace rdx;

enum class Access { kPublic, kAuthenticated };

struct Method {
    std::string_view name;
    int (*handler)(TavrinRequest*, TavrinResponse*);
    Access access;
};

constexpr std::array kMethods{
    Method{"rdxGetVersion", ProcessGetVersion, Access::kPublic},
    Method{"rdxGetDeviceStatus", ProcessGetDeviceStatus, Access::kPublic},
    Method{"rdxAllocateDevice", ProcessAllocateDevice, Access::kAuthenticated},
    Method{"rdxReleaseDevice", ProcessReleaseDevice, Access::kAuthenticated},
    Method{"rdxSetIpConfiguration", ProcessSetIpConfiguration, Access::kAuthenticated},
    Method{"rdxSetDeviceAttributes", ProcessSetDeviceAttributes, Access::kAuthenticated},
    Method{"rdxUpdateDeviceFirmware", ProcessUpdateDeviceFirmware, Access::kAuthenticated},
    Method{"rdxRunDeviceSelfTest", ProcessRunDeviceSelfTest, Access::kAuthenticated},
    Method{"rdxInitiateCfgRequest", ProcessInitiateCfgRequest, Access::kAuthenticated},
    Method{"rdxGetVehicleStatus", ProcessGetVehicleStatus, Access::kAuthenticated},
};
static_assert(kMethods.size() == RDX_COMMAND_COUNT + 1);

// What an unknown name is answered with; a caller without credentials does not learn that it is unknown.
constexpr Method kUnknownMethod{"", ProcessUnknown, Access::kAuthenticated};

const Method& FindMethod(std::string_view name) {
    const auto* const method = std::find_if(kMethods.begin(), kMethods.end(), [name](const Method& known) {
        return EqualsIgnoringCase(known.name, name);
    });
    return method != kMethods.end() ? *method : kUnknownMethod;
}

// The records of one call; what they own is freed with them.
struct Call {
    TavrinRequest request{};
    TavrinResponse response{};

    explicit Call(HttpRequest* http) {
        const int number = __atomic_add_fetch(&g_nRefCount, 1, __ATOMIC_RELAXED);
        request.iCallNumber = number;
        request.pHttpRequest = http;
        response.iCallNumber = number;
    }
    ~Call() {
        FreeTnResponse(&response);
        FreeTnRequest(&request);
    }
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
};

HandlerCode DeliverText(const TavrinResponse& result, char* out, unsigned long* outLen,
                        unsigned char* outFlag) {
    if (result.pszWddxResult == nullptr) return kNoResult;
    const std::string_view text(result.pszWddxResult);
    if (text.size() >= *outLen) return kBodyTooLong;
    std::fill(std::copy(text.begin(), text.end(), out), out + *outLen, '\0');
    *outLen = text.size();
    *outFlag = result.ucFlag;
    return kAnswered;
}

HandlerCode DeliverUnauthorized(char* out, unsigned long* outLen) {
    constexpr char kBody[] = "<HTML><BODY>Unauthorized</BODY></HTML>";
    if (sizeof kBody > *outLen) return kBodyTooLong;
    std::memcpy(out, kBody, sizeof kBody);
    *outLen = sizeof kBody; // kept: this body counts its NUL
    return kAnswered;
}

HandlerCode DeliverResult(const TavrinResponse& result, char* out, unsigned long* outLen,
                          unsigned char* outFlag) {
    switch (result.iStatus) {
    case kStatusResult:
        return DeliverText(result, out, outLen, outFlag);
    case kStatusBadCall:
        return kBadCall;
    case kStatusUnauthorized:
        return DeliverUnauthorized(out, outLen);
    case kStatusBeforeDispatch:
        return kNoResult;
    default:
        return kUnknownStatus;
    }
}

} // namespace

int rDxHandler(HttpRequest* req, char* out, unsigned long* outLen, unsigned char* outFlag) {
    constexpr int kNoArguments = -1;
    Call call(req);
    const int taken = req->ucMultipart != 0 ? GetMultipartCallData(req, &call.request)
                                            : GetStandardCallData(req, &call.request);
    if (taken != 0) return taken;
    call.response.iStatus = kStatusBeforeDispatch;
    const int code = rDxProcessCall(req, &call.request, &call.response);
    if (code == kNoArguments) return kBadCall;
    return code != 0 ? code : DeliverResult(call.response, out, outLen, outFlag);
}

int rDxProcessCall(HttpRequest* req, TavrinRequest* call, TavrinResponse* result) {
    std::printf("\nrDxProcessCall: Req=%s\n", call->szFunctionName);
    const Method& method = FindMethod(call->szFunctionName);
    if (method.access == Access::kAuthenticated && rDxCheckAuth(req) != 0) {
        CheckAuth(req->iSocket, req); // kept, its result too: it decides nothing here
        result->iStatus = kStatusResult;
        result->ucFlag = 0;
        return kNotAuthorised;
    }
    return method.handler(call, result);
}

int ProcessUnknown(TavrinRequest* call, TavrinResponse* result) {
    constexpr int kCodeUnknownMethod = 42010;
    constexpr int kReasonUnknownMethod = 9003;
    WddxValue* arguments = nullptr;
    const int parsed = ParseWddxPacketData(call->pszWddxArgs, &arguments);
    const OwnedValue argumentsOwner(arguments);
    if (parsed != 0) return parsed;
    const OwnedValue packet(CreateWddxStatusPacket(kCodeUnknownMethod, kReasonUnknownMethod, nullptr));
    return AssignWddxResult(result, packet.get(), nullptr) == 0 ? 0 : kNotAssigned;
}
