// The trash history: what is put into a trash folder is recorded, stamped and looked at by the
// recovery program, what leaves it is marked, and results are collected.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "scenarios/TrashBed.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using TrashHistory = TrashBed;

TEST_F(TrashHistory, WatchesTheTrashOfEveryUserAndVolume) {
    s.put("/Users/Shared/.Trash/x", "").put("/Users/.hidden/.Trash/x", "");
    s.put("/Users/bob/.Trash/x", "").run(seconds(1));
    EXPECT_THAT(watched(), ElementsAre(kTrash, "/Users/bob/.Trash", kDataTrash));
}

TEST_F(TrashHistory, WatchesNothingWhileItIsOff) {
    s.run(seconds(1));
    ASSERT_THAT(watched(), SizeIs(2));
    s.editPreferences([](Dictionary& settings) { settings.set("trashHistoryOnOff", false); });
    s.restart().run(seconds(1));
    EXPECT_THAT(watched(), IsEmpty());
}

TEST_F(TrashHistory, LeavesAVolumeOutWhoseSwitchIsOff) {
    s.run(seconds(1));
    s.editVolumeEntry("/Volumes/Data", [](Dictionary& entry) { entry.set("trashOnOff", false); });
    s.restart().run(seconds(1));
    EXPECT_THAT(watched(), ElementsAre(kTrash));
}

TEST_F(TrashHistory, LeavesAVolumeOutThatCannotBeWritten) {
    s.run(seconds(1));
    ASSERT_TRUE(s.machine().volumes.setWritable("/Volumes/Data", false));
    s.restart().run(seconds(1));
    EXPECT_THAT(watched(), ElementsAre(kTrash));
}

TEST_F(TrashHistory, FollowsMountsAndUnmounts) {
    s.run(seconds(2));
    s.unmount("/Volumes/Data").run(seconds(2));
    EXPECT_THAT(watched(), ElementsAre(kTrash));
}

TEST_F(TrashHistory, AFolderThatCannotBeWatchedTakesItsSlot) {
    for (int user = 0; user < 120; ++user) {
        s.put("/Users/u" + std::to_string(1000 + user) + "/.Trash/.x", "");
    }
    s.machine().directoryWatch.refuse("/Users/u1000/.Trash");
    s.run(seconds(1));
    EXPECT_THAT(watched(), SizeIs(99));
}

TEST_F(TrashHistory, SlotsGoByTheOrderOfTheVolumesAndTheirFolders) {
    for (int user = 0; user < 120; ++user) s.put("/Users/b" + std::to_string(user) + "/x", "");
    s.run(seconds(1));
    // Those that are not there have their slots, and none is left for the other volume.
    EXPECT_THAT(watched(), ElementsAre(kTrash));
}

TEST_F(TrashHistory, IsWatchedAgainWhenTheMachineHasWatchesAgain) {
    s.machine().directoryWatch.setMostWatches(1);
    s.run(seconds(1));
    ASSERT_THAT(watched(), ElementsAre(kTrash));
    trash(std::string(kDataTrash) + "/meanwhile");
    s.run(hours(3));
    EXPECT_TRUE(record("meanwhile").empty());
    const auto isAboutWatches = testing::HasSubstr("no more watches");
    EXPECT_EQ(
        std::ranges::count_if(
            s.log(), [&](const auto& line) { return testing::Matches(isAboutWatches)(line); }),
        1);
    s.machine().directoryWatch.setMostWatches(std::nullopt);
    s.run(hours(1) + seconds(1));
    EXPECT_THAT(watched(), ElementsAre(kTrash, kDataTrash));
    EXPECT_FALSE(record("meanwhile").empty());
    // It is well again: the next time is another one.
    s.machine().directoryWatch.setMostWatches(0);
    s.unmount("/Volumes/Data").run(minutes(1));
    EXPECT_EQ(
        std::ranges::count_if(
            s.log(), [&](const auto& line) { return testing::Matches(isAboutWatches)(line); }),
        2);
}

