#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "backup/BackupFolders.h"
#include "base/PropertyListFile.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

constexpr std::uint32_t kSomebody = 1000;

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

TEST_F(BackupFolders, AreOpenedToEverybodyBelowEachItem) {
    put("/S/top file");
    put("/S/Data/file");
    put("/S/Data/folder/deep/file");
    repairPermissions(files_, machine_.volumes, "/S");
    EXPECT_EQ(permissions("/S/Data/file"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder/deep"), 0666U);
    EXPECT_EQ(permissions("/S/Data/folder/deep/file"), 0666U);
    // The items at the top are nobody's descendants but the folder's own.
    EXPECT_EQ(permissions("/S/top file"), 0600U);
    EXPECT_NE(permissions("/S/Data"), 0666U);
}

TEST_F(BackupFolders, KeepTheCopiesOfDocumentsClosed) {
    put("/S/Data/Volume Usage.plist");
    const std::string kept = keptCopyOf("/S/Data/Volume Usage.plist");
    const std::string saving = savingSiblingOf("/S/Data/Volume Usage.plist");
    put(kept);
    put(saving);
    repairPermissions(files_, machine_.volumes, "/S");
    EXPECT_EQ(permissions("/S/Data/Volume Usage.plist"), 0666U);
    EXPECT_EQ(permissions(kept), 0600U);
    EXPECT_EQ(permissions(saving), 0600U);
}

TEST_F(BackupFolders, AreOpenedUpToTheFirstThatIsNotRoots) {
    for (const char* const name : {"a", "b", "c", "d", "e"}) {
        put(std::string("/S/Data/") + name);
    }
    const std::vector<std::string> order = files_.enumerate("/S/Data");
    ASSERT_EQ(order.size(), 5U);
    ASSERT_TRUE(files_.setOwner("/S/Data/" + order[2], kSomebody));
    put("/S/Other/file");
    repairPermissions(files_, machine_.volumes, "/S");
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
    repairPermissions(files_, machine_.volumes, "/S");
    EXPECT_EQ(permissions("/elsewhere/file"), 0600U);
    EXPECT_NE(permissions("/elsewhere"), 0666U);
}

// In a folder that somebody else writes in, a name may lead to any file the next moment.
TEST_F(BackupFolders, AreLeftAloneWhereOthersMayWrite) {
    put("/S/Theirs/file");
    ASSERT_TRUE(files_.setOwner("/S/Theirs", kSomebody));
    put("/S/Data/Shared/file");
    ASSERT_TRUE(files_.setPermissions("/S/Data/Shared", 0777));
    put("/S/Data/Sticky/file");
    ASSERT_TRUE(files_.setPermissions("/S/Data/Sticky", 01777));
    repairPermissions(files_, machine_.volumes, "/S");
    EXPECT_EQ(permissions("/S/Theirs/file"), 0600U);
    EXPECT_EQ(permissions("/S/Data/Shared/file"), 0600U);
    EXPECT_EQ(permissions("/S/Data/Sticky/file"), 0600U);
    ASSERT_TRUE(files_.setOwner("/S", kSomebody));
    put("/S/Data/later");
    repairPermissions(files_, machine_.volumes, "/S");
    EXPECT_EQ(permissions("/S/Data/later"), 0600U);
}

}  // namespace
}  // namespace korvane
