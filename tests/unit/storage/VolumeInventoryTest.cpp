#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ForwardingFileSystem.h"
#include "StorageBed.h"
#include "storage/SupportFolder.h"
#include "storage/VolumeEntry.h"
#include "storage/VolumeInventory.h"

namespace korvane {
namespace {

using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr Time kNow{seconds{1'700'000'000}};

void lockedHfsPlus(MountDescription& mount) {
    mount.signature = 0x482B;
    mount.volumeFlags = kVolumeSoftwareLocked;
}

class VolumeInventory : public ::testing::Test {
  protected:
    bool refresh() { return refreshOn(bed.machine.fileSystem); }
    bool refreshOn(FileSystem& fileSystem) {
        return refreshVolumeEntries(bed.machine.deviceRegistry, bed.machine.volumes, fileSystem,
                                    volumeArray, settings);
    }
    // An external drive with one volume.
    void mountData(const std::string& path = "/Volumes/Data", const std::string& type = "ext4") {
        bed.add(externalDisk("disk" + std::to_string(++lastDisk)));
        bed.mount(path, "/dev/disk" + std::to_string(lastDisk), type);
    }
    void setEncrypted(const std::string& medium, bool isEncrypted) {
        ASSERT_TRUE(bed.machine.deviceRegistry.setProperty(medium, "CoreStorage Encrypted",
                                                           PropertyList(isEncrypted)));
    }
    void unmount(const std::string& path) {
        ASSERT_TRUE(bed.machine.volumes.forceUnmount(path).has_value());
    }

    Dictionary& fieldsOf(const std::string& path) {
        static Dictionary none;
        for (PropertyList& element : volumeArray) {
            const auto entry = ConstVolumeEntry::over(element);
            if (entry && entry->volumeMountToName() == path) return *element.dictionary();
        }
        ADD_FAILURE() << "no entry for " << path;
        return none;
    }
    ConstVolumeEntry entryOf(const std::string& path) { return ConstVolumeEntry(fieldsOf(path)); }
    std::vector<std::string> entries() {
        std::vector<std::string> paths;
        for (const PropertyList& element : volumeArray) {
            const auto entry = ConstVolumeEntry::over(element);
            paths.push_back(entry ? entry->volumeMountToName() : "no entry");
        }
        return paths;
    }
    // What is in a volume's folder, or below the support folder.
    std::vector<std::string> contentsOf(const std::string& displayName) {
        return bed.machine.fileSystem.enumerate(volumeFolder(displayName));
    }
    std::vector<std::string> supportContents() {
        return bed.machine.fileSystem.list(kSupportFolder).value_or(std::vector<std::string>{});
    }
    void put(const std::string& path) { ASSERT_TRUE(bed.machine.fileSystem.put(path, "old")); }
    bool isThere(const std::string& path) { return bed.machine.fileSystem.exists(path); }

    StorageBed bed;
    PropertyListArray volumeArray;
    VolumePassSettings settings{.now = kNow, .systemVersionAgainst10_7 = 1};
    int lastDisk = 0;
};

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

// ---- Records of deleted items -------------------------------------------------------------------

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

// ---- Folders and markers ------------------------------------------------------------------------

TEST_F(VolumeInventory, MakesAFolderWithAMarkerForEachVolume) {
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

TEST_F(VolumeInventory, KeepsTheOffMarkerWhileRootSaveIsDisabled) {
    mountData();
    for (const bool disabled : {true, true, false, false, true}) {
        settings.rootSaveDisabled = disabled;
        (void)refresh();
        EXPECT_THAT(contentsOf("Data"), ElementsAre(disabled ? kBackupOffMarker : kBackupOnMarker));
    }
}

TEST_F(VolumeInventory, LeavesOneOfTwoMarkers) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + '/' + kBackupOffMarker);
    (void)refresh();
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, LeavesAnEarlierMarkerAndTheRestOfAFolderAsTheyAre) {
    put(volumeFolder("Data") + "/Volume Usage.plist");
    put(volumeFolder("Data") + '/' + kBackupOnMarker);
    mountData();
    (void)refresh();
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
    EXPECT_EQ(bed.machine.fileSystem.bytes(volumeFolder("Data") + '/' + kBackupOnMarker), "old");
}

TEST_F(VolumeInventory, LeavesTheFolderOfAVolumeThatIsNotAvailableAlone) {
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

TEST_F(VolumeInventory, LeavesAFolderAloneWhenOneStatusIsNotAvailable) {
    mountData();
    (void)refresh();
    ASSERT_TRUE(bed.machine.fileSystem.removeItem(volumeFolder("Data")));
    bed.machine.volumes.forceUnmount("/Volumes/Data");
    bed.mount("/Volumes/Data", "//odd", "smbfs");  // mounted, but passed over
    fieldsOf("/Volumes/Data").set("directoryStatus", "5");
    EXPECT_FALSE(refresh());
    EXPECT_FALSE(isThere(volumeFolder("Data")));
}

TEST_F(VolumeInventory, MakesAMissingFolderAgain) {
    mountData();
    (void)refresh();
    ASSERT_TRUE(bed.machine.fileSystem.removeItem(kSupportFolder));
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, LetsTwoVolumesOfOneNameShareAFolder) {
    mountData("/Volumes/Data");
    mountData("/mnt/Data");
    (void)refresh();
    EXPECT_THAT(supportContents(), ElementsAre("Data"));
    put(volumeFolder("Data") + "/Volume Usage.plist");
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
}

TEST_F(VolumeInventory, RemovesNothingOutsideTheSupportFolderWhateverAVolumeIsCalled) {
    put("/Library/Application Support/Of another program");
    put(std::string(kPreferencesFile));
    const char* const names[] = {"..", ".", "", "/", "../..", "../Korvane Protection", "a/../../b"};
    int number = 0;
    for (const char* name : names) {
        const std::string path = "/Volumes/" + std::to_string(number++);
        mountData(path);
        bed.machine.fileSystem.setDisplayName(path, name);
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

TEST_F(VolumeInventory, NestsTheFolderOfANameWithASlash) {
    mountData("/Volumes/a:b");
    bed.machine.fileSystem.setDisplayName("/Volumes/a:b", "a/b");
    (void)refresh();
    EXPECT_THAT(supportContents(), ElementsAre("a"));
    EXPECT_TRUE(isThere(volumeFolder("a/b") + '/' + kBackupOnMarker));
}

TEST_F(VolumeInventory, KeepsVolumesOfOddNames) {
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

// ---- Faults -------------------------------------------------------------------------------------

// A file system whose listing of the support folder is the test's.
class ListingFileSystem final : public ForwardingFileSystem {
  public:
    ListingFileSystem(FileSystem& target, std::optional<std::vector<std::string>> listing)
        : ForwardingFileSystem(target), listing_(std::move(listing)) {}
    std::optional<std::vector<std::string>> list(const std::string&) override { return listing_; }

  private:
    std::optional<std::vector<std::string>> listing_;
};

TEST_F(VolumeInventory, RemovesWhatStandsAtAFolderThatIsNotListed) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + "/Volume Usage.plist");
    ListingFileSystem fileSystem(bed.machine.fileSystem, std::vector<std::string>{"Dat", "Data2"});
    (void)refreshOn(fileSystem);
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, RemovesNothingWhenTheSupportFolderCannotBeListed) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + "/Volume Usage.plist");
    ListingFileSystem fileSystem(bed.machine.fileSystem, std::nullopt);
    EXPECT_FALSE(refreshOn(fileSystem));
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
}

TEST_F(VolumeInventory, IgnoresAFolderThatCannotBeMadeAndTriesAgain) {
    mountData();
    put(std::string(kSupportFolder) + "/KorvaneProtection.plist");
    bed.machine.fileSystem.setFolderImmutable(kSupportFolder, true);
    EXPECT_TRUE(refresh());
    EXPECT_FALSE(refresh());
    EXPECT_FALSE(isThere(volumeFolder("Data")));
    bed.machine.fileSystem.setFolderImmutable(kSupportFolder, false);
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, IgnoresMarkersThatCannotBeChanged) {
    mountData();
    (void)refresh();
    bed.machine.fileSystem.setFolderImmutable(volumeFolder("Data"), true);
    settings.rootSaveDisabled = true;
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventory, LeavesAFileInPlaceOfTheSupportFolderAlone) {
    mountData();
    put(kSupportFolder);
    EXPECT_TRUE(refresh());
    EXPECT_EQ(bed.machine.fileSystem.bytes(kSupportFolder), "old");
}

// The first look at a mount finds it, later ones do not: it is unmounted meanwhile.
class VanishingVolumes final : public Volumes {
  public:
    VanishingVolumes(Volumes& target, int looksThatFind)
        : target_(target), looksThatFind_(looksThatFind) {}

    const std::vector<MountEntry>& mountTable() override { return target_.mountTable(); }
    const MountEntry* mountAt(std::string_view path) override {
        return looksThatFind_-- > 0 ? target_.mountAt(path) : nullptr;
    }
    const std::vector<std::string>& mountedLocalVolumePaths() override {
        return target_.mountedLocalVolumePaths();
    }
    OSErrOr<VolumeInfo> volumeInfoByIndex(std::size_t) override { return {nsvErr, {}}; }
    OSErrOr<VolumeInfo> volumeInfoByReferenceNumber(std::int16_t) override { return {nsvErr, {}}; }
    OSErrOr<VolumeInfo> volumeInfoOfRoot(const FSRef&) override { return {nsvErr, {}}; }
    OSErrOr<VolumeInfo> volumeInfoByDevice(std::string_view) override { return {nsvErr, {}}; }
    std::optional<FileSystemFlags> fileSystemFlags(const std::string&) override { return {}; }
    std::optional<FileSystemAttributes> fileSystemAttributes(const std::string&) override {
        return {};
    }
    bool unmount(std::int16_t) override { return false; }
    void setDidMount(std::function<void()>) override {}
    void setDidUnmount(std::function<void()>) override {}

  private:
    Volumes& target_;
    int looksThatFind_;
};

TEST_F(VolumeInventory, SurvivesAMountThatVanishesBetweenTwoLooks) {
    mountData("/Volumes/Data", "hfs");
    setEncrypted("disk1", true);
    for (int looks = 0; looks < 5; ++looks) {
        volumeArray.clear();
        VanishingVolumes volumes(bed.machine.volumes, looks);
        const bool changed = refreshVolumeEntries(bed.machine.deviceRegistry, volumes,
                                                  bed.machine.fileSystem, volumeArray, settings);
        EXPECT_EQ(changed, !volumeArray.empty());
        EXPECT_EQ(volumeArray.size(), looks == 0 ? 0U : 1U);
    }
}

// ---- Cost ---------------------------------------------------------------------------------------

TEST_F(VolumeInventory, AsksTwoQuestionsForEachVolumeWhileNothingChanges) {
    constexpr int kVolumes = 200;
    for (int number = 0; number < kVolumes; ++number) {
        mountData("/Volumes/Volume " + std::to_string(number));
    }
    mountData("/Volumes/Gone");
    ForwardingFileSystem fileSystem(bed.machine.fileSystem);
    EXPECT_TRUE(refreshOn(fileSystem));
    unmount("/Volumes/Gone");
    EXPECT_TRUE(refreshOn(fileSystem));

    for (const bool disabled : {false, true}) {
        settings.rootSaveDisabled = disabled;
        (void)refreshOn(fileSystem);
        fileSystem.forgetCalls();
        EXPECT_FALSE(refreshOn(fileSystem));
        EXPECT_LE(fileSystem.calls(), 2 * kVolumes + 1);
    }
}

TEST_F(VolumeInventory, ListsTheSupportFolderOnceForAnyNumberOfNewVolumes) {
    constexpr int kVolumes = 200;
    for (int number = 0; number < kVolumes; ++number) {
        mountData("/Volumes/Volume " + std::to_string(number));
    }
    ForwardingFileSystem fileSystem(bed.machine.fileSystem);
    EXPECT_TRUE(refreshOn(fileSystem));
    // For each: remove, two looks at markers, one at the folder, make it, make the marker.
    EXPECT_LE(fileSystem.calls(), 6 * kVolumes + 1);
    EXPECT_THAT(supportContents(), SizeIs(kVolumes));
}

}  // namespace
}  // namespace korvane
