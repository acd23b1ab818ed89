// Where the machine's power comes from.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvane {

// What a power source may say of its state; any other text means neither.
inline constexpr char kPowerSourceOnMains[] = "AC Power";
inline constexpr char kPowerSourceOnBattery[] = "Battery Power";

class PowerSources {
  public:
    virtual ~PowerSources() = default;

    // The state of each power source that feeds the machine itself, in order; nothing on a machine
    // without power-source information.
    [[nodiscard]] virtual std::optional<std::vector<std::string>> states() = 0;
};

}  // namespace korvane
