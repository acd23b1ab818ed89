// Reads attributes, links and folders of sysfs, by hand: a device costs a few system calls. The
// folder may be any tree of the same shape, so that recorded machines can be tested.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/linux/MountTable.h"

namespace korvane {

class Sysfs {
  public:
    explicit Sysfs(std::string root = "/sys") : root_(std::move(root)) {}

    // Paths are relative to the root. An attribute comes without its final line feed; nothing when
    // it cannot be read. Attributes longer than a page are cut (sysfs has none).
    [[nodiscard]] std::optional<std::string> attribute(const std::string& path) const;
    // What a link holds, as it stands.
    [[nodiscard]] std::optional<std::string> linkText(const std::string& path) const;
    // The names in a folder in bytewise order; empty when it cannot be listed.
    [[nodiscard]] std::vector<std::string> list(const std::string& path) const;
    [[nodiscard]] bool exists(const std::string& path) const;

    // The folder of the block device with this number, relative to the root:
    // "devices/pci0000:00/…/block/sda/sda1".
    [[nodiscard]] std::optional<std::string> blockDevicePath(DeviceNumber number) const;
    // The same of a block device with this kernel name.
    [[nodiscard]] std::optional<std::string> blockDevicePath(const std::string& kernelName) const;

  private:
    std::string root_;
};

// The last component of a path.
[[nodiscard]] std::string lastComponent(const std::string& path);
// A path without its last component; empty when there is only one.
[[nodiscard]] std::string parentFolder(const std::string& path);

// A device goes by its kernel name, which is one component: it has "!" where the path of its node
// has "/". So "/dev/cciss!c0d0" is the device whose node is "/dev/cciss/c0d0". Both take a name or
// a whole path below /dev, without its beginning.
[[nodiscard]] std::string nodeNameOfKernelName(std::string kernelName);
[[nodiscard]] std::string kernelNameOfNode(std::string nodeName);

}  // namespace korvane
