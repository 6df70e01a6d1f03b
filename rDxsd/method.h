// The common shape of the method handlers: read the arguments, ask the device, say what came of it.
#ifndef RDX_RDXSD_METHOD_H
#define RDX_RDXSD_METHOD_H

#include "rDxsd/device_text.h"
#include "rDxsd/method_rows.h"
#include "rDxsd/pdata.h"
#include "rDxsd/rDxSvcs.h"
#include "rDxsd/values.h"

namespace rdx {

// The members of a structure that a client sent, read by their rows. A name that no row has reads as absent.
class Values {
public:
    // The rows of the members of `of`; of the arguments themselves when it is empty.
    Values(WddxValue* structure, std::span<const ArgumentRow> rows, const char* of = "");

    // Whether it is a structure and its members are what their rows say, those of an array's elements too.
    // Otherwise the call is bad, and nothing else of it is looked at.
    bool Fit() const;

    // Texts belong to the structure.
    char* Text(const char* name) const;               // null when it is absent
    const char* OptionalText(const char* name) const; // an empty text when it is absent
    int Number(const char* name) const;               // a flag is 0 or 1, and absent is 0
    WddxValue* Array(const char* name) const;         // null when it is absent

private:
    const ArgumentRow* Row(const char* name) const;
    bool Fits(const ArgumentRow& row) const;
    bool ElementsFit(const ArgumentRow& array) const;

    WddxValue* structure_;
    std::span<const ArgumentRow> rows_;
    const char* of_;
};

// The arguments of a call of a method. They do not fit when they could not be parsed.
class Arguments : public Values {
public:
    Arguments(const TavrinRequest& call, const MethodRow& method);

private:
    Arguments(OwnedValue owner, const MethodRow& method);

    OwnedValue owner_;
};

// A new value, or a structure or array that takes over its parts; null when memory is short.
OwnedValue MakeInteger(int number);
OwnedValue MakeText(const char* text);
OwnedValue MakeFlag(bool flag);
OwnedValue MakeNull();
OwnedValue MakeStruct();
OwnedValue MakeArray(int length);
OwnedValue MakeStatus(int code, int reason, OwnedValue params);

// A structure of the answer, with the keys that its method's row names. A key that is not among them, or
// memory that runs short while it is put together, leaves no structure.
class Structure {
public:
    // The keys inside `of`; of the answer itself when it is empty.
    explicit Structure(const MethodRow& method, const char* of = "", OwnedValue begun = MakeStruct());

    void Add(const char* key, OwnedValue value);
    OwnedValue Release() { return std::move(value_); }

    // Prints it as the method's result packet. RDX_ANSWERED, or RDX_NOT_ASSIGNED when that failed.
    int Assign(TavrinResponse* result) const;

private:
    const MethodRow& method_;
    const char* of_;
    OwnedValue value_;
};

// The answer that begins with "Status": for a result of the device, or with a status of its own. `releasedBy`
// is looked at for Detail::kReleasedBy alone.
Structure StatusPacket(const MethodRow& method, int result, const char* releasedBy = "");
Structure StatusPacket(const MethodRow& method, int code, int reason, OwnedValue params);

// "params" with its one element filled for a status.
OwnedValue MakeParams(const StatusRow& status, const char* releasedBy);

// The state of the self test, with the code and the reason as clients see them.
struct SelfTestState {
    bool known; // false: it could not be asked for
    int code;
    int reason;
};
SelfTestState AskSelfTestState();

} // namespace rdx

#endif
