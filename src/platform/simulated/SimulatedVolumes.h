// Mounted volumes of a simulated machine. Each reading goes through tables that are made anew only
// after the mounts have changed; what a caller was given stays valid until the loop turns.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/Volumes.h"
#include "platform/simulated/MachineDescription.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedFileSystem.h"
#include "platform/simulated/SimulatedJournal.h"
#include "platform/simulated/SimulatedRunLoop.h"

namespace korvane {

class SimulatedVolumes final : public Volumes {
  public:
    // Volumes appear in and vanish from the file system with their mounts.
    SimulatedVolumes(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                     SimulatedFileSystem& fileSystem, SimulatedJournal& journal);
    ~SimulatedVolumes() override;

    [[nodiscard]] const std::vector<MountEntry>& mountTable() override;
    [[nodiscard]] const MountEntry* mountAt(std::string_view path) override;
    [[nodiscard]] const std::vector<std::string>& mountedLocalVolumePaths() override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByIndex(std::size_t index) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByReferenceNumber(std::int16_t number) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoOfRoot(const FSRef& root) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByDevice(std::string_view bsdName) override;
    [[nodiscard]] std::string displayName(std::string_view path) override;
    [[nodiscard]] std::optional<FileSystemFlags> fileSystemFlags(const std::string& path) override;
    [[nodiscard]] std::optional<FileSystemAttributes> fileSystemAttributes(
        const std::string& path) override;
    bool unmount(std::int16_t referenceNumber) override;
    void setDidMount(std::function<void()> callback) override;
    void setDidUnmount(std::function<void()> callback) override;

    void mount(const MountDescription& mount);
    // The last volume mounted there goes, busy or not; what it was, or nothing.
    std::optional<MountDescription> forceUnmount(const std::string& path);
    // Every mount of these devices goes, last mounted first; answered in the order of mounting.
    std::vector<MountDescription> forceUnmountDevices(const std::unordered_set<std::string>& names);

    // The mounts that are there are no news: nobody is told of them.
    void forgetChanges();

    // All of these: false when nothing is mounted there.
    bool setSpace(const std::string& path, std::uint64_t sizeBytes, std::uint64_t freeBytes);
    bool setFreeBytes(const std::string& path, std::uint64_t freeBytes);
    bool setWritable(const std::string& path, bool isWritable);
    bool setVolumeFlags(const std::string& path, std::uint16_t flags);
    bool setBusy(const std::string& path, bool isBusy);
    // Sizes cannot be had.
    bool setUnreadable(const std::string& path, bool isUnreadable);
    // Asking for sizes takes this long: a dying disk.
    bool setSlow(const std::string& path, std::chrono::microseconds duration);
    // An index whose information cannot be had answers this status.
    void setStatusOfIndex(std::size_t index, OSErr status);

    // The sizes of the volume mounted there.
    [[nodiscard]] std::optional<MountDescription> describe(const std::string& path);
    // How often the daemon asked for an unmount.
    [[nodiscard]] int unmountRequests() const;

  private:
    struct Mounted;
    struct Tables;

    Mounted* mountedAt(std::string_view path);
    const Tables& tables();
    void changed();
    void tell();
    [[nodiscard]] std::unordered_set<std::uint64_t> localNumbers();
    [[nodiscard]] std::int16_t referenceNumberFor(const MountDescription& mount);
    void applyToFileSystem(const Mounted& mounted);
    [[nodiscard]] std::string nameOf(const Mounted& mounted);
    [[nodiscard]] OSErrOr<VolumeInfo> infoOf(const Mounted* mounted);

    SimulatedRunLoop& runLoop_;
    SimulatedClock& clock_;
    SimulatedFileSystem& fileSystem_;
    SimulatedJournal& journal_;
    std::vector<std::unique_ptr<Mounted>> mounts_;  // in the order of mounting
    std::unique_ptr<const Tables> tables_;
    std::vector<std::unique_ptr<const Tables>> retiredTables_;
    std::uint64_t retiredAtPass_ = 0;
    std::unordered_map<std::string, std::int16_t> referenceNumbers_;  // by device, for good
    std::int16_t nextReferenceNumber_ = -100;  // where the File Manager's own numbers begin
    std::uint64_t nextNumber_ = 0x1000001;
    std::unordered_map<std::size_t, OSErr> statusesOfIndexes_;
    std::unordered_set<std::uint64_t> toldNumbers_;
    bool isTellingPosted_ = false;
    std::function<void()> didMount_;
    std::function<void()> didUnmount_;
    int unmountRequests_ = 0;
};

}  // namespace korvane
