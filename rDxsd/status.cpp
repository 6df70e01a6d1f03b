// What the device and the vehicle are doing.
#include "common/memory.h"
#include "common/text.h"
#include "rDxsd/device_info.h"
#include "rDxsd/method.h"
#include "rDxsd/rDxsd.h"
#include "rDxsd/values.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <sys/sysinfo.h>
#include <unistd.h>

unsigned int server_start_time = 0;

namespace {

using namespace rdx;

// --- rdxGetVersion --------------------------------------------------------------------------------------

constexpr std::size_t kVersionResultSize = 4477;
constexpr int kServiceVersion = 100;

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

// --- rdxGetDeviceStatus ---------------------------------------------------------------------------------

constexpr int kQueryFailed = -1; // the overall status code when a query of the device failed

enum DeviceType { kQurt = 40011, kQrt = 40010, kSolan = 40015, kMkt = 40016, kKavo = 40018, kKavoZr = 40019 };

int DeviceTypeNumber(const char* name) {
    struct Type {
        const char* name;
        DeviceType number;
    };
    constexpr Type kTypes[] = {{"QURT", kQurt}, {"QRT", kQrt},   {"SOLAN", kSolan},
                               {"MKT", kMkt},   {"KAVO", kKavo}, {"KAVO_ZR", kKavoZr}};
    const auto* const type =
        std::ranges::find_if(kTypes, [=](const Type& t) { return EqualsIgnoringCase(t.name, name); });
    return type != std::end(kTypes) ? type->number : 0;
}

// "DhcpMode" for the device library's number of a way of address assignment.
int DhcpMode(int number) {
    switch (number) {
    case 1:
        return 41203;
    case 2:
        return 41202;
    case 3:
        return 41204;
    default:
        return 0;
    }
}

// Seconds since the machine was started.
int UpTime() {
    struct sysinfo info {};
    return sysinfo(&info) == 0 ? static_cast<int>(info.uptime) : 0;
}

// The structure of one channel in "IfUsage".
OwnedValue MakeChannel(const char* name, bool controlled, const char* controlledBy) {
    Structure channel(RowOf(ProcessGetDeviceStatus), "IfUsage");
    channel.Add("Channel", MakeText(name));
    channel.Add("Connection", MakeText(controlled ? "controlled" : "open"));
    channel.Add("ControlledBy", controlled ? MakeText(controlledBy) : MakeNull());
    return channel.Release();
}

bool SetElement(const OwnedValue& array, int index, OwnedValue value) {
    if (!array || !value) return false;
    wddxSetArrayElem(array.get(), index, value.release());
    return true;
}

// "IfUsage": devices with a MOST channel name it first. Clients find room for it, a null element, in the
// array of a device without one too, unless the device is one of the two that have but one channel.
OwnedValue MakeInterfaceUsage(int deviceType, bool controlled, const char* controlledBy) {
    const bool oneChannel = deviceType == kMkt || deviceType == kKavoZr;
    const bool hasMost = deviceType == kQurt || deviceType == kQrt || deviceType == kKavo;
    OwnedValue usage = MakeArray(oneChannel ? 1 : 2);
    bool complete = true;
    if (hasMost) complete = SetElement(usage, 0, MakeChannel("MOST", controlled, controlledBy));
    complete =
        complete && SetElement(usage, hasMost ? 1 : 0, MakeChannel("DIAGBUS", controlled, controlledBy));
    return complete ? std::move(usage) : nullptr;
}

// The device's attributes, handed back when they are no longer needed.
class DeviceAttributes {
public:
    DeviceAttributes() : result_(rdxGetDeviceAttributes(&names_, &values_, &persistence_, &count_)) {}
    ~DeviceAttributes() {
        if (result_ == 0) rdxFreeDeviceAttributes(names_, values_, persistence_, count_);
    }
    DeviceAttributes(const DeviceAttributes&) = delete;
    DeviceAttributes& operator=(const DeviceAttributes&) = delete;

    int Result() const { return result_; } // of the query

