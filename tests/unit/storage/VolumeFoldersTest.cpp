// The volumes' folders below the support folder, their markers, and the records of deleted items.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "VolumeInventoryBed.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

// ---- Records of deleted items -------------------------------------------------------------------

class VolumeFoldersTest : public VolumeInventory {};

class TrashRecordCleanUp : public VolumeInventory {
  protected:
    void SetUp() override {
        bed.mount("/", "/dev/disk0");
        mountData("/Volumes/Data", "hfs");
        (void)refresh();
        setEncrypted("disk1", true);
        settings.directoryBackupLocations = &locations;
    }
    const std::string support = std::string(kSupportFolder) + '/';
    PropertyList locations;
};

TEST_F(TrashRecordCleanUp, RemovesFromTheSupportFolderWhatALocationHolds) {
    locations = PropertyListArray{"/Volumes/Copies"};
    put("/Volumes/Copies/Korvane Protection/Data/Trash Deletes 1");
    put("/Volumes/Copies/Korvane Protection/Data/sub/Trash Deletes 2");
    put("/Volumes/Copies/Korvane Protection/Data/sub/Kept");
    put(support + "Trash Deletes 1");
    put(support + "sub/Trash Deletes 2");
    put(support + "sub/Kept");
    (void)refresh();
    EXPECT_FALSE(isThere(support + "Trash Deletes 1"));
    EXPECT_FALSE(isThere(support + "sub/Trash Deletes 2"));
    EXPECT_TRUE(isThere(support + "sub/Kept"));
    EXPECT_TRUE(isThere("/Volumes/Copies/Korvane Protection/Data/Trash Deletes 1"));
    EXPECT_TRUE(isThere("/Volumes/Copies/Korvane Protection/Data/sub/Trash Deletes 2"));
}

TEST_F(TrashRecordCleanUp, TakesTheStartUpVolumesNameForTheSupportFolder) {
    locations = PropertyListArray{"/Volumes/System"};
    put(support + "Data/Trash Deletes");
    put(support + "Trash Deletes");
    put("/Volumes/System/Korvane Protection/Data/Trash Deletes there");
    put(support + "Trash Deletes there");
    (void)refresh();
    EXPECT_TRUE(isThere(support + "Data/Trash Deletes"));
    EXPECT_FALSE(isThere(support + "Trash Deletes"));
    EXPECT_TRUE(isThere(support + "Trash Deletes there"));
}

TEST_F(TrashRecordCleanUp, LooksAtEncryptedVolumesAlone) {
    setEncrypted("disk1", false);
    locations = PropertyListArray{"/Volumes/System"};
    put(support + "Data/Trash Deletes");
    put(support + "Trash Deletes");
    (void)refresh();
    EXPECT_TRUE(isThere(support + "Trash Deletes"));
}

TEST_F(TrashRecordCleanUp, PassesOverLocationsThatAreNoTexts) {
    put(support + "Data/Trash Deletes");
    put(support + "Trash Deletes");
    for (const PropertyList& odd : {PropertyList("/Volumes/System"), PropertyList(1),
                                    PropertyList(PropertyListArray{1, Dictionary{}})}) {
        locations = odd;
        EXPECT_TRUE(refresh());
    }
    EXPECT_TRUE(isThere(support + "Trash Deletes"));
}

// Whoever could have put a name there would decide what is removed from the support folder.
TEST_F(TrashRecordCleanUp, TakesNoNamesFromALocationThatIsNotRootsAlone) {
    constexpr std::uint32_t kAlice = 1000;
    SimulatedFileSystem& files = bed.machine.fileSystem;
    put("/home/alice/Korvane Protection/Data/Other/Trash Deletes 1");
    files.setOwner("/home/alice", kAlice);
    put("/Volumes/Shared/Korvane Protection/Data/Other/Trash Deletes 1");
    files.setPermissions("/Volumes/Shared", 01777);
    put("/Volumes/Inner/Korvane Protection/Data/Other/Trash Deletes 1");
    files.setOwner("/Volumes/Inner/Korvane Protection/Data/Other", kAlice);
    bed.mount("/Volumes/Server", "server:/export", "nfs4");
    put("/Volumes/Server/Korvane Protection/Data/Other/Trash Deletes 1");
    put("/Volumes/Link/Korvane Protection/Secret");
    files.putLink("/Volumes/Link/Korvane Protection/Data", kSupportFolder);
    put(support + "Other/Trash Deletes 1");
    put(support + "Trash Deletes 1");
    locations = PropertyListArray{"/home/alice", "/Volumes/Shared", "/Volumes/Inner",
                                  "/Volumes/Server", "/Volumes/Link"};
    (void)refresh();
    EXPECT_TRUE(isThere(support + "Other/Trash Deletes 1"));
    EXPECT_TRUE(isThere(support + "Trash Deletes 1"));
}

// ---- Folders and markers ------------------------------------------------------------------------

