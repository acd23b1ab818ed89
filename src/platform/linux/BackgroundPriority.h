// How background work makes way for whatever else the machine does: least processor time, disks
// only when they are idle. For helper programs, and for threads of the daemon that nobody waits
// for.
#pragma once

namespace korvane {

// Lowers the calling thread for good, and with it a program that has no other. A kernel that
// refuses any of it costs only that courtesy: the work is done all the same.
void yieldToEverything();

}  // namespace korvane
