// A clock that moves only when it is told to. The wall clock and the time since boot run together;
// stepping the wall clock leaves the other alone, as setting a machine's date does.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "platform/Clock.h"

namespace korvane {

class SimulatedClock final : public Clock {
  public:
    SimulatedClock(Time now, std::chrono::microseconds uptime);

    [[nodiscard]] Time now() override;
    [[nodiscard]] std::uint64_t microsecondsSinceBoot() override;
    void setDidStep(std::function<void(std::chrono::microseconds step)> callback) override;

    // Time passes: both clocks move. Never by less than nothing.
    void advance(std::chrono::microseconds duration);
    // Somebody sets the date: the wall clock alone moves, either way.
    void step(std::chrono::microseconds offset);
    void setWallClock(Time now);

    // The loop calls this at each of its passes: reports how far the wall clock has been set.
    void reportStep();

  private:
    Time now_;
    std::chrono::microseconds uptime_;
    std::chrono::microseconds unreportedStep_{0};
    std::function<void(std::chrono::microseconds)> didStep_;
};

}  // namespace korvane
