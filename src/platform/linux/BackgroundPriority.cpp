#include "platform/linux/BackgroundPriority.h"

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

}  // namespace

void yieldToEverything() {
    (void)::setpriority(PRIO_PROCESS, 0, kLeastFavoured);
    (void)::syscall(SYS_ioprio_set, kOneProcess, 0, kOnlyWhenIdle);
}

}  // namespace korvane
