#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "VolumeInventoryBed.h"
#include "storage/VolumeInventory.h"

namespace korvane {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// ---- New volumes --------------------------------------------------------------------------------

TEST_F(VolumeInventory, AddsTheInternalStartUpVolumeWithEverythingOn) {
    bed.add(internalDisk("disk0"));
    bed.addPartition("disk0", "disk0s2");
    bed.mount("/", "/dev/disk0s2", "hfs");
    EXPECT_TRUE(refresh());
    ASSERT_THAT(entries(), ElementsAre("/"));
    EXPECT_EQ(fieldsOf("/"),
              newVolumeEntry({.mountPoint = "/", .isInternal = true, .isHfs = true}, kNow));
    EXPECT_TRUE(entryOf("/").volumeOnOff());
    EXPECT_TRUE(entryOf("/").directoryOnOff());
    EXPECT_TRUE(entryOf("/").trashOnOff());
    EXPECT_EQ(entryOf("/").executionTimeUsage(), kNow + seconds{10});
    EXPECT_EQ(entryOf("/").executionTimeDirectory(), kNow + seconds{10});
}

TEST_F(VolumeInventory, AddsAnExternalHfsVolumeWithTrashHistoryAlone) {
    mountData("/Volumes/Data", "hfs");
    EXPECT_TRUE(refresh());
    EXPECT_FALSE(entryOf("/Volumes/Data").volumeOnOff());
    EXPECT_FALSE(entryOf("/Volumes/Data").directoryOnOff());
    EXPECT_TRUE(entryOf("/Volumes/Data").trashOnOff());
}

TEST_F(VolumeInventory, AddsAVolumeOfAnotherTypeWithoutTrashHistoryAndBackup) {
    bed.add(internalDisk("disk0"));
    bed.mount("/", "/dev/disk0", "ext4");
    EXPECT_TRUE(refresh());
    EXPECT_TRUE(entryOf("/").volumeOnOff());
    EXPECT_FALSE(entryOf("/").directoryOnOff());
    EXPECT_FALSE(entryOf("/").trashOnOff());
}

TEST_F(VolumeInventory, KeepsTheOrderOfDiscovery) {
    mountData("/Volumes/B");
    mountData("/Volumes/A");
    (void)refresh();
    mountData("/Volumes/0");
    (void)refresh();
    EXPECT_THAT(entries(), ElementsAre("/Volumes/B", "/Volumes/A", "/Volumes/0"));
}

TEST_F(VolumeInventory, TellsAMountPointFromItsNeighbours) {
    volumeArray = {Dictionary{{"volumeMountToName", "/Volumes/Data/"}},
                   Dictionary{{"volumeMountToName", "/volumes/data"}}};
    mountData("/Volumes/Data");
    (void)refresh();
    EXPECT_THAT(entries(), ElementsAre("/Volumes/Data/", "/volumes/data", "/Volumes/Data"));
}

TEST_F(VolumeInventory, PassesOverRecoveryVolumesFrom10_7On) {
    for (const char* name : {"Recovery HD", "Rec HD"}) mountData(std::string("/Volumes/") + name);
    mountData("/Volumes/Recovery HD 1");
    for (const int versionAgainst10_7 : {0, 1}) {
        volumeArray.clear();
        settings.systemVersionAgainst10_7 = versionAgainst10_7;
        (void)refresh();
        EXPECT_THAT(entries(), ElementsAre("/Volumes/Recovery HD 1"));
    }
}

TEST_F(VolumeInventory, AddsRecoveryVolumesBefore10_7) {
    settings.systemVersionAgainst10_7 = -1;
    mountData("/Volumes/Recovery HD");
    mountData("/Volumes/Rec HD");
    (void)refresh();
    EXPECT_THAT(entries(), ElementsAre("/Volumes/Recovery HD", "/Volumes/Rec HD"));
}

TEST_F(VolumeInventory, PassesOverWhatCannotBeMonitored) {
    bed.add(externalDisk("disk1"));
    bed.mount("/Volumes/Locked", "/dev/disk1", "hfs", lockedHfsPlus);
    bed.add({.name = "disk2", .mediaClass = "IODVDMedia"});
    bed.mount("/Volumes/DVD", "/dev/disk2");
    bed.add({.name = "disk3", .device = {{"Physical Interconnect", "ATAPI"}}});
    bed.mount("/Volumes/Burner", "/dev/disk3s1");
    bed.add({.name = "disk4", .device = {{"Physical Interconnect", "Virtual Interface"}}});
    bed.mount("/Volumes/Image", "/dev/disk4s1", "hfs");
    bed.mount("/Volumes/Memory", "map -hosts");
    bed.mount("/Volumes/Share", "//server/share", "smbfs", onAServer);
    EXPECT_FALSE(refresh());
    EXPECT_THAT(volumeArray, IsEmpty());
    EXPECT_THAT(supportContents(), IsEmpty());
}

TEST_F(VolumeInventory, AddsAVolumeOfAnUnknownDevice) {
    bed.mount("/Volumes/Data", "/dev/disk9");
    EXPECT_TRUE(refresh());
    EXPECT_FALSE(entryOf("/Volumes/Data").volumeOnOff());
}

TEST_F(VolumeInventory, GoesOnWithDefaultsWhenTheRegistryCannotBeRead) {
    bed.add({.name = "disk0",
             .device = connectedAs("SATA", "Internal"),
             .mediaClass = "IODVDMedia",
             .medium = {{"CoreStorage Encrypted", true}}});
    bed.mount("/", "/dev/disk0", "hfs");
    bed.machine.deviceRegistry.setUnreadable(true);
    EXPECT_TRUE(refresh());
    EXPECT_EQ(fieldsOf("/"), newVolumeEntry({.mountPoint = "/", .isHfs = true}, kNow));
}

// ---- Passes over what is known ------------------------------------------------------------------

TEST_F(VolumeInventory, SavesNothingWhenNothingChanged) {
    mountData();
    EXPECT_TRUE(refresh());
    const PropertyListArray before = volumeArray;
    EXPECT_FALSE(refresh());
    EXPECT_EQ(volumeArray, before);
}

TEST_F(VolumeInventory, MarksAVolumeThatIsGoneAndKeepsItsEntry) {
    mountData();
    (void)refresh();
    Dictionary expected = fieldsOf("/Volumes/Data");
    expected.set("usageStatus", "5");
    expected.set("directoryStatus", "5");
    unmount("/Volumes/Data");
    EXPECT_TRUE(refresh());
    EXPECT_EQ(fieldsOf("/Volumes/Data"), expected);
    EXPECT_FALSE(refresh());
    EXPECT_EQ(fieldsOf("/Volumes/Data"), expected);
}

TEST_F(VolumeInventory, RevivesAVolumeThatIsBackWithoutASaveOfItsOwn) {
    mountData();
    (void)refresh();
    const Dictionary asNew = fieldsOf("/Volumes/Data");
    unmount("/Volumes/Data");
    (void)refresh();
    bed.mount("/Volumes/Data", "/dev/disk1");
    settings.now += seconds{3600};
    EXPECT_FALSE(refresh());
    EXPECT_EQ(fieldsOf("/Volumes/Data"), asNew);
}

TEST_F(VolumeInventory, TouchesNoStatusButThatOfAnAbsentVolume) {
    mountData();
    (void)refresh();
    for (const char* status : {"0", "1", "2", "3", "4", "77", "odd"}) {
        fieldsOf("/Volumes/Data").set("usageStatus", status);
        fieldsOf("/Volumes/Data").set("directoryStatus", status);
        const PropertyListArray before = volumeArray;
        EXPECT_FALSE(refresh());
        EXPECT_EQ(volumeArray, before);
    }
}

TEST_F(VolumeInventory, SavesWhenOneOfTheTwoStatusesTurns) {
    mountData();
    (void)refresh();
    unmount("/Volumes/Data");
    for (const auto& [key, other] : {std::pair{"usageStatus", "directoryStatus"},
                                     std::pair{"directoryStatus", "usageStatus"}}) {
        fieldsOf("/Volumes/Data").set(key, "3");
        fieldsOf("/Volumes/Data").set(other, "5");
        EXPECT_TRUE(refresh());
        EXPECT_EQ(*fieldsOf("/Volumes/Data").find(key), PropertyList("5"));
    }
}

TEST_F(VolumeInventory, ReadsAStatusThatIsStoredAsANumber) {
    mountData();
    (void)refresh();
    fieldsOf("/Volumes/Data").set("usageStatus", 5);
    fieldsOf("/Volumes/Data").set("directoryStatus", 5.0);
    EXPECT_FALSE(refresh());
    EXPECT_EQ(*fieldsOf("/Volumes/Data").find("usageStatus"), PropertyList("0"));
    EXPECT_EQ(*fieldsOf("/Volumes/Data").find("directoryStatus"), PropertyList("0"));
}

TEST_F(VolumeInventory, LeavesAMountedVolumeThatCanNoLongerBeMonitoredAsItIs) {
    bed.add(externalDisk("disk1"));
    bed.mount("/Volumes/Data", "/dev/disk1", "hfs", lockedHfsPlus);
    ASSERT_TRUE(bed.machine.volumes.setVolumeFlags("/Volumes/Data", 0));
    (void)refresh();
    ASSERT_TRUE(bed.machine.volumes.setVolumeFlags("/Volumes/Data", kVolumeHardwareLocked));
    for (const char* status : {"3", "5"}) {
        fieldsOf("/Volumes/Data").set("usageStatus", status);
        const PropertyListArray before = volumeArray;
        EXPECT_FALSE(refresh());
        EXPECT_EQ(volumeArray, before);
    }
}

TEST_F(VolumeInventory, PassesOverElementsThatAreNoEntries) {
    mountData();
    volumeArray = {"text", 7, PropertyListArray{1}, Dictionary{}, true};
    EXPECT_TRUE(refresh());
    ASSERT_THAT(volumeArray, SizeIs(6));
    EXPECT_EQ(volumeArray[0], PropertyList("text"));
    EXPECT_EQ(volumeArray[1], PropertyList(7));
    EXPECT_EQ(volumeArray[2], PropertyList(PropertyListArray{1}));
    EXPECT_EQ(volumeArray[4], PropertyList(true));
    EXPECT_EQ(ConstVolumeEntry::over(volumeArray[5])->volumeMountToName(), "/Volumes/Data");
}

TEST_F(VolumeInventory, MarksAnEntryWithoutAMountPointAsAbsent) {
    volumeArray = {Dictionary{}, Dictionary{{"volumeMountToName", 5}, {"mine", true}}};
    EXPECT_TRUE(refresh());
    EXPECT_EQ(volumeArray[0],
              PropertyList(Dictionary{{"usageStatus", "5"}, {"directoryStatus", "5"}}));
    EXPECT_EQ(*volumeArray[1].dictionary()->find("mine"), PropertyList(true));
}

TEST_F(VolumeInventory, RevivesTheFirstOfTwoEntriesForOneVolume) {
    mountData();
    const Dictionary gone{
        {"volumeMountToName", "/Volumes/Data"}, {"usageStatus", "5"}, {"directoryStatus", "5"}};
    volumeArray = {gone, gone};
    EXPECT_FALSE(refresh());
    EXPECT_EQ(ConstVolumeEntry::over(volumeArray[0])->usageStatus(), kStatusNotExamined);
    EXPECT_EQ(ConstVolumeEntry::over(volumeArray[1])->usageStatus(), kStatusNotAvailable);
}

TEST_F(VolumeInventory, KeepsKeysThatItDoesNotKnow) {
    mountData();
    (void)refresh();
    fieldsOf("/Volumes/Data").set("ofTheApplication", Dictionary{{"colour", "blue"}});
    unmount("/Volumes/Data");
    (void)refresh();
    EXPECT_EQ(*fieldsOf("/Volumes/Data").find("ofTheApplication"),
              PropertyList(Dictionary{{"colour", "blue"}}));
}

// ---- Encrypted volumes --------------------------------------------------------------------------

TEST_F(VolumeInventory, KeepsAnEncryptedVolumeWithoutBackupAndSavesOnEachPass) {
    mountData("/Volumes/Data", "hfs");
    setEncrypted("disk1", true);
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_TRUE(refresh());
        EXPECT_TRUE(entryOf("/Volumes/Data").isCoreStorageEncrypted());
        EXPECT_FALSE(entryOf("/Volumes/Data").trashOnOff());
        EXPECT_EQ(entryOf("/Volumes/Data").usageStatus(), kStatusNotExamined);
        EXPECT_EQ(*fieldsOf("/Volumes/Data").find("directoryStatus"), PropertyList("5"));
        EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOffMarker));
    }
}

