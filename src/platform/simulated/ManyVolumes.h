// Machines that are too large to be written down.
#pragma once

#include "platform/simulated/MachineDescription.h"

namespace korvane {

// A machine with this many local volumes, each alone on a drive of its own: "/" first, the others
// at "/Volumes/Volume 1" and so on, all internal and half full.
[[nodiscard]] MachineDescription describeManyVolumes(int count);

}  // namespace korvane