    // "SlpAttributes". A device without attributes has a null value: there is no array of no elements.
    OwnedValue Make() const {
        if (result_ != 0 || count_ < 1) return MakeNull();
        OwnedValue array = MakeArray(count_);
        for (int i = 0; i < count_; ++i) {
            if (At(names_, i) == nullptr || At(values_, i) == nullptr) continue; // the element stays null
            if (!SetElement(array, i, MakeAttribute(i))) return nullptr;
        }
        return array;
    }

private:
    // A library may leave out an array altogether.
    template <typename T>
    static T At(T* array, int i) {
        return array != nullptr ? array[i] : T{};
    }

    OwnedValue MakeAttribute(int i) const {
        Structure attribute(RowOf(ProcessGetDeviceStatus), "SlpAttributes");
        attribute.Add("AttributeName", MakeText(names_[i]));
        attribute.Add("AttributeValue", MakeText(values_[i]));
        attribute.Add("IsPersistent", MakeFlag(At(persistence_, i) != 0));
        return attribute.Release();
    }

    char** names_ = nullptr;
    char** values_ = nullptr;
    int* persistence_ = nullptr;
    int count_ = 0;
    int result_;
};

// Puts the answer together query by query. A query that fails leaves its key out and shows in "Status".
class DeviceStatus {
public:
    void AddType() {
        DeviceText name;
        if (!Note(rDxGetDeviceType(name.text, sizeof name.text))) return;
        type_ = DeviceTypeNumber(name.text);
        Add("DeviceType", MakeInteger(type_));
    }

    void AddSelfTest() {
        const SelfTestState state = AskSelfTestState();
        Add("SelftestStatus", MakeStatus(state.code, state.reason, MakeNull()));
    }

    void AddMachine() {
        DeviceText host;
        if (gethostname(host.text, sizeof host.text) != 0) CopyBounded(host.text, "QurtPc");
        char mac[MAC_ADDRESS_TEXT_SIZE];
        GetMacAddress(mac, sizeof mac);
        Add("Hostname", MakeText(host.text));
        Add("MacAddress", MakeText(mac));
    }

    void AddNetwork() {
        RDXConf configuration = {RDX_CONF_LENGTH, 0};
        if (Note(rDxGetIpConfiguration(&configuration))) {
            Add("DhcpMode", MakeInteger(DhcpMode(configuration.iMode)));
        }
        constexpr int kAddressSize = 16;
        char address[kAddressSize + 1] = ""; // a library that fills it to the brim needs no NUL
        char netmask[kAddressSize + 1] = "";
        char gateway[kAddressSize + 1] = "";
        // What it filled is what clients see, whatever its result.
        static_cast<void>(rDxGetActiveIpConf(address, netmask, gateway, kAddressSize));
        Add("IpAddress", MakeText(address));
        Add("Netmask", MakeText(netmask));
        Add("DefaultGateway", MakeText(gateway));
    }

    void AddFirmware() {
        unsigned long revision = 0;
        if (Note(rDxGetFirmwareRev(&revision))) Add("FirmwareRev", MakeInteger(static_cast<int>(revision)));
    }

    void AddAllocation() {
        unsigned long controlled = 0;
        DeviceText allocation = {"0"};
        DeviceText owner;
        DeviceText controlledBy;
        if (!Note(rDxGetAllocStatus(&controlled, allocation.text, owner.text, controlledBy.text, nullptr)))
            return;
        Add("IsAllocated", MakeText(allocation.text));
        Add("DeviceOwner", MakeText(owner.text));
        Add("IfUsage", MakeInterfaceUsage(type_, controlled != 0, controlledBy.text));
    }

    void AddAttributes() {
        const DeviceAttributes attributes;
        Note(attributes.Result());
        Add("SlpAttributes", attributes.Make());
    }

    void Add(const char* key, OwnedValue value) { answer_.Add(key, std::move(value)); }

    int Assign(TavrinResponse* result) {
        Add("Status", MakeStatus(code_, 0, MakeNull()));
        return answer_.Assign(result);
    }

private:
    // Remembers how a query of the device went; true when it went well.
    bool Note(int result) {
        if (result != 0) code_ = kQueryFailed;
        return result == 0;
    }

