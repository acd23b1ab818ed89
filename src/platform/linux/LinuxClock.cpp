#include "platform/linux/LinuxClock.h"

#include <chrono>
#include <ctime>

namespace korvane {

Time LinuxClock::now() {
    return std::chrono::time_point_cast<std::chrono::microseconds>(
        std::chrono::system_clock::now());
}

std::uint64_t LinuxClock::microsecondsSinceBoot() {
    timespec time{};
    (void)::clock_gettime(CLOCK_BOOTTIME, &time);  // cannot fail for a clock that exists
    return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

}  // namespace korvane
