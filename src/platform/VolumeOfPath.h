// Which volume a path lies on, answered from the mount table alone: no file system is touched, so
// a dead server in the way hangs nobody.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Volumes.h"

namespace korvane {

// Whether the path is the folder or lies below it, by their names.
[[nodiscard]] bool isAtOrBelow(std::string_view path, std::string_view folder);

struct PathVolume {
    VolumeInfo info;
    // The mount that leads to the path; another one than the volume's own where the file system
    // is mounted more than once.
    std::string mountPoint;
};
// Nothing when the path lies on a network or pseudo file system, or on none.
[[nodiscard]] std::optional<PathVolume> volumeOfPath(Volumes& volumes, std::string_view path);

}  // namespace korvane
