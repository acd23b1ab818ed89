#include "KorvaneProDataRecovery/FileExtents.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

namespace korvane {

namespace {

// 256 extents are 14 kB, and most files have one.
constexpr std::uint32_t kExtentsOfOneCall = 256;
// Block by block one file of 1 GiB in blocks of 4 kB: half a second of calls.
constexpr std::uint64_t kMostMappedBlocks = 262'144;

std::uint32_t flagsOf(const fiemap_extent& extent) {
    std::uint32_t flags = 0;
    if ((extent.fe_flags & FIEMAP_EXTENT_UNWRITTEN) != 0) flags |= kExtentUnwritten;
    if ((extent.fe_flags & (FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL)) != 0) {
        flags |= kExtentInline;
    }
    if ((extent.fe_flags & (FIEMAP_EXTENT_ENCODED | FIEMAP_EXTENT_DATA_ENCRYPTED)) != 0) {
        flags |= kExtentEncoded;
    }
    if ((extent.fe_flags & (FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC)) != 0) {
        flags |= kExtentPlaceUnknown;
    }
    return flags;
}

// What the kind of file system and the file's attributes say of all its extents.
std::uint32_t flagsOfAll(int file) {
    std::uint32_t flags = 0;
    struct statfs system {};
    // Btrfs answers with places in its own address space, which its chunks map to devices;
    // overlayfs with those of a layer, on a device that is not the volume's.
    if (::fstatfs(file, &system) != 0 || system.f_type == BTRFS_SUPER_MAGIC ||
        system.f_type == OVERLAYFS_SUPER_MAGIC) {
        flags |= kExtentPlaceUnknown;
    }
    struct statx status {};
    if (::statx(file, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) == 0 &&
        (status.stx_attributes & (STATX_ATTR_COMPRESSED | STATX_ATTR_ENCRYPTED)) != 0) {
        flags |= kExtentEncoded;
    }
    // XFS keeps such files on a device of their own.
    fsxattr attributes{};
    if (::ioctl(file, FS_IOC_FSGETXATTR, &attributes) == 0 &&
        (attributes.fsx_xflags & FS_XFLAG_REALTIME) != 0) {
        flags |= kExtentPlaceUnknown;
    }
    return flags;
}

// Nothing where the file system has no such call.
std::optional<ExtentList> extentsByMap(int file, std::uint32_t flagsOfFile) {
    constexpr std::size_t kSize = sizeof(fiemap) + kExtentsOfOneCall * sizeof(fiemap_extent);
    alignas(fiemap) std::byte room[kSize];
    ExtentList list;
    std::uint64_t begin = 0;
    for (;;) {
        std::memset(room, 0, sizeof(fiemap));
        auto* const map = reinterpret_cast<fiemap*>(room);
        map->fm_start = begin;
        map->fm_length = FIEMAP_MAX_OFFSET - begin;
        map->fm_flags = FIEMAP_FLAG_SYNC;
        map->fm_extent_count = kExtentsOfOneCall;
        if (::ioctl(file, FS_IOC_FIEMAP, map) != 0) {
            return begin == 0 ? std::nullopt : std::optional{list};
        }
        const auto* const found = reinterpret_cast<const fiemap_extent*>(room + sizeof(fiemap));
        for (std::uint32_t i = 0; i < map->fm_mapped_extents; ++i) {
            if (list.extents.size() == kMostExtents) return list;
            const fiemap_extent& extent = found[i];
            list.extents.push_back({.logical = extent.fe_logical,
                                    .physical = extent.fe_physical,
                                    .length = extent.fe_length,
                                    .flags = flagsOf(extent) | flagsOfFile});
            begin = extent.fe_logical + extent.fe_length;
            if ((extent.fe_flags & FIEMAP_EXTENT_LAST) != 0) {
                list.isWhole = true;
                return list;
            }
        }
        if (map->fm_mapped_extents == 0) {
            list.isWhole = true;
            return list;
        }
    }
}

// For file systems that only answer block by block: FAT, HFS+.
ExtentList extentsByBlock(int file, std::uint32_t flagsOfFile) {
    ExtentList list;
    struct stat status {};
    int blockSize = 0;
    if (::fsync(file) != 0 || ::fstat(file, &status) != 0 ||
        ::ioctl(file, FIGETBSZ, &blockSize) != 0 || blockSize <= 0) {
        return list;
    }
    const auto size = static_cast<std::uint64_t>(blockSize);
    const std::uint64_t count = (static_cast<std::uint64_t>(status.st_size) + size - 1) / size;
    for (std::uint64_t index = 0; index < count; ++index) {
        // The call takes and gives an int: farther out on the device it cannot tell.
        int block = static_cast<int>(index);
        if (index == kMostMappedBlocks || ::ioctl(file, FIBMAP, &block) != 0 || block < 0) {
            return list;
        }
        if (block == 0) continue;  // a hole
        const std::uint64_t logical = index * size;
        const std::uint64_t physical = static_cast<std::uint64_t>(block) * size;
        FileExtent* const last = list.extents.empty() ? nullptr : &list.extents.back();
        if (last != nullptr && last->logical + last->length == logical &&
            last->physical + last->length == physical) {
            last->length += size;
        } else if (list.extents.size() == kMostExtents) {
            return list;
        } else {
            list.extents.push_back({logical, physical, size, flagsOfFile});
        }
    }
    list.isWhole = true;
    return list;
}

}  // namespace

ExtentList readExtents(int file) {
    const std::uint32_t flags = flagsOfAll(file);
    auto list = extentsByMap(file, flags);
    return list ? std::move(*list) : extentsByBlock(file, flags);
}

}  // namespace korvane
