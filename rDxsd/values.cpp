#include "rDxsd/values.h"

namespace rdx {

bool SetMember(const OwnedValue& structure, const char* name, OwnedValue value) {
    if (!structure || !value) return false;
    wddxSetStructVar(structure.get(), name, value.get());
    if (wddxGetStructVar(structure.get(), name) != value.get()) return false;
    static_cast<void>(value.release()); // the structure's now
    return true;
}

} // namespace rdx
