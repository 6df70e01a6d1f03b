#include "sim/device.h"

#include <algorithm>
#include <iterator>

#include <arpa/inet.h>

namespace rdx::sim {

namespace {

constexpr std::int64_t kFactoryMode = 2; // what "as delivered" means for the way of address assignment

// What the device sets up anew whenever it comes up.
Attribute BuiltInAttribute() { return {"DisplayName", "Simulated device", false}; }

auto FindAttribute(std::vector<Attribute>& attributes, const std::optional<std::string>& name) {
    return std::ranges::find(attributes, name, &Attribute::name);
}

bool IsAddress(const std::string& text) {
    in_addr address{};
    return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

// False when `wanted` is neither empty nor an address.
bool ChangeAddress(std::string& address, const std::string& wanted) {
    if (wanted.empty()) return true;
    address = wanted;
    return IsAddress(wanted);
}

bool IsUrl(std::string_view text) {
    const std::size_t scheme = text.find("://");
    return scheme != std::string_view::npos && scheme > 0 && scheme + 3 < text.size();
}

void ChangeAttribute(std::vector<Attribute>& attributes, const Attribute& wanted) {
    const auto present = FindAttribute(attributes, wanted.name);
    if (present == attributes.end()) {
        if (wanted.value) attributes.push_back(wanted);
    } else if (wanted.value) {
        *present = wanted;
    } else {
        attributes.erase(present);
    }
}

bool HasRoomFor(const std::vector<Attribute>& attributes) {
    std::size_t bytes = 0;
    for (const Attribute& attribute : attributes) bytes += attribute.name->size() + attribute.value->size();
    return attributes.size() <= kAttributesMax && bytes <= kAttributeBytesMax;
}

} // namespace

Device::Device(std::string statePath, Clock clock)
    : clock_(std::move(clock)), file_(std::move(statePath)), state_(file_.Load()), activeIp_(state_.ip),
      previousRevision_(state_.firmwareRevision), attributes_(state_.attributes) {
    if (TestRuns()) {
        State changed = state_;
        changed.selfTestEnds = 0;
        changed.selfTestReason = kInterrupted;
        Commit(std::move(changed));
    }
    if (FindAttribute(attributes_, BuiltInAttribute().name) == attributes_.end()) {
        attributes_.push_back(BuiltInAttribute());
    }
}

void Device::Commit(State changed) {
    file_.Save(changed);
    state_ = std::move(changed);
}

int Device::CheckOwner(std::string_view owner) const {
    if (state_.claim.owner.empty()) return kNobodys;
    return state_.claim.owner == owner ? kDone : kAnothers;
}

// --- Ownership ------------------------------------------------------------------------------------------

int Device::Allocate(const Claim& claim) {
    const std::lock_guard lock(mutex_);
    if (claim.owner.empty()) return kNoOwnerNamed;
    if (!state_.claim.owner.empty()) return kTaken;
    State changed = state_;
    changed.claim = claim;
    Commit(std::move(changed));
    return kDone;
}

int Device::Release(std::string_view client, std::string_view owner) {
    const std::lock_guard lock(mutex_);
    if (owner.empty()) return kNoOwnerNamed;
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    State changed = state_;
    changed.claim = {};
    changed.releasedBy = client;
    Commit(std::move(changed));
    return kDone;
}

Claim Device::CurrentClaim() {
    const std::lock_guard lock(mutex_);
    return state_.claim;
}

std::string Device::ReleasedBy() {
    const std::lock_guard lock(mutex_);
    return state_.releasedBy;
}

int Device::SetConfigurationMode(std::string_view owner, unsigned long mode) {
    constexpr unsigned long kLastMode = 2;
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    if (TestRuns() || UpdateRuns()) return kBusy;
    if (mode > kLastMode) return kBadMode;
    State changed = state_;
    changed.configurationMode = static_cast<std::int64_t>(mode);
    Commit(std::move(changed));
    return kDone;
}

// --- Vehicle --------------------------------------------------------------------------------------------

int Device::MayMeasure(std::string_view owner) {
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    return TestRuns() ? kBusy : kDone; // the test has the lines
}

// --- IP configuration -----------------------------------------------------------------------------------

int Device::SetIp(std::string_view owner, const IpConfiguration& wanted, bool& reboot) {
    constexpr std::int64_t kAsDelivered = 4;
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    if (wanted.mode < 1 || wanted.mode > kAsDelivered) return kBadMode;
    State changed = state_;
    IpConfiguration& ip = changed.ip;
    if (!ChangeAddress(ip.address, wanted.address) || !ChangeAddress(ip.netmask, wanted.netmask) ||
        !ChangeAddress(ip.gateway, wanted.gateway)) {
        return kBadAddress;
    }
    ip.mode = wanted.mode == kAsDelivered ? kFactoryMode : wanted.mode;
    if (!wanted.hostname.empty()) ip.hostname = wanted.hostname;
    reboot = ip != activeIp_;
    Commit(std::move(changed));
    return kDone;
}

IpConfiguration Device::ActiveIp() {
    const std::lock_guard lock(mutex_);
    return activeIp_;
}

std::int64_t Device::ConfiguredMode() {
    const std::lock_guard lock(mutex_);
    return state_.ip.mode;
}

// --- Self test ------------------------------------------------------------------------------------------

int Device::StartSelfTest(std::string_view owner, int mode, milliseconds duration, std::int64_t reason) {
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    if (mode != static_cast<int>(TestMode::kShort) && mode != static_cast<int>(TestMode::kDetailed)) {
        return kBadMode;
    }
    if (TestRuns() || UpdateRuns()) return kBusy;
    State changed = state_;
    changed.selfTestEnds = Now() + duration.count();
    changed.selfTestReason = reason;
    Commit(std::move(changed));
    return kDone;
}

int Device::AwaitSelfTest(milliseconds limit) {
    for (milliseconds waited{0};;) {
        const milliseconds left = SelfTestTimeLeft();
        if (left <= milliseconds(0)) return kDone;
        if (waited >= limit) return kAwaitedInVain;
        const milliseconds step = std::min(left, limit - waited);
        clock_.sleep(step);
        waited += step;
    }
}

milliseconds Device::SelfTestTimeLeft() {
    const std::lock_guard lock(mutex_);
    return milliseconds(state_.selfTestEnds - Now());
}

SelfTestStatus Device::SelfTest() {
    const std::lock_guard lock(mutex_);
    if (TestRuns()) return {kTestRuns, 0};
    const auto reason = static_cast<unsigned long>(state_.selfTestReason);
    return {reason == 0 ? kTestPassed : kTestFailed, reason};
}

// --- Firmware -------------------------------------------------------------------------------------------

int Device::StartUpdate(std::string_view owner, std::string_view url, milliseconds duration,
                        std::optional<std::int64_t> revision) {
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    if (TestRuns() || UpdateRuns()) return kBusy;
    if (!IsUrl(url)) return kNoUrl;
    const std::int64_t previous = state_.firmwareRevision;
    State changed = state_;
    changed.firmwareRevision = revision.value_or((previous + 1) & INT32_MAX);
    Commit(std::move(changed));
    previousRevision_ = previous;
    updateEnds_ = Now() + duration.count();
    return kDone;
}

std::int64_t Device::FirmwareRevision() {
    const std::lock_guard lock(mutex_);
    return UpdateRuns() ? previousRevision_ : state_.firmwareRevision;
}

// --- Attributes -----------------------------------------------------------------------------------------

int Device::SetAttributes(std::string_view owner, std::span<const Attribute> wanted) {
    const std::lock_guard lock(mutex_);
    const int result = CheckOwner(owner);
    if (result != kDone) return result;
    std::vector<Attribute> attributes = attributes_;
    for (const Attribute& attribute : wanted) {
        if (!attribute.name) return kFailed;
        if (attribute.name->empty()) return kBadName;
        ChangeAttribute(attributes, attribute);
    }
    if (!HasRoomFor(attributes)) return kNoRoom;
    State changed = state_;
    changed.attributes.clear();
    std::ranges::copy_if(attributes, std::back_inserter(changed.attributes), &Attribute::persistent);
    Commit(std::move(changed));
    attributes_ = std::move(attributes);
    return kDone;
}

std::vector<Attribute> Device::Attributes() {
    const std::lock_guard lock(mutex_);
    return attributes_;
}

} // namespace rdx::sim
