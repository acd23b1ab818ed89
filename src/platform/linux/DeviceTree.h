// The device tree as nodes with properties and parents, made from what is known of each disk. Never
// changes once made; look-ups by name are one step. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/linux/DiskFacts.h"

namespace korvane {

struct KernelOrder {
    using is_transparent = void;
    bool operator()(const std::string& a, const std::string& b) const { return comesBefore(a, b); }
};
// Whole disks by kernel name.
using Disks = std::map<std::string, DiskFacts, KernelOrder>;

class DeviceTree {
  public:
    static constexpr std::uint32_t kNone = static_cast<std::uint32_t>(-1);

    struct Node {
        Dictionary properties;
        std::uint32_t parent = kNone;
        std::uint32_t firstChild = kNone;
    };

    // One root without properties. Below it, from the outside in, for a disk with a drive of its
    // own: what it hangs on, the drive, the whole disk's media, its partitions. The media of a
    // mapping or an array hangs on the media of the first device that it lies on, and is encrypted
    // when one of those it lies on is.
    explicit DeviceTree(const Disks& disks);

    [[nodiscard]] const std::vector<Node>& nodes() const { return nodes_; }
    // The nodes of a class in the kernel's order, a disk before its partitions.
    [[nodiscard]] const std::vector<std::uint32_t>& nodesOfClass(std::string_view className) const;
    [[nodiscard]] std::vector<std::uint32_t> nodesNamed(std::string_view className,
                                                        std::string_view bsdName) const;
    // The names below /dev of the disks that have a number, in the order of their numbers: whole
    // disks with a drive of their own that is neither made by software nor optical.
    [[nodiscard]] const std::vector<std::string>& numberedDisks() const { return numberedDisks_; }

  private:
    void addDisk(const DiskFacts& disk);
    void hangMappings(const Disks& disks);
    std::uint32_t addNode(Dictionary properties, std::uint32_t parent);
    void addMedia(const MediaFacts& media, const std::string& kernelName, MediaKind kind,
                  std::uint32_t parent);

    std::vector<Node> nodes_;
    std::vector<std::string> numberedDisks_;
    std::map<std::string, std::vector<std::uint32_t>, std::less<>> classes_;
    std::unordered_map<std::string, std::uint32_t> mediaOfKernelName_;
    std::unordered_map<std::string, std::vector<std::uint32_t>> mediaOfBsdName_;
};

}  // namespace korvane
