#include "common/shared.h"
#include "http/pages.h"
#include "rDxsd/auth.h"
#include "rDxsd/method_rows.h"
#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"
#include "rDxsd/values.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

int g_nRefCount = 0;

const char* const rdxCommands[RDX_COMMAND_COUNT] = {
    "rdxGetVersion",           "rdxGetDeviceStatus",    "rdxAllocateDevice",
    "rdxReleaseDevice",        "rdxSetIpConfiguration", "rdxSetDeviceAttributes",
    "rdxUpdateDeviceFirmware", "rdxRunDeviceSelfTest",  "rdxInitiateCfgRequest"};

namespace {

using namespace rdx;

// The records of one call; what they own is freed with them.
struct Call {
    TavrinRequest request{};
    TavrinResponse response{};

    explicit Call(HttpRequest* http) {
        const int number = AddShared(g_nRefCount, 1);
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

int DeliverText(const TavrinResponse& result, char* out, unsigned long* outLen, unsigned char* outFlag) {
    if (result.pszWddxResult == nullptr) return RDX_NO_RESULT;
    const std::string_view text(result.pszWddxResult);
    if (text.size() >= *outLen) return RDX_BODY_TOO_LONG;
    std::fill(std::copy(text.begin(), text.end(), out), out + *outLen, '\0');
    *outLen = text.size();
    *outFlag = result.ucFlag;
    return RDX_ANSWERED;
}

int DeliverUnauthorized(char* out, unsigned long* outLen) {
    // The one body that counts its NUL: clients receive that byte.
    if (sizeof kUnauthorizedPage > *outLen) return RDX_BODY_TOO_LONG;
    *outLen = sizeof kUnauthorizedPage;
    std::ranges::copy(kUnauthorizedPage, out);
    return RDX_ANSWERED;
}

int DeliverResult(const TavrinResponse& result, char* out, unsigned long* outLen, unsigned char* outFlag) {
    switch (result.iStatus) {
    case PDATA_STATUS_RESULT:
        return DeliverText(result, out, outLen, outFlag);
    case PDATA_STATUS_BAD_CALL:
        return RDX_BAD_CALL;
    case PDATA_STATUS_UNAUTHORIZED:
        return DeliverUnauthorized(out, outLen);
    case PDATA_STATUS_BEFORE_DISPATCH:
        return RDX_NO_RESULT;
    default:
        return RDX_UNKNOWN_STATUS;
    }
}

} // namespace

int rDxHandler(HttpRequest* req, char* out, unsigned long* outLen, unsigned char* outFlag) {
    Call call(req);
    const int taken = req->ucMultipart != 0 ? GetMultipartCallData(req, &call.request)
                                            : GetStandardCallData(req, &call.request);
    if (taken != PDATA_CALL_TAKEN) return taken;
    call.response.iStatus = PDATA_STATUS_BEFORE_DISPATCH;
    const int code = rDxProcessCall(req, &call.request, &call.response);
    if (code == WDDX_ARGS_NO_TEXT) return RDX_BAD_CALL;
    return code != RDX_ANSWERED ? code : DeliverResult(call.response, out, outLen, outFlag);
}

int rDxProcessCall(HttpRequest* req, TavrinRequest* call, TavrinResponse* result) {
    std::printf("\nrDxProcessCall: Req=%s\n", call->szFunctionName);
    const MethodRow& method = FindMethod(call->szFunctionName);
    if (method.access == Access::kAuthenticated && rDxCheckAuth(req) != AUTH_GRANTED) {
        // It decides nothing here; but a host that has a CheckAuth of its own learns of every refusal by it.
        CheckAuth(req->iSocket, req);
        result->iStatus = PDATA_STATUS_RESULT;
        result->ucFlag = 0;
        return RDX_NOT_AUTHORISED;
    }
    return method.handler(call, result);
}

int ProcessUnknown(TavrinRequest* call, TavrinResponse* result) {
    WddxValue* arguments = nullptr;
    const int parsed = ParseWddxPacketData(call->pszWddxArgs, &arguments);
    const OwnedValue argumentsOwner(arguments);
    if (parsed != WDDX_ARGS_PARSED) return parsed;
    const OwnedValue packet(CreateWddxStatusPacket(kCodeUnknownMethod, kReasonUnknownMethod, nullptr));
    const int assigned = AssignWddxResult(result, packet.get(), nullptr);
    return assigned == PDATA_ASSIGNED ? RDX_ANSWERED : RDX_NOT_ASSIGNED;
}
