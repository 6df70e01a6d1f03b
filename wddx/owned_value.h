// Value trees with one owner.
#ifndef RDX_WDDX_OWNED_VALUE_H
#define RDX_WDDX_OWNED_VALUE_H

#include "wddx/wddx.h"

#include <memory>

namespace rdx {

struct FreeValue {
    void operator()(WddxValue* value) const { wddxFree(&value); }
};

// A tree with one owner; `release()` hands it to a container or a caller.
using OwnedValue = std::unique_ptr<WddxValue, FreeValue>;

} // namespace rdx

#endif
