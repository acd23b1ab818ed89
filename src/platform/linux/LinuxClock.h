// The clocks of the kernel: the wall clock, and the time since boot with the time asleep.
#pragma once

#include "platform/Clock.h"

namespace korvane {

class LinuxClock final : public Clock {
  public:
    [[nodiscard]] Time now() override;
    [[nodiscard]] std::uint64_t microsecondsSinceBoot() override;
};

}  // namespace korvane
