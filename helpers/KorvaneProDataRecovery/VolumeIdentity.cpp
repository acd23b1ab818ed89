#include "KorvaneProDataRecovery/VolumeIdentity.h"

#include <fmt/format.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/linux/UdevDatabase.h"

namespace korvane {

namespace {

// FS_IOC_GETFSUUID of linux/fs.h, which has it since Linux 6.9.
struct UuidOfKernel {
    std::uint8_t length;
    std::uint8_t bytes[16];
};
constexpr unsigned long kUuidOfKernel = _IOR(0x15, 0, UuidOfKernel);

// XFS_IOC_FSGEOMETRY_V1 of xfsprogs' xfs_fs.h: older kernels tell an XFS's UUID in no other way.
struct XfsGeometry {
    std::uint32_t sizes[8];
    std::uint64_t blocks[4];
    std::uint8_t uuid[16];
    std::uint32_t others[8];
};
static_assert(sizeof(XfsGeometry) == 112);
constexpr unsigned long kXfsGeometry = _IOR('X', 100, XfsGeometry);
constexpr long kXfsMagic = 0x58465342;  // "XFSB", linux/magic.h has it since Linux 6.0

VolumeUuid uuidOfBytes(const std::uint8_t (&bytes)[16]) {
    VolumeUuid uuid;
    std::copy(std::begin(bytes), std::end(bytes), uuid.begin());
    return uuid;
}

VolumeUuid uuidOfFileSystem(int file, long type) {
    XfsGeometry geometry{};
    if (type == kXfsMagic && ::ioctl(file, kXfsGeometry, &geometry) == 0) {
        return uuidOfBytes(geometry.uuid);
    }
    UuidOfKernel answer{};
    if (::ioctl(file, kUuidOfKernel, &answer) == 0 && answer.length == sizeof answer.bytes) {
        return uuidOfBytes(answer.bytes);
    }
    std::uint32_t serial = 0;
    if (type == MSDOS_SUPER_MAGIC && ::ioctl(file, FAT_IOCTL_GET_VOLUME_ID, &serial) == 0 &&
        serial != 0) {
        return volumeUuidOfText(fmt::format("{:04X}-{:04X}", serial >> 16U, serial & 0xFFFFU));
    }
    return {};
}

VolumeUuid uuidOfUdev(int file, const std::string& folder) {
    struct stat status {};
    if (::fstat(file, &status) != 0) return {};
    const DeviceNumber number{::major(status.st_dev), ::minor(status.st_dev)};
    return volumeUuidOfText(udevValue(UdevDatabase{folder}.propertiesOf(number), "ID_FS_UUID"));
}

int digitOf(char character) {
    if (character >= '0' && character <= '9') return character - '0';
    if (character >= 'a' && character <= 'f') return character - 'a' + 10;
    if (character >= 'A' && character <= 'F') return character - 'A' + 10;
    return -1;
}

}  // namespace

VolumeIdentity volumeIdentityOf(int file, const std::string& udevFolder) {
    VolumeIdentity identity;
    struct statfs system {};
    static_assert(sizeof system.f_fsid == sizeof identity.id);
    if (::fstatfs(file, &system) != 0) return identity;
    std::memcpy(&identity.id, &system.f_fsid, sizeof identity.id);
    identity.uuid = uuidOfFileSystem(file, system.f_type);
    if (identity.uuid == VolumeUuid{}) identity.uuid = uuidOfUdev(file, udevFolder);
    return identity;
}

VolumeUuid volumeUuidOfText(std::string_view text) {
    VolumeUuid uuid{};
    std::string digits;
    std::ranges::copy_if(text, std::back_inserter(digits), [](char each) { return each != '-'; });
    const bool isNumber = digits.size() == 2 * uuid.size() &&
                          std::ranges::all_of(digits, [](char each) { return digitOf(each) >= 0; });
    if (isNumber) {
        for (std::size_t i = 0; i < uuid.size(); ++i) {
            uuid[i] =
                static_cast<std::uint8_t>(digitOf(digits[2 * i]) * 16 + digitOf(digits[2 * i + 1]));
        }
    } else if (text.size() <= uuid.size()) {
        std::ranges::copy(text, uuid.begin());
    }
    return uuid;
}

std::string textOfVolumeUuid(const VolumeUuid& uuid) {
    if (uuid == VolumeUuid{}) return {};
    // A random one has bytes of all kinds; a serial number is hexadecimal digits and hyphens.
    const auto end = std::find(uuid.begin(), uuid.end(), 0);
    const bool isText = std::all_of(uuid.begin(), end,
                                    [](std::uint8_t each) {
                                        return each == '-' || digitOf(static_cast<char>(each)) >= 0;
                                    }) &&
                        std::all_of(end, uuid.end(), [](std::uint8_t each) { return each == 0; });
    if (isText) return {uuid.begin(), end};
    std::string text;
    for (std::size_t i = 0; i < uuid.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += fmt::format("{:02x}", uuid[i]);
    }
    return text;
}

}  // namespace korvane
