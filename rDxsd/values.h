// Value trees with one owner, for code that builds packets piece by piece.
#ifndef RDX_RDXSD_VALUES_H
#define RDX_RDXSD_VALUES_H

#include "wddx/wddx.h"

#include <memory>

namespace rdx {

struct FreeValue {
    void operator()(WddxValue* value) const { wddxFree(&value); }
};

// A tree with one owner; `release()` hands it to a container or a caller.
using OwnedValue = std::unique_ptr<WddxValue, FreeValue>;

// Sets the member `name` of `structure`, handing `value` over; it is freed when it could not be set. A null
// value, which stands for memory that ran short while it was made, counts as not set. Returns success.
bool SetMember(const OwnedValue& structure, const char* name, OwnedValue value);

} // namespace rdx

#endif