TEST_F(VolumeInventory, TurnsBackupAndTrashHistoryOffWhenAVolumeBecomesEncrypted) {
    bed.add(internalDisk("disk0"));
    bed.mount("/", "/dev/disk0", "hfs");
    (void)refresh();
    EXPECT_THAT(contentsOf("System"), ElementsAre(kBackupOnMarker));
    setEncrypted("disk0", true);
    EXPECT_TRUE(refresh());
    EXPECT_TRUE(entryOf("/").isCoreStorageEncrypted());
    EXPECT_FALSE(entryOf("/").directoryOnOff());
    EXPECT_FALSE(entryOf("/").trashOnOff());
    EXPECT_THAT(contentsOf("System"), ElementsAre(kBackupOffMarker));
}

TEST_F(VolumeInventory, LeavesTheSwitchesOffWhenAVolumeIsNoLongerEncrypted) {
    mountData("/Volumes/Data", "hfs");
    setEncrypted("disk1", true);
    (void)refresh();
    setEncrypted("disk1", false);
    EXPECT_FALSE(refresh());
    EXPECT_FALSE(entryOf("/Volumes/Data").isCoreStorageEncrypted());
    EXPECT_FALSE(entryOf("/Volumes/Data").trashOnOff());
    EXPECT_EQ(entryOf("/Volumes/Data").directoryStatus(), kStatusNotExamined);
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, MarksAnEncryptedVolumeEvenWhenItCannotBeMonitored) {
    mountData("/Volumes/Data", "hfs");
    (void)refresh();
    setEncrypted("disk1", true);
    ASSERT_TRUE(bed.machine.deviceRegistry.setProperty("disk1 device", "Physical Interconnect",
                                                       PropertyList("Virtual Interface")));
    EXPECT_TRUE(refresh());
    EXPECT_FALSE(entryOf("/Volumes/Data").isCoreStorageEncrypted());
    EXPECT_EQ(entryOf("/Volumes/Data").directoryStatus(), kStatusNotAvailable);
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOffMarker));
}

