// The entry that records one SMART check in a drive's history log.
#pragma once

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "storage/DriveNaming.h"

namespace korvane {

// The moment is kept as a date here, in whole seconds, while the usage log keeps a text.
[[nodiscard]] Dictionary smartLogEntry(const CheckedDrive& drive, Time now, bool isFailing);

}  // namespace korvane
