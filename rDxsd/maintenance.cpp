// Changing the device and starting work on it.
#include "common/memory.h"
#include "common/text.h"
#include "rDxsd/method.h"
#include "rDxsd/rDxsd.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace {

using namespace rdx;

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

// The attributes of a call as the device library takes them. The texts stay the arguments'; either may be
// absent, which the device sees as a null pointer.
class AttributeLists {
public:
    // False when memory is short.
    bool Read(const MethodRow& method, WddxValue* array) {
        const auto size = static_cast<std::size_t>(std::max(wddxGetArraySize(array), 0));
        names_ = AllocateZeroedArray<char*>(size + 1);
        values_ = AllocateZeroedArray<char*>(size + 1);
        persistence_ = AllocateZeroedArray<int>(size + 1);
        if (!names_ || !values_ || !persistence_) return false;
        for (; count_ < static_cast<int>(size); ++count_) {
            const Values element(wddxGetArrayElem(array, count_), method.arguments, "SlpAttributes");
            names_.get()[count_] = element.Text("AttributeName");
            values_.get()[count_] = element.Text("AttributeValue");
            persistence_.get()[count_] = element.Number("IsPersistent");
            enforce_ |= element.Number("EnforceReg");
        }
        return true;
    }

    int Set(const char* owner) {
        return rDxSetDeviceAttributes(owner, names_.get(), values_.get(), persistence_.get(), count_,
                                      enforce_);
    }

private:
    Owned<char*> names_;
    Owned<char*> values_;
    Owned<int> persistence_;
    int count_ = 0;
    int enforce_ = 0;
};

enum TestMode { kShortTest = 0, kDetailedTest = 1 };

std::optional<TestMode> ReadTestMode(const char* text) {
    if (*text == '\0' || EqualsIgnoringCase(text, "SelftestShort")) return kShortTest;
    if (EqualsIgnoringCase(text, "SelftestDetailed")) return kDetailedTest;
    return std::nullopt;
}

// "SelftestStatus" with "params" of its own, which give a reason only when the state could not be asked for.
OwnedValue MakeSelfTestStatus(const SelfTestState& state) {
    const StatusRow row = {0, state.code, state.reason, state.known ? Detail::kNone : Detail::kReason};
    return MakeStatus(state.code, state.reason, MakeParams(row, ""));
}

} // namespace

int ProcessSetIpConfiguration(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessSetIpConfiguration);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    unsigned long rebootRequired = 0;
    const int done = rDxSetIpConfiguration(arguments.Text("DeviceOwner"), arguments.Text("IpAddress"),
                                           arguments.Text("Netmask"), arguments.Text("DefaultGateway"),
                                           AddressMode(arguments.Number("DhcpMode")),
                                           arguments.OptionalText("Hostname"), &rebootRequired);
    Structure answer = StatusPacket(method, done);
    answer.Add("RebootRequired", MakeFlag(rebootRequired != 0));
    return answer.Assign(result);
}

int ProcessSetDeviceAttributes(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessSetDeviceAttributes);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    AttributeLists attributes;
    if (!attributes.Read(method, arguments.Array("SlpAttributes"))) return RDX_NOT_ASSIGNED;
    return StatusPacket(method, attributes.Set(arguments.Text("DeviceOwner"))).Assign(result);
}

int ProcessRunDeviceSelfTest(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessRunDeviceSelfTest);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    const std::optional<TestMode> mode = ReadTestMode(arguments.Text("TestMode"));
    if (!mode) return RDX_BAD_CALL;

    const int await = arguments.Number("AwaitResults");
    const bool detailed = *mode == kDetailedTest;
    const bool awaited = !detailed && await != 0;
    const int done = detailed && await != 0
                         ? kDetailedTestAwaited
                         : rDxRunDeviceSelfTest(arguments.Text("DeviceOwner"), *mode, awaited ? await : 0);
    const StatusRow& started = StatusOf(method.statuses, done);
    OwnedValue params = MakeParams(started, "");
    const SelfTestState state = AskSelfTestState();
    // A test that was awaited in vain changes what the status says, and not its detail: clients learn from
    // that how the start went.
    const StatusRow& own = awaited && !state.known ? kAwaitedInVain : started;
    Structure answer = StatusPacket(method, own.code, own.reason, std::move(params));
    answer.Add("SelftestStatus", MakeSelfTestStatus(state));
    return answer.Assign(result);
}

int ProcessUpdateDeviceFirmware(TavrinRequest* call, TavrinResponse* result) {
    // The device decides by what it downloads: it always gets this revision, whichever the client has named.
    constexpr auto kRevision = static_cast<unsigned long>(-1);
    const MethodRow& method = RowOf(ProcessUpdateDeviceFirmware);
    const Arguments arguments(*call, method);
    if (!arguments.Fit() || arguments.Number("FirmwareRev") == 0) return RDX_BAD_CALL;
    const int done = rDxUpdateDeviceFirmware(
        arguments.Text("DeviceOwner"), arguments.Text("DownloadUrl"), kRevision, arguments.Number("IsSigned"),
        arguments.OptionalText("MethodOfTrust"), arguments.OptionalText("CaCert"));
    return StatusPacket(method, done).Assign(result);
}
