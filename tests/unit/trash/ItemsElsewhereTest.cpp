// Items that have left their trash folders, on a real file system.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <span>

#include "platform/linux/ItemTraces.h"
#include "platform/linux/OpenFolder.h"
#include "platform/linux/TrashInfo.h"
#include "platform/linux/VolumeSearch.h"
#include "unit/trash/DirectoryWatchBed.h"
#include "unit/trash/HeldReader.h"

namespace korvane {
namespace {

using testing::IsEmpty;

class ItemsElsewhere : public DirectoryWatchBed {
  protected:
    // Empties the trash of an item and makes a file at the path, until that has the item's number:
    // something else on the machine may get it first.
    void decidesThatItIsGoneWhenItsNumberGoesTo(const std::string& path) {
        for (int attempt = 0; attempt < 2000; ++attempt) {
            write(trash_ + "/a");
            const CatalogItem item = seen("a");
            watch_.remember(volume_, trash_, std::vector{item});
            fs::remove(trash_ + "/a");
            write(path);
            struct stat status {};
            ASSERT_EQ(::stat(path.c_str(), &status), 0);
            if (status.st_ino != item.nodeId) continue;
            const ResolvedNode node = resolve(item);
            if (node.state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
            EXPECT_EQ(node.state, NodeState::gone) << node.path;
            return;
        }
        GTEST_SKIP() << "this file system does not use numbers again";
    }
};

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

TEST_F(ItemsElsewhere, FindsAnItemWhereItWasSeen) {
    write(trash_ + "/a");
    EXPECT_EQ(resolve(seen("a")).path, trash_ + "/a");
}

TEST_F(ItemsElsewhere, FindsAnItemThatWasPutBackWhereItCameFrom) {
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

TEST_F(ItemsElsewhere, FindsAnItemByItsHandleAndKnowsOneThatIsGone) {
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
TEST_F(ItemsElsewhere, SearchesTheVolumeForWhatNothingElseLeadsTo) {
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

TEST_F(ItemsElsewhere, DecidesNothingWhenASearchRunsOutOfTime) {
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

TEST_F(ItemsElsewhere, KeepsWhatLeadsToAnItemAsLongAsItIsWanted) {
    write(trash_ + "/a");
    write(trash_ + "/b");
    const CatalogItem a = seen("a");
    const CatalogItem b = seen("b");
    watch_.remember(volume_, trash_, std::vector{a, b});
    watch_.keepOnly(std::vector{ItemNumber{volume_, a.nodeId}, ItemNumber{volume_, b.nodeId}});
    ItemTraces both(folder_ / "traces");
    EXPECT_NE(both.find({volume_, a.nodeId}), nullptr);
    EXPECT_NE(both.find({volume_, b.nodeId}), nullptr);
    EXPECT_EQ(resolve(a).state, NodeState::found);
    watch_.keepOnly(std::vector{ItemNumber{volume_, a.nodeId}});
    ItemTraces one(folder_ / "traces");
    EXPECT_NE(one.find({volume_, a.nodeId}), nullptr);
    EXPECT_EQ(one.find({volume_, b.nodeId}), nullptr);
}

// Whoever asked may have been killed before it could write the answer down.
TEST_F(ItemsElsewhere, GivesTheSameAnswerAboutAnItemThatIsGoneUntilItIsForgotten) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    watch_.remember(volume_, trash_, std::vector{item});
    const ItemNumber number{volume_, item.nodeId};
    watch_.keepOnly(std::vector{number});
    fs::remove(trash_ + "/a");
    if (resolve(item).state == NodeState::unknown) GTEST_SKIP() << "no file handles here";
    LinuxDirectoryWatch restarted(loop_, machine_.volumes,
                                  LinuxTrashPlaces{.tracesFile = folder_ / "traces"});
    const std::vector items{SeenItem{volume_, item.nodeId, trash_, "a"}};
    EXPECT_EQ(restarted.resolve(items).at(0).state, NodeState::gone);
    restarted.keepOnly({});
    ItemTraces traces(folder_ / "traces");
    EXPECT_EQ(traces.find({volume_, item.nodeId}), nullptr);
}

// FAT numbers an item anew whenever it has not been looked at for a while.
TEST_F(ItemsElsewhere, KnowsAnItemByItsNameWhereNumbersChange) {
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
TEST_F(ItemsElsewhere, TakesNoOtherItemWithTheSameNumberForIt) {
    fs::create_directories(folder_ / "elsewhere");
    decidesThatItIsGoneWhenItsNumberGoesTo(folder_ / "elsewhere/a");
}

// The note is the user's: what it names may hold up whoever looks, or lie on another volume.
TEST_F(ItemsElsewhere, FollowsNoLinkOnTheWayToWhereAnItemCameFrom) {
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
TEST_F(ItemsElsewhere, LooksForNoNameThatLeadsOutOfItsFolder) {
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

TEST_F(ItemsElsewhere, ReadsNoNoteThatIsALinkOrAPipe) {
    fs::create_directories(folder_ / ".Trash-0/info");
    folder_.write("note", kNote);
    fs::create_symlink(folder_ / "note", folder_ / ".Trash-0/info/a.trashinfo");
    ASSERT_EQ(::mkfifo((folder_ / ".Trash-0/info/b.trashinfo").c_str(), 0600), 0);
    folder_.write(".Trash-0/info/c.trashinfo", kNote);
    const UniqueFd folder = openPlaceAt(AT_FDCWD, trash_);
    const auto origin = [&](const char* name, const char* root) {
        write(trash_ + '/' + name);
        const auto trace = traceItem(folder.get(), name, seen(name).nodeId, root);
        return trace ? trace->origin : "no trace";
    };
    EXPECT_EQ(origin("a", "/v"), "");
    EXPECT_EQ(origin("b", "/v"), "");
    EXPECT_EQ(origin("c", "/v"), "/v/Folder/a letter");
    EXPECT_EQ(origin("c", "/"), "/Folder/a letter");
}

TEST_F(ItemsElsewhere, DecidesNothingAboutAVolumeThatIsNotMounted) {
    write(trash_ + "/a");
    const std::vector<SeenItem> items{
        {static_cast<std::int16_t>(volume_ + 1), seen("a").nodeId, trash_, "a"}};
    EXPECT_EQ(watch_.resolve(items).at(0).state, NodeState::unknown);
}

// What is seen in a folder may be another item by the time that it is remembered.
TEST_F(ItemsElsewhere, KeepsTheTraceOfAnItemThatWasReplacedWhileItWasScanned) {
    write(trash_ + "/a");
    write(trash_ + "/b");
    const CatalogItem a = seen("a");
    const CatalogItem b = seen("b");
    const std::vector<ItemNumber> both{{volume_, a.nodeId}, {volume_, b.nodeId}};
    watch_.remember(volume_, trash_, std::vector{a, b});
    watch_.keepOnly(both);
    const ItemTrace first = *ItemTraces(folder_ / "traces").find({volume_, a.nodeId});
    if (first.handle.empty()) GTEST_SKIP() << "no file handles here";
    fs::rename(trash_ + "/b", trash_ + "/a");
    watch_.remember(volume_, trash_, std::vector{a, b});
    watch_.keepOnly(both);
    EXPECT_EQ(*ItemTraces(folder_ / "traces").find({volume_, a.nodeId}), first);
    const auto nodes = watch_.resolve(std::vector{SeenItem{volume_, a.nodeId, trash_, "a"},
                                                  SeenItem{volume_, b.nodeId, trash_, "b"}});
    EXPECT_EQ(nodes.at(0).state, NodeState::gone);
    EXPECT_EQ(nodes.at(1).path, trash_ + "/a");
}

// Emptied, and its number used again for a new file under its old name.
TEST_F(ItemsElsewhere, TakesNoNewFileForAnItemThatWasPutBack) {
    fs::create_directories(folder_ / ".Trash-0/info");
    fs::create_directories(folder_ / "Folder");
    folder_.write(".Trash-0/info/a.trashinfo", kNote);
    decidesThatItIsGoneWhenItsNumberGoesTo(folder_ / "Folder/a letter");
}

TEST_F(ItemsElsewhere, FindsAnItemInItsTrashOnAVolumeThatIsMountedElsewhereNow) {
    write(trash_ + "/a");
    SeenItem item{volume_, seen("a").nodeId, "/media/ada/Data/.Trash-0/files", "a"};
    EXPECT_EQ(watch_.resolve(std::vector{item}).at(0).path, item.folder + "/a");
    fs::create_directories(folder_ / "files");
    fs::rename(trash_ + "/a", folder_ / "files/a");
    ASSERT_EQ(watch_.resolve(std::vector{item}).at(0).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    EXPECT_EQ(watch_.resolve(std::vector{item}).at(0).path, folder_ / "files/a");
}

// A home may have moved to a server since, and the server may be dead.
TEST_F(ItemsElsewhere, EntersNoOtherFileSystemOnTheWayToATrashThatIsMountedElsewhereNow) {
    mountFromNetwork(folder_ / "far");
    fs::create_directories(folder_ / "far/.Trash-0/files");
    write(trash_ + "/a");
    const SeenItem item{volume_, seen("a").nodeId, "/far/.Trash-0/files", "a"};
    fs::rename(trash_ + "/a", folder_ / "far/.Trash-0/files/a");
    EXPECT_EQ(watch_.resolve(std::vector{item}).at(0).path, "");
}

// A trace without a handle, as file systems leave it that have none.
TEST_F(ItemsElsewhere, LooksForAnOriginOnItsOwnVolumeAlone) {
    mountDisk(folder_ / "other", "/dev/sdy1");
    fs::create_directories(folder_ / "other");
    fs::create_directories(folder_ / "same");
    for (const char* const place : {"other", "same"}) {
        write(trash_ + "/a");
        const CatalogItem item = seen("a");
        const std::string origin = folder_ / (std::string(place) + "/a");
        {
            ItemTraces traces(folder_ / "traces");
            traces.set({volume_, item.nodeId}, {.handle = "", .name = "a", .origin = origin});
            traces.save();
        }
        fs::rename(trash_ + "/a", origin);
        LinuxDirectoryWatch watch(loop_, machine_.volumes,
                                  LinuxTrashPlaces{.tracesFile = folder_ / "traces"});
        const SeenItem seenItem{volume_, item.nodeId, trash_, "a"};
        EXPECT_EQ(watch.resolve(std::vector{seenItem}).at(0).path,
                  std::string(place) == "same" ? origin : "");
    }
}

TEST_F(ItemsElsewhere, SearchesNoFileSystemThatIsMountedOnTheVolume) {
    mountFromNetwork(folder_ / "far");
    fs::create_directories(folder_ / "far");
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    fs::rename(trash_ + "/a", folder_ / "far/a");
    ASSERT_EQ(resolve(item).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    EXPECT_EQ(resolve(item).state, NodeState::gone);
}

TEST_F(ItemsElsewhere, LooksAgainAtWhatASearchHasFound) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    fs::rename(trash_ + "/a", folder_ / "a");
    ASSERT_EQ(resolve(item).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    fs::rename(folder_ / "a", folder_ / "b");
    EXPECT_EQ(resolve(item).state, NodeState::unknown);
}

TEST_F(ItemsElsewhere, ForgetsWhatASearchHasFoundOutOnceTheLoopTurns) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    fs::create_directories(folder_ / "away");
    fs::rename(trash_ + "/a", folder_ / "away/a");
    fs::rename(folder_ / "away", folder_.path() + "-away");
    ASSERT_EQ(resolve(item).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());  // that it is gone
    fs::rename(folder_.path() + "-away", folder_ / "away");
    turn();
    ASSERT_EQ(resolve(item).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    EXPECT_EQ(resolve(item).path, folder_ / "away/a");
}

// Each volume has the time that it is given, however long one before it took.
TEST_F(ItemsElsewhere, SearchesSeveralVolumesAtOnce) {
    const TemporaryFolder second;
    mountDisk(second.path(), "/dev/sdy1");
    const auto number = machine_.volumes.volumeInfoByDevice("sdy1").value.referenceNumber;
    fs::create_directories(second / ".Trash-0/files");
    write(trash_ + "/a");
    write(second / ".Trash-0/files/b");
    const std::vector items{
        SeenItem{volume_, seen("a").nodeId, trash_, "a"},
        SeenItem{number, watch_.catalog(second / ".Trash-0/files", 1)->at(0).nodeId,
                 second / ".Trash-0/files", "b"}};
    fs::rename(trash_ + "/a", folder_ / "a");
    fs::rename(second / ".Trash-0/files/b", second / "b");
    EXPECT_EQ(watch_.resolve(items).at(1).state, NodeState::unknown);
    ASSERT_TRUE(hasFoundOut());
    const auto nodes = watch_.resolve(items);
    EXPECT_EQ(nodes.at(0).path, folder_ / "a");
    EXPECT_EQ(nodes.at(1).path, second / "b");
}

// It is at the lowest priority, and late on every machine that is at work.
TEST(VolumeSearch, HasAsLongAsItsLimitToBeLateBeforeItIsGivenUp) {
    VolumeSearch::Order order;
    order.limit = seconds(30);
    order.roots.resize(2);
    EXPECT_EQ(VolumeSearch::longestTime(order), seconds(90));
    order.limit = seconds(0);
    EXPECT_EQ(VolumeSearch::longestTime(order), seconds(1));
}

TEST_F(ItemsElsewhere, LeavesOutADiskThatKeepsAnEarlierSearchUntilItIsBack) {
    const TemporaryFolder second{fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path()};
    mountDisk(second.path(), "/dev/sdy1");
    const auto number = machine_.volumes.volumeInfoByDevice("sdy1").value.referenceNumber;
    fs::create_directories(second / ".Trash-0/files");
    LinuxDirectoryWatch watch(loop_, machine_.volumes,
                              LinuxTrashPlaces{.searchLimit = std::chrono::milliseconds(100)});
    write(trash_ + "/a");
    write(second / ".Trash-0/files/b");
    const std::vector items{
        SeenItem{volume_, seen("a").nodeId, trash_, "a"},
        SeenItem{number, watch.catalog(second / ".Trash-0/files", 1)->at(0).nodeId,
                 second / ".Trash-0/files", "b"}};
    fs::rename(trash_ + "/a", folder_ / "a");
    fs::rename(second / ".Trash-0/files/b", second / "b");
    std::vector<ResolvedNode> nodes;
    watch.setDidFindOut([&] { nodes = watch.resolve(items); });
    const auto searchAgain = [&] {
        nodes.clear();
        turnUntil(
            [&] {
                if (nodes.empty()) (void)watch.resolve(items);
                return !nodes.empty();
            },
            seconds(20));
        return nodes.size() == 2;
    };
    {
        HeldReader hung;
        ASSERT_EQ(watch.resolve(std::span(items).first(1)).at(0).state, NodeState::unknown);
        for (int i = 0; i < 15; ++i) turn();  // until it is given up
        ASSERT_THAT(nodes, IsEmpty());
        struct stat one {};
        struct stat other {};
        ASSERT_EQ(::stat(folder_.path().c_str(), &one), 0);
        ASSERT_EQ(::stat(second.path().c_str(), &other), 0);
        if (one.st_dev == other.st_dev) GTEST_SKIP() << "there is one file system alone here";
        ASSERT_TRUE(searchAgain());
        EXPECT_EQ(nodes.at(0).state, NodeState::unknown);
        EXPECT_EQ(nodes.at(1).path, second / "b");
    }
    turnUntil(
        [&] {
            (void)searchAgain();
            return nodes.empty() || nodes.front().state != NodeState::unknown;
        },
        seconds(20));
    ASSERT_THAT(nodes, testing::SizeIs(2));
    EXPECT_EQ(nodes.front().path, folder_ / "a");
}

}  // namespace
}  // namespace korvane
