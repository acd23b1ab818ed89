// By what a volume is known again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <string>

#include "KorvaneProDataRecovery/VolumeIdentity.h"
#include "platform/linux/UniqueFd.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

TEST(VolumeUuid, IsReadFromWhatUdevWrites) {
    const struct {
        const char* text;
        const char* again;
    } rows[] = {
        {"2f0d1c5e-1b9e-4c3f-8d35-0b1f3a5a9c77", "2f0d1c5e-1b9e-4c3f-8d35-0b1f3a5a9c77"},
        {"2F0D1C5E1B9E4C3F8D350B1F3A5A9C77", "2f0d1c5e-1b9e-4c3f-8d35-0b1f3a5a9c77"},
        {"1A2B-3C4D", "1A2B-3C4D"},                // FAT
        {"01D2C3B4A5968778", "01D2C3B4A5968778"},  // NTFS
        {"", ""},
        {"2024-01-02-03-04-05-00", ""},  // a CD: nobody throws anything away there
        {"2f0d1c5e-1b9e-4c3f-8d35-0b1f3a5a9c7x", ""},
        {"00000000-0000-0000-0000-000000000000", ""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(textOfVolumeUuid(volumeUuidOfText(row.text)), row.again) << row.text;
    }
}

TEST(VolumeIdentity, IsAskedOfUdevWhereTheFileSystemTellsNone) {
    const UniqueFd folder{::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    struct stat status {};
    ASSERT_EQ(::fstat(folder.get(), &status), 0);
    const TemporaryFolder udev;
    EXPECT_EQ(volumeIdentityOf(folder.get(), udev.path()).uuid, VolumeUuid{});
    udev.write(
        "b" + std::to_string(::major(status.st_dev)) + ":" + std::to_string(::minor(status.st_dev)),
        "S:disk/by-uuid/1A2B-3C4D\nE:ID_FS_TYPE=vfat\nE:ID_FS_UUID=1A2B-3C4D\n");
    EXPECT_EQ(textOfVolumeUuid(volumeIdentityOf(folder.get(), udev.path()).uuid), "1A2B-3C4D");
}

TEST(VolumeIdentity, IsNothingForNoFile) {
    const VolumeIdentity none = volumeIdentityOf(-1);
    EXPECT_EQ(none.id, 0U);
    EXPECT_EQ(none.uuid, VolumeUuid{});
}

}  // namespace
}  // namespace korvane
