// The drives that SMART checks look at, by what the check calls them: read from the device registry
// once and kept for as long as the tree stays as it is, since every check asks for one drive of
// perhaps hundreds. Says nothing of how a drive is, and the inventory does not look here.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "platform/DeviceRegistry.h"
#include "storage/DriveNaming.h"

namespace korvane {

// Disks with higher numbers are never looked at.
inline constexpr unsigned kHighestDiskNumber = 24;

struct NumberedDrive {
    unsigned number;
    CheckedDrive drive;
};

class DriveIndex {
  public:
    // The registry must outlive this object.
    explicit DriveIndex(DeviceRegistry& registry) : registry_(registry) {}

    // The drives with SMART and a number that the check calls so, in the registry's order. Copies:
    // who asked may go on with them after the tree has changed.
    [[nodiscard]] std::vector<NumberedDrive> drivesNamed(std::string_view model,
                                                         std::string_view serial);

  private:
    void refresh();

    DeviceRegistry& registry_;
    std::vector<NumberedDrive> drives_;
    // Of the tree that the drives were read from; nothing: of none.
    std::optional<std::uint64_t> generation_;
};

}  // namespace korvane
