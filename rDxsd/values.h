// Building value trees piece by piece.
#ifndef RDX_RDXSD_VALUES_H
#define RDX_RDXSD_VALUES_H

#include "wddx/owned_value.h"

namespace rdx {

// Sets the member `name` of `structure`, handing `value` over; it is freed when it could not be set. A null
// value, which stands for memory that ran short while it was made, counts as not set. Returns success.
bool SetMember(const OwnedValue& structure, const char* name, OwnedValue value);

} // namespace rdx

#endif
