// By what the volume of an open file or folder is known again: after a restart, in another slot, as
// another device.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace korvane {

// The UUID that the file system was made with, all zeros when unknown. A shorter serial number
// (FAT, NTFS) stands in it as the text that udev and blkid write, filled up with zeros.
using VolumeUuid = std::array<std::uint8_t, 16>;

struct VolumeIdentity {
    // statfs(2)'s f_fsid; 0 when unknown. Of XFS, FAT and others it is the device's number and
    // tells nothing of the volume.
    std::uint64_t id = 0;
    VolumeUuid uuid{};
};

// Asks the file system, or else udev's database in this folder.
[[nodiscard]] VolumeIdentity volumeIdentityOf(int file,
                                              const std::string& udevFolder = "/run/udev/data");

// A text as udev has it: 32 hexadecimal digits with or without hyphens as the bytes that they are,
// any other of up to 16 bytes as it is, a longer one as nothing.
[[nodiscard]] VolumeUuid volumeUuidOfText(std::string_view text);

// "2f0d1c5e-1b9e-4c3f-8d35-0b1f3a5a9c77", or the shorter text; empty for none.
[[nodiscard]] std::string textOfVolumeUuid(const VolumeUuid& uuid);

}  // namespace korvane
