// The time of day and the time since boot.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "base/Calendar.h"

namespace korvane {

class Clock {
  public:
    virtual ~Clock() = default;

    // Wall-clock time; it may jump either way.
    [[nodiscard]] virtual Time now() = 0;
    // Microseconds since the machine started, time asleep included; it never goes back.
    [[nodiscard]] virtual std::uint64_t microsecondsSinceBoot() = 0;

    // What happens when the wall clock has been set, by a person or by a time service: called on
    // the loop's thread with how far it was moved, backward if negative. Steps of less than a
    // second are summed up until they are one; a clock that is made to run faster or slower for a
    // while is not set. Steps from before this call are not reported.
    virtual void setDidStep(std::function<void(std::chrono::microseconds step)> callback) = 0;
};

}  // namespace korvane
