// Trash folders on a real file system: changes, catalogues, stamps, and items that went elsewhere.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/TrashInfo.h"
#include "platform/simulated/SimulatedMachine.h"
#include "unit/platform/RecordingLog.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;
using std::chrono::seconds;
using testing::IsEmpty;
using testing::SizeIs;

constexpr char kNote[] = "[Trash Info]\nPath=Folder/a%20letter\nDeletionDate=2026-03-02T08:00:00\n";

TEST(TrashInfo, NamesThePlaceAnItemCameFrom) {
    EXPECT_EQ(originInTrashInfo(kNote), "Folder/a letter");
    EXPECT_EQ(originInTrashInfo("Path=/home/ada/100%"), "/home/ada/100%");
    EXPECT_EQ(originInTrashInfo("Path=/a%2zb\n"), "/a%2zb");
    EXPECT_EQ(originInTrashInfo("Path=first\nPath=second\n"), "first");
}

TEST(TrashInfo, NamesNoneWhereItIsMalformed) {
    for (const char* text : {"", "\n", "Path", "Path=", "path=/a", " Path=/a", "Path=/a%00b"}) {
        EXPECT_EQ(originInTrashInfo(text), std::nullopt) << text;
    }
}

// The temporary folder counts as a volume, so that the items in it lie on one.
class LinuxDirectoryWatchTest : public testing::Test {
  protected:
    LinuxDirectoryWatchTest() {
        fs::create_directories(trash_);
        MountDescription mount;
        mount.path = folder_.path();
        mount.device = "/dev/sdz1";
        mount.type = "ext4";
        machine_.volumes.mount(mount);
        volume_ = machine_.volumes.volumeInfoByDevice("sdz1").value.referenceNumber;
    }
    static void write(const std::string& path, const std::string& text = "x") {
        std::ofstream(path) << text;
    }
    CatalogItem seen(const std::string& name) {
        const auto items = watch_.catalog(trash_, 100);
        for (const CatalogItem& item : items.value_or(std::vector<CatalogItem>{})) {
            if (item.name == name) return item;
        }
        return {};
    }
    ResolvedNode resolve(const CatalogItem& item) {
        return watch_.resolve({volume_, item.nodeId, trash_, item.name});
    }
    // Runs the loop until it is told of a change, or for so long.
    int changesWithin(const std::string& folder, seconds limit,
                      const std::function<void()>& happens) {
        int changes = 0;
        LinuxRunLoop loop(log_);
        LinuxDirectoryWatch watch(loop, machine_.volumes, "");
        const auto subscription = watch.subscribe(folder, [&] {
            ++changes;
            loop.terminate();
        });
        EXPECT_TRUE(subscription);
        const auto guard = loop.startTimer(limit, Repeat::once, [&] { loop.terminate(); });
        happens();
        loop.run();
        return changes;
    }

    TemporaryFolder folder_;
    std::string trash_ = std::string(folder_.path()) + "/.Trash-0/files";
    RecordingLog log_;
    SimulatedMachine machine_{MachineDescription{}};
    LinuxRunLoop loop_{log_};
    LinuxDirectoryWatch watch_{loop_, machine_.volumes, std::string(folder_.path()) + "/memory"};
    std::int16_t volume_ = 0;
};

