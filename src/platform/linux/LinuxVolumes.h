// The mounted volumes of a Linux machine, from the kernel's mount table, sysfs and the udev
// database. The table is read when the kernel says that it has changed, and everything else is
// answered from memory; sizes alone are asked of a file system, and only of one on a local block
// device, so a dead server cannot hang anybody here. Mounts that are hidden below later ones are
// left out: no path leads to them. Volumes by index are those of mountedLocalVolumePaths().
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "platform/Volumes.h"
#include "platform/linux/BlockDevices.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/MountWatch.h"
#include "platform/linux/VolumeLinks.h"
#include "platform/linux/VolumeMemory.h"
#include "platform/linux/VolumeTable.h"

namespace korvane {

// Where things are on the machine; tests look elsewhere.
struct LinuxVolumesPlaces {
    std::string memoryFile{};  // for VolumeMemory; empty: numbers do not outlive the process
    std::string linksFolder = "/Volumes";
    // Makes the links there. Whoever does not goes by the names of those that are there.
    bool keepsLinks = false;
    std::string mountTable = "/proc/self/mountinfo";
    std::string sysfs = "/sys";
    std::string udevData = "/run/udev/data";
};

class LinuxVolumes final : public Volumes {
  public:
    // The loop must outlive this object. Links are made, and numbers written, as soon as the
    // memory's folder is there.
    LinuxVolumes(LinuxRunLoop& loop, const LinuxVolumesPlaces& places);
    ~LinuxVolumes() override;

    [[nodiscard]] const std::vector<MountEntry>& mountTable() override;
    [[nodiscard]] const MountEntry* mountAt(std::string_view path) override;
    [[nodiscard]] const std::vector<std::string>& mountedLocalVolumePaths() override;
    [[nodiscard]] std::string displayName(std::string_view path) override;
    [[nodiscard]] std::string pathBytes(const std::string& path) const override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByIndex(std::size_t index) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByReferenceNumber(std::int16_t number) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoOfRoot(const FSRef& root) override;
    [[nodiscard]] OSErrOr<VolumeInfo> volumeInfoByDevice(std::string_view bsdName) override;
    [[nodiscard]] std::optional<FileSystemFlags> fileSystemFlags(const std::string& path) override;
    [[nodiscard]] std::optional<FileSystemAttributes> fileSystemAttributes(
        const std::string& path) override;
    bool unmount(std::int16_t referenceNumber) override;
    void setDidMount(std::function<void()> callback) override;
    void setDidUnmount(std::function<void()> callback) override;

    // How often the kernel's table has been read.
    [[nodiscard]] std::size_t readings() const { return watch_.readings(); }

  private:
    void refresh();
    void didChange();
    void remember();
    void giveNames(const std::vector<std::string>& mountPoints);
    [[nodiscard]] std::string nameOf(const LocalVolume& volume) const;
    [[nodiscard]] OSErrOr<VolumeInfo> infoOf(const LocalVolume* volume) const;

    LinuxRunLoop& loop_;
    BlockDevices devices_;
    VolumeMemory memory_;
    VolumeLinks links_;
    MountWatch watch_;

    std::unique_ptr<VolumeTable> table_;
    std::string linksFolder_;
    std::map<std::string, std::string> nameOfMountPoint_;  // as bytes
    // Tables replaced since the loop last turned: references into them still hold.
    std::vector<std::unique_ptr<VolumeTable>> replaced_;
    bool hasAppeared_ = false;
    bool hasGone_ = false;
    std::function<void()> didMount_;
    std::function<void()> didUnmount_;

    std::chrono::seconds retryDelay_;
    std::unique_ptr<Timer> retry_;
};

}  // namespace korvane
