// Mount tables as text over a machine in files; real mounts are the integration tests' business.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "RecordingLog.h"
#include "SysfsTree.h"
#include "platform/linux/LinuxVolumes.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct LinuxVolumesTest : testing::Test {
    LinuxVolumes& read(const std::string& table) {
        folder.write("mountinfo", table);
        volumes = std::make_unique<LinuxVolumes>(
            loop, LinuxVolumesPlaces{.memoryFile = "",
                                     .linksFolder = folder / "Volumes",
                                     .mountTable = folder / "mountinfo",
                                     .sysfs = tree.sysfs(),
                                     .udevData = tree.udevData()});
        return *volumes;
    }
    std::string deviceAt(const std::string& path) {
        const MountEntry* const entry = volumes->mountAt(path);
        return entry != nullptr ? entry->mountFromName : "none";
    }
    VolumeInfo infoAt(const std::string& path) {
        const auto info = volumes->volumeInfoOfRoot({path});
        EXPECT_EQ(info.status, 0) << path;
        return info.value;
    }

    SysfsTree tree{"machine.txt"};
    TemporaryFolder folder;
    RecordingLog log;
    LinuxRunLoop loop{log};
    std::unique_ptr<LinuxVolumes> volumes;
};

TEST_F(LinuxVolumesTest, NamesDevicesAsTheKernelDoes) {
    read(
        "20 1 253:1 / / rw - ext4 /dev/mapper/vg-root rw\n"
        "21 20 8:1 / /boot/efi rw - vfat /dev/disk/by-uuid/1234-ABCD rw\n"
        "22 20 254:0 / /srv rw - xfs /dev/root rw\n"
        "23 20 104:0 / /old rw - ext4 /dev/cciss/c0d0 rw\n"
        "24 20 8:200 / /pulled rw - ext4 /dev/sdx9 rw\n"
        "25 20 253:9 / /gone rw - ext4 /dev/mapper/gone rw\n");
    EXPECT_EQ(deviceAt("/"), "/dev/dm-1");
    EXPECT_EQ(deviceAt("/boot/efi"), "/dev/sda1");
    EXPECT_EQ(deviceAt("/srv"), "/dev/vda");
    EXPECT_EQ(deviceAt("/old"), "/dev/cciss!c0d0");
    EXPECT_EQ(volumes->volumeInfoByDevice("cciss!c0d0").value.root.rootPath, "/old");
    EXPECT_EQ(deviceAt("/pulled"), "/dev/sdx9");
    EXPECT_EQ(deviceAt("/gone"), "/dev/mapper!gone");
    EXPECT_EQ(infoAt("/boot/efi").bsdName, "sda1");
    EXPECT_EQ(volumes->volumeInfoByDevice("dm-1").value.root.rootPath, "/");
}

TEST_F(LinuxVolumesTest, CountsOnlyFileSystemsOnLocalBlockDevices) {
    read(
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "21 20 0:5 / /dev rw - devtmpfs /dev rw\n"
        "22 20 0:6 / /tmp rw - tmpfs /dev/sda2 rw\n"
        "23 20 0:7 / /net rw - nfs4 dead.example:/export rw\n"
        "24 20 0:8 / /smb rw - cifs //dead.example/share rw\n"
        "25 20 0:9 / /fuse rw - fuse.sshfs /dev/fuse rw\n"
        "26 20 0:10 / /layers rw - overlay overlay rw\n"
        "27 20 0:11 / /pool rw - btrfs nodevice rw\n");
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), ElementsAre("/"));
    EXPECT_EQ(volumes->mountTable().size(), 8U);
    EXPECT_EQ(volumes->volumeInfoByIndex(2).status, nsvErr);
    EXPECT_EQ(deviceAt("/net"), "dead.example:/export");
    EXPECT_FALSE(volumes->fileSystemAttributes("/net"));
    EXPECT_TRUE(volumes->fileSystemFlags("/net")->isWritable);
}

TEST_F(LinuxVolumesTest, GivesVolumesOfOneNameNamesOfTheirOwn) {
    const std::string root = "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n";
    const std::string first = "21 20 8:2 / /mnt/a/data rw - ext4 /dev/sda2 rw\n";
    const std::string second = "22 20 8:3 / /mnt/b/data rw - ext4 /dev/sda3 rw\n";
    const std::string inFolder = folder / "Volumes/data 1";
    read(root + first + second + "23 20 8:17 / " + folder.path() +
         "/Volumes/data\\0401 rw - ext4 /dev/sdb1 rw\n");
    EXPECT_EQ(infoAt("/").name, "System");
    EXPECT_EQ(infoAt("/mnt/a/data").name, "data");
    EXPECT_EQ(infoAt("/mnt/b/data").name, "data 2");
    EXPECT_EQ(infoAt(inFolder).name, "data 1");
    EXPECT_EQ(volumes->displayName("/mnt/b/data"), "data 2");
}