TEST_F(TrashHistory, IsNotSwampedByAUserWhoKeepsATrashChanging) {
    s.run(seconds(1));
    const auto change = [this](seconds duration) {
        for (int turn = 0; turn < 10 * duration.count(); ++turn) {
            s.machine().directoryWatch.changed(kTrash);
            s.run(std::chrono::milliseconds(100));
        }
    };
    s.put(std::string(kTrash) + "/a", "");
    s.machine().directoryWatch.setCatalogDuration(std::chrono::milliseconds(100));
    change(seconds(60));
    const std::uint64_t before = files().writeCount(kUsage);
    EXPECT_LE(before, 10u + 60 / 5 + 1);
    change(seconds(60));
    EXPECT_LE(files().writeCount(kUsage) - before, 60u / 5 + 1);
    EXPECT_GE(files().writeCount(kUsage) - before, 60u / 5 - 1);
    // Somebody else is served meanwhile.
    trash(std::string(kDataTrash) + "/letter");
    change(seconds(1));
    EXPECT_FALSE(record("letter").empty());
    // And what came last is not lost: it had to wait.
    trash(std::string(kTrash) + "/last");
    s.run(seconds(10));
    EXPECT_FALSE(record("last").empty());
}

TEST_F(TrashHistory, RecordsAnItemAndStampsIt) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/letter");
    s.run(seconds(1));
    const Dictionary fields = record("letter");
    ASSERT_THAT(fields, SizeIs(7));
    const std::string node = std::to_string(files().nodeId(std::string(kDataTrash) + "/letter"));
    EXPECT_TRUE(usage().contains("Data_" + node));
    EXPECT_EQ(stringValue(fields.find("nodeID")), node);
    EXPECT_EQ(stringValue(fields.find("dirPath")), kDataTrash);
    EXPECT_EQ(stringValue(fields.find("volumeName")), "Data");
    EXPECT_NE(fields.find("volRefNum")->string(), nullptr);
    EXPECT_NE(fields.find("addDate")->date(), nullptr);
    EXPECT_EQ(*fields.find("totalSize"), PropertyList(0.0));
    EXPECT_TRUE(files().backupDate(std::string(kDataTrash) + "/letter"));
    EXPECT_EQ(files().attributes(kUsage)->permissions, 0666u);
    EXPECT_THAT(usage(), SizeIs(1));  // hidden items are passed over
}

TEST_F(TrashHistory, KeepsTheFirstDateOfAnItemSeenAgain) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(hours(1));
    ASSERT_FALSE(record("a").empty());
    const PropertyList first = *record("a").find("addDate");
    trash(std::string(kTrash) + "/b");
    s.run(seconds(1));
    ASSERT_FALSE(record("a").empty() || record("b").empty());
    EXPECT_EQ(*record("a").find("addDate"), first);
    EXPECT_FALSE(*record("b").find("addDate") == first);
    EXPECT_FALSE(record("a").contains("Deleted"));
}

TEST_F(TrashHistory, MarksAnItemThatWasPutBackAndDropsItInTime) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.put("/Users/ada/Desktop/x", "");
    move(std::string(kTrash) + "/a", "/Users/ada/Desktop/a");
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Removed"));
    EXPECT_FALSE(record("a").contains("Deleted"));
    s.run(hours(24 * 5 + 1));
    EXPECT_THAT(usage(), SizeIs(1));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_THAT(usage(), IsEmpty());
}

TEST_F(TrashHistory, AnItemThatComesBackStartsAfresh) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    ASSERT_FALSE(record("a").empty());
    const PropertyList first = *record("a").find("addDate");
    move(std::string(kTrash) + "/a", "/Users/ada/a");
    s.run(hours(1));
    ASSERT_TRUE(record("a").contains("Removed"));
    ASSERT_TRUE(files().rename("/Users/ada/a", std::string(kTrash) + "/a"));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_FALSE(record("a").contains("Removed"));
    EXPECT_FALSE(*record("a").find("addDate") == first);
}

TEST_F(TrashHistory, KeepsTheRecordOfAnItemWhoseNumberWentToAnother) {
    s.run(seconds(1));
    const std::string folder = kTrash;
    trash(folder + "/a");
    s.run(seconds(5));
    const std::uint64_t number = files().nodeId(folder + "/a");
    empty(folder + "/a");
    s.run(seconds(5));
    // One of the same name, and one that comes before anybody has looked.
    for (const char* name : {"a", "b"}) {
        s.put("/Users/ada/new", name);
        files().setNodeId("/Users/ada/new", number);
        (void)files().removeItem(folder + "/a");
        ASSERT_TRUE(files().rename("/Users/ada/new", folder + '/' + name));
        s.machine().directoryWatch.changed(kTrash);
        s.run(seconds(5));
    }
    EXPECT_THAT(usage(), SizeIs(3));
    EXPECT_FALSE(record("b").contains("Deleted"));
    for (const Dictionary::Entry& entry : usage()) {
        const Dictionary& fields = *entry.value.dictionary();
        EXPECT_EQ(fields.contains("Deleted"), stringValue(fields.find("itemName")) == "a");
    }
    EXPECT_TRUE(usage().contains("System_" + std::to_string(number)));
}

