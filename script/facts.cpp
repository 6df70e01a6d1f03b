// Prints what the code says of itself, for whoever keeps the documents in step with it: a fact on each line,
// its parts between tabs, the first one saying what it is.
//
//   method    NAME  public|authenticated
//   argument  METHOD  NAME  TYPE  required: yes|no  longest, or -
//   status    METHOD or what it is about  RESULT  CODE  REASON  what is in "params"
//   key       METHOD, or - for those of every method  NAME
//   setting   KEY  default, which may be empty  longest text, or -  meaning
//   headers   KIND  how many of it a message holds
//   header    KIND  NAME
//   limit     WHAT  NUMBER  UNIT  what becomes of more
#include "common/config.h"
#include "common/settings.h"
#include "http/http.h"
#include "http/httpreq.h"
#include "rDxsd/method.h"
#include "rDxsd/rDxWddx.h"
#include "rDxsd/rDxsd.h"
#include "wddx/wddx.h"

#include <cstdio>
#include <limits>
#include <span>
#include <string>

using namespace rdx;

namespace {

// --- methods --------------------------------------------------------------------------------------------

const char* TypeName(ArgumentType type) {
    switch (type) {
    case ArgumentType::kText:
        return "string";
    case ArgumentType::kInteger:
        return "integer";
    case ArgumentType::kIntegerOrFlag:
        return "integer or boolean";
    case ArgumentType::kArray:
        break;
    }
    return "array";
}

void PrintArgument(const MethodRow& method, const ArgumentRow& row) {
    const std::string longest = row.longest == kNoLimit ? "-" : std::to_string(row.longest);
    std::printf("argument\t%s\t%s\t%s\t%s\t%s\n", method.name, row.name, TypeName(row.type),
                row.presence == Presence::kRequired ? "yes" : "no", longest.c_str());
}

void PrintMethod(const MethodRow& method) {
    std::printf("method\t%s\t%s\n", method.name,
                method.access == Access::kPublic ? "public" : "authenticated");
    for (const ArgumentRow& row : method.arguments) PrintArgument(method, row);
    for (const KeyRow& row : method.keys) std::printf("key\t%s\t%s\n", method.name, row.name);
}

// --- status codes ---------------------------------------------------------------------------------------

void PrintStatus(const char* about, const std::string& result, const std::string& code,
                 const std::string& reason, const std::string& params) {
    std::printf("status\t%s\t%s\t%s\t%s\t%s\n", about, result.c_str(), code.c_str(), reason.c_str(),
                params.c_str());
}

// What an answer has in "params"; the one key of it, where it is a structure that the server makes.
std::string NameOf(Detail detail) {
    if (detail == Detail::kNone) return "null";
    if (detail == Detail::kOwner) return "the owner"; // asked of the device
    const OwnedValue params = MakeParams({0, 0, 0, detail}, "");
    return wddxGetArrayElem(params.get(), 0)->payload.members->name;
}

void PrintStatuses(const MethodRow& method) {
    for (const StatusRow& row : method.statuses) {
        PrintStatus(method.name, row.result == kAnyOther ? "others" : std::to_string(row.result),
                    std::to_string(row.code), std::to_string(row.reason), NameOf(row.detail));
    }
}

void PrintCommonStatuses() {
    PrintStatus("every method", std::to_string(kSuccess.result), std::to_string(kSuccess.code),
                std::to_string(kSuccess.reason), NameOf(kSuccess.detail));
    PrintStatus("unknown method", "", std::to_string(kCodeUnknownMethod),
                std::to_string(kReasonUnknownMethod), "`params` is null");
}

void PrintSelfTestStatuses() {
    const std::string notPassed = std::to_string(kTestNotPassed);
    const std::string unknown = std::to_string(kTestReasonUnknown);
    constexpr const char* kAbout = "SelftestStatus";
    PrintStatus(kAbout, "not to be asked for", notPassed, unknown, "see below");
    PrintStatus(kAbout, "reason unknown (-1)", notPassed, unknown, "see below");
    PrintStatus(kAbout, "another reason", std::to_string(kTestFailed), "that reason", "see below");
    PrintStatus(kAbout, "no reason (0)", "the device's", "0", "see below");
}

// --- keys of every method -------------------------------------------------------------------------------

void PrintKeysOf(const WddxValue* value) {
    if (value == nullptr || value->type != WDDX_STRUCT) return;
    for (const WddxMember* member = value->payload.members; member != nullptr; member = member->next) {
        std::printf("key\t-\t%s\n", member->name);
        PrintKeysOf(member->value);
    }
}

void PrintCommonKeys() {
    PrintKeysOf(OwnedValue(CreateWddxStatusPacket(0, 0, nullptr)).get());
    PrintKeysOf(OwnedValue(CreateWddxOwner("", "")).get());
    for (const Detail detail : {Detail::kReason, Detail::kReleasedBy}) {
        PrintKeysOf(wddxGetArrayElem(MakeParams({0, 0, 0, detail}, "").get(), 0));
    }
}

// --- settings -------------------------------------------------------------------------------------------

// What the dump shows of a setting that nothing has changed yet; empty where it shows nothing.
std::string ShownDefault(const Setting& setting) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* const stream = open_memstream(&text, &size);
    if (stream == nullptr) return "";
    setting.show(stream, setting);
    std::fclose(stream);
    const std::string line(text, size);
    std::free(text);
    const std::size_t value = line.find(": ");
    return value == std::string::npos ? "" : line.substr(value + 2);
}

