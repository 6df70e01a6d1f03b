// Calls of the method handlers with a scripted device, and the packets that they take and give.
#ifndef RDX_TESTS_SUPPORT_METHOD_CALL_H
#define RDX_TESTS_SUPPORT_METHOD_CALL_H

#include "rDxsd/rDxsd.h"
#include "tests/support/escaped.h"
#include "tests/support/fake_device.h"
#include "tests/support/request.h"
#include "tests/support/wddx.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace rdx::test {

// Values as they stand in a packet.

inline std::string TextValue(std::string_view text) { return "<string>" + Escaped(text) + "</string>"; }
inline std::string NumberValue(int number) { return "<number>" + std::to_string(number) + "</number>"; }
inline std::string FlagValue(bool flag) {
    return std::string("<boolean value='") + (flag ? "true" : "false") + "'/>";
}
inline const std::string kNullValue = "<null/>";

inline std::string ArrayValue(const std::vector<std::string>& elements) {
    std::string all = "<array length='" + std::to_string(elements.size()) + "'>";
    for (const std::string& element : elements) all += element;
    return all + "</array>";
}

struct Member {
    std::string name;
    std::string value;
};

// The members of a structure in their order.
class Members {
public:
    Members(std::initializer_list<Member> members) : members_(members) {}

    Members Without(std::string_view name) const {
        Members changed = *this;
        std::erase_if(changed.members_, [=](const Member& member) { return member.name == name; });
        return changed;
    }

    // With another value in the member's place.
    Members With(std::string_view name, const std::string& value) const {
        Members changed = *this;
        for (Member& member : changed.members_) {
            if (member.name == name) member.value = value;
        }
        return changed;
    }

    // With one more member in front, or behind all others.
    Members After(const std::string& name, const std::string& value) const {
        Members changed = *this;
        changed.members_.insert(changed.members_.begin(), {name, value});
        return changed;
    }
    Members And(const std::string& name, const std::string& value) const {
        Members changed = *this;
        changed.members_.push_back({name, value});
        return changed;
    }

    Members And(const Members& others) const {
        Members changed = *this;
        changed.members_.insert(changed.members_.end(), others.members_.begin(), others.members_.end());
        return changed;
    }

    std::string ValueOf(std::string_view name) const {
        return std::ranges::find(members_, name, &Member::name)->value;
    }

    std::string Struct() const {
        std::string all = "<struct>";
        for (const auto& [name, value] : members_) all += "<var name='" + name + "'>" + value + "</var>";
        return all + "</struct>";
    }

private:
    std::vector<Member> members_;
};

// An argument packet.
inline std::string Arguments(const Members& members) { return Packet(members.Struct()); }

// A result packet: its name, and what stands in it.
inline std::string ResultPacket(const std::string& name, const Members& members) {
    return "<?xml version='1.0'?><!DOCTYPE wddxPacket SYSTEM 'wddx_dtd_10.dtd'><wddxPacket version='1.0'>"
           "<header><comment>" +
           name + "</comment></header><data>" + members.Struct() + "</data></wddxPacket>";
}

inline std::string StatusValue(int code, int reason, const std::string& params) {
    return Members{{"code", NumberValue(code)}, {"msg", NumberValue(reason)}, {"params", params}}.Struct();
}

// "params" of one element.
inline std::string ParamsOf(const std::string& element) { return ArrayValue({element}); }
inline const std::string kNoDetail = ParamsOf(kNullValue);

inline std::string ReasonDetail(int reason) {
    return ParamsOf(Members{{"Reason", NumberValue(reason)}}.Struct());
}

inline std::string OwnerDetail(std::string_view allocatedBy, std::string_view owner) {
    return ParamsOf(
        Members{{"AllocatedBy", TextValue(allocatedBy)}, {"DeviceOwner", TextValue(owner)}}.Struct());
}

// The owner of the device in MethodTest.
inline const std::string kOwner = OwnerDetail("192.0.2.9:4711", "anna <1>");

// Bytes that a text may hold and a packet has to carry: markup, both quotes, UTF-8, controls.
inline const std::string kAwkwardText =
    "<a href=\"x\">&amp; 'b'</a> \xC3\xA4\xE6\xBC\xA2 \x01\x1B\x7F\xFF\t\n";

// What arguments a method needs.

enum class ArgumentType { kText, kInteger, kIntegerOrFlag, kArray };