TEST_F(VolumeInventory, MakesNoFolderForAnEncryptedVolumeThatIsNotAvailable) {
    mountData("/Volumes/Data", "hfs");
    setEncrypted("disk1", true);
    ASSERT_TRUE(bed.machine.deviceRegistry.setProperty("disk1 device", "Physical Interconnect",
                                                       PropertyList("Virtual Interface")));
    volumeArray = {Dictionary{
        {"volumeMountToName", "/Volumes/Data"}, {"usageStatus", "5"}, {"directoryStatus", "5"}}};
    EXPECT_TRUE(refresh());
    EXPECT_FALSE(isThere(volumeFolder("Data")));
}

TEST_F(VolumeInventory, AddsAnEncryptedStartUpVolumeWithBackupsUntilTheNextPass) {
    bed.add(internalDisk("disk0"));
    bed.mount("/", "/dev/disk0", "hfs");
    setEncrypted("disk0", true);
    EXPECT_TRUE(refresh());
    EXPECT_TRUE(entryOf("/").isCoreStorageEncrypted());
    EXPECT_TRUE(entryOf("/").directoryOnOff());
    EXPECT_FALSE(entryOf("/").trashOnOff());
    EXPECT_EQ(entryOf("/").directoryStatus(), kStatusNotAvailable);
    (void)refresh();
    EXPECT_FALSE(entryOf("/").directoryOnOff());
}

TEST_F(VolumeInventory, TakesADeviceBelowDevWhereverThatIs) {
    bed.mount("/Volumes/A", "/mnt/root/dev/disk7", "ext4");
    bed.mount("/Volumes/B", "pool:/devices/b", "ext4");
    bed.mount("/Volumes/C", "server:/export", "ext4");
    EXPECT_TRUE(refresh());
    EXPECT_THAT(entries(), ElementsAre("/Volumes/A", "/Volumes/B"));
}

}  // namespace
}  // namespace korvane
