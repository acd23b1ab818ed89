#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/simulated/SimulatedMachine.h"
#include "storage/Place.h"
#include "unit/storage/ForwardingFileSystem.h"

namespace korvane {
namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAre;

constexpr std::uint32_t kAlice = 1000;
constexpr std::uint32_t kBob = 1001;
constexpr char kLocation[] = "/Volumes/Backup";
constexpr char kInner[] = "Korvane Protection/Data";

class PlaceTest : public testing::Test {
  protected:
    void makeFolder(const std::string& path, std::uint32_t owner = 0, mode_t permissions = 0755) {
        ASSERT_TRUE(files_.createFolders(path, "root"));
        ASSERT_TRUE(files_.setOwner(path, owner));
        ASSERT_TRUE(files_.setPermissions(path, permissions));
    }
    void mount(const std::string& path, const std::string& device, const std::string& type) {
        MountDescription description;
        description.path = path;
        description.device = device;
        description.type = type;
        machine_.volumes.mount(description);
    }
    Result<std::optional<Place>> open(const std::string& path, const std::string& inner = kInner,
                                      MissingFolders missing = MissingFolders::make) {
        return openPlace(files_, machine_.volumes, path, inner, missing);
    }
    // Nothing: the place is not used. Else the account whose rights are used there.
    std::optional<std::uint32_t> account(const std::string& path) {
        auto place = open(path);
        if (!place || !*place) return std::nullopt;
        return (*place)->folder->account().userId;
    }
    bool isOwn(const std::string& path) {
        auto place = open(path);
        return place && *place && (*place)->isOwn;
    }
    std::string objection(const std::string& path) {
        auto place = open(path);
        return place ? "" : place.error().message;
    }

