// One reading of the mount table, worked out: all mounts by path, and the volumes among them, that
// is the file systems on local block devices, each once. Never changes once made; every look-up is
// one step and touches nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/Volumes.h"
#include "platform/linux/BlockDevices.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/VolumeMemory.h"

namespace korvane {

// A file system on a local block device, at its first mount.
struct LocalVolume {
    std::int16_t number = 0;
    std::string mountPoint;  // as text
    std::string mountPointBytes;
    std::string typeName;  // the kernel's
    std::uint64_t mountId = 0;
    DeviceNumber superBlock;
    bool isReadOnly = false;
    BlockDevice device;
};

// What the table says of one mount beside its entry.
struct MountFacts {
    static constexpr std::size_t kNoVolume = static_cast<std::size_t>(-1);

    std::size_t volumeIndex = kNoVolume;  // of the file system mounted there
    std::uint64_t mountId = 0;
    bool isReadOnly = false;
    std::string mountPointBytes;
};

class VolumeTable {
  public:
    // What `previous` knows of a volume that is still mounted is taken over without asking for it
    // again; its number above all.
    VolumeTable(const std::vector<MountRow>& rows, const BlockDevices& devices,
                VolumeMemory& memory, const VolumeTable* previous);
    VolumeTable(const VolumeTable&) = delete;
    VolumeTable& operator=(const VolumeTable&) = delete;

    [[nodiscard]] const std::vector<MountEntry>& entries() const { return entries_; }
    [[nodiscard]] const std::vector<LocalVolume>& volumes() const { return volumes_; }
    [[nodiscard]] const std::vector<std::string>& volumePaths() const { return volumePaths_; }

    // Null where there is none. The entry and the facts of one path belong together.
    [[nodiscard]] const MountEntry* entryAt(std::string_view path) const;
    [[nodiscard]] const MountFacts* factsAt(std::string_view path) const;
    [[nodiscard]] const LocalVolume* volumeOf(const MountFacts& facts) const;
    [[nodiscard]] const LocalVolume* volumeAt(std::string_view path) const;
    [[nodiscard]] const LocalVolume* volumeNumbered(std::int16_t number) const;
    [[nodiscard]] const LocalVolume* volumeOnDevice(std::string_view name) const;

    // Whether a volume stands here that does not stand, at the same place, in the other table.
    [[nodiscard]] bool hasVolumeMissingIn(const VolumeTable& other) const;

  private:
    void addRow(const MountRow& row, const BlockDevices& devices, const VolumeTable* previous);
    [[nodiscard]] std::size_t volumeOfRow(const MountRow& row, const BlockDevices& devices,
                                          const VolumeTable* previous);
    void giveNumbers(VolumeMemory& memory);
    void index();

    std::vector<MountEntry> entries_;
    std::vector<MountFacts> facts_;  // one for each entry
    std::vector<LocalVolume> volumes_;
    std::vector<std::string> volumePaths_;

    std::unordered_map<DeviceNumber, std::size_t> volumeOfSuperBlock_;
    std::unordered_map<std::string_view, std::size_t> entryOfPath_;
    std::unordered_map<std::string_view, std::size_t> volumeOfPath_;
    std::unordered_map<std::string_view, std::size_t> volumeOfDevice_;
    std::unordered_map<std::int16_t, std::size_t> volumeOfNumber_;
};

}  // namespace korvane
