// The advisory lock (flock(2)) by which readers and writers of one file keep out of each other's
// way.
#pragma once

namespace korvane {

enum class Sharing { none, readers };

// Waits a little for others. Nobody may hold the daemon up for long, so without the lock it returns
// after a quarter of a second: longer than any write of ours, syncs on a slow disk excepted.
// Closing the descriptor ends the lock.
void lockBriefly(int fd, Sharing sharing);

}  // namespace korvane
