// The advisory lock (flock(2)) by which writers of one file keep out of each other's way.
#pragma once

namespace korvane {

// Waits a little for another writer. Nobody may hold the daemon up for long, so without the lock it
// returns after a tenth of a second: longer than any write of ours, syncs on a slow disk excepted.
// Closing the descriptor ends the lock.
void lockBriefly(int fd);

}  // namespace korvane
