// The volume inventory while the disk fails and mounts vanish, and what a pass costs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ForwardingFileSystem.h"
#include "VolumeInventoryBed.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

// ---- Faults -------------------------------------------------------------------------------------

class VolumeInventoryFaultsTest : public VolumeInventory {};

// A file system whose listing of the support folder is the test's.
class ListingFileSystem final : public ForwardingFileSystem {
  public:
    ListingFileSystem(FileSystem& target, std::optional<std::vector<std::string>> listing)
        : ForwardingFileSystem(target), listing_(std::move(listing)) {}
    std::optional<std::vector<std::string>> list(const std::string&) override { return listing_; }

  private:
    std::optional<std::vector<std::string>> listing_;
};

TEST_F(VolumeInventoryFaultsTest, RemovesWhatStandsAtAFolderThatIsNotListed) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + "/Volume Usage.plist");
    ListingFileSystem fileSystem(bed.machine.fileSystem, std::vector<std::string>{"Dat", "Data2"});
    (void)refreshOn(fileSystem);
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventoryFaultsTest, RemovesNothingWhenTheSupportFolderCannotBeListed) {
    mountData();
    (void)refresh();
    put(volumeFolder("Data") + "/Volume Usage.plist");
    ListingFileSystem fileSystem(bed.machine.fileSystem, std::nullopt);
    EXPECT_FALSE(refreshOn(fileSystem));
    EXPECT_THAT(contentsOf("Data"), UnorderedElementsAre("Volume Usage.plist", kBackupOnMarker));
}

TEST_F(VolumeInventoryFaultsTest, IgnoresAFolderThatCannotBeMadeAndTriesAgain) {
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

TEST_F(VolumeInventoryFaultsTest, IgnoresMarkersThatCannotBeChanged) {
    mountData();
    (void)refresh();
    bed.machine.fileSystem.setFolderImmutable(volumeFolder("Data"), true);
    settings.rootSaveDisabled = true;
    EXPECT_FALSE(refresh());
    EXPECT_THAT(contentsOf("Data"), ElementsAre(kBackupOnMarker));
}

TEST_F(VolumeInventoryFaultsTest, LeavesAFileInPlaceOfTheSupportFolderAlone) {
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

TEST_F(VolumeInventoryFaultsTest, SurvivesAMountThatVanishesBetweenTwoLooks) {
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

class VolumeInventoryCostTest : public VolumeInventory {};

TEST_F(VolumeInventoryCostTest, AsksTwoQuestionsForEachVolumeWhileNothingChanges) {
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

TEST_F(VolumeInventoryCostTest, ListsTheSupportFolderOnceForAnyNumberOfNewVolumes) {
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
