#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "platform/simulated/SimulatedFileSystem.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

using testing::ElementsAre;
using testing::Optional;

constexpr char kFile[] = "/folder/list.plist";

class SimulatedFiles : public testing::Test {
  protected:
    SimulatedFiles() {
        files_.createFolders("/folder", "root");
        EXPECT_TRUE(write("old"));
    }
    bool write(const char* text) {
        return static_cast<bool>(
            files_.writePropertyList(kFile, text, 0666, Durability::powerLoss));
    }
    // The text that stands in the file; "-" when it does not parse.
    std::string text() {
        const auto value = files_.readPropertyList(kFile);
        return value ? stringValue(&*value) : "-";
    }

    SimulatedMachine machine_{MachineDescription{}};
    SimulatedFileSystem& files_ = machine_.fileSystem;
};

TEST_F(SimulatedFiles, KeepWhatWasThereWhenAWriteFails) {
    files_.failNextWrites(2);
    EXPECT_FALSE(write("new"));
    EXPECT_FALSE(write("new"));
    EXPECT_EQ(text(), "old");
    EXPECT_TRUE(write("new"));
    EXPECT_EQ(text(), "new");
    EXPECT_EQ(files_.writeCount(kFile), 2U);
}

struct KillRow {
    KillMoment moment;
    const char* restored;
};

TEST_F(SimulatedFiles, HoldTheOldOrTheNewContentsAfterAKillAtAnyMoment) {
    for (const KillRow& row :
         {KillRow{KillMoment::beforeWriting, "old"}, KillRow{KillMoment::partCut, "old"},
          KillRow{KillMoment::siblingWhole, "old"}, KillRow{KillMoment::fileTorn, "new"},
          KillRow{KillMoment::written, "new"}}) {
        ASSERT_TRUE(write("old"));
        files_.killAtNextWrite(row.moment);
        EXPECT_THROW((void)write("new"), SimulatedKill);
        EXPECT_EQ(text(), row.restored) << static_cast<int>(row.moment);
    }
    // What a kill left beside the file is gone after the next write.
    ASSERT_TRUE(write("last"));
    EXPECT_THAT(files_.list("/folder"),
                Optional(testing::IsSubsetOf({"list.plist", ".list.plist.kept"})));
}

TEST_F(SimulatedFiles, AppearWholeOrNotAtAllWhenTheyAreNew) {
    files_.killAtNextWrite(KillMoment::fileTorn);
    EXPECT_THROW((void)files_.writePropertyList("/folder/new.plist", 1, 0666, Durability::process),
                 SimulatedKill);
    EXPECT_TRUE(files_.readPropertyList("/folder/new.plist"));
}

TEST_F(SimulatedFiles, ShowTheBytesOfAListAndTheListOfBytes) {
    EXPECT_THAT(files_.bytes(kFile), Optional(testing::HasSubstr("<string>old</string>")));
    ASSERT_TRUE(files_.put(kFile, "<plist version=\"1.0\"><string>put</string></plist>"));
    EXPECT_EQ(text(), "put");
    EXPECT_EQ(files_.attributes(kFile)->permissions, 0666U);
    ASSERT_TRUE(files_.put(kFile, "junk"));
    EXPECT_EQ(text(), "-");
    EXPECT_EQ(files_.bytes(kFile), "junk");
}

TEST_F(SimulatedFiles, TakeNoChangeInAnImmutableFolder) {
    files_.setFolderImmutable("/folder", true);
    EXPECT_FALSE(write("new"));
    EXPECT_FALSE(files_.createEmptyFile("/folder/file", 0666));
    EXPECT_FALSE(files_.createFolders("/folder/below", "root"));
    EXPECT_FALSE(files_.remove(kFile));
    EXPECT_FALSE(files_.remove("/folder"));
    EXPECT_EQ(text(), "old");
    files_.setFolderImmutable("/folder", false);
    EXPECT_TRUE(files_.remove("/folder"));
    EXPECT_FALSE(files_.exists("/folder"));
}

TEST_F(SimulatedFiles, PassOverAFolderThatCannotBeRead) {
    files_.createFolders("/folder/closed/below", "root");
    files_.setFolderUnreadable("/folder/closed", true);
    EXPECT_FALSE(files_.list("/folder/closed"));
    EXPECT_THAT(files_.enumerate("/folder"), testing::UnorderedElementsAre("list.plist", "closed"));
    EXPECT_FALSE(files_.remove("/folder"));
    EXPECT_TRUE(files_.exists("/folder/closed/below"));
    EXPECT_FALSE(files_.exists(kFile));
}

TEST_F(SimulatedFiles, BelongToTheAccountNamed) {
    SimulatedMachine machine([] {
        MachineDescription description;
        description.accounts = {{"root", 0}, {"ada", 1000}};
        return description;
    }());
    ASSERT_TRUE(machine.fileSystem.createFolders("/a/b", "ada"));
    EXPECT_EQ(machine.fileSystem.attributes("/a")->ownerId, 1000U);
}

TEST_F(SimulatedFiles, LieOnTheVolumeThatIsMountedAboveThem) {
    MountDescription mount;
    mount.path = "/Volumes/Data";
    mount.device = "/dev/sdb1";
    mount.type = "ext4";
    mount.sizeBytes = 100;
    mount.freeBytes = 50;
    machine_.volumes.mount(mount);
    ASSERT_TRUE(files_.put("/Volumes/Data/file", "text"));
    EXPECT_FALSE(files_.remove("/Volumes/Data"));

    machine_.volumes.setFreeBytes(mount.path, 0);
    EXPECT_FALSE(files_.writePropertyList("/Volumes/Data/list", 1, 0666, Durability::process));
    EXPECT_TRUE(write("elsewhere"));
    machine_.volumes.setWritable(mount.path, false);
    EXPECT_FALSE(files_.remove("/Volumes/Data/file"));

    machine_.volumes.forceUnmount(mount.path);
    EXPECT_TRUE(files_.isFolder("/Volumes/Data"));
    EXPECT_FALSE(files_.exists("/Volumes/Data/file"));
    machine_.volumes.mount(mount);
    EXPECT_EQ(files_.bytes("/Volumes/Data/file"), "text");
}

TEST_F(SimulatedFiles, AreFoundThroughLinksAndDots) {
    files_.putLink("/link", "folder");
    files_.putLink("/loop", "/loop");
    EXPECT_TRUE(files_.exists("/link/list.plist"));
    EXPECT_TRUE(files_.exists("/folder/../link/./list.plist"));
    EXPECT_TRUE(files_.exists("/../folder/"));
    EXPECT_FALSE(files_.exists("/folder/list.plist/"));
    EXPECT_FALSE(files_.exists("/loop"));
    EXPECT_FALSE(files_.exists("folder"));
    EXPECT_FALSE(files_.exists(""));
}

}  // namespace
}  // namespace korvane
