// The folder of links to the mounted volumes, as people know it from /Volumes: NAME → the mount
// point, "System" → "/", and "NAME 1", "NAME 2" for others of the same name. Only links that were
// made here are ever removed; what else is in the folder keeps its name, and a volume that another
// has made such a link to needs none.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/VolumeMemory.h"

namespace korvane {

// The links that should stand, by name, for volumes mounted at these places (bytes, in order). A
// link of `standing` whose target is still mounted keeps its name. A volume mounted directly in
// the folder needs none, and takes its name; `isTaken` tells of names taken by others.
[[nodiscard]] std::map<std::string, std::string> linksForVolumes(
    const std::string& folder, const std::vector<std::string>& mountPoints,
    const std::map<std::string, std::string>& standing,
    const std::function<bool(const std::string& name)>& isTaken);

// The volumes' names by mount point: "System" is that of "/" and of no other; a volume mounted
// directly in the folder has its own there; one that has a name so far keeps it; any other takes
// NAME, else NAME 1, NAME 2 and so on. No two have the same.
[[nodiscard]] std::map<std::string, std::string> namesForVolumes(
    const std::string& folder, const std::vector<std::string>& mountPoints,
    const std::map<std::string, std::string>& namesSoFar);

// The names of the links in the folder by their targets, whoever made them; those alone that
// namesForVolumes() could have given.
[[nodiscard]] std::map<std::string, std::string> volumeLinksIn(const std::string& folder);

class VolumeLinks {
  public:
    // An empty folder: no links are kept. The memory must outlive this object.
    VolumeLinks(std::string folder, VolumeMemory& memory)
        : folder_(std::move(folder)), memory_(memory) {}

    // Brings the folder in line, making it where it is missing. A link is remembered before it is
    // made and forgotten after it is gone, so that none outlives a kill unknown; while the memory
    // cannot be saved none is made. False when that is so, and worth another try.
    bool update(const std::vector<std::string>& mountPoints);

  private:
    [[nodiscard]] std::vector<std::string> withoutLink(
        std::vector<std::string> mountPoints, const std::map<std::string, std::string>& own) const;

    std::string folder_;
    VolumeMemory& memory_;
    std::vector<std::string> current_;  // for which the folder is in line
    bool isCurrent_ = false;
};

}  // namespace korvane
