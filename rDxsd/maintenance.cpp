// Changing the device and starting work on it.
#include "common/memory.h"
#include "common/text.h"
#include "rDxsd/codes.h"
#include "rDxsd/method.h"
#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"

#include <algorithm>
#include <utility>

namespace {

using namespace rdx;

constexpr Outcome kSetIpOutcomes[] = {
    {1, 42201, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42201, 9041, Detail::kReason},
    {kAnyOther, 42201, 9040, Detail::kReason},
};

constexpr Outcome kSetAttributesOutcomes[] = {
    {1, 42301, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42301, 9002, Detail::kReason},
    {-1, 42301, 9052, Detail::kReason}, // a failure of its own only here
    {kAnyOther, 42301, 9051, Detail::kReason},
};

// Not a result of the device's: a detailed test takes too long to be awaited, and is not even started.
constexpr int kDetailedTestAwaited = 9064;

// The device's result for a test that was awaited in vain. Also what the method says when it awaited a test
// and could not ask what came of it.
constexpr Outcome kAwaitedInVain = {5, 42501, 9065, Detail::kReason};

constexpr Outcome kSelfTestOutcomes[] = {
    {1, 42502, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42502, 9062, Detail::kReason},
    kAwaitedInVain,
    {kDetailedTestAwaited, 42501, 9064, Detail::kReason},
    {kAnyOther, 42501, 9063, Detail::kReason},
};

constexpr Outcome kUpdateOutcomes[] = {
    {1, 42030, 9011, Detail::kReason},
    {2, 42020, 9012, Detail::kOwner}, // owned by another
    {3, 42030, 9034, Detail::kReason},
    {10, 42401, 9031, Detail::kReason},
    {11, 42404, 9032, Detail::kReason},
    {12, 42403, 9033, Detail::kReason},
    {14, 42403, 9035, Detail::kReason},
    {kAnyOther, 42403, 13, Detail::kReason}, // kept: a reason that no other failure has
};

// The device library's number for a way of address assignment; ways it does not know are its default's.
int AddressMode(int dhcpMode) {
    struct Mode {
        int dhcpMode;
        int number;
    };
    constexpr Mode kModes[] = {{41202, 2}, {41203, 1}, {41204, 3}, {41290, 4}};
    constexpr int kDefault = 4;
    const auto* const mode = std::ranges::find(kModes, dhcpMode, &Mode::dhcpMode);
    return mode != std::end(kModes) ? mode->number : kDefault;
}

// The attributes of a call as the device library takes them. The texts stay the arguments'.
class AttributeLists {
public:
    // 0, or the handler's code when an element is no attribute or memory is short.
    int Read(WddxValue* array) {
        const auto size = static_cast<std::size_t>(std::max(wddxGetArraySize(array), 0));
        names_.reset(static_cast<char**>(std::calloc(size + 1, sizeof(char*))));
        values_.reset(static_cast<char**>(std::calloc(size + 1, sizeof(char*))));
        persistence_.reset(static_cast<int*>(std::calloc(size + 1, sizeof(int))));
        if (!names_ || !values_ || !persistence_) return kNotAssigned;
        while (count_ < static_cast<int>(size)) {
            if (!ReadElement(wddxGetArrayElem(array, count_))) return kBadCall;
            ++count_;
        }
        return 0;
    }

    int Set(const char* owner) {
        return rDxSetDeviceAttributes(owner, names_.get(), values_.get(), persistence_.get(), count_,
                                      enforce_);
    }

private:
    bool ReadElement(WddxValue* element) {
        int enforce = 0;
        if (wddxGetType(element) != WDDX_STRUCT ||
            GetDataIntParam(element, "IsPersistent", &persistence_.get()[count_]) != 0 ||
            GetDataIntParam(element, "EnforceReg", &enforce) != 0) {
            return false;
        }
        enforce_ |= enforce;
        return ReadText(element, "AttributeName", names_.get()[count_]) &&
               ReadText(element, "AttributeValue", values_.get()[count_]);
    }

    // Either text may be absent, which the device sees as a null pointer.
    static bool ReadText(WddxValue* element, const char* name, char*& text) {
        text = GetDataStringParam(element, name);
        return text != nullptr || IsAbsent(element, name);
    }

