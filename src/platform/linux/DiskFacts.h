// One whole disk as sysfs and the udev database describe it, already in the terms of the device
// tree: a set of properties for each node. The device itself is never opened here.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/PropertyList.h"
#include "platform/SmartInterface.h"
#include "platform/linux/Sysfs.h"
#include "platform/linux/UdevDatabase.h"

namespace korvane {

enum class MediaKind { disk, compactDisc, dvd };

struct MediaFacts {
    std::string name;  // the kernel's: "sda1", "cciss!c0d0"
    Dictionary properties;
    friend bool operator==(const MediaFacts&, const MediaFacts&) = default;
};

struct DiskFacts {
    std::string kernelName;
    MediaKind kind = MediaKind::disk;
    MediaFacts media;
    std::vector<MediaFacts> partitions;  // by partition number
    // The kernel names of the devices that a mapping or a RAID array lies on. Such a device hangs
    // on the first of them and has no drive of its own.
    std::vector<std::string> underlying;
    bool isEncrypted = false;  // a LUKS (or plain) mapping
    bool hasDrive = false;
    // It is or may be an ATA drive, and neither the kernel nor udevd tells what its IDENTIFY DEVICE
    // data does: its full name, and whether it has SMART. addIdentity then adds that.
    bool wantsIdentity = false;
    Dictionary drive;                   // of the IOBlockStorageDevice
    std::vector<Dictionary> ancestors;  // of what the drive hangs on, nearest first
    friend bool operator==(const DiskFacts&, const DiskFacts&) = default;
};

// A disk or partition as its folder in sysfs names it.
struct BlockFolder {
    std::string kernelName;
    std::string path;                     // relative to sysfs
    std::vector<BlockFolder> partitions;  // of a whole disk
};

[[nodiscard]] DiskFacts readDisk(const BlockFolder& disk, const Sysfs& sysfs,
                                 const UdevDatabase& udev);

// What an ATA drive says of itself, cut out of the SCSI page that carries its IDENTIFY DEVICE data
// (SAT-4 12.4.2: VPD page 89h). Texts are empty, and SMART unknown, where the page does not tell.
struct AtaIdentity {
    std::string model;
    std::string serial;
    bool isSmartSupported = false;
};
[[nodiscard]] AtaIdentity parseAtaInformationPage(std::string_view page);
// Adds what the drive has answered itself; zeros add nothing.
void addIdentity(DiskFacts& disk, const IdentifyData& identify);
// The text of a unit serial number page (SPC-4 7.8.15: VPD page 80h); empty for anything else.
[[nodiscard]] std::string parseUnitSerialPage(std::string_view page);

// Whether the kernel would name the first before the second: sdz before sdaa, nvme2n1 before
// nvme10n1.
[[nodiscard]] bool comesBefore(const std::string& kernelName, const std::string& otherKernelName);

}  // namespace korvane
