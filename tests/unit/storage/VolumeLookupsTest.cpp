#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "StorageBed.h"
#include "storage/VolumeLookups.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class VolumeLookups : public ::testing::Test {
  protected:
    Volumes& volumes() { return bed.machine.volumes; }

    void mountHfsPlus(const std::string& path, const std::string& device, std::uint16_t signature,
                      std::uint16_t flags, std::uint16_t fileSystemId = 0) {
        bed.mount(path, device, "hfs", [=](MountDescription& mount) {
            mount.fileSystemId = fileSystemId;
            mount.signature = signature;
            mount.volumeFlags = flags;
        });
    }

    StorageBed bed;
};

TEST_F(VolumeLookups, ListEveryMountedVolume) {
    bed.mount("/", "/dev/disk0s1");
    bed.mount("/Volumes/Data", "/dev/disk0s2");
    bed.mount("/Volumes/Backup", "/dev/disk1s1");
    const auto mounted = FSGetMountedVolumes(volumes());
    EXPECT_EQ(mounted.status, 0);
    EXPECT_THAT(mounted.value,
                ElementsAre(FSRef{"/"}, FSRef{"/Volumes/Data"}, FSRef{"/Volumes/Backup"}));
}

TEST_F(VolumeLookups, ListNoVolumeWithoutAnError) {
    const auto mounted = FSGetMountedVolumes(volumes());
    EXPECT_EQ(mounted.status, 0);
    EXPECT_THAT(mounted.value, IsEmpty());
}

TEST_F(VolumeLookups, ListNothingAfterAnError) {
    bed.mount("/", "/dev/disk0s1");
    bed.mount("/Volumes/Data", "/dev/disk0s2");
    bed.machine.volumes.setStatusOfIndex(2, ioErr);
    const auto mounted = FSGetMountedVolumes(volumes());
    EXPECT_EQ(mounted.status, ioErr);
    EXPECT_THAT(mounted.value, IsEmpty());
    EXPECT_EQ(getVolumeRefNumber(volumes(), "/"), 0);
}

TEST_F(VolumeLookups, GiveTheNumberOfARoot) {
    bed.mount("/", "/dev/disk0s1");
    const auto number = FSGetVRefNum(volumes(), FSRef{"/"});
    EXPECT_EQ(number.status, 0);
    EXPECT_NE(number.value, 0);
    EXPECT_EQ(FSGetVRefNum(volumes(), FSRef{"/Volumes/Gone"}).status, nsvErr);
}