    SimulatedMachine machine_{MachineDescription{}};
    SimulatedFileSystem& files_ = machine_.fileSystem;
};

TEST_F(PlaceTest, IsOwnWhereEveryFolderOnTheWayIsRoots) {
    makeFolder(kLocation);
    EXPECT_TRUE(isOwn(kLocation));
    EXPECT_EQ(account(kLocation), 0U);
    EXPECT_TRUE(files_.isFolder("/Volumes/Backup/Korvane Protection/Data"));
}

TEST_F(PlaceTest, IsReachedThroughRootsOwnLinks) {
    makeFolder("/mnt/disk/backup");
    makeFolder("/Volumes");
    ASSERT_TRUE(files_.putLink("/Volumes/Backup", "/mnt/disk/../disk/./backup"));
    EXPECT_TRUE(isOwn(kLocation));
    EXPECT_TRUE(files_.isFolder("/mnt/disk/backup/Korvane Protection/Data"));
    ASSERT_TRUE(files_.putLink("/Volumes/relative", "../mnt/disk/backup"));
    EXPECT_TRUE(isOwn("/Volumes/relative"));
    ASSERT_TRUE(files_.putLink("/Volumes/circle", "/Volumes/circle"));
    EXPECT_FALSE(account("/Volumes/circle"));
}

TEST_F(PlaceTest, IsWorkedOnWithTheRightsOfTheFirstWhoIsNotRoot) {
    makeFolder("/home/alice", kAlice);
    makeFolder("/home/alice/backup", kAlice);
    makeFolder("/home/alice/bobs", kBob, 0777);
    makeFolder("/home/alice/roots");
    EXPECT_EQ(account("/home/alice/backup"), kAlice);
    EXPECT_FALSE(isOwn("/home/alice/backup"));
    EXPECT_EQ(files_.attributes("/home/alice/backup/Korvane Protection/Data")->ownerId, kAlice);
    EXPECT_EQ(account("/home/alice/bobs"), kAlice);
    // With those rights nothing can be made there.
    EXPECT_FALSE(account("/home/alice/roots"));
    EXPECT_FALSE(files_.exists("/home/alice/roots/Korvane Protection"));
}

TEST_F(PlaceTest, IsWorkedOnWithItsOwnersRightsHoweverItIsReached) {
    makeFolder("/mnt/stick", kAlice);
    makeFolder("/Volumes");
    ASSERT_TRUE(files_.putLink("/Volumes/stick", "/mnt/stick"));
    EXPECT_EQ(account("/Volumes/stick"), kAlice);
    EXPECT_FALSE(isOwn("/Volumes/stick"));
}

TEST_F(PlaceTest, IsNotUsedThroughALinkThatOthersCanChange) {
    makeFolder("/home/alice", kAlice);
    makeFolder("/etc");
    ASSERT_TRUE(files_.putLink("/home/alice/backup", "/etc"));
    makeFolder("/tmp", 0, 01777);
    ASSERT_TRUE(files_.putLink("/tmp/backup", "/etc"));
    EXPECT_THAT(objection("/home/alice/backup"), HasSubstr("link"));
    EXPECT_THAT(objection("/tmp/backup"), HasSubstr("link"));
    EXPECT_THAT(objection("/home/alice/../../etc"), HasSubstr("back"));
    // The way out of a folder of root's leads back among the links of others.
    makeFolder("/tmp/roots", 0, 0700);
    EXPECT_THAT(objection("/tmp/roots/../backup"), HasSubstr("link"));
    EXPECT_FALSE(files_.exists("/etc/Korvane Protection"));
}

TEST_F(PlaceTest, IsNotUsedBelowAFolderThatAnybodyMayWriteIn) {
    makeFolder("/srv/shared", 0, 0777);
    makeFolder("/srv/shared/backup");
    makeFolder("/srv/group", 0, 0775);
    makeFolder("/srv/group/backup");
    EXPECT_THAT(objection("/srv/shared/backup"), HasSubstr("others may write in \"/srv/shared\""));
    EXPECT_THAT(objection("/srv/group/backup"), HasSubstr("others may write in \"/srv/group\""));
    // Nobody renames there what is another's.
    makeFolder("/tmp", 0, 01777);
    makeFolder("/tmp/roots");
    makeFolder("/tmp/alices", kAlice);
    EXPECT_TRUE(isOwn("/tmp/roots"));
    EXPECT_EQ(account("/tmp/alices"), kAlice);
}

// No program is given the name of a folder there: the next moment it may be another one's.
TEST_F(PlaceTest, IsNotOwnWhereOthersMayWriteInItsTop) {
    for (const mode_t permissions : {0777U, 01777U, 0775U}) {
        const std::string path = "/Volumes/" + std::to_string(permissions);
        makeFolder(path, 0, permissions);
        EXPECT_EQ(account(path), 0U);
        EXPECT_FALSE(isOwn(path));
    }
    // Writing alone is no right to put something in.
    makeFolder("/Volumes/closed", 0, 0766);
    EXPECT_TRUE(isOwn("/Volumes/closed"));
}

TEST_F(PlaceTest, IsNotUsedWhereALinkOrSomebodyElsesFolderIsInItsInside) {
    makeFolder("/etc");
    for (const std::uint32_t owner : {0U, kAlice}) {
        const std::string location = "/Volumes/of " + std::to_string(owner);
        makeFolder(location, owner);
        for (const std::string& below :
             {std::string("/Korvane Protection"), std::string("/Korvane Protection/Data")}) {
            const std::string folder = location + below;
            ASSERT_TRUE(files_.putLink(folder, "/etc"));
            ASSERT_TRUE(files_.setOwner(folder.substr(0, folder.rfind('/')), owner));
            EXPECT_THAT(objection(location), HasSubstr("is a link or belongs to somebody else"))
                << folder;
            ASSERT_TRUE(files_.removeItem(folder));
            makeFolder(folder, kBob);
            EXPECT_THAT(objection(location), HasSubstr("is a link or belongs to somebody else"))
                << folder;
            ASSERT_TRUE(files_.setOwner(folder, owner));
        }
        EXPECT_EQ(account(location), owner);
        EXPECT_FALSE(files_.exists("/etc/Data"));
    }
}

TEST_F(PlaceTest, IsNothingWhereThereIsNoFolderOrNoneCanBeMade) {
    makeFolder(kLocation);
    ASSERT_TRUE(files_.put("/Volumes/file", ""));
    for (const char* const path : {"/Volumes/nothing", "/Volumes/file", "Volumes/Backup", ""}) {
        EXPECT_FALSE(account(path)) << path;
        EXPECT_EQ(objection(path), "") << path;
    }
    const auto left = open(kLocation, kInner, MissingFolders::leave);
    ASSERT_TRUE(left);
    EXPECT_FALSE(*left);
    EXPECT_FALSE(files_.exists("/Volumes/Backup/Korvane Protection"));
    files_.setFolderImmutable(kLocation, true);
    EXPECT_FALSE(account(kLocation));
    EXPECT_EQ(objection(kLocation), "");
}

// A dead server would hang whoever asks, so nobody asks.
TEST_F(PlaceTest, IsNotUsedOnAFileSystemOfAnotherMachineOrOfAProgram) {
    const std::vector<std::pair<std::string, std::string>> others{{"server:/export", "nfs4"},
                                                                  {"//server/share", "cifs"},
                                                                  {"systemd-1", "autofs"},
                                                                  {"/dev/sda1", "fuse"},
                                                                  {"/dev/sda1", "fuse.sshfs"},
                                                                  {"tag", "virtiofs"},
                                                                  {"tag", "9p"},
                                                                  {"somebody@server:/", "fuse.x"},
                                                                  {"ceph", "ceph"}};
    for (const auto& [device, type] : others) {
        const std::string path = "/mnt/" + type;
        mount(path, device, type);
        makeFolder(path + "/backup");
        EXPECT_THAT(objection(path), HasSubstr("not on a disk of this machine")) << type;
        EXPECT_THAT(objection(path + "/backup"), HasSubstr("\"" + path + "\"")) << type;
        EXPECT_FALSE(files_.exists(path + "/Korvane Protection"));
    }
    for (const auto& [device, type] : std::vector<std::pair<std::string, std::string>>{
             {"/dev/sda1", "ext4"}, {"/dev/sdb1", "fuseblk"}, {"none", "tmpfs"}, {"pool", "zfs"}}) {
        const std::string path = "/mnt/" + type;
        mount(path, device, type);
        EXPECT_TRUE(isOwn(path)) << type;
    }
}

// What was mounted in somebody's folder is that somebody's doing, or not the location that was
// chosen.
TEST_F(PlaceTest, IsNotUsedBelowAMountInSomebodysFolder) {
    makeFolder("/home/alice", kAlice);
    mount("/home/alice/backup", "/dev/sdc1", "ext4");
    ASSERT_TRUE(files_.setOwner("/home/alice/backup", kAlice));
    EXPECT_THAT(objection("/home/alice/backup"), HasSubstr("mounted below a folder"));
    makeFolder(kLocation);
    mount("/Volumes/Backup/Korvane Protection", "server:/export", "nfs4");
    EXPECT_THAT(objection(kLocation), HasSubstr("mounted at its folder"));
}

// A daemon of an ordinary user has its own rights alone.
class UsersFileSystem final : public ForwardingFileSystem {
  public:
    using ForwardingFileSystem::ForwardingFileSystem;
    std::uint32_t userId() override { return kAlice; }
};

TEST_F(PlaceTest, IsOwnOrSomebodyElsesToADaemonOfAnOrdinaryUser) {
    UsersFileSystem users(files_);
    makeFolder("/home/alice", kAlice);
    makeFolder("/home/alice/Korvane Protection", kAlice);
    makeFolder("/home/bob", kBob);
    const auto alices = openPlace(users, machine_.volumes, "/home/alice", "Korvane Protection");
    ASSERT_TRUE(alices && *alices);
    EXPECT_TRUE((*alices)->isOwn);
    const auto bobs = openPlace(users, machine_.volumes, "/home/bob");
    ASSERT_FALSE(bobs);
    EXPECT_THAT(bobs.error().message, HasSubstr("\"/home/bob\" belongs to somebody else"));
}

TEST_F(PlaceTest, IsWalkedWithoutLinksAndMountsAndWhereTheVisitorGoes) {
    makeFolder("/S/a/b");
    makeFolder("/S/closed/inside");
    makeFolder("/elsewhere");
    ASSERT_TRUE(files_.put("/elsewhere/file", ""));
    ASSERT_TRUE(files_.put("/S/a/b/file", ""));
    ASSERT_TRUE(files_.putLink("/S/link", "/elsewhere"));
    mount("/S/mounted", "/dev/sdd1", "ext4");
    makeFolder("/S/mounted/below");
    auto place = openPlace(files_, machine_.volumes, "/S");
    ASSERT_TRUE(place && *place);
    std::vector<std::string> seen;
    walk(*(*place)->folder, [&](Folder&, const std::string& name, const std::string& path) {
        seen.push_back(path);
        return name == "closed" ? Into::no : Into::yes;
    });
    EXPECT_THAT(seen, UnorderedElementsAre("a", "a/b", "a/b/file", "closed", "link", "mounted"));
}

TEST_F(PlaceTest, IsWalkedNoFurtherThanAPersonWouldHaveGone) {
    std::string path = "/S";
    for (int depth = 0; depth < 200; ++depth) path += "/d";
    makeFolder(path);
    auto place = openPlace(files_, machine_.volumes, "/S");
    ASSERT_TRUE(place && *place);
    std::size_t visits = 0;
    const auto count = [&](Folder&, const std::string&, const std::string&) {
        ++visits;
        return Into::yes;
    };
    walk(*(*place)->folder, count);
    EXPECT_EQ(visits, 64U);
    for (int index = 0; index < 100'100; ++index) files_.put("/S/" + std::to_string(index), "");
    visits = 0;
    walk(*(*place)->folder, count);
    EXPECT_EQ(visits, 100'000U);
}

}  // namespace
}  // namespace korvane