// A default as a file would give it.
std::string DefaultOf(const Setting& setting) {
    if (setting.byte == nullptr && setting.number == nullptr) return std::string(setting.textDefault);
    const std::string shown = ShownDefault(setting);
    const bool isSwitch = shown.empty() || shown == "no" || shown == "yes";
    return isSwitch ? std::to_string(setting.numberDefault) : shown;
}

void PrintSetting(const Setting& setting) {
    if (setting.key.empty()) return; // a file cannot set it
    const std::string longest = setting.text.empty() ? "-" : std::to_string(setting.text.size() - 1);
    std::printf("setting\t%s\t%s\t%s\t%s\n", std::string(setting.key).c_str(), DefaultOf(setting).c_str(),
                longest.c_str(), setting.meaning);
}

// --- headers --------------------------------------------------------------------------------------------

void PrintHeaders(const char* kind, int most, std::span<const char* const> names) {
    std::printf("headers\t%s\t%d\n", kind, most);
    for (const char* const name : names) std::printf("header\t%s\t%s\n", kind, name);
}

// --- limits ---------------------------------------------------------------------------------------------

// Two dashes are put in front of a form's boundary, and the length of both is kept in one field.
constexpr int kBoundaryMax = std::numeric_limits<decltype(HttpRequest::ucBoundaryLen)>::max() - 2;

void PrintLimit(const char* what, unsigned int most, const char* beyond) {
    std::printf("limit\t%s\t%u\tbytes\t%s\n", what, most, beyond);
}

void PrintLimits() {
    PrintLimit("request line, header line", HTTP_LINE_SIZE - 1, "400");
    PrintLimit("URI", HTTP_WORD_SIZE - 1, "400");
    PrintLimit("request body", g_dwPostMaxContLength, "400");
    PrintLimit("method name", PDATA_FUNCTION_NAME_MAX, "400 in a query, 500 in a form");
    PrintLimit("name of a form field", PDATA_FIELD_NAME_MAX, "500");
    PrintLimit("boundary of a form", kBoundaryMax, "the server process ends");
    PrintLimit("name of a tag or an attribute, value of an attribute", WDDX_TAG_TEXT_SIZE - 1, "400");
    PrintLimit("answer packet", PDATA_RESULT_SIZE - 1, "one byte more: the server process ends; longer: 500");
}

} // namespace

int main() {
    for (const MethodRow& method : Methods()) PrintMethod(method);
    PrintCommonKeys();

    PrintCommonStatuses();
    for (const MethodRow& method : Methods()) PrintStatuses(method);
    PrintSelfTestStatuses();

    for (const Setting& setting : HttpSettings()) PrintSetting(setting);

    PrintHeaders("general", HTTP_MAX_GENERAL_HEADERS, apszGeneralHeaders);
    PrintHeaders("request", HTTP_MAX_REQUEST_HEADERS, apszRequestHeaders);
    PrintHeaders("entity", HTTP_MAX_ENTITY_HEADERS, apszEntityHeaders);
    PrintHeaders("response", HTTP_MAX_RESPONSE_HEADERS, apszResponseHeaders);

    PrintLimits();
    return 0;
}
