#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/BackupFolders.h"
#include "backup/BackupPlaces.h"
#include "platform/simulated/SimulatedMachine.h"
#include "unit/storage/ForwardingFileSystem.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t kSomebody = 1000;
constexpr char kLocation[] = "/Volumes/Backup";

class BackupFolders : public testing::Test {
  protected:
    // A file of these permissions, and the folders above it.
    void put(const std::string& path, std::uint32_t owner = 0, mode_t permissions = 0600) {
        ASSERT_TRUE(files_.put(path, "", permissions));
        ASSERT_TRUE(files_.setOwner(path, owner));
    }
    mode_t permissions(const std::string& path) { return files_.attributes(path)->permissions; }

    SimulatedMachine machine_{MachineDescription{}};
    SimulatedFileSystem& files_ = machine_.fileSystem;
};

TEST_F(BackupFolders, AreMadeForTheVolumeAtALocation) {
    ASSERT_TRUE(files_.createFolders(kLocation, "root"));
    EXPECT_EQ(prepareFolderAt(files_, kLocation, "Data"), FolderState::ready);
    EXPECT_TRUE(files_.isFolder("/Volumes/Backup/Korvane Protection/Data"));
    EXPECT_EQ(prepareFolderAt(files_, kLocation, "Data"), FolderState::ready);
    EXPECT_EQ(prepareFolderAt(files_, kLocation, "Other"), FolderState::ready);
    EXPECT_TRUE(files_.isFolder("/Volumes/Backup/Korvane Protection/Other"));
}

TEST_F(BackupFolders, AreNotMadeWhereTheLocationTakesNothing) {
    ASSERT_TRUE(files_.createFolders(kLocation, "root"));
    files_.setFolderImmutable(kLocation, true);
    EXPECT_EQ(prepareFolderAt(files_, kLocation, "Data"), FolderState::notMade);
    files_.setFolderImmutable(kLocation, false);
    ASSERT_TRUE(files_.createFolders("/Volumes/Backup/Korvane Protection", "root"));
    files_.setFolderImmutable("/Volumes/Backup/Korvane Protection", true);
    EXPECT_EQ(prepareFolderAt(files_, kLocation, "Data"), FolderState::notMade);
}

TEST_F(BackupFolders, AreNotUsedWhereALinkOrSomebodyElseStandsOnTheWay) {
    constexpr char kDeepLocation[] = "/Volumes/Backup/deep";
    for (const std::string& folder : {std::string(kDeepLocation), locationFolder(kDeepLocation),
                                      volumeFolderAt(kDeepLocation, "Data")}) {
        const std::string above = folder.substr(0, folder.rfind('/'));
        ASSERT_TRUE(files_.createFolders(above, "root"));
        ASSERT_TRUE(files_.putLink(folder, "/etc"));
        EXPECT_EQ(prepareFolderAt(files_, kDeepLocation, "Data"), FolderState::notOurs) << folder;
        ASSERT_TRUE(files_.removeItem(folder));
        ASSERT_TRUE(files_.createFolders(folder, "root"));
        ASSERT_TRUE(files_.setOwner(folder, kSomebody));
        EXPECT_EQ(prepareFolderAt(files_, kDeepLocation, "Data"), FolderState::notOurs) << folder;
        ASSERT_TRUE(files_.setOwner(folder, 0));
    }
    EXPECT_EQ(prepareFolderAt(files_, kDeepLocation, "Data"), FolderState::ready);
    EXPECT_FALSE(files_.exists("/etc/Data"));
}

TEST_F(BackupFolders, LieBelowAVolumeWhoeverOwnsItsTopAndHoweverItIsReached) {
    ASSERT_TRUE(files_.createFolders("/mnt/stick", "root"));
    ASSERT_TRUE(files_.setOwner("/mnt/stick", kSomebody));
    ASSERT_TRUE(files_.putLink("/Volumes/stick", "/mnt/stick"));
    EXPECT_EQ(prepareFolderAt(files_, "/Volumes/stick", "Data"), FolderState::ready);
    EXPECT_TRUE(files_.isFolder("/mnt/stick/Korvane Protection/Data"));
}