    Structure answer_{RowOf(ProcessGetDeviceStatus)};
    int type_ = 0;
    int code_ = 0;
};

// --- rdxGetVehicleStatus --------------------------------------------------------------------------------

// "KLine" and "LLine" for the device library's state of a line.
int LineState(int state) {
    switch (state) {
    case 5:
        return 41150;
    case 6:
        return 41151;
    case 2:
    case 3:
        return 41152;
    default:
        return 41153;
    }
}

// A device without a MOST ring has no "MOST".
std::optional<int> MostState(unsigned long state) {
    constexpr auto kNoMost = static_cast<unsigned long>(-1);
    if (state == kNoMost) return std::nullopt;
    return state == 0 ? 41153 : 41154;
}

// The TD signal's period from the device library's raw units, cut towards zero; what a client's 32 bits
// cannot hold becomes the nearest number that they can.
int TdPeriod(int raw) {
    const std::int64_t period = std::int64_t{raw} * 32 / 10;
    return static_cast<int>(std::clamp<std::int64_t>(period, INT_MIN, INT_MAX));
}

OwnedValue MakeVoltage(const MethodRow& method, const Measures& measures) {
    Structure voltage(method, "Voltage");
    voltage.Add("Terminal_15", MakeInteger(measures.iTerminal15));
    voltage.Add("Terminal_30", MakeInteger(measures.iTerminal30));
    return voltage.Release();
}

OwnedValue MakeTdSignal(const MethodRow& method, const Measures& measures) {
    Structure signal(method, "TdSignal");
    signal.Add("Period", MakeInteger(TdPeriod(measures.iTdPeriod)));
    signal.Add("IsValid", MakeFlag(measures.iTdValid != 0));
    return signal.Release();
}

OwnedValue MakeLineStatus(const MethodRow& method, const Measures& measures, std::optional<int> most) {
    Structure lines(method, "LineStatus");
    lines.Add("KLine", MakeInteger(LineState(measures.iKLine)));
    lines.Add("LLine", MakeInteger(LineState(measures.iLLine)));
    if (most) lines.Add("MOST", MakeInteger(*most));
    return lines.Release();
}

int TransmissionQuality() {
    unsigned long quality = 0;
    return rDxGetTransmissionQuality(&quality) == 0 ? static_cast<int>(quality) : 0;
}

} // namespace

int ProcessGetVersion(TavrinRequest* call, TavrinResponse* result) {
    std::printf("\nProcessGetVersion");
    // The client's version is asked for, but all are answered alike.
    if (!Arguments(*call, RowOf(ProcessGetVersion)).Fit()) return RDX_BAD_CALL;

    OwnedText text = AllocateBytes(kVersionResultSize);
    if (!text) return RDX_NOT_ASSIGNED;
    std::snprintf(text.get(), kVersionResultSize, kVersionResult, 0, kServiceVersion);
    FreeTnResponse(result);
    result->pszWddxResult = text.release();
    result->iStatus = PDATA_STATUS_RESULT;
    result->ucFlag = 0;
    return RDX_ANSWERED;
}

int ProcessGetDeviceStatus(TavrinRequest* /*call*/, TavrinResponse* result) {
    DeviceStatus status;
    status.AddType();
    status.Add("UpTime", MakeInteger(UpTime()));
    status.AddSelfTest();
    status.AddMachine();
    status.AddNetwork();
    status.AddFirmware();
    status.AddAllocation();
    status.AddAttributes();
    return status.Assign(result);
}

int ProcessGetVehicleStatus(TavrinRequest* call, TavrinResponse* result) {
    const MethodRow& method = RowOf(ProcessGetVehicleStatus);
    const Arguments arguments(*call, method);
    if (!arguments.Fit()) return RDX_BAD_CALL;
    Measures measures{};
    unsigned long most = 0;
    const int done = rDxGetVehicleStatus(arguments.Text("DeviceOwner"), &measures, &most);
    Structure answer = StatusPacket(method, done);
    if (done == kSuccess.result) {
        answer.Add("Voltage", MakeVoltage(method, measures));
        answer.Add("TdSignal", MakeTdSignal(method, measures));
        answer.Add("LineStatus", MakeLineStatus(method, measures, MostState(most)));
        answer.Add("TransmissionQuality", MakeInteger(TransmissionQuality()));
    }
    return answer.Assign(result);
}
