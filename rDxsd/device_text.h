// Texts of the device library.
#ifndef RDX_RDXSD_DEVICE_TEXT_H
#define RDX_RDXSD_DEVICE_TEXT_H

#include "rDxsd/rDxSvcs.h"

namespace rdx {

// A text that the device library fills; it starts as one that the library may leave alone.
struct DeviceText {
    char text[RDX_SVCS_TEXT_SIZE] = "";
};

} // namespace rdx

#endif
