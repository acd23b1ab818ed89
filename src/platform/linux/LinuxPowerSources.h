// Power sources from /sys/class/power_supply: the adapters and batteries that feed the machine
// itself. Batteries of mice, headsets and the like (scope "Device") are none.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "platform/PowerSources.h"

namespace korvane {

// One power supply as the kernel tells of it; an attribute that it lacks is empty.
struct PowerSupply {
    std::string type{};    // "Mains", "USB", "Wireless", "Battery", "UPS"
    std::string scope{};   // "System", "Device", "Unknown"
    std::string online{};  // adapters: "0" not connected, "1" and "2" feeding
    std::string
        status{};  // batteries: "Charging", "Discharging", "Not charging", "Full", "Unknown"
    std::string present{};  // batteries: "0" for an empty bay
};

// The states of the supplies that feed the machine, all of them the same, since it is the machine
// that runs on one or the other: an adapter that is not plugged in beside one that is says "AC
// Power" too, and so does a full battery. The machine runs on battery when it has a battery, no
// adapter feeds it, and no battery is being charged (the adapter of some machines is not known to
// the kernel; then only a battery that discharges says so). Nothing when no supply feeds it.
[[nodiscard]] std::optional<std::vector<std::string>> powerSourceStates(
    std::span<const PowerSupply> supplies);

class LinuxPowerSources final : public PowerSources {
  public:
    explicit LinuxPowerSources(std::string folder = "/sys/class/power_supply");

    // In the order of the supplies' names.
    [[nodiscard]] std::optional<std::vector<std::string>> states() override;

  private:
    std::string folder_;
};

}  // namespace korvane
