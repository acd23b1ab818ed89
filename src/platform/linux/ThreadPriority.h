// The place of the calling thread among all that want the processor and the disks. A kernel that
// refuses any of it costs only the courtesy or the quickness: the work is done all the same.
#pragma once

namespace korvane {

// How background work makes way for whatever else the machine does: least processor time, disks
// only when they are idle. For helper programs, and for threads of the daemon that nobody waits
// for. Lowers the calling thread for good, and with it a program that has no other.
void yieldToEverything();

// For a thread that has little to do and is to do it at once: it asks for short turns, and is not
// kept waiting for the whole turn of another then, such as that of a program it has just launched
// (2.8 ms where the processors are two). Its share of the processor stays what it was. Linux 6.12
// and newer; programs and threads that it starts have the turns of everybody.
void runInShortTurns();

}  // namespace korvane