TEST_F(TrashHistory, TakesAnotherNameForADeletion) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/b");
    s.run(seconds(1));
    // Renamed while nobody looked; another folder's scan notices.
    ASSERT_TRUE(files().rename(std::string(kTrash) + "/a", std::string(kTrash) + "/c"));
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashHistory, DropsADeletedItemAtTheNextScanWhenNoDaysAreKept) {
    s.run(seconds(1));
    s.editPreferences([](Dictionary& settings) { settings.set("trashSaveDays", 0); });
    s.restart().run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(5));
    empty(std::string(kTrash) + "/a");
    s.run(seconds(5));
    EXPECT_TRUE(record("a").contains("Deleted"));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_THAT(usage(), IsEmpty());
}

TEST_F(TrashHistory, DecidesNothingOfAnItemThatCannotBeLookedFor) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.machine().directoryWatch.setUndecided(true);
    empty(std::string(kTrash) + "/a");
    s.run(seconds(1));
    EXPECT_FALSE(record("a").contains("Deleted"));
    s.machine().directoryWatch.setUndecided(false);
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashHistory, RecordsAHundredItemsOfAFullFolderInOneScanAndOneWrite) {
    s.run(seconds(1));
    for (int item = 0; item < 150; ++item) {
        trash(std::string(kDataTrash) + "/item " + std::to_string(item));
    }
    s.run(seconds(1));
    // One of the hundred may be the hidden one.
    EXPECT_GE(usage().size(), 99u);
    EXPECT_LE(usage().size(), 100u);
    EXPECT_EQ(files().writeCount(kUsage), 1u);
    EXPECT_THAT(s.machine().processes.launches(), SizeIs(1));
}

TEST_F(TrashHistory, GivesTheProgramAJobForEachItem) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    trash(std::string(kDataTrash) + "/b");
    s.run(std::chrono::milliseconds(500));
    ASSERT_THAT(s.machine().processes.launches(), SizeIs(1));
    EXPECT_THAT(s.machine().processes.launches()[0].arguments,
                ElementsAre("inFile", "/tmp/.KVDataRec_Data.dat"));
    EXPECT_EQ(files().attributes("/tmp/.KVDataRec_Data.dat")->permissions, 0640u);
    s.run(seconds(1));
    ASSERT_THAT(jobs, SizeIs(2));
    for (const SearchJob& job : jobs) {
        EXPECT_EQ(job.deviceName, "/dev/sda2");
        EXPECT_EQ(job.parentId, files().nodeId(kDataTrash));
        EXPECT_EQ(job.searchResultPath, searchResultPathOf(job.nodeId));
    }
}

TEST_F(TrashHistory, CollectsTheResultsOfAnHourInOneFile) {
    setProgram(std::string(700, 'r'));
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    trash(std::string(kDataTrash) + "/b");
    s.run(seconds(10));
    const std::string path = volumeFolder("Data") + "/" + kDeletes;
    const auto bytes = files().bytes(path);
    ASSERT_TRUE(bytes);
    ASSERT_EQ(bytes->size(), 3 * kTrashRecordBytes);
    const auto header = decodeTrashDeletesHeader(bytes->substr(0, kTrashRecordBytes));
    ASSERT_TRUE(header);
    EXPECT_EQ(header->deviceName, "/dev/sda2");
    EXPECT_EQ(header->volumePath, "/Volumes/Data");
    EXPECT_EQ(bytes->substr(kTrashRecordBytes, kTrashStampOffset),
              std::string(kTrashStampOffset, 'r'));
    // A short last chunk is written as a whole record.
    EXPECT_EQ(bytes->substr(kTrashRecordBytes + 700, 64), std::string(64, '\0'));
    EXPECT_EQ(files().attributes(path)->permissions, 0666u);
    for (const SearchJob& job : jobs) EXPECT_FALSE(files().exists(job.searchResultPath));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
    EXPECT_THAT(s.log(), testing::Not(testing::Contains(testing::HasSubstr("search"))));
}