// Somebody is quicker than the daemon.
class RacedFileSystem final : public ForwardingFileSystem {
  public:
    explicit RacedFileSystem(SimulatedFileSystem& files)
        : ForwardingFileSystem(files), files_(files) {}
    bool createFolders(const std::string& path, const std::string& owner) override {
        if (path.ends_with("/Data")) return files_.putLink(path, "/etc");
        return ForwardingFileSystem::createFolders(path, owner);
    }

  private:
    SimulatedFileSystem& files_;
};

TEST_F(BackupFolders, AreLookedAtAgainWhenTheyHaveBeenMade) {
    ASSERT_TRUE(files_.createFolders(kLocation, "root"));
    ASSERT_TRUE(files_.createFolders("/etc", "root"));
    RacedFileSystem raced(files_);
    EXPECT_EQ(prepareFolderAt(raced, kLocation, "Data"), FolderState::notOurs);
}

// A stick that was mounted for a user: everything on it is his, what root makes too.
class FatFileSystem final : public ForwardingFileSystem {
  public:
    using ForwardingFileSystem::ForwardingFileSystem;
    std::optional<ItemAttributes> attributes(const std::string& path) override {
        auto item = ForwardingFileSystem::attributes(path);
        if (item) item->ownerId = kSomebody;
        return item;
    }
};

TEST_F(BackupFolders, AreNotUsedFromTheFirstRunOnWhereWhatRootMakesIsSomebodyElses) {
    ASSERT_TRUE(files_.createFolders(kLocation, "root"));
    FatFileSystem fat(files_);
    EXPECT_EQ(prepareFolderAt(fat, kLocation, "Data"), FolderState::notOurs);
    EXPECT_EQ(prepareFolderAt(fat, kLocation, "Data"), FolderState::notOurs);
}

TEST(FoldersOnLocation, AreThoseBelowTheTopOfItsVolume) {
    EXPECT_THAT(foldersOnLocation("/Volumes/Backup", "Data"),
                ElementsAre("/Volumes/Backup/Korvane Protection",
                            "/Volumes/Backup/Korvane Protection/Data"));
    EXPECT_THAT(foldersOnLocation("/Volumes/Backup/deep/", "a/b"),
                ElementsAre("/Volumes/Backup/deep", "/Volumes/Backup/deep//Korvane Protection",
                            "/Volumes/Backup/deep//Korvane Protection/a",
                            "/Volumes/Backup/deep//Korvane Protection/a/b"));
    EXPECT_THAT(foldersOnLocation("", ""), IsEmpty());
}

TEST_F(BackupFolders, AreOpenedToEverybodyBelowEachItem) {
    put("/S/top file");
    put("/S/Data/file");
    put("/S/Data/folder/deep/file");
    repairPermissions(files_, "/S");
    EXPECT_EQ(permissions("/S/Data/file"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder/deep"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder/deep/file"), 0666U);
    // The items at the top are nobody's descendants but the folder's own.
    EXPECT_EQ(permissions("/S/top file"), 0600U);
    EXPECT_NE(permissions("/S/Data"), 0666U);
}

TEST_F(BackupFolders, AreOpenedUpToTheFirstThatIsNotRoots) {
    for (const char* const name : {"a", "b", "c", "d", "e"}) {
        put(std::string("/S/Data/") + name);
    }
    const std::vector<std::string> order = files_.enumerate("/S/Data");
    ASSERT_EQ(order.size(), 5U);
    ASSERT_TRUE(files_.setOwner("/S/Data/" + order[2], kSomebody));
    put("/S/Other/file");
    repairPermissions(files_, "/S");
    for (std::size_t index = 0; index < order.size(); ++index) {
        EXPECT_EQ(permissions("/S/Data/" + order[index]), index < 2 ? 0666U : 0600U) << index;
    }
    // Each item has an order of its own.
    EXPECT_EQ(permissions("/S/Other/file"), 0666U);
}

TEST_F(BackupFolders, AreOpenedWithoutFollowingLinks) {
    put("/elsewhere/file");
    ASSERT_TRUE(files_.createFolders("/S/Data", "root"));
    ASSERT_TRUE(files_.putLink("/S/Data/folder link", "/elsewhere"));
    ASSERT_TRUE(files_.putLink("/S/Data/file link", "/elsewhere/file"));
    repairPermissions(files_, "/S");
    EXPECT_EQ(permissions("/elsewhere/file"), 0600U);
    EXPECT_NE(permissions("/elsewhere"), 0666U);
}

}  // namespace
}  // namespace korvane
