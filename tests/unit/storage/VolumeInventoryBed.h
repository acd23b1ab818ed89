// The volume inventory pass on a simulated machine: what its tests share.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "StorageBed.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeInventory.h"

namespace korvane {

inline constexpr Time kNow{std::chrono::seconds{1'700'000'000}};

inline void lockedHfsPlus(MountDescription& mount) {
    mount.signature = 0x482B;
    mount.volumeFlags = kVolumeSoftwareLocked;
}

class VolumeInventory : public ::testing::Test {
  protected:
    bool refresh() { return refreshOn(bed.machine.fileSystem); }
    bool refreshOn(FileSystem& fileSystem) {
        return refreshVolumeEntries(bed.machine.deviceRegistry, bed.machine.volumes, fileSystem,
                                    volumeArray, settings);
    }
    // An external drive with one volume.
    void mountData(const std::string& path = "/Volumes/Data", const std::string& type = "ext4") {
        bed.add(externalDisk("disk" + std::to_string(++lastDisk)));
        bed.mount(path, "/dev/disk" + std::to_string(lastDisk), type);
    }
    // The same, known by another name than the last path component.
    void mountNamed(const std::string& path, const std::string& displayName) {
        bed.add(externalDisk("disk" + std::to_string(++lastDisk)));
        bed.mount(path, "/dev/disk" + std::to_string(lastDisk), "ext4",
                  [&](MountDescription& mount) { mount.displayName = displayName; });
    }
    void setEncrypted(const std::string& medium, bool isEncrypted) {
        ASSERT_TRUE(bed.machine.deviceRegistry.setProperty(medium, "CoreStorage Encrypted",
                                                           PropertyList(isEncrypted)));
    }
    void unmount(const std::string& path) {
        ASSERT_TRUE(bed.machine.volumes.forceUnmount(path).has_value());
    }

    Dictionary& fieldsOf(const std::string& path) {
        static Dictionary none;
        for (PropertyList& element : volumeArray) {
            const auto entry = ConstVolumeEntry::over(element);
            if (entry && entry->volumeMountToName() == path) return *element.dictionary();
        }
        ADD_FAILURE() << "no entry for " << path;
        return none;
    }
    ConstVolumeEntry entryOf(const std::string& path) { return ConstVolumeEntry(fieldsOf(path)); }
    std::vector<std::string> entries() {
        std::vector<std::string> paths;
        for (const PropertyList& element : volumeArray) {
            const auto entry = ConstVolumeEntry::over(element);
            paths.push_back(entry ? entry->volumeMountToName() : "no entry");
        }
        return paths;
    }
    // What is in a volume's folder, or below the support folder.
    std::vector<std::string> contentsOf(const std::string& displayName) {
        return bed.machine.fileSystem.enumerate(volumeFolder(displayName));
    }
    std::vector<std::string> supportContents() {
        return bed.machine.fileSystem.list(kSupportFolder).value_or(std::vector<std::string>{});
    }
    void put(const std::string& path) { ASSERT_TRUE(bed.machine.fileSystem.put(path, "old")); }
    bool isThere(const std::string& path) { return bed.machine.fileSystem.exists(path); }

    StorageBed bed;
    PropertyListArray volumeArray;
    VolumePassSettings settings{.now = kNow, .systemVersionAgainst10_7 = 1};
    int lastDisk = 0;
};

}  // namespace korvane
