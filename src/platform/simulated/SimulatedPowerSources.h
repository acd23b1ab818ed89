// Power sources whose states are what the test says.
#pragma once

#include <functional>
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

    [[nodiscard]] States states() override {
        if (whenAsked_) whenAsked_();
        return states_;
    }

    void setStates(States states) { states_ = std::move(states); }
    // Called each time before the states are answered: something happens, or fails, at that moment.
    void setWhenAsked(std::function<void()> whenAsked) { whenAsked_ = std::move(whenAsked); }

  private:
    States states_;
    std::function<void()> whenAsked_;
};

}  // namespace korvane
