// The device tree of a Linux machine, from sysfs and the udev database, read by hand. The kernel
// says which disks have changed, and udevd when it has written what it knows of them. Nobody waits
// for these events: they are taken in at the first question in a turn of the loop, so that no
// answer is older than that. Only the disks that have changed are read again. No device is opened
// for that, but for a drive whose full name or SMART neither the kernel nor a udevd tells: that is
// asked once.
#pragma once

#include <libudev.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/DeviceRegistry.h"
#include "platform/linux/DeviceTree.h"
#include "platform/linux/DriveCommands.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSmart.h"
#include "platform/linux/Sysfs.h"
#include "platform/linux/UdevDatabase.h"

namespace korvane {

// Where things are on the machine; tests look elsewhere.
struct LinuxDevicePlaces {
    std::string sysfs = "/sys";
    std::string udevData = "/run/udev/data";
    std::string deviceFiles = "/dev";
    // Not for a machine that is made of files: the events would be those of the real one.
    bool takesEvents = true;
};

class LinuxDeviceRegistry final : public DeviceRegistry {
  public:
    // The loop and what drives are reached with must outlive this object.
    LinuxDeviceRegistry(LinuxRunLoop& loop, const LinuxDevicePlaces& places,
                        DriveCommands& commands = kernelDriveCommands());
    ~LinuxDeviceRegistry() override;
    LinuxDeviceRegistry(const LinuxDeviceRegistry&) = delete;
    LinuxDeviceRegistry& operator=(const LinuxDeviceRegistry&) = delete;

    [[nodiscard]] std::optional<std::uint64_t> generation() override;
    [[nodiscard]] std::optional<std::vector<ServiceId>> services(
        std::string_view className) override;
    [[nodiscard]] std::optional<std::vector<ServiceId>> servicesNamed(
        std::string_view className, std::string_view bsdName) override;
    [[nodiscard]] std::optional<PropertyList> property(ServiceId service,
                                                       std::string_view key) override;
    [[nodiscard]] std::optional<Dictionary> properties(ServiceId service) override;
    [[nodiscard]] std::optional<ServiceId> parent(ServiceId service) override;
    [[nodiscard]] std::optional<ServiceId> firstChild(ServiceId service) override;
    // Disks are counted in the kernel's order, those made by software and optical ones left out.
    [[nodiscard]] std::optional<std::string> diskPath(unsigned number) override;
    [[nodiscard]] SmartOpening openSmart(ServiceId drive) override;

    // Has the disk or partition with this kernel name, and the disk that it is a part of, read
    // again when the tree is next asked for.
    void deviceChanged(const std::string& kernelName);
    // The same of a disk that has come or gone: nothing that was said by what had its name stands.
    void deviceReplaced(const std::string& kernelName);
    // How many disks have been read.
    [[nodiscard]] std::size_t disksRead() const { return disksRead_; }

  private:
    struct UdevCloser {
        void operator()(udev* context) const { (void)udev_unref(context); }
        void operator()(udev_monitor* monitor) const { (void)udev_monitor_unref(monitor); }
        void operator()(udev_device* device) const { (void)udev_device_unref(device); }
    };

    // What a drive has answered, and what it hung on then.
    struct KnownDrive {
        std::vector<Dictionary> ancestors = {};
        std::shared_ptr<DriveMemory> memory = std::make_shared<DriveMemory>();
    };

    using Monitor = std::unique_ptr<udev_monitor, UdevCloser>;

    [[nodiscard]] Monitor listenTo(const char* sender);
    void takeEvents(udev_monitor& monitor);
    void everythingChanged();
    // Brings the tree up to date. False when there is none to be read.
    [[nodiscard]] bool refresh();
    // Learns what has changed since the turn of the loop before, once a turn: a tick over a
    // thousand volumes asks thousands of times.
    void lookForChanges();
    [[nodiscard]] std::vector<BlockFolder> findDisks(const std::vector<std::string>& names);

    [[nodiscard]] DiskFacts readDiskFacts(const BlockFolder& folder);

    [[nodiscard]] std::string nodeOfDisk(const std::string& kernelName) const;
    [[nodiscard]] ServiceId serviceOf(std::uint32_t node) const;
    [[nodiscard]] const DeviceTree::Node* nodeOf(ServiceId service) const;

    LinuxRunLoop& loop_;
    Sysfs sysfs_;
    UdevDatabase udevDatabase_;
    const std::string deviceFiles_;
    DriveCommands& commands_;

    // The folders of disks and partitions by kernel name, until something is said to have changed.
    std::map<std::string, std::string> folders_;
    Disks disks_;
    std::set<std::string> disksInLine_;  // those of them that need not be read again
    std::unique_ptr<DeviceTree> tree_;
    // By kernel name, for as long as the drives stay what they are.
    std::map<std::string, KnownDrive> knownDrives_;
    std::uint64_t generation_ = 0;  // of the tree; counts the trees
    bool isStale_ = true;
    std::optional<std::uint64_t> turnOfLastLook_;
    std::size_t disksRead_ = 0;

    std::unique_ptr<udev, UdevCloser> udev_;
    Monitor kernel_;
    Monitor udevd_;
};

}  // namespace korvane