TEST_F(VolumeFoldersTest, MakesAFolderWithAMarkerForEachVolume) {
    bed.mount("/", "/dev/disk9");
    mountData("/Volumes/Data");
    (void)refresh();
    EXPECT_THAT(supportContents(), UnorderedElementsAre("System", "Data"));
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
    const auto marker =
        bed.machine.fileSystem.attributes(volumeFolder("Data") + '/' + kBackupOnMarker);
    ASSERT_TRUE(marker);
    EXPECT_EQ(marker->permissions, 0666U);
    EXPECT_EQ(marker->sizeBytes, 0U);
}

TEST_F(VolumeFoldersTest, KeepsTheOffMarkerWhileRootSaveIsDisabled) {
    mountData();
    for (const bool disabled : {true, true, false, false, true}) {
        settings.rootSaveDisabled = disabled;
        (void)refresh();
        EXPECT_THAT(contentsOf("Data"), ElementsAre(disabled ? kBackupOffMarker : kBackupOnMarker));
    }
}

TEST_F(VolumeFoldersTest, LeavesOneOfTwoMarkers) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + '/' + kBackupOffMarker);
    (void)refresh();
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeFoldersTest, LeavesAnEarlierMarkerAndTheRestOfAFolderAsTheyAre) {
    put(volumeFolder("Data") + "/Volume Usage.plist");
    put(volumeFolder("Data") + '/' + kBackupOnMarker);
    mountData();
    (void)refresh();
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
    EXPECT_EQ(bed.machine.fileSystem.bytes(volumeFolder("Data") + '/' + kBackupOnMarker), "old");
}

TEST_F(VolumeFoldersTest, LeavesTheFolderOfAVolumeThatIsNotAvailableAlone) {
    mountData();
    (void)refresh();
    settings.rootSaveDisabled = true;
    unmount("/Volumes/Data");
    (void)refresh();
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
    ASSERT_TRUE(bed.machine.fileSystem.removeItem(volumeFolder("Data")));
    (void)refresh();
    EXPECT_FALSE(isThere(volumeFolder("Data")));
}

TEST_F(VolumeFoldersTest, LeavesAFolderAloneWhenOneStatusIsNotAvailable) {
    mountData();
    (void)refresh();
    ASSERT_TRUE(bed.machine.fileSystem.removeItem(volumeFolder("Data")));
    bed.machine.volumes.forceUnmount("/Volumes/Data");
    bed.mount("/Volumes/Data", "//odd", "smbfs");  // mounted, but passed over
    fieldsOf("/Volumes/Data").set("directoryStatus", "5");
    EXPECT_FALSE(refresh());
    EXPECT_FALSE(isThere(volumeFolder("Data")));
}

TEST_F(VolumeFoldersTest, MakesAMissingFolderAgain) {
    mountData();
    (void)refresh();
    ASSERT_TRUE(bed.machine.fileSystem.removeItem(kSupportFolder));
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeFoldersTest, GivesEachOfTwoVolumesOfOneNameItsFolder) {
    mountData("/Volumes/Data");
    mountData("/mnt/Data");
    (void)refresh();
    EXPECT_THAT(supportContents(), UnorderedElementsAre("Data", "Data 1"));
    put(volumeFolder("Data") + "/Volume Usage.plist");
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
    EXPECT_THAT(contentsOf("Data 1"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeFoldersTest, RemovesNothingOutsideTheSupportFolderWhateverAVolumeIsCalled) {
    put("/Library/Application Support/Of another program");
    put(std::string(kPreferencesFile));
    const char* const names[] = {"..", ".", "/", "../..", "../Korvane Protection", "a/../../b"};
    int number = 0;
    for (const char* name : names) {
        mountNamed("/Volumes/" + std::to_string(number++), name);
    }
    for (int pass = 0; pass < 2; ++pass) {
        (void)refresh();
        EXPECT_TRUE(isThere("/Library/Application Support/Of another program"));
        EXPECT_TRUE(isThere(kPreferencesFile));
        EXPECT_FALSE(isThere(std::string("/Library/Application Support/") + kBackupOnMarker));
        for (const char* name : names) {
            EXPECT_TRUE(isThere(volumeFolder(name) + '/' + kBackupOnMarker)) << name;
        }
    }
}

TEST_F(VolumeFoldersTest, NestsTheFolderOfANameWithASlash) {
    mountNamed("/Volumes/a:b", "a/b");
    (void)refresh();
    EXPECT_THAT(supportContents(), ElementsAre("a"));
    EXPECT_TRUE(isThere(volumeFolder("a/b") + '/' + kBackupOnMarker));
}

TEST_F(VolumeFoldersTest, KeepsVolumesOfOddNames) {
    const char* const names[] = {"two\\012lines", "\\377\\376", " ", "...", "%2E", "-rf", "a\tb"};
    for (const char* name : names) mountData(std::string("/Volumes/") + name);
    EXPECT_TRUE(refresh());
    for (const char* name : names) {
        put(volumeFolder(name) + "/Volume Usage.plist");
        EXPECT_EQ(entryOf(std::string("/Volumes/") + name).usageStatus(), kStatusNotExamined);
    }
    EXPECT_FALSE(refresh());
    for (const char* name : names) {
        EXPECT_THAT(contentsOf(name), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
    }
}

}  // namespace
}  // namespace korvane
