// Finds a volume's trash folders and the items in them by node number, without following links that
// users can plant.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/linux/UniqueFd.h"

namespace korvane {

// Where a Linux machine keeps what is asked for here; tests have places of their own.
struct MachinePlaces {
    std::string mountTable = "/proc/self/mountinfo";
    std::string blockDevices = "/sys/class/block";
    std::string homes = "/home";
    std::string homeOfRoot = "/root";
};

// Opens the folder that `steps` leads to from the folder `base`, each step without following a
// link. Nothing, with errno set, when there is none.
[[nodiscard]] UniqueFd openFolder(int base, const std::vector<std::string>& steps);

// The trash folder of one user on one volume.
struct TrashFolder {
    UniqueFd folder;
    std::string path;
    std::string top;  // what its notes are relative to; empty in a home, where they are not
    dev_t device = 0;
    ino_t node = 0;
    // The names of its items by their node numbers, read when first asked for.
    std::optional<std::unordered_multimap<std::uint64_t, std::string>> items;
};

// Where the trash's own note says that the item came from, as an absolute path; empty without one.
// Users write these notes: one is read to 64 KiB and not through a link.
[[nodiscard]] std::string originOf(const TrashFolder& folder, const std::string& name);

// The trash folders of one mounted volume, and which are in it.
class TrashFolders {
  public:
    // Those on the volume that is mounted from `device`, "/dev/sda1" or what else the mount table
    // has as the source, whose node numbers end in one of these 32 bits. Whoever can make folders
    // at the top of a volume can make any number that look like a trash; others' are found all the
    // same.
    TrashFolders(const MachinePlaces& places, const std::string& device,
                 const std::set<std::uint32_t>& nodes);

    struct Place {
        const TrashFolder* folder = nullptr;
        std::string name;
    };
    // The item with this node number in the folder whose number ends in these 32 bits.
    [[nodiscard]] std::optional<Place> find(std::uint64_t node, std::uint32_t parent);

    // All mount points that can be reached, and whether each is one of the volume's.
    using Mounts = std::map<std::string, bool>;

  private:
    using Nodes = std::set<std::uint32_t>;
    void addHomes(const std::string& homes, const Mounts& mounts, const Nodes& nodes);
    void addHome(const std::string& base, std::vector<std::string> steps, const Mounts& mounts,
                 const Nodes& nodes);
    void addOfMount(const std::string& mountPoint, const Nodes& nodes);
    void add(UniqueFd folder, std::string path, std::string top, const Nodes& nodes);

    std::vector<dev_t> devices_;
    std::vector<TrashFolder> folders_;
};

}  // namespace korvane
