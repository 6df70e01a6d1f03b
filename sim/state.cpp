#include "sim/state.h"

#include "sim/files.h"
#include "sim/ini.h"

#include <algorithm>
#include <cerrno>

namespace rdx::sim {

namespace {

constexpr std::string_view kSection = "device";
constexpr std::string_view kAttributeKey = "attribute";
constexpr std::string_view kEndKey = "complete"; // the last line: a file without it was cut
constexpr std::string_view kNull = "null";
constexpr std::string_view kPersistent = "persistent";
constexpr std::string_view kVolatile = "volatile";

struct TextField {
    std::string_view key;
    std::string& (*in)(State&);
};
constexpr TextField kTexts[] = {
    {"owner", [](State& s) -> std::string& { return s.claim.owner; }},
    {"allocated_by", [](State& s) -> std::string& { return s.claim.client; }},
    {"client_address", [](State& s) -> std::string& { return s.claim.address; }},
    {"client_ports", [](State& s) -> std::string& { return s.claim.ports; }},
    {"released_by", [](State& s) -> std::string& { return s.releasedBy; }},
    {"ip_address", [](State& s) -> std::string& { return s.ip.address; }},
    {"netmask", [](State& s) -> std::string& { return s.ip.netmask; }},
    {"gateway", [](State& s) -> std::string& { return s.ip.gateway; }},
    {"hostname", [](State& s) -> std::string& { return s.ip.hostname; }},
};

constexpr std::int64_t kLatest = 1'000'000'000'000'000; // far beyond any device's life, in milliseconds

struct NumberField {
    std::string_view key;
    std::int64_t lowest;
    std::int64_t highest;
    std::int64_t& (*in)(State&);
};
constexpr NumberField kNumbers[] = {
    {"ip_mode", 1, 3, [](State& s) -> std::int64_t& { return s.ip.mode; }},
    {"firmware_revision", -1, UINT32_MAX, [](State& s) -> std::int64_t& { return s.firmwareRevision; }},
    {"self_test_ends", 0, kLatest, [](State& s) -> std::int64_t& { return s.selfTestEnds; }},
    {"self_test_reason", -1, UINT32_MAX, [](State& s) -> std::int64_t& { return s.selfTestReason; }},
    {"configuration_mode", 0, 2, [](State& s) -> std::int64_t& { return s.configurationMode; }},
};

std::string Print(const std::optional<std::string>& text) { return text ? Quote(*text) : std::string(kNull); }

std::optional<std::string> TextOf(const Word& word) {
    if (word.Is(kNull)) return std::nullopt;
    return word.text;
}

// False when the line is not one that PrintState writes.
bool ReadField(State& state, const IniEntry& entry) {
    if (const auto* text = std::ranges::find(kTexts, entry.key, &TextField::key); text != std::end(kTexts)) {
        std::optional<Word> word = ReadText(entry.value);
        if (word) text->in(state) = std::move(word->text);
        return word && word->quoted;
    }
    if (const auto* field = std::ranges::find(kNumbers, entry.key, &NumberField::key);
        field != std::end(kNumbers)) {
        const std::optional<std::int64_t> number = ReadNumber(entry.value, field->lowest, field->highest);
        if (number) field->in(state) = *number;
        return number.has_value();
    }
    if (entry.key != kAttributeKey) return entry.key == kEndKey && entry.value == "1";
    std::optional<Attribute> attribute = ReadAttribute(entry.value);
    if (!attribute || !attribute->name || !attribute->value) return false;
    state.attributes.push_back(std::move(*attribute));
    return true;
}

} // namespace

std::optional<Attribute> ReadAttribute(std::string_view value) {
    const std::optional<std::vector<Word>> words = SplitWords(value);
    if (!words || words->size() != 3) return std::nullopt;
    const Word& persistence = words->back();
    if (!persistence.Is(kPersistent) && !persistence.Is(kVolatile)) return std::nullopt;
    return Attribute{TextOf(words->front()), TextOf((*words)[1]), persistence.Is(kPersistent)};
}

std::string PrintAttribute(const Attribute& attribute) {
    return Join({Print(attribute.name), " ", Print(attribute.value), " ",
                 attribute.persistent ? kPersistent : kVolatile});
}

State FactoryState() {
    return {.claim = {},
            .releasedBy = {},
            .ip = {.mode = 2,
                   .address = "192.168.0.10",
                   .netmask = "255.255.255.0",
                   .gateway = "192.168.0.1",
                   .hostname = {}},
            .firmwareRevision = 4711,
            .selfTestEnds = 0,
            .selfTestReason = 0,
            .configurationMode = 0,
            .attributes = {{"Location", "Bay 1", true}}};
}

std::string PrintState(const State& state) {
    State copy = state; // the fields are reached through a State that can be changed
    std::string text = "# What the simulated device comes up with. Remove the file for a new device.\n[";
    const auto add = [&text](std::string_view key, std::string_view value) {
        text.append(key).append(" = ").append(value).append("\n");
    };
    text.append(kSection).append("]\n");
    for (const TextField& field : kTexts) add(field.key, Quote(field.in(copy)));
    for (const NumberField& field : kNumbers) add(field.key, std::to_string(field.in(copy)));
    for (const Attribute& attribute : copy.attributes) add(kAttributeKey, PrintAttribute(attribute));
    add(kEndKey, "1");
    return text;
}

std::optional<State> ReadState(std::string_view text, std::string& error) {
    const auto refuse = [&error](int line, const std::string& why) {
        error = Join({std::to_string(line), ": ", why});
        return std::nullopt;
    };
    const Ini ini = ParseIni(text);
    if (!ini.errors.empty()) return refuse(ini.errors.front().line, ini.errors.front().message);
    State state = FactoryState();
    state.attributes.clear();
    for (const IniEntry& entry : ini.entries) {
        const bool known = entry.section == kSection && (entry.key.empty() || ReadField(state, entry));
        if (!known) return refuse(entry.line, "not a line of this file");
    }
    if (ini.entries.empty()) return refuse(1, "there is nothing in it");
    if (ini.entries.back().key != kEndKey || !text.ends_with('\n')) {
        return refuse(ini.entries.back().line, "the rest is missing");
    }
    return state;
}

State StateFile::Load() const {
    if (path_.empty()) return FactoryState();
    const FileContent file = ReadFile(path_);
    if (file.error == ENOENT) return FactoryState(); // a new device
    std::string error;
    const bool read = file.error == 0;
    std::optional<State> state = read ? ReadState(file.text, error) : std::nullopt;
    if (state) return std::move(*state);
    const std::string why = read ? Join({path_, ":", error}) : Explain(path_, file.error);
    Report(Join({why, "; the device starts as a new one"}));
    return FactoryState();
}

void StateFile::Save(const State& state) {
    if (path_.empty()) return;
    const int error = ReplaceFile(path_, PrintState(state));
    if (error == 0 || reported_) return;
    reported_ = true;
    Report(Join({Explain(path_, error), "; the device forgets its state when the process ends"}));
}

} // namespace rdx::sim
