// The simulated vehicle: what is measured on its lines moves with the time.
#ifndef RDX_SIM_VEHICLE_H
#define RDX_SIM_VEHICLE_H

#include "rDxsd/rDxSvcs.h"
#include "sim/clock.h"

#include <string_view>

namespace rdx::sim {

Measures MeasureAt(milliseconds time);

// The state of the MOST ring as a device of this type reports it: all bits set without a ring.
unsigned long MostStateAt(milliseconds time, std::string_view deviceType);

unsigned long TransmissionQualityAt(milliseconds time); // percent

} // namespace rdx::sim

#endif
