// The time of day and the time since boot.
#pragma once

#include <cstdint>

#include "base/Calendar.h"

namespace korvane {

class Clock {
  public:
    virtual ~Clock() = default;

    // Wall-clock time; it may jump either way.
    [[nodiscard]] virtual Time now() = 0;
    // Microseconds since the machine started, time asleep included; it never goes back.
    [[nodiscard]] virtual std::uint64_t microsecondsSinceBoot() = 0;
};

}  // namespace korvane
