#include "storage/VolumeInventory.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "storage/PathText.h"
#include "storage/RegistryProbes.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeFolders.h"
#include "storage/VolumeLookups.h"

namespace korvane {

namespace {

// One pass: who takes part and what it has found out so far.
class VolumePass {
  public:
    VolumePass(DeviceRegistry& registry, Volumes& volumes, FileSystem& fileSystem,
               PropertyListArray& volumeArray, const VolumePassSettings& settings)
        : registry_(registry),
          volumes_(volumes),
          fileSystem_(fileSystem),
          volumeArray_(volumeArray),
          settings_(settings) {}

    bool run() {
        matchEntriesWithMounts();
        for (const std::string& path : volumes_.mountedLocalVolumePaths()) visitMounted(path);
        markAbsentVolumes();
        refreshFolders();
        return changed_;
    }

  private:
    // The index of the first entry of each mounted volume, nothing while it has none. The keys lie
    // in the list of mounted volumes, which holds until the loop next turns; entries may move.
    void matchEntriesWithMounts() {
        const std::vector<std::string>& mounted = volumes_.mountedLocalVolumePaths();
        entryOfMount_.reserve(mounted.size());
        for (const std::string& path : mounted) entryOfMount_.try_emplace(path);
        for (std::size_t index = 0; index < volumeArray_.size(); ++index) {
            const auto entry = ConstVolumeEntry::over(volumeArray_[index]);
            if (!entry) continue;
            const auto mount = entryOfMount_.find(entry->volumeMountToName());
            if (mount != entryOfMount_.end() && !mount->second) mount->second = index;
        }
    }

    void visitMounted(const std::string& path) {
        const std::string device = getVolumeMountFromName(volumes_, path);
        if (!canBeMonitored(path, device)) return;
        const bool isEncrypted = isCoreStorageEncrypted(registry_, lastPathComponent(device));
        std::optional<std::size_t>& index = entryOfMount_[path];
        if (index) {
            revive(*VolumeEntry::over(volumeArray_[*index]), path, isEncrypted);
            return;
        }
        index = volumeArray_.size();
        volumeArray_.emplace_back(
            newVolumeEntry({.mountPoint = path,
                            .isInternal = isInternalDrive(registry_, lastPathComponent(device)),
                            .isHfs = isHfs(path),
                            .isCoreStorageEncrypted = isEncrypted},
                           settings_.now));
        changed_ = true;
    }

    bool canBeMonitored(std::string_view path, std::string_view device) {
        // Network and synthetic mounts have no device.
        if (device.find("/dev") == std::string_view::npos) return false;
        if (settings_.systemVersionAgainst10_7 >= 0) {
            const std::string_view name = lastPathComponent(path);
            if (name == "Recovery HD" || name == "Rec HD") return false;
        }
        const std::string_view bsdName = lastPathComponent(device);
        return GetVolumeWritable(volumes_, path) && !isATAPI(registry_, bsdName) &&
               !isOpticalMedia(registry_, bsdName) && !isVirtualInterface(registry_, bsdName);
    }

    // The start-up volume has no last path component to be found by: its own mount is looked at.
    bool isHfs(std::string_view path) {
        if (path != "/") return GetVolumeHFS(volumes_, path);
        const MountEntry* mount = volumes_.mountAt(path);
        return mount && mount->fileSystemTypeName == "hfs";
    }

    // What changes here is not worth a save of its own.
    void revive(VolumeEntry entry, const std::string& path, bool isEncrypted) {
        if (entry.usageStatus() == kStatusNotAvailable) entry.setUsageStatus(kStatusNotExamined);
        if (entry.directoryStatus() == kStatusNotAvailable) {
            entry.setDirectoryStatus(kStatusNotExamined);
        }
        entry.setIsCoreStorageEncrypted(isEncrypted);
        if (!isEncrypted) return;
        entry.setDirectoryOnOff(false);
        entry.setTrashOnOff(false);
        removeTrashRecords(fileSystem_, volumes_, path, settings_.directoryBackupLocations);
    }

    void markAbsentVolumes() {
        for (auto element = volumeArray_.rbegin(); element != volumeArray_.rend(); ++element) {
            auto entry = VolumeEntry::over(*element);
            if (!entry || entryOfMount_.contains(entry->volumeMountToName())) continue;
            if (entry->usageStatus() != kStatusNotAvailable) {
                entry->setUsageStatus(kStatusNotAvailable);
                changed_ = true;
            }
            if (entry->directoryStatus() != kStatusNotAvailable) {
                entry->setDirectoryStatus(kStatusNotAvailable);
                changed_ = true;
            }
        }
    }

    void refreshFolders() {
        VolumeFolders folders(fileSystem_);
        for (auto element = volumeArray_.rbegin(); element != volumeArray_.rend(); ++element) {
            auto entry = VolumeEntry::over(*element);
            if (!entry) continue;
            const std::string path = entry->volumeMountToName();
            const bool isAvailable = entry->usageStatus() != kStatusNotAvailable &&
                                     entry->directoryStatus() != kStatusNotAvailable;
            const bool isEncrypted = isOnEncryptedDevice(path);
            if (isEncrypted) {
                entry->setDirectoryStatus(kStatusNotAvailable);
                changed_ = true;
            }
            if (!isAvailable && !isEncrypted) continue;
            const std::string displayName = volumes_.displayName(path);
            if (isAvailable) folders.removeUnlisted(displayName);
            folders.keepMarker(
                displayName,
                isEncrypted || settings_.rootSaveDisabled ? BackupMarker::off : BackupMarker::on,
                isAvailable ? MissingFolder::create : MissingFolder::leave);
        }
    }

    bool isOnEncryptedDevice(std::string_view path) {
        const MountEntry* mount = volumes_.mountAt(path);
        return mount && isCoreStorageEncrypted(registry_, lastPathComponent(mount->mountFromName));
    }

    DeviceRegistry& registry_;
    Volumes& volumes_;
    FileSystem& fileSystem_;
    PropertyListArray& volumeArray_;
    const VolumePassSettings& settings_;

    std::unordered_map<std::string_view, std::optional<std::size_t>> entryOfMount_;
    bool changed_ = false;
};

}  // namespace

bool refreshVolumeEntries(DeviceRegistry& registry, Volumes& volumes, FileSystem& fileSystem,
                          PropertyListArray& volumeArray, const VolumePassSettings& settings) {
    return VolumePass(registry, volumes, fileSystem, volumeArray, settings).run();
}

}  // namespace korvane
