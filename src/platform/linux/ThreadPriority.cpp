#include "platform/linux/ThreadPriority.h"

#include <linux/sched.h>
#include <linux/sched/types.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace korvane {
namespace {

// setpriority(2).
constexpr int kLeastFavoured = 19;
// ioprio_set(2): the class in the bits from 13 on. The C library has no header for it, and the
// kernel's own is not C++ in every version.
constexpr int kOneProcess = 1;
constexpr int kOnlyWhenIdle = 3 << 13;

// sched_setattr(2): the shortest turn that can be asked for, in nanoseconds.
constexpr __u64 kShortestTurn = 100'000;

}  // namespace

void yieldToEverything() {
    (void)::setpriority(PRIO_PROCESS, 0, kLeastFavoured);
    (void)::syscall(SYS_ioprio_set, kOneProcess, 0, kOnlyWhenIdle);
}

void runInShortTurns() {
    sched_attr attributes{};
    if (::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0) != 0) return;
    // The other policies have turns of their own, or none.
    if (attributes.sched_policy != SCHED_NORMAL) return;
    attributes.sched_runtime = kShortestTurn;
    attributes.sched_flags = SCHED_FLAG_RESET_ON_FORK;
    (void)::syscall(SYS_sched_setattr, 0, &attributes, 0);
}

}  // namespace korvane
