#include "platform/linux/DeviceTree.h"

#include <algorithm>

namespace korvane {
namespace {

constexpr std::uint32_t kRoot = 0;
constexpr char kMedia[] = "IOMedia";
constexpr char kCompactDiscMedia[] = "IOCDMedia";
constexpr char kDvdMedia[] = "IODVDMedia";
constexpr char kDrive[] = "IOBlockStorageDevice";

}  // namespace

DeviceTree::DeviceTree(const Disks& disks) {
    (void)addNode(Dictionary{}, kNone);
    for (const auto& [name, disk] : disks) {
        addDisk(disk);
    }
    hangMappings(disks);
}

void DeviceTree::addDisk(const DiskFacts& disk) {
    std::uint32_t parent = kRoot;
    for (auto each = disk.ancestors.rbegin(); each != disk.ancestors.rend(); ++each) {
        parent = addNode(*each, parent);
    }
    if (disk.hasDrive) {
        parent = addNode(disk.drive, parent);
        classes_[kDrive].push_back(parent);
        const bool isImage =
            std::any_of(disk.ancestors.begin(), disk.ancestors.end(), [](const Dictionary& each) {
                return stringValue(each.find("Product Name")) == "Disk Image";
            });
        if (!isImage && disk.kind == MediaKind::disk) {
            numberedDisks_.push_back(disk.media.name);
        }
    }
    addMedia(disk.media, disk.kernelName, disk.kind, parent);
    const std::uint32_t whole = mediaOfKernelName_.at(disk.kernelName);
    for (const MediaFacts& partition : disk.partitions) {
        // A partition's names differ only where the kernel's holds "!".
        addMedia(partition, partition.name, disk.kind, whole);
    }
}

void DeviceTree::hangMappings(const Disks& disks) {
    // Each pass carries encryption one layer up; stacks are a few layers deep, and a pass that
    // changes nothing is the last.
    for (bool hasChanged = true; hasChanged;) {
        hasChanged = false;
        for (const auto& [name, disk] : disks) {
            Node& media = nodes_[mediaOfKernelName_.at(name)];
            const bool isEncrypted =
                disk.isEncrypted ||
                std::any_of(
                    disk.underlying.begin(), disk.underlying.end(), [&](const std::string& below) {
                        const auto found = mediaOfKernelName_.find(below);
                        return found != mediaOfKernelName_.end() &&
                               nodes_[found->second].properties.contains("CoreStorage Encrypted");
                    });
            if (isEncrypted && !media.properties.contains("CoreStorage Encrypted")) {
                media.properties.set("CoreStorage Encrypted", true);
                hasChanged = true;
            }
        }
    }
    for (const auto& [name, disk] : disks) {
        const std::uint32_t media = mediaOfKernelName_.at(name);
        if (disk.underlying.empty()) {
            continue;
        }
        const auto below = mediaOfKernelName_.find(disk.underlying.front());
        if (below == mediaOfKernelName_.end()) {
            continue;
        }
        // Readings of a tree in motion may seem to form a ring.
        std::uint32_t top = below->second;
        while (top != media && top != kRoot) {
            top = nodes_[top].parent;
        }
        if (top == media) {
            continue;
        }
        nodes_[media].parent = below->second;
        if (nodes_[below->second].firstChild == kNone) {
            nodes_[below->second].firstChild = media;
        }
    }
}

std::uint32_t DeviceTree::addNode(Dictionary properties, std::uint32_t parent) {
    const auto index = static_cast<std::uint32_t>(nodes_.size());
    nodes_.push_back({.properties = std::move(properties), .parent = parent});
    if (parent != kNone && nodes_[parent].firstChild == kNone) {
        nodes_[parent].firstChild = index;
    }
    return index;
}

void DeviceTree::addMedia(const MediaFacts& media, const std::string& kernelName, MediaKind kind,
                          std::uint32_t parent) {
    const std::uint32_t index = addNode(media.properties, parent);
    mediaOfKernelName_.emplace(kernelName, index);
    mediaOfBsdName_[stringValue(media.properties.find("BSD Name"))].push_back(index);
    classes_[kMedia].push_back(index);
    if (kind != MediaKind::disk) {
        classes_[kind == MediaKind::dvd ? kDvdMedia : kCompactDiscMedia].push_back(index);
    }
}

const std::vector<std::uint32_t>& DeviceTree::nodesOfClass(std::string_view className) const {
    static const std::vector<std::uint32_t> kNoNodes;
    const auto found = classes_.find(className);
    return found == classes_.end() ? kNoNodes : found->second;
}

std::vector<std::uint32_t> DeviceTree::nodesNamed(std::string_view className,
                                                  std::string_view bsdName) const {
    const auto named = mediaOfBsdName_.find(std::string{bsdName});
    if (named == mediaOfBsdName_.end()) {
        return {};
    }
    if (className == kMedia) {
        return named->second;
    }
    std::vector<std::uint32_t> nodes;
    const std::vector<std::uint32_t>& ofClass = nodesOfClass(className);
    std::copy_if(named->second.begin(), named->second.end(), std::back_inserter(nodes),
                 [&](std::uint32_t node) {
                     return std::binary_search(ofClass.begin(), ofClass.end(), node);
                 });
    return nodes;
}

}  // namespace korvane