TEST_F(LinuxDirectoryWatchTest, TellsOfABurstOnce) {
    EXPECT_EQ(changesWithin(trash_, seconds(10),
                            [&] {
                                for (int i = 0; i < 500; ++i) {
                                    write(trash_ + "/" + std::to_string(i));
                                }
                            }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, TellsOfAnOverflow) {
    EXPECT_EQ(changesWithin(trash_, seconds(20),
                            [&] {
                                for (int i = 0; i < 20'000; ++i) {
                                    write(trash_ + "/item");
                                    fs::remove(trash_ + "/item");
                                }
                            }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, WaitsForAFolderThatIsNotThere) {
    EXPECT_EQ(changesWithin(std::string(folder_.path()) + "/a/b/c", seconds(10),
                            [&] { fs::create_directories(folder_.path() + "/a/b/c"); }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, FindsAFolderAgainThatWasMadeAnew) {
    EXPECT_EQ(changesWithin(trash_, seconds(10),
                            [&] {
                                fs::remove_all(trash_);
                                fs::create_directories(trash_);
                                write(trash_ + "/a");
                            }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, IsNotToldOfItsOwnStamps) {
    write(trash_ + "/a");
    EXPECT_EQ(
        changesWithin(trash_, seconds(1),
                      [&] { (void)watch_.setBackupDate(trash_, seen("a"), Time(seconds(7))); }),
        0);
}

TEST_F(LinuxDirectoryWatchTest, CataloguesNoMoreThanWasAskedForAndFollowsNoLink) {
    for (const char* name : {"a", "b", "c", "line\nfeed", "\xff"}) write(trash_ + "/" + name);
    EXPECT_THAT(*watch_.catalog(trash_, 100), SizeIs(5));
    EXPECT_THAT(*watch_.catalog(trash_, 2), SizeIs(2));
    fs::create_directory_symlink(trash_, folder_.path() + "/link");
    EXPECT_FALSE(watch_.catalog(folder_.path() + "/link", 100));
    EXPECT_FALSE(watch_.catalog(folder_.path() + "/none", 100));
}

TEST_F(LinuxDirectoryWatchTest, StampsTheItemAndNoOther) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    char value[32] = {};
    if (!watch_.setBackupDate(trash_, item, Time(seconds(1234)))) {
        GTEST_SKIP() << "the file system keeps no attributes";
    }
    EXPECT_EQ(::getxattr((trash_ + "/a").c_str(), "user.korvane.backup-date", value, 32), 4);
    EXPECT_STREQ(value, "1234");
    write(trash_ + "/b");
    EXPECT_FALSE(watch_.setBackupDate(trash_, {"b", item.nodeId, 0}, Time(seconds(1))));
}

TEST_F(LinuxDirectoryWatchTest, FindsAnItemWhereItWasSeen) {
    write(trash_ + "/a");
    EXPECT_EQ(resolve(seen("a")).path, trash_ + "/a");
}

TEST_F(LinuxDirectoryWatchTest, FindsAnItemThatWasPutBackWhereItCameFrom) {
    fs::create_directories(folder_.path() + "/.Trash-0/info");
    fs::create_directories(folder_.path() + "/Folder");
    write(trash_ + "/a", "x");
    write(folder_.path() + "/.Trash-0/info/a.trashinfo", kNote);
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    fs::rename(trash_ + "/a", folder_.path() + "/Folder/a letter");
    const ResolvedNode node = resolve(item);
    EXPECT_EQ(node.state, NodeState::found);
    EXPECT_EQ(node.path, folder_.path() + "/Folder/a letter");
}

TEST_F(LinuxDirectoryWatchTest, FindsAnItemByItsHandleAndKnowsOneThatIsGone) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    fs::create_directories(folder_.path() + "/elsewhere");
    fs::rename(trash_ + "/a", folder_.path() + "/elsewhere/b");
    const ResolvedNode moved = resolve(item);
    if (moved.state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
    EXPECT_EQ(moved.path, folder_.path() + "/elsewhere/b");
    fs::remove(folder_.path() + "/elsewhere/b");
    EXPECT_EQ(resolve(item).state, NodeState::gone);
}

TEST_F(LinuxDirectoryWatchTest, DecidesNothingAboutAVolumeThatIsNotMounted) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    EXPECT_EQ(
        watch_.resolve({static_cast<std::int16_t>(volume_ + 1), item.nodeId, trash_, "a"}).state,
        NodeState::unknown);
}

}  // namespace
}  // namespace korvane
