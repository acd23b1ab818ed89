#include "platform/simulated/SimulatedClock.h"

#include <algorithm>
#include <utility>

namespace korvane {

namespace {
constexpr std::chrono::seconds kLeastStep{1};
}  // namespace

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

void SimulatedClock::step(std::chrono::microseconds offset) {
    now_ += offset;
    unreportedStep_ += offset;
}

void SimulatedClock::setWallClock(Time now) { step(now - now_); }

void SimulatedClock::setDidStep(std::function<void(std::chrono::microseconds step)> callback) {
    unreportedStep_ = std::chrono::microseconds{0};
    didStep_ = std::move(callback);
}

void SimulatedClock::reportStep() {
    if (std::chrono::abs(unreportedStep_) < kLeastStep) return;
    const auto step = std::exchange(unreportedStep_, std::chrono::microseconds{0});
    // A copy, since it may set another one.
    const auto callback = didStep_;
    if (callback) callback(step);
}

}  // namespace korvane
