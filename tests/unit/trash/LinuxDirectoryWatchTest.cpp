// Trash folders on a real file system: changes, catalogues, stamps, and items that went elsewhere.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/linux/ItemTraces.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/OpenFolder.h"
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
        mountAs("ext4");
    }
    void mountAs(const std::string& type) {
        machine_.volumes.forceUnmount(folder_.path());
        MountDescription mount;
        mount.path = folder_.path();
        mount.device = "/dev/sdz1";
        mount.type = type;
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
        return watch_.resolve(std::vector{SeenItem{volume_, item.nodeId, trash_, item.name}}).at(0);
    }
    // Turns the loop until that is so, at most for so long.
    void turnUntil(const std::function<bool()>& isDone, seconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            constexpr std::uint64_t kTurnMicroseconds = 10'000;
            ASSERT_GE(sd_event_run(loop_.event(), kTurnMicroseconds), 0);
        }
    }
    // What has happened before is told of within that.
    void turn() {
        for (int i = 0; i < 10; ++i) ASSERT_GE(sd_event_run(loop_.event(), 10'000), 0);
    }
    bool hasFoundOut() {
        bool wasTold = false;
        watch_.setDidFindOut([&] { wasTold = true; });
        turnUntil([&] { return wasTold; }, seconds(10));
        watch_.setDidFindOut(nullptr);
        return wasTold;
    }
    // Runs the loop until it is told of a change, or for so long.
    int changesWithin(const std::string& folder, seconds limit,
                      const std::function<void()>& happens) {
        int changes = 0;
        LinuxRunLoop loop(log_);
        LinuxDirectoryWatch watch(loop, machine_.volumes, LinuxTrashPlaces{});
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
    LinuxDirectoryWatch watch_{
        loop_, machine_.volumes,
        LinuxTrashPlaces{.tracesFile = folder_ / "traces", .homes = folder_ / "home"}};
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

TEST_F(LinuxDirectoryWatchTest, TellsWhenAnItemThatCameInIsWholeToo) {
    int changes = 0;
    const auto subscription = watch_.subscribe(trash_, [&] { ++changes; });
    std::ofstream item(trash_ + "/a");
    turnUntil([&] { return changes > 0; }, seconds(10));
    ASSERT_EQ(changes, 1);
    item << "what takes its time";
    item.close();
    turnUntil([&] { return changes > 1; }, seconds(10));
    EXPECT_EQ(changes, 2);
}

TEST_F(LinuxDirectoryWatchTest, TellsOfAnOverflow) {
    write(trash_ + "/a");
    EXPECT_EQ(changesWithin(trash_, seconds(20),
                            [&] {
                                // Two events each, and /proc/sys/fs/inotify/max_queued_events is
                                // 16384.
                                for (int i = 0; i < 5000; ++i) {
                                    fs::rename(trash_ + "/a", trash_ + "/b");
                                    fs::rename(trash_ + "/b", trash_ + "/a");
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

TEST_F(LinuxDirectoryWatchTest, FindsAFolderAgainAsOftenAsItIsMadeAnew) {
    int changes = 0;
    const auto subscription = watch_.subscribe(trash_, [&] { ++changes; });
    for (int turn = 0; turn < 3; ++turn) {
        fs::remove_all(folder_ / ".Trash-0");
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        fs::create_directories(trash_);
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        write(trash_ + "/a");
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_GT(changes, 0);
    }
}

// Its own number stays, so its own watch says nothing.
TEST_F(LinuxDirectoryWatchTest, NoticesThatAFolderAboveWasMovedAway) {
    const std::string trash = folder_ / "home/ada/.local/share/Trash/files";
    for (const char* const moved : {"home/ada/.local/share/Trash", "home/ada/.local", "home"}) {
        fs::create_directories(trash);
        int changes = 0;
        const auto subscription = watch_.subscribe(trash, [&] { ++changes; });
        fs::rename(folder_ / moved, folder_ / "away");
        turnUntil([&] { return changes > 0; }, seconds(10));
        fs::create_directories(trash);
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_EQ(changes, 1) << moved;
        changes = 0;
        write(trash + "/a");
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_EQ(changes, 1) << moved;
        fs::remove_all(folder_ / "away");
    }
}

// Much is made in a home where a trash is waited for.
TEST_F(LinuxDirectoryWatchTest, WaitsForAFolderByItsName) {
    int changes = 0;
    const auto subscription = watch_.subscribe(folder_ / "a/b", [&] { ++changes; });
    for (int i = 0; i < 1000; ++i) write(folder_ / std::to_string(i));
    turn();
    EXPECT_EQ(changes, 0);
    fs::create_directories(folder_ / "a");
    for (int i = 0; i < 1000; ++i) write(folder_ / ("a/" + std::to_string(i)));
    fs::create_directories(folder_ / "a/b");
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_EQ(changes, 1);
    for (const char* const name : {"c", "a/c"}) write(folder_ / name);
    turn();
    EXPECT_EQ(changes, 1);
}

TEST_F(LinuxDirectoryWatchTest, TellsOnceMoreWhenAFolderThatWasMadeInTheTrashIsFilled) {
    LinuxDirectoryWatch watch(loop_, machine_.volumes,
                              LinuxTrashPlaces{.fillingPause = std::chrono::milliseconds(200)});
    int changes = 0;
    const auto subscription = watch.subscribe(trash_, [&] { ++changes; });
    fs::create_directories(trash_ + "/box/deep");
    turnUntil([&] { return changes > 0; }, seconds(10));
    ASSERT_EQ(changes, 1);
    write(trash_ + "/box/deep/late");
    turnUntil([&] { return changes > 1; }, seconds(10));
    EXPECT_EQ(changes, 2);
    for (int i = 0; i < 10; ++i) turn();  // as long as two more pauses
    EXPECT_EQ(changes, 2);
    // What is moved there is whole.
    fs::create_directories(folder_ / "other");
    fs::rename(folder_ / "other", trash_ + "/other");
    turnUntil([&] { return changes > 2; }, seconds(10));
    for (int i = 0; i < 4; ++i) turn();
    EXPECT_EQ(changes, 3);
}

TEST_F(LinuxDirectoryWatchTest, WaitsForAFolderThatIsStillBeingFilled) {
    std::vector<std::string> told;
    FillingFolders filling(loop_, machine_.volumes, std::chrono::milliseconds(100),
                           [&](const std::string& folder) { told.push_back(folder); });
    fs::create_directories(trash_ + "/box/deep");
    filling.add(trash_, "box");
    // Written to without a pause for the first looks, at 100 and 300 milliseconds.
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
    while (std::chrono::steady_clock::now() < end) {
        std::ofstream(trash_ + "/box/deep/growing", std::ios::app) << "more";
        ASSERT_GE(sd_event_run(loop_.event(), 1000), 0);
        if (!told.empty()) GTEST_SKIP() << "this machine stopped for longer than a pause";
    }
    turnUntil([&] { return !told.empty(); }, seconds(20));
    EXPECT_THAT(told, testing::ElementsAre(trash_));
}

TEST_F(LinuxDirectoryWatchTest, CataloguesNoMountPoint) {
    fs::create_directories(trash_ + "/far");
    write(trash_ + "/near");
    MountDescription mount;
    mount.path = trash_ + "/far";
    mount.device = "server:/far";
    mount.type = "nfs4";
    mount.kind = MountKind::network;
    machine_.volumes.mount(mount);
    const auto items = watch_.catalog(trash_, 100);
    ASSERT_THAT(*items, SizeIs(1));
    EXPECT_EQ(items->front().name, "near");
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
    fs::create_directories(folder_ / "elsewhere");
    fs::rename(trash_ + "/a", folder_ / "elsewhere/b");
    const ResolvedNode moved = resolve(item);
    if (moved.state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
    EXPECT_EQ(moved.path, folder_ / "elsewhere/b");
    fs::remove(folder_ / "elsewhere/b");
    EXPECT_EQ(resolve(item).state, NodeState::gone);
}

// Without a file handle and a note, as on file systems that have no handles.
TEST_F(LinuxDirectoryWatchTest, SearchesTheVolumeForWhatNothingElseLeadsTo) {
    write(trash_ + "/kept");
    write(trash_ + "/gone");
    const CatalogItem kept = seen("kept");
    const CatalogItem gone = seen("gone");
    fs::create_directories(folder_ / "a/b/c");
    fs::create_directory_symlink("/", folder_ / "a/link");
    fs::rename(trash_ + "/kept", folder_ / "a/b/c/other name");
    fs::remove(trash_ + "/gone");
    ASSERT_EQ(resolve(kept).state, NodeState::unknown);  // this begins the search
    ASSERT_TRUE(hasFoundOut());
    EXPECT_EQ(resolve(kept).path, folder_ / "a/b/c/other name");
    ASSERT_EQ(resolve(gone).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    EXPECT_EQ(resolve(gone).state, NodeState::gone);
}

TEST_F(LinuxDirectoryWatchTest, DecidesNothingWhenASearchRunsOutOfTime) {
    LinuxDirectoryWatch hurried(loop_, machine_.volumes,
                                LinuxTrashPlaces{.searchLimit = std::chrono::milliseconds(0)});
    write(trash_ + "/a");
    const SeenItem item{volume_, seen("a").nodeId, trash_, "a"};
    fs::remove(trash_ + "/a");
    bool wasTold = false;
    hurried.setDidFindOut([&] { wasTold = true; });
    EXPECT_EQ(hurried.resolve(std::vector{item}).at(0).state, NodeState::unknown);
    turnUntil([&] { return wasTold; }, seconds(1));
    EXPECT_FALSE(wasTold);
    EXPECT_EQ(hurried.resolve(std::vector{item}).at(0).state, NodeState::unknown);
}

TEST_F(LinuxDirectoryWatchTest, KeepsWhatLeadsToAnItemAsLongAsItIsAskedFor) {
    write(trash_ + "/a");
    write(trash_ + "/b");
    const CatalogItem a = seen("a");
    const CatalogItem b = seen("b");
    watch_.remember(volume_, trash_, std::vector{a, b});
    ItemTraces both(folder_ / "traces");
    EXPECT_NE(both.find({volume_, a.nodeId}), nullptr);
    EXPECT_NE(both.find({volume_, b.nodeId}), nullptr);
    EXPECT_EQ(resolve(a).state, NodeState::found);
    ItemTraces one(folder_ / "traces");
    EXPECT_NE(one.find({volume_, a.nodeId}), nullptr);
    EXPECT_EQ(one.find({volume_, b.nodeId}), nullptr);
}

// Whoever asked may have been killed before it could write the answer down.
TEST_F(LinuxDirectoryWatchTest, GivesTheSameAnswerAboutAnItemThatIsGoneUntilNobodyAsks) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    fs::remove(trash_ + "/a");
    if (resolve(item).state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
    LinuxDirectoryWatch restarted(loop_, machine_.volumes,
                                  LinuxTrashPlaces{.tracesFile = folder_ / "traces"});
    const std::vector items{SeenItem{volume_, item.nodeId, trash_, "a"}};
    EXPECT_EQ(restarted.resolve(items).at(0).state, NodeState::gone);
    EXPECT_THAT(restarted.resolve({}), IsEmpty());
    ItemTraces traces(folder_ / "traces");
    EXPECT_EQ(traces.find({volume_, item.nodeId}), nullptr);
}

// FAT numbers an item anew whenever it has not been looked at for a while.
TEST_F(LinuxDirectoryWatchTest, KnowsAnItemByItsNameWhereNumbersChange) {
    fs::create_directories(folder_ / ".Trash-0/info");
    fs::create_directories(folder_ / "Folder");
    write(trash_ + "/a");
    folder_.write(".Trash-0/info/a.trashinfo", kNote);
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    const auto numberAnew = [&](const std::string& path) {
        write(folder_ / "new");
        fs::rename(folder_ / "new", path);
    };
    numberAnew(trash_ + "/a");
    EXPECT_NE(resolve(item).state, NodeState::found);  // another item
    mountAs("vfat");
    EXPECT_EQ(resolve(item).path, trash_ + "/a");
    fs::remove(trash_ + "/a");
    numberAnew(folder_ / "Folder/a letter");
    EXPECT_EQ(resolve(item).path, folder_ / "Folder/a letter");
}

// A number is used again at once; the handle has another generation then.
TEST_F(LinuxDirectoryWatchTest, TakesNoOtherItemWithTheSameNumberForIt) {
    fs::create_directories(folder_ / "elsewhere");
    for (int attempt = 0; attempt < 100; ++attempt) {
        write(trash_ + "/a");
        const CatalogItem item = seen("a");
        watch_.remember(volume_, trash_, std::vector{item});
        fs::remove(trash_ + "/a");
        write(folder_ / "elsewhere/a");
        struct stat status {};
        ASSERT_EQ(::stat((folder_ / "elsewhere/a").c_str(), &status), 0);
        if (status.st_ino != item.nodeId) continue;
        const ResolvedNode node = resolve(item);
        if (node.state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
        EXPECT_EQ(node.state, NodeState::gone) << node.path;
        return;
    }
    GTEST_SKIP() << "this file system does not use numbers again";
}

// The note is the user's: what it names may hold up whoever looks, or lie on another volume.
TEST_F(LinuxDirectoryWatchTest, FollowsNoLinkOnTheWayToWhereAnItemCameFrom) {
    fs::create_directories(folder_ / ".Trash-0/info");
    fs::create_directories(folder_ / "real");
    fs::create_directory_symlink(folder_ / "real", folder_ / "Folder");
    write(trash_ + "/a");
    folder_.write(".Trash-0/info/a.trashinfo", kNote);
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    fs::rename(trash_ + "/a", folder_ / "real/a letter");
    ResolvedNode node = resolve(item);
    if (node.state == NodeState::unknown) {
        ASSERT_TRUE(hasFoundOut());
        node = resolve(item);
    }
    EXPECT_EQ(node.path, folder_ / "real/a letter");
}

// The records are in a file that everybody may write.
TEST_F(LinuxDirectoryWatchTest, LooksForNoNameThatLeadsOutOfItsFolder) {
    fs::create_directories(folder_ / "elsewhere");
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    fs::rename(trash_ + "/a", folder_ / "elsewhere/a");
    const std::vector<SeenItem> items{{volume_, item.nodeId, trash_, "../../elsewhere/a"},
                                      {volume_, item.nodeId, trash_, folder_ / "elsewhere/a"},
                                      {volume_, item.nodeId, trash_ + "/../../elsewhere", "a"}};
    for (const ResolvedNode& node : watch_.resolve(items)) {
        EXPECT_EQ(node.state, NodeState::unknown) << node.path;
    }
}

TEST(ItemTraces, AreReadFromAnyBytes) {
    const TemporaryFolder folder;
    for (const char* text : {"", "no list", "<plist version=\"1.0\"><array/></plist>",
                             "<plist version=\"1.0\"><dict><key>1_x</key><dict/><key>7_8</key>"
                             "<dict><key>handle</key><true/></dict></dict></plist>"}) {
        folder.write("traces", text);
        ItemTraces traces(folder / "traces");
        EXPECT_EQ(traces.find({1, 2}), nullptr) << text;
    }
}

TEST_F(LinuxDirectoryWatchTest, MissesNothingWhileItSubscribesAnew) {
    int changes = 0;
    auto subscription = watch_.subscribe(trash_, [] {});
    write(trash_ + "/a");
    subscription.reset();
    subscription = watch_.subscribe(trash_, [&] { ++changes; });
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_EQ(changes, 1);
}

TEST_F(LinuxDirectoryWatchTest, FollowsNoLinkToATrashFolder) {
    fs::create_directories(folder_ / "secrets/files");
    write(folder_ / "secrets/files/secret");
    fs::create_directory_symlink(folder_ / "secrets", folder_ / "planted");
    EXPECT_FALSE(watch_.catalog(folder_ / "planted/files", 100));
    EXPECT_FALSE(watch_.setBackupDate(folder_ / "planted/files", {"secret", 1, 1}, Time{}));
    int changes = 0;
    const auto subscription = watch_.subscribe(folder_ / "planted/files", [&] { ++changes; });
    write(folder_ / "secrets/files/another");
    turn();
    EXPECT_EQ(changes, 0);
    // Once there is a folder in its place that one counts.
    fs::remove(folder_ / "planted");
    fs::create_directories(folder_ / "planted/files");
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_GT(changes, 0);
}

TEST_F(LinuxDirectoryWatchTest, ReadsNoNoteThatIsALinkOrAPipe) {
    fs::create_directories(folder_ / ".Trash-0/info");
    folder_.write("note", kNote);
    fs::create_symlink(folder_ / "note", folder_ / ".Trash-0/info/a.trashinfo");
    ASSERT_EQ(::mkfifo((folder_ / ".Trash-0/info/b.trashinfo").c_str(), 0600), 0);
    folder_.write(".Trash-0/info/c.trashinfo", kNote);
    const UniqueFd folder = openPlaceAt(AT_FDCWD, trash_);
    EXPECT_EQ(traceItem(folder.get(), "a", "/v").origin, "");
    EXPECT_EQ(traceItem(folder.get(), "b", "/v").origin, "");
    EXPECT_EQ(traceItem(folder.get(), "c", "/v").origin, "/v/Folder/a letter");
    EXPECT_EQ(traceItem(folder.get(), "c", "/").origin, "/Folder/a letter");
}

TEST_F(LinuxDirectoryWatchTest, KnowsWhereTrashFoldersAre) {
    for (const char* home : {"home/ada", "home/bob", "home/Shared", "home/.hidden"}) {
        fs::create_directories(folder_ / home);
    }
    fs::create_directory_symlink("/", folder_ / "home/link");
    folder_.write("home/a file", "");
    const LinuxTrashPlaces places{.homes = folder_ / "home", .rootHome = folder_ / "root"};
    LinuxDirectoryWatch watch(loop_, machine_.volumes, places);
    const std::string below = "/.local/share/Trash/files";
    EXPECT_THAT(watch.trashFolders("/"),
                testing::ElementsAre(folder_ / ("home/ada" + below), folder_ / ("home/bob" + below),
                                     folder_ / ("root" + below)));
}

TEST_F(LinuxDirectoryWatchTest, KnowsTheTrashFoldersOfAVolume) {
    fs::create_directories(folder_ / "home/ada");
    const auto owner = std::to_string(::geteuid());
    fs::remove_all(folder_ / ".Trash-0");
    // One that is waited for, since its user has a home.
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / (".Trash-" + owner + "/files")));
    for (const char* const name : {"a", "1x", "-1", "", "007", "4294967296"}) {
        fs::create_directories(folder_ / (std::string(".Trash-") + name));
        fs::create_directories(folder_ / (std::string(".Trash/") + name));
    }
    folder_.write(".Trash-1234", "no folder");
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / (".Trash-" + owner + "/files"),
                                     folder_ / (".Trash/" + owner + "/files")));
}

TEST_F(LinuxDirectoryWatchTest, FollowsLinksThatTheMachineItselfHasForItsHomes) {
    fs::create_directories(folder_ / "var/home/ada");
    fs::create_directories(folder_ / "var/roothome");
    fs::create_directory_symlink("var/home", folder_ / "home");
    fs::create_directory_symlink("var/roothome", folder_ / "root");
    LinuxDirectoryWatch watch(
        loop_, machine_.volumes,
        LinuxTrashPlaces{.homes = folder_ / "home", .rootHome = folder_ / "root"});
    const std::string below = "/.local/share/Trash/files";
    EXPECT_THAT(watch.trashFolders("/"), testing::ElementsAre(folder_ / ("var/home/ada" + below),
                                                              folder_ / ("var/roothome" + below)));
}

// Everybody may make folders at the top of many a volume, and so take the place of others'.
TEST_F(LinuxDirectoryWatchTest, LeavesOutTrashFoldersThatAreNotTheirUsers) {
    for (const char* trash : {".Trash-1234", ".Trash-1235", ".Trash/77", ".Trash/78"}) {
        fs::create_directories(folder_ / trash);
    }
    const auto give = [&](const char* trash, uid_t user) {
        return ::chown((folder_ / trash).c_str(), user, static_cast<gid_t>(-1)) == 0;
    };
    if (!give(".Trash-1234", 1234) || !give(".Trash-1235", 4321) || !give(".Trash/77", 77) ||
        !give(".Trash/78", 4321)) {
        GTEST_SKIP() << "may not give folders away";
    }
    fs::create_directories(folder_ / "home");
    const auto folders = watch_.trashFolders(folder_.path());
    EXPECT_THAT(folders, testing::ElementsAre(trash_, folder_ / ".Trash-1234/files",
                                              folder_ / ".Trash/77/files"));
}

// Where everything has one owner, that of the mount, users are known by their homes.
TEST_F(LinuxDirectoryWatchTest, TakesOnAVolumeWithoutOwnersOnlyTheUsersOfThisMachine) {
    mountAs("vfat");
    fs::create_directories(folder_ / "home/ada");
    if (::chown((folder_ / "home/ada").c_str(), 1234, static_cast<gid_t>(-1)) != 0) {
        GTEST_SKIP() << "may not give folders away";
    }
    for (const char* trash : {".Trash-1234", ".Trash-1235"})
        fs::create_directories(folder_ / trash);
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / ".Trash-0/files", folder_ / ".Trash-1234/files"));
}

TEST_F(LinuxDirectoryWatchTest, TouchesNoHomeOnANetwork) {
    fs::create_directories(folder_ / "home/ada");
    fs::create_directories(folder_ / "home/far");
    MountDescription mount;
    mount.path = folder_ / "home/far";
    mount.device = "server:/far";
    mount.type = "nfs4";
    mount.kind = MountKind::network;
    machine_.volumes.mount(mount);
    LinuxDirectoryWatch watch(
        loop_, machine_.volumes,
        LinuxTrashPlaces{.homes = folder_ / "home", .rootHome = folder_ / "home/far/root"});
    EXPECT_THAT(watch.trashFolders("/"),
                testing::ElementsAre(folder_ / "home/ada/.local/share/Trash/files"));
}

TEST_F(LinuxDirectoryWatchTest, DecidesNothingAboutAVolumeThatIsNotMounted) {
    write(trash_ + "/a");
    const std::vector<SeenItem> items{
        {static_cast<std::int16_t>(volume_ + 1), seen("a").nodeId, trash_, "a"}};
    EXPECT_EQ(watch_.resolve(items).at(0).state, NodeState::unknown);
}

}  // namespace
}  // namespace korvane