inline constexpr int kUnlimited = 0;
inline constexpr int kCertainWords = -1; // of what a text may say, its length is no part

struct ArgumentRule {
    const char* name;
    ArgumentType type;
    int longest = kUnlimited; // of a text
};

// Every kind of value with the types that it is good for.
struct TypedValue {
    std::string value;
    std::vector<ArgumentType> types;
};

inline std::vector<TypedValue> ValuesOfEveryType() {
    using enum ArgumentType;
    return {
        {TextValue("x"), {kText}},
        {TextValue("12"), {kText}},
        {NumberValue(41603), {kInteger, kIntegerOrFlag}},
        {NumberValue(-1), {kInteger, kIntegerOrFlag}},
        {"<number>1.5</number>", {}},
        {FlagValue(true), {kIntegerOrFlag}},
        {FlagValue(false), {kIntegerOrFlag}},
        {kNullValue, {}},
        {ArrayValue({}), {kArray}},
        {ArrayValue({TextValue("x")}), {}}, // an array, but not one of attributes
        {ArrayValue({NumberValue(1)}), {}},
        {Members{{"x", TextValue("x")}}.Struct(), {}},
    };
}

// Every value that is not good for a type.
inline std::vector<std::string> ValuesBut(ArgumentType type) {
    std::vector<std::string> values;
    for (const TypedValue& typed : ValuesOfEveryType()) {
        if (std::ranges::find(typed.types, type) == typed.types.end()) values.push_back(typed.value);
    }
    return values;
}

using Handler = int (*)(TavrinRequest*, TavrinResponse*);

// What a result of the device becomes in the answer.
struct Row {
    int result;
    int code;
    int reason;
    std::string params;
};

// A device that is owned, and does whatever it is asked to.
class MethodTest : public testing::Test {
protected:
    MethodTest() {
        device_.outputs.owner = "anna <1>";
        device_.outputs.allocatedBy = "192.0.2.9:4711";
    }
    ~MethodTest() override { FreeTnResponse(&result_); }

    // Calls the handler; a result is checked for its flag and status, a refusal for having changed nothing.
    int Process(Handler handler, std::string args) { return ProcessText(handler, args.data()); }

    int ProcessText(Handler handler, char* args) {
        TavrinRequest call{1, "", args, request_.get()};
        FreeTnResponse(&result_);
        result_ = {1, 1, -99, nullptr};
        const int code = handler(&call, &result_);
        EXPECT_EQ(result_.ucFlag, code == 0 ? 0 : 1);
        EXPECT_EQ(result_.iStatus, code == 0 ? 0 : -99);
        EXPECT_EQ(result_.pszWddxResult != nullptr, code == 0);
        return code;
    }

    // The packet that answers a call; empty when there is none.
    std::string Answer(Handler handler, const std::string& args) {
        EXPECT_EQ(Process(handler, args), 0);
        return result_.pszWddxResult != nullptr ? result_.pszWddxResult : "";
    }

    // Compares the whole answer to each result of the device's `function`; `others` stand beside "Status".
    void ExpectAnswers(Handler handler, const Members& arguments, const std::string& function,
                       const std::string& name, const std::vector<Row>& rows, const Members& others = {}) {
        for (const Row& row : rows) {
            SCOPED_TRACE(row.result);
            device_.results[function] = row.result;
            const Members status = {{"Status", StatusValue(row.code, row.reason, row.params)}};
            EXPECT_EQ(Answer(handler, Arguments(arguments)), ResultPacket(name, status.And(others)));
        }
    }

    // The owner is asked for behind the one result that means another one, and only then.
    void ExpectOwnerAskedFor(Handler handler, const Members& arguments, const std::string& function,
                             int result) {
        for (const int other : {0, 1, 2, 3, 4, -1}) {
            SCOPED_TRACE(other);
            device_.results[function] = other;
            device_.ForgetCalls();
            EXPECT_EQ(Process(handler, Arguments(arguments)), 0);
            const std::vector<std::string> names = device_.Names();
            EXPECT_EQ(names.front(), function);
            EXPECT_EQ(std::ranges::count(names, "rDxGetOwner"), other == result ? 1 : 0);
        }
    }

    // The calls of the device that a call of a method makes.
    std::vector<std::string> DeviceCalls(Handler handler, const std::string& args) {
        device_.ForgetCalls();
        EXPECT_EQ(Process(handler, args), 0);
        return device_.Calls();
    }