TEST_F(LinuxVolumesTest, CallsTheStartUpVolumeSystemAndNoOther) {
    read(
        "21 20 8:2 / /mnt/System rw - ext4 /dev/sda2 rw\n"
        "22 20 8:3 / " +
        folder.path() +
        "/Volumes/System rw - ext4 /dev/sda3 rw\n"
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n");
    EXPECT_EQ(volumes->displayName("/"), "System");
    EXPECT_EQ(volumes->displayName("/mnt/System"), "System 1");
    EXPECT_EQ(volumes->displayName(folder / "Volumes/System"), "System 2");
}

TEST_F(LinuxVolumesTest, GoesByTheNamesOfLinksThatAnotherKeeps) {
    std::filesystem::create_directory(folder / "Volumes");
    std::filesystem::create_symlink("/mnt/a/data", folder / "Volumes/data 1");
    std::filesystem::create_symlink("/mnt/b/data", folder / "Volumes/data");
    std::filesystem::create_symlink("/mnt/c/data", folder / "Volumes/mine");
    std::filesystem::create_symlink("/mnt/c/data", folder / "Volumes/data x");
    read(
        "21 20 8:2 / /mnt/a/data rw - ext4 /dev/sda2 rw\n"
        "22 20 8:3 / /mnt/b/data rw - ext4 /dev/sda3 rw\n"
        "23 20 8:17 / /mnt/c/data rw - ext4 /dev/sdb1 rw\n");
    EXPECT_EQ(volumes->displayName("/mnt/a/data"), "data 1");
    EXPECT_EQ(volumes->displayName("/mnt/b/data"), "data");
    EXPECT_EQ(volumes->displayName("/mnt/c/data"), "data 2");
}

TEST_F(LinuxVolumesTest, NamesAVolumeAsItsLinkDoes) {
    const std::string rows =
        "21 20 8:2 / /mnt/a/data rw - ext4 /dev/sda2 rw\n"
        "22 20 8:3 / /mnt/b/data rw - ext4 /dev/sda3 rw\n";
    // In this order at the first start, in the other one at the second.
    for (const std::string& table :
         {rows, "22 20 8:3 / /mnt/b/data rw - ext4 /dev/sda3 rw\n" + rows.substr(0, 47)}) {
        folder.write("mountinfo", table);
        volumes = std::make_unique<LinuxVolumes>(
            loop, LinuxVolumesPlaces{.memoryFile = folder / "memory",
                                     .linksFolder = folder / "Volumes",
                                     .keepsLinks = true,
                                     .mountTable = folder / "mountinfo",
                                     .sysfs = tree.sysfs(),
                                     .udevData = tree.udevData()});
        EXPECT_EQ(infoAt("/mnt/a/data").name, "data");
        EXPECT_EQ(infoAt("/mnt/b/data").name, "data 1");
        EXPECT_EQ(std::filesystem::read_symlink(folder / "Volumes/data 1"), "/mnt/b/data");
    }
}

TEST_F(LinuxVolumesTest, CountsAFileSystemOnceAtItsFirstMount) {
    read(
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "21 20 8:2 /sub /first rw - ext4 /dev/sda2 rw\n"
        "22 20 8:2 / /second rw - ext4 /dev/sda2 rw\n"
        "23 20 8:1 /etc /etc rw - ext4 /dev/sda1 rw\n");
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), ElementsAre("/", "/first"));
    EXPECT_EQ(deviceAt("/second"), "/dev/sda2");
    EXPECT_EQ(volumes->volumeInfoOfRoot({"/second"}).status, nsvErr);
}

TEST_F(LinuxVolumesTest, CountsAHiddenFirstMountAtTheNextOneThatIsReached) {
    read(
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "21 20 8:2 / /a rw - ext4 /dev/sda2 rw\n"
        "22 20 8:2 / /b rw - ext4 /dev/sda2 rw\n"
        "23 21 0:9 / /a rw - tmpfs tmpfs rw\n");
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), ElementsAre("/", "/b"));
    EXPECT_EQ(deviceAt("/a"), "tmpfs");
}