TEST_F(TrashHistory, ScansOnlyWhereTheProgramIs) {
    s.machine().bundle.removePlugIn(kRecoveryProgram);
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    EXPECT_FALSE(files().exists(kUsage));
}

TEST_F(TrashHistory, RecordsWithoutASearchUntilTheProgramCanBeLaunched) {
    s.machine().processes.removeProgram(kProgram);
    s.run(seconds(1));
    const auto lines = [this] {
        return std::ranges::count_if(s.log(), [](const std::string& line) {
            return line.find("cannot be launched") != std::string::npos;
        });
    };
    for (int times = 1; times <= 2; ++times) {
        const std::string name = "item " + std::to_string(times);
        trash(std::string(kDataTrash) + '/' + name);
        s.run(minutes(10));
        EXPECT_FALSE(record(name).empty());
        EXPECT_TRUE(files().exists("/tmp/.KVDataRec_Data.dat"));
        EXPECT_EQ(lines(), times);
        EXPECT_LE(s.pendingDelays().size(), 5u);  // and no more with each attempt
        setProgram("result");
        s.run(minutes(20));
        EXPECT_EQ(jobs.back().nodeId, files().nodeId(std::string(kDataTrash) + '/' + name));
        EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
        s.machine().processes.removeProgram(kProgram);
    }
}

TEST_F(TrashHistory, NeverWritesItsJobsThroughALink) {
    s.put("/etc/precious", "precious");
    ASSERT_TRUE(files().putLink("/tmp/.KVDataRec_Data.dat", "/etc/precious"));
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(5));
    EXPECT_EQ(files().bytes("/etc/precious"), "precious");
    EXPECT_THAT(s.machine().processes.launches(), IsEmpty());
    EXPECT_THAT(usage(), SizeIs(1));
    EXPECT_THAT(s.log(), testing::Contains(testing::HasSubstr("No search")));
}

TEST_F(TrashHistory, SetsAFileAsideThatCannotBeUsed) {
    s.run(seconds(1));
    s.put(kUsage, "not a property list");
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_EQ(files().bytes(kUsage), "not a property list");
    EXPECT_EQ(files().attributes(kUsage)->permissions, 0666u);
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    EXPECT_THAT(usage(), SizeIs(1));
    EXPECT_THAT(s.supportFiles(),
                testing::Contains(testing::StartsWith("Trash Usage, unreadable")));
    EXPECT_THAT(s.log(), testing::Contains(testing::HasSubstr("cannot be used and is kept as")));
}

TEST_F(TrashHistory, DropsFilesOfResultsInTime) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(minutes(1));
    ASSERT_TRUE(files().exists(volumeFolder("Data") + "/" + kDeletes));
    s.run(hours(5 * 24) - minutes(2));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_TRUE(files().exists(volumeFolder("Data") + "/" + kDeletes));
    s.run(minutes(3));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_FALSE(files().exists(volumeFolder("Data") + "/" + kDeletes));
}

TEST_F(TrashHistory, LeavesTheTotalAtTheTopAndCopiesIt) {
    s.run(seconds(1));
    s.put(kUsage, formatPropertyList(Dictionary{{"totalSize", 12.5}}));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    ASSERT_FALSE(record("a").empty());
    EXPECT_EQ(*usage().find("totalSize"), PropertyList(12.5));
    EXPECT_EQ(*record("a").find("totalSize"), PropertyList(12.5));
}

TEST_F(TrashHistory, LosesNoRecordWhenTheDiskIsFullOrTheDaemonKilled) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.failNextWrites(1);
    trash(std::string(kTrash) + "/b");
    s.run(seconds(1));
    EXPECT_FALSE(record("a").empty());
    for (const KillMoment moment : {KillMoment::beforeWriting, KillMoment::partCut,
                                    KillMoment::siblingWhole, KillMoment::fileTorn}) {
        s.killAtNextWrite(moment);
        trash(std::string(kTrash) + "/c");
        s.run(seconds(1)).restart().run(seconds(1));
        trash(std::string(kTrash) + "/d");
        s.run(seconds(1));
        EXPECT_FALSE(record("a").empty());
        EXPECT_FALSE(record("d").empty());
    }
}

TEST_F(TrashHistory, EndsItsSubscriptionsWithTheDaemon) {
    s.run(seconds(1));
    ASSERT_THAT(watched(), SizeIs(2));
    s.machine().runLoop.terminate();
    s.run(seconds(1));
    EXPECT_THAT(watched(), IsEmpty());
}

}  // namespace
}  // namespace korvane