    void ExpectAccepted(Handler handler, const Members& arguments) {
        SCOPED_TRACE(Arguments(arguments).substr(0, 1000));
        device_.ForgetCalls();
        EXPECT_EQ(Process(handler, Arguments(arguments)), 0);
        EXPECT_FALSE(device_.Calls().empty());
    }

    void ExpectRefused(Handler handler, const Members& arguments) {
        ExpectRefused(handler, Arguments(arguments));
    }
    void ExpectRefused(Handler handler, const std::string& args) {
        SCOPED_TRACE(args.substr(0, 1000));
        device_.ForgetCalls();
        EXPECT_EQ(Process(handler, args), 400);
        EXPECT_EQ(device_.Calls(), std::vector<std::string>()) << "the device was touched";
    }

    // Tries the rules of a required argument, the others being those of `good`.
    void ExpectRequired(Handler handler, const Members& good, const ArgumentRule& rule) {
        SCOPED_TRACE(rule.name);
        ExpectAccepted(handler, good);
        ExpectRefused(handler, good.Without(rule.name));
        ExpectRefused(handler, good.Without(rule.name).And(ToggledCase(rule.name), good.ValueOf(rule.name)));
        for (const TypedValue& typed : ValuesOfEveryType()) {
            const bool fits = std::ranges::find(typed.types, rule.type) != typed.types.end();
            if (!fits) ExpectRefused(handler, good.With(rule.name, typed.value));
            if (!fits) ExpectFirstCounts(handler, good, rule.name, typed.value);
        }
        if (rule.type == ArgumentType::kText) ExpectTextLimit(handler, good, rule);
    }

    void ExpectRequired(Handler handler, const Members& good, const std::vector<ArgumentRule>& rules) {
        for (const ArgumentRule& rule : rules) ExpectRequired(handler, good, rule);
    }

    // An argument that `good` does not have and need not: nothing is as good as leaving it out, and another
    // type is refused.
    void ExpectOptional(Handler handler, const Members& good, const ArgumentRule& rule) {
        for (const std::string& value : ValuesBut(rule.type)) {
            if (value != kNullValue) ExpectRefused(handler, Arguments(good.And(rule.name, value)));
        }
        EXPECT_EQ(DeviceCalls(handler, Arguments(good.And(rule.name, kNullValue))),
                  DeviceCalls(handler, Arguments(good)))
            << rule.name;
    }

    // No method answers a call whose arguments cannot be read.
    void ExpectArgumentsNeeded(Handler handler) {
        for (const std::string& args :
             {std::string("<wddxPacket"), std::string("hello"), Packet(kNullValue), Packet(TextValue("x")),
              Packet(ArrayValue({kNullValue})), Packet("<struct></struct>"), Packet(""),
              Arguments({{"x", "<recordset rowCount='0'/>"}}), Arguments({{"x", kNullValue}})}) {
            ExpectRefused(handler, args);
        }
        EXPECT_EQ(ProcessText(handler, nullptr), 400);
        EXPECT_EQ(device_.Calls(), std::vector<std::string>());
    }

    FakeDevice device_;
    Request request_;
    TavrinResponse result_{};

private:
    static std::string ToggledCase(std::string name) {
        name[0] = static_cast<char>(name[0] ^ 0x20);
        return name;
    }

    // A packet may hold a name twice.
    void ExpectFirstCounts(Handler handler, const Members& good, const char* name, const std::string& bad) {
        ExpectRefused(handler, good.After(name, bad));
        ExpectAccepted(handler, good.And(name, bad));
    }

    void ExpectTextLimit(Handler handler, const Members& good, const ArgumentRule& rule) {
        const auto text = [](int length, char byte = 'x') {
            return TextValue(std::string(static_cast<std::size_t>(length), byte));
        };
        if (rule.longest == kCertainWords) return;
        ExpectAccepted(handler, good.With(rule.name, text(0)));
        if (rule.longest == kUnlimited) return ExpectAccepted(handler, good.With(rule.name, text(60000)));
        ExpectAccepted(handler, good.With(rule.name, text(rule.longest)));
        ExpectRefused(handler, good.With(rule.name, text(rule.longest + 1)));
        ExpectRefused(handler, good.With(rule.name, text(4096)));
        ExpectRefused(handler, good.With(rule.name, text(60000)));
        // The limit is one of characters as they are meant, not as they are written.
        ExpectAccepted(handler, good.With(rule.name, text(rule.longest, '&')));
    }
};

} // namespace rdx::test

#endif