TEST_F(LinuxVolumesTest, CallsBothHfsFormsHfsAndShowsTheirLocks) {
    read(
        "20 1 8:2 / /plus rw - hfsplus /dev/sda2 ro\n"
        "21 1 8:1 / /old rw - hfs /dev/sda1 rw\n"
        "22 1 8:3 / /mount ro - hfsplus /dev/sda3 rw\n"
        "23 1 254:0 / /other ro - ext4 /dev/vda ro\n");
    EXPECT_EQ(volumes->mountAt("/plus")->fileSystemTypeName, "hfs");
    EXPECT_EQ(volumes->mountAt("/old")->fileSystemTypeName, "hfs");
    EXPECT_EQ(volumes->mountAt("/other")->fileSystemTypeName, "ext4");
    EXPECT_EQ(infoAt("/plus").signature, 0x482B);
    EXPECT_EQ(infoAt("/plus").fileSystemId, 0);
    EXPECT_EQ(infoAt("/plus").flags, kVolumeSoftwareLocked);
    EXPECT_EQ(infoAt("/mount").flags, kVolumeSoftwareLocked);
    EXPECT_EQ(infoAt("/old").signature, 0);
    EXPECT_EQ(infoAt("/old").fileSystemId, 0);
    EXPECT_EQ(infoAt("/old").flags, 0);
    EXPECT_NE(infoAt("/other").fileSystemId, 0);
}

TEST_F(LinuxVolumesTest, ShowsADeviceThatCannotBeWrittenAsLocked) {
    tree.add("attr devices/pci0000:00/0000:00:06.0/virtio3/block/vda/ro 1\\n");
    read("20 1 254:0 / /a ro - hfsplus /dev/vda ro\n");
    EXPECT_EQ(infoAt("/a").flags, kVolumeSoftwareLocked | kVolumeHardwareLocked);
}

TEST_F(LinuxVolumesTest, TellsFlagsFromTheTableAndTheDisk) {
    read(
        "20 1 8:1 / / rw - ext4 /dev/sda1 rw\n"
        "21 20 8:17 / /stick rw - vfat /dev/sdb1 rw\n"
        "22 20 8:2 / /locked rw - ext4 /dev/sda2 ro\n"
        "23 20 8:1 /x /bind ro - ext4 /dev/sda1 rw\n");
    EXPECT_TRUE(volumes->fileSystemFlags("/")->isWritable);
    EXPECT_FALSE(volumes->fileSystemFlags("/")->isUnmountable);
    EXPECT_FALSE(volumes->fileSystemFlags("/")->isRemovable);
    EXPECT_TRUE(volumes->fileSystemFlags("/stick")->isRemovable);
    EXPECT_TRUE(volumes->fileSystemFlags("/stick")->isUnmountable);
    EXPECT_FALSE(volumes->fileSystemFlags("/locked")->isWritable);
    EXPECT_FALSE(volumes->fileSystemFlags("/bind")->isWritable);
    EXPECT_FALSE(volumes->fileSystemFlags("/stick/"));
}

TEST_F(LinuxVolumesTest, NumbersFileSystemsByWhatTheyAreNotByWhereTheyAre) {
    read("20 1 8:1 / /a rw - vfat /dev/sda1 rw\n21 1 254:0 / /b rw - ext4 /dev/vda rw\n");
    const std::int16_t first = infoAt("/a").referenceNumber;
    const std::int16_t second = infoAt("/b").referenceNumber;
    EXPECT_NE(first, second);
    read("30 1 254:0 / /c rw - ext4 /dev/vda rw\n31 1 8:1 / /d rw - vfat /dev/sda1 rw\n");
    EXPECT_EQ(infoAt("/d").referenceNumber, first);
    EXPECT_EQ(infoAt("/c").referenceNumber, second);
    EXPECT_EQ(volumes->volumeInfoByReferenceNumber(first).value.bsdName, "sda1");
}

TEST_F(LinuxVolumesTest, TellsCopiesOfAFileSystemApart) {
    tree.add("udev 254:0 ID_FS_UUID=1234-ABCD");
    read("20 1 8:1 / /a rw - vfat /dev/sda1 rw\n21 1 254:0 / /b rw - vfat /dev/vda rw\n");
    EXPECT_NE(infoAt("/a").referenceNumber, infoAt("/b").referenceNumber);
}

TEST_F(LinuxVolumesTest, HasNoVolumesWithoutATable) {
    read("");
    EXPECT_THAT(volumes->mountTable(), IsEmpty());
    EXPECT_THAT(volumes->mountedLocalVolumePaths(), IsEmpty());
    EXPECT_FALSE(volumes->unmount(1));
    LinuxVolumes none{loop, {.mountTable = "/nowhere"}};
    EXPECT_THAT(none.mountTable(), IsEmpty());
}

TEST_F(LinuxVolumesTest, NeverUnmountsTheRoot) {
    read("20 1 8:1 / / rw - ext4 /dev/sda1 rw\n");
    EXPECT_FALSE(volumes->unmount(infoAt("/").referenceNumber));
}

}  // namespace
}  // namespace korvane