    Owned<char*> names_;
    Owned<char*> values_;
    Owned<int> persistence_;
    int count_ = 0;
    int enforce_ = 0;
};

enum TestMode { kShortTest = 0, kDetailedTest = 1 };

std::optional<TestMode> ReadTestMode(const char* text) {
    if (text == nullptr) return std::nullopt;
    if (*text == '\0' || EqualsIgnoringCase(text, "SelftestShort")) return kShortTest;
    if (EqualsIgnoringCase(text, "SelftestDetailed")) return kDetailedTest;
    return std::nullopt;
}

// "SelftestStatus" with "params" of its own, which give a reason only when the state could not be asked for.
OwnedValue MakeSelfTestStatus(const SelfTestState& state) {
    const Outcome outcome = {0, state.code, state.reason, state.known ? Detail::kNone : Detail::kReason};
    return MakeStatus(state.code, state.reason, MakeParams(outcome, ""));
}

} // namespace

int ProcessSetIpConfiguration(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner", kOwnerMax);
    const char* const address = arguments.Text("IpAddress", kAddressMax);
    const char* const netmask = arguments.Text("Netmask", kAddressMax);
    const char* const gateway = arguments.Text("DefaultGateway", kAddressMax);
    const char* const host = arguments.OptionalText("Hostname");
    const std::optional<int> mode = arguments.IntegerOrFlag("DhcpMode");
    if (owner == nullptr || address == nullptr || netmask == nullptr || gateway == nullptr ||
        host == nullptr || !mode) {
        return kBadCall;
    }
    unsigned long rebootRequired = 0;
    const int done =
        rDxSetIpConfiguration(owner, address, netmask, gateway, AddressMode(*mode), host, &rebootRequired);
    Answer answer(FindOutcome(kSetIpOutcomes, done));
    answer.Add("RebootRequired", MakeFlag(rebootRequired != 0));
    return answer.Assign(result, "rDxSetIpConfiguration");
}

int ProcessSetDeviceAttributes(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner");
    WddxValue* const array = arguments.Array("SlpAttributes");
    AttributeLists attributes;
    if (owner == nullptr || array == nullptr) return kBadCall;
    if (const int failure = attributes.Read(array); failure != 0) return failure;
    const int done = attributes.Set(owner);
    return Answer(FindOutcome(kSetAttributesOutcomes, done)).Assign(result, "rdxSetDeviceAttributes");
}

int ProcessRunDeviceSelfTest(TavrinRequest* call, TavrinResponse* result) {
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner");
    const std::optional<TestMode> mode = ReadTestMode(arguments.Text("TestMode"));
    const std::optional<int> await = arguments.IntegerOrFlag("AwaitResults");
    if (owner == nullptr || !mode || !await) return kBadCall;

    const bool detailed = *mode == kDetailedTest;
    const bool awaited = !detailed && *await != 0;
    const int done = detailed && *await != 0 ? kDetailedTestAwaited
                                             : rDxRunDeviceSelfTest(owner, *mode, awaited ? *await : 0);
    const Outcome& started = FindOutcome(kSelfTestOutcomes, done);
    OwnedValue params = MakeParams(started, "");
    const SelfTestState state = AskSelfTestState();
    const Outcome& own = awaited && !state.known ? kAwaitedInVain : started;
    // Kept: a test that was awaited in vain changes what the status says, and not its detail, which goes on
    // telling of the start.
    Answer answer(own.code, own.reason, std::move(params));
    answer.Add("SelftestStatus", MakeSelfTestStatus(state));
    return answer.Assign(result, "rdxRunDeviceSelftest");
}

int ProcessUpdateDeviceFirmware(TavrinRequest* call, TavrinResponse* result) {
    // Kept: the client's revision must be there, and the device always gets this one.
    constexpr auto kRevision = static_cast<unsigned long>(-1);
    const Arguments arguments(*call);
    const char* const owner = arguments.Text("DeviceOwner");
    const char* const url = arguments.Text("DownloadUrl");
    const int revision = arguments.Integer("FirmwareRev").value_or(0);
    const std::optional<int> isSigned = arguments.OptionalInteger("IsSigned");
    const char* const trust = arguments.OptionalText("MethodOfTrust");
    const char* const certificate = arguments.OptionalText("CaCert");
    if (owner == nullptr || url == nullptr || revision == 0 || !isSigned || trust == nullptr ||
        certificate == nullptr) {
        return kBadCall;
    }
    const int done = rDxUpdateDeviceFirmware(owner, url, kRevision, *isSigned, trust, certificate);
    return Answer(FindOutcome(kUpdateOutcomes, done)).Assign(result, "rdxUpdateDeviceFirmware");
}