TEST_F(VolumeLookups, FindAVolumeByTheLastPartOfAPath) {
    bed.mount("/", "/dev/disk0s1");
    bed.mount("/Volumes/Data", "/dev/disk0s2");
    const std::int16_t startUp = FSGetVRefNum(volumes(), FSRef{"/"}).value;
    const std::int16_t data = FSGetVRefNum(volumes(), FSRef{"/Volumes/Data"}).value;
    const struct {
        const char* path;
        std::int16_t number;
    } rows[] = {{"/Volumes/Data", data}, {"/Users/me/Data", data}, {"/Data", data},
                {"/", startUp},          {"/anything/", startUp},  {"Data", 0},
                {"/Volumes/data", 0},    {"/Volumes/Dat", 0},      {"", 0},
                {"/Volumes", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(getVolumeRefNumber(volumes(), row.path), row.number) << row.path;
    }
}

TEST_F(VolumeLookups, TakeTheFirstOfTwoVolumesWithTheSameLastPart) {
    bed.mount("/Volumes/Data", "/dev/disk0s2", "hfs");
    bed.mount("/Volumes/Backup/Data", "/dev/disk1s2", "ext4");
    EXPECT_EQ(getVolumeRefNumber(volumes(), "/Volumes/Backup/Data"),
              FSGetVRefNum(volumes(), FSRef{"/Volumes/Data"}).value);
    EXPECT_TRUE(GetVolumeHFS(volumes(), "/Volumes/Backup/Data"));
}

TEST_F(VolumeLookups, FindVolumesOfOddNames) {
    const char* const names[] = {"..", "a\\012b", "\\377\\376", "Data ", "...", "%2F"};
    std::set<std::int16_t> numbers;
    int slice = 1;
    for (const char* name : names) {
        bed.mount(std::string("/Volumes/ ") + name, "/dev/disk0s" + std::to_string(slice++));
    }
    for (const char* name : names) {
        const std::string path = std::string("/Volumes/ ") + name;
        numbers.insert(getVolumeRefNumber(volumes(), path));
        EXPECT_EQ(getVolumeRefNumber(volumes(), path),
                  getVolumeReferenceUsingVolumeMountFromName(
                      volumes(), getVolumeMountFromName(volumes(), path)));
    }
    EXPECT_FALSE(numbers.contains(0));
    EXPECT_EQ(numbers.size(), std::size(names));
}

TEST_F(VolumeLookups, GiveTheDeviceOfExactlyThisMountPoint) {
    bed.mount("/Volumes/Data", "/dev/disk2s2");
    bed.mount("/Volumes/Share", "//server/share", "smbfs", onAServer);
    EXPECT_EQ(getVolumeMountFromName(volumes(), "/Volumes/Data"), "/dev/disk2s2");
    EXPECT_EQ(getVolumeMountFromName(volumes(), "/Volumes/Share"), "//server/share");
    EXPECT_EQ(getVolumeMountFromName(volumes(), "/Volumes/Data/"), "");
    EXPECT_EQ(getVolumeMountFromName(volumes(), "/Users/me/Data"), "");
    EXPECT_EQ(getVolumeMountFromName(volumes(), ""), "");
}

TEST_F(VolumeLookups, GiveTheFirstOfTwoMountsAtOnePath) {
    bed.mount("/Volumes/Data", "/dev/disk2s2");
    bed.mount("/Volumes/Data", "/dev/disk3s1");
    EXPECT_EQ(getVolumeMountFromName(volumes(), "/Volumes/Data"), "/dev/disk2s2");
}

TEST_F(VolumeLookups, FindAVolumeByItsDevicesPathOrName) {
    bed.mount("/Volumes/Data", "/dev/disk2s2");
    const std::int16_t number = FSGetVRefNum(volumes(), FSRef{"/Volumes/Data"}).value;
    const struct {
        const char* device;
        std::int16_t number;
    } rows[] = {{"/dev/disk2s2", number},
                {"disk2s2", number},
                {"/dev/by-name/disk2s2", number},
                {"disk2", 0},
                {"/dev/disk2", 0},
                {"DISK2S2", 0},
                {"", 0},
                {"/dev/", 0},
                {"dev/disk2s2", 0},
                {"/disk2s2", 0},
                {"/Volumes/disk2s2", 0},
                {"disk2s2/", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(getVolumeReferenceUsingVolumeMountFromName(volumes(), row.device), row.number)
            << row.device;
    }
}

TEST_F(VolumeLookups, NeverFindANetworkVolumeByItsDevice) {
    bed.mount("/Volumes/Share", "/dev/disk7", "nfs", onAServer);
    EXPECT_EQ(getVolumeReferenceUsingVolumeMountFromName(volumes(), "/dev/disk7"), 0);
}

TEST_F(VolumeLookups, FindAVolumeByItsDeviceBeyondOneThatCannotBeRead) {
    bed.mount("/", "/dev/disk0s1");
    bed.mount("/Volumes/Data", "/dev/disk0s2");
    bed.machine.volumes.setStatusOfIndex(1, ioErr);
    EXPECT_NE(getVolumeReferenceUsingVolumeMountFromName(volumes(), "disk0s2"), 0);
}

TEST_F(VolumeLookups, TakeAMountPointThatDoesNotExistForWritable) {
    EXPECT_TRUE(GetVolumeWritable(volumes(), "/Volumes/Nothing"));
    EXPECT_TRUE(GetVolumeWritable(volumes(), ""));
}

TEST_F(VolumeLookups, RefuseLockedHfsPlusAndHfsxVolumesAlone) {
    const struct {
        std::uint16_t signature;
        std::uint16_t flags;
        std::uint16_t fileSystemId;
        bool isWritable;
    } rows[] = {
        {0x482B, 0x0080, 0, false}, {0x482B, 0x8000, 0, false}, {0x482B, 0x8080, 0, false},
        {0x4858, 0x0080, 0, false}, {0x4858, 0x8000, 0, false}, {0x482B, 0x0000, 0, true},
        {0x4858, 0x7F7F, 0, true},  {0x4244, 0x0080, 0, true},  {0x0000, 0x8080, 0, true},
        {0x482B, 0x8080, 1, true},
    };
    int number = 1;
    for (const auto& row : rows) {
        const std::string path = "/Volumes/" + std::to_string(number);
        mountHfsPlus(path, "/dev/disk" + std::to_string(number), row.signature, row.flags,
                     row.fileSystemId);
        EXPECT_EQ(GetVolumeWritable(volumes(), path), row.isWritable) << "row " << number;
        ++number;
    }
}

TEST_F(VolumeLookups, TakeAReadOnlyVolumeOfAnotherTypeForWritable) {
    bed.mount("/Volumes/CD", "/dev/disk4", "iso9660",
              [](MountDescription& mount) { mount.isWritable = false; });
    EXPECT_TRUE(GetVolumeWritable(volumes(), "/Volumes/CD"));
}

TEST_F(VolumeLookups, KnowHfsByTheTypesExactName) {
    bed.mount("/", "/dev/disk0s1", "hfs");
    bed.mount("/Volumes/Data", "/dev/disk0s2", "hfs");
    bed.mount("/Volumes/Modern", "/dev/disk0s3", "apfs");
    bed.mount("/Volumes/Raw", "/dev/disk0s4", "hfsplus");
    const struct {
        const char* path;
        bool isHfs;
    } rows[] = {{"/Volumes/Data", true},
                {"/Users/me/Data", true},
                {"/Volumes/Data/", false},
                {"/", false},
                {"/Volumes/Modern", false},
                {"/Volumes/Raw", false},
                {"Data", false},
                {"", false},
                {"/Volumes/data", false},
                {"/Volumes/None", false}};
    for (const auto& row : rows)
        EXPECT_EQ(GetVolumeHFS(volumes(), row.path), row.isHfs) << row.path;
}

TEST_F(VolumeLookups, LookAtEveryMountForHfsAndStopAtTheFirst) {
    bed.mount("/net/Data", "server:/x", "nfs", onAServer);
    bed.mount("/Volumes/Data", "/dev/disk0s2", "hfs");
    EXPECT_FALSE(GetVolumeHFS(volumes(), "/Volumes/Data"));
}

}  // namespace
}  // namespace korvane
