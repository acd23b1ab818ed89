// Power sources whose states are what the test says.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/PowerSources.h"

namespace korvane {

class SimulatedPowerSources final : public PowerSources {
  public:
    using States = std::optional<std::vector<std::string>>;

    explicit SimulatedPowerSources(States states) : states_(std::move(states)) {}

    [[nodiscard]] States states() override { return states_; }

    void setStates(States states) { states_ = std::move(states); }

  private:
    States states_;
};

}  // namespace korvane
