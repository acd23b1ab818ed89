// Mounted volumes: the mount table, volumes by index and by reference number, sizes, and the events
// of mounting and unmounting. Reading what has not changed since costs no system call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

// A File Manager status: 0 is success.
using OSErr = std::int16_t;
// No such volume: ends an enumeration by index (File Manager, MacErrors.h: nsvErr).
inline constexpr OSErr nsvErr = -35;
// Input or output error (MacErrors.h: ioErr).
inline constexpr OSErr ioErr = -36;

// One line of the mount table.
struct MountEntry {
    std::string mountOnName;         // where it is mounted; bytes that no text can carry (control
                                     // characters, broken UTF-8) stand as a backslash and three
                                     // octal digits, and every function here takes them so
    std::string mountFromName;       // its device path, "/dev/" and the kernel's name, or what else
                                     // the table has
    std::string fileSystemTypeName;  // "hfs" for both HFS forms, else the type's own name
};

// What a volume's root is known by; equal for one mounted volume as long as it stays mounted.
struct FSRef {
    std::string rootPath;
    friend bool operator==(const FSRef&, const FSRef&) = default;
};

// The volume information record and the parameter buffer in one.
struct VolumeInfo {
    std::int16_t referenceNumber = 0;  // never 0
    FSRef root;
    std::string name;                 // its display name
    std::uint32_t serverAddress = 0;  // 0 for a local volume
    std::string bsdName;              // empty when the volume has no device
    std::uint16_t fileSystemId = 0;   // 0 for HFS, HFS Plus and HFSX
    std::uint16_t signature = 0;      // 0x482B HFS Plus, 0x4858 HFSX (TN1150), 0 for others
    std::uint16_t flags = 0;          // kVolumeHardwareLocked, kVolumeSoftwareLocked
};
// File Manager volume flags (Files.h: kFSVolFlagHardwareLockedMask, kFSVolFlagSoftwareLockedMask).
inline constexpr std::uint16_t kVolumeHardwareLocked = 0x0080;
inline constexpr std::uint16_t kVolumeSoftwareLocked = 0x8000;

struct FileSystemFlags {
    bool isRemovable = false;
    bool isWritable = false;
    bool isUnmountable = false;
};

struct FileSystemAttributes {
    std::uint64_t sizeBytes = 0;
    std::uint64_t freeBytes = 0;  // what an ordinary user may still write
    std::uint64_t number = 0;     // the device number that files on it carry
};

// Either a value or the status that stands in its place.
template <typename T>
struct OSErrOr {
    OSErr status = 0;
    T value{};
};

class Volumes {
  public:
    virtual ~Volumes() = default;

    // The whole table, in the order of mounting. The reference holds until the loop next turns.
    [[nodiscard]] virtual const std::vector<MountEntry>& mountTable() = 0;
    // The first entry mounted exactly there, or null. Holds as mountTable() does.
    [[nodiscard]] virtual const MountEntry* mountAt(std::string_view path) = 0;

    // The mount points of volumes on local block devices, in the order of mounting. A file system
    // mounted more than once is there once, at its first mount; network and pseudo file systems are
    // never touched. Holds as mountTable() does.
    [[nodiscard]] virtual const std::vector<std::string>& mountedLocalVolumePaths() = 0;

    // Volumes by index from 1; nsvErr past the last.
    [[nodiscard]] virtual OSErrOr<VolumeInfo> volumeInfoByIndex(std::size_t index) = 0;
    [[nodiscard]] virtual OSErrOr<VolumeInfo> volumeInfoByReferenceNumber(std::int16_t number) = 0;
    // The volume whose root this is: nsvErr when it is no longer mounted.
    [[nodiscard]] virtual OSErrOr<VolumeInfo> volumeInfoOfRoot(const FSRef& root) = 0;
    // The local volume on the device with exactly this BSD name: nsvErr when there is none.
    [[nodiscard]] virtual OSErrOr<VolumeInfo> volumeInfoByDevice(std::string_view bsdName) = 0;

    // The name that a person knows the volume mounted there by, and that its folders and records
    // go by. No other mounted volume has it, and a volume keeps it for as long as it is mounted.
    // Where nothing is mounted: the last path component and, for "/", "System".
    [[nodiscard]] virtual std::string displayName(std::string_view path);

    // A mount point as other programs take it: the very bytes of its path.
    [[nodiscard]] virtual std::string pathBytes(const std::string& path) const { return path; }

    // Nothing when no volume is mounted exactly there.
    [[nodiscard]] virtual std::optional<FileSystemFlags> fileSystemFlags(
        const std::string& path) = 0;
    // Sizes now; nothing when they cannot be had. May block on a dying disk.
    [[nodiscard]] virtual std::optional<FileSystemAttributes> fileSystemAttributes(
        const std::string& path) = 0;

    // Unmounts the volume and waits for it. False when it is busy, unknown, or may not be
    // unmounted.
    virtual bool unmount(std::int16_t referenceNumber) = 0;

    // Told on the loop's thread when a volume of a local block device has appeared or gone; the
    // table already shows it. One reading of the table is one event of each kind at most.
    virtual void setDidMount(std::function<void()> callback) = 0;
    virtual void setDidUnmount(std::function<void()> callback) = 0;
};

}  // namespace korvane
