// How a helper program makes way for whatever else the machine does: least processor time, disks
// only when they are idle. For programs of their own; the daemon itself never calls it.
#pragma once

namespace korvane {

// Lowers the calling process for good. A kernel that refuses any of it costs only that courtesy:
// the work is done all the same.
void yieldToEverything();

}  // namespace korvane
