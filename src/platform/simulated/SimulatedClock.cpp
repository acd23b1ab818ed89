#include "platform/simulated/SimulatedClock.h"

#include <algorithm>

namespace korvane {

SimulatedClock::SimulatedClock(Time now, std::chrono::microseconds uptime)
    : now_(now), uptime_(uptime) {}

Time SimulatedClock::now() { return now_; }

std::uint64_t SimulatedClock::microsecondsSinceBoot() {
    return static_cast<std::uint64_t>(uptime_.count());
}

void SimulatedClock::advance(std::chrono::microseconds duration) {
    const auto forward = std::max(duration, std::chrono::microseconds{0});
    now_ += forward;
    uptime_ += forward;
}

void SimulatedClock::step(std::chrono::microseconds offset) { now_ += offset; }

void SimulatedClock::setWallClock(Time now) { now_ = now; }

}  // namespace korvane
