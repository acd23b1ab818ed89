// What goes wrong around the trash history, or goes on beside it: programs that overlap, volumes
// that go, clocks that step, disks that are full.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "scenarios/TrashBed.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using TrashFaults = TrashBed;

TEST_F(TrashFaults, AProgramThatStillRunsKeepsItsJobs) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(500));
    trash(std::string(kDataTrash) + "/b");
    s.run(milliseconds(200));
    const auto launches = s.machine().processes.launches();
    ASSERT_THAT(launches, SizeIs(2));
    EXPECT_EQ(launches[0].arguments[1], "/tmp/.KVDataRec_Data.dat");
    EXPECT_EQ(launches[1].arguments[1], "/tmp/.KVDataRec_Data 1.dat");
    s.run(seconds(10));
    EXPECT_THAT(jobs, SizeIs(3));  // one, and then both
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data 1.dat"));
    // The name is free again.
    trash(std::string(kDataTrash) + "/c");
    s.run(milliseconds(200));
    EXPECT_EQ(s.machine().processes.launches().back().arguments[1], "/tmp/.KVDataRec_Data.dat");
}

TEST_F(TrashFaults, PollsOnceMoreAfterTheLastProgramAndThenRests) {
    s.run(seconds(60));
    const std::size_t before = s.pendingDelays().size();
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(2500));  // the program took a second; this poll has collected
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
    EXPECT_EQ(s.pendingDelays().size(), before + 1);
    s.run(seconds(2));
    EXPECT_EQ(s.pendingDelays().size(), before);
}

TEST_F(TrashFaults, AProgramThatIsKilledLeavesNothingBehind) {
    s.machine().processes.setProgram(kProgram, {.duration = std::nullopt, .work = nullptr});
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(30));
    EXPECT_TRUE(files().exists("/tmp/.KVDataRec_Data.dat"));
    s.machine().processes.kill(0);
    s.run(seconds(5));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
    EXPECT_THAT(usage(), SizeIs(1));
}

TEST_F(TrashFaults, ProgramsThatHangAreNoMoreThanFourAndOnePoll) {
    s.machine().processes.setProgram(kProgram, {.duration = std::nullopt, .work = nullptr});
    s.run(seconds(60));
    const std::size_t before = s.pendingDelays().size();
    for (const char* name : {"/a", "/b", "/c", "/d", "/e", "/f", "/g"}) {
        trash(kDataTrash + std::string(name));
        s.run(milliseconds(300));
    }
    s.run(seconds(30));
    EXPECT_THAT(s.machine().processes.launches(), SizeIs(4));
    EXPECT_EQ(s.pendingDelays().size(), before + 1);
    // Those of another volume are not held up.
    trash(std::string(kTrash) + "/h");
    s.run(seconds(1));
    EXPECT_THAT(s.machine().processes.launches(), SizeIs(5));
    // What had to wait is looked for once there is room, all of it by one program.
    setProgram("result");
    s.machine().processes.kill(0);
    s.run(seconds(10));
    EXPECT_THAT(s.machine().processes.launches(), SizeIs(6));
    EXPECT_THAT(jobs, SizeIs(7));
}

TEST_F(TrashFaults, TellsOnceOfAUsageFileThatCannotBeReadOrWritten) {
    const auto lines = [this] {
        return std::ranges::count_if(s.log(), [](const std::string& line) {
            return line.find("What is in the trash cannot be recorded now") != std::string::npos;
        });
    };
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    for (int episode = 1; episode <= 2; ++episode) {
        files().setUnreadableFile(kUsage);
        for (const char* name : {"/b", "/c", "/d"}) {
            trash(kTrash + std::string(name));
            s.run(seconds(1));
        }
        EXPECT_EQ(lines(), episode);
        files().setUnreadableFile("");
        trash(std::string(kTrash) + "/e");
        s.run(seconds(1));
        EXPECT_EQ(lines(), episode);
    }
    files().setFull("/dev/sda1", true);
    for (const char* name : {"/f", "/g"}) {
        s.machine().directoryWatch.changed(kTrash);
        s.run(seconds(1));
        EXPECT_TRUE(record(name + 1).empty());
        EXPECT_EQ(lines(), 3);
    }
}

TEST_F(TrashFaults, AFullDiskIsToldOfWhenTheTrashIsEmptiedToo) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    files().setFull("/dev/sda1", true);
    ASSERT_TRUE(files().remove(std::string(kTrash) + "/a"));
    for (int scan = 0; scan < 2; ++scan) {
        s.machine().directoryWatch.changed(kTrash);
        s.run(seconds(1));
        EXPECT_EQ(std::ranges::count_if(s.log(),
                                        [](const std::string& line) {
                                            return line.find("became of items in the trash") !=
                                                   std::string::npos;
                                        }),
                  1);
    }
    files().setFull("/dev/sda1", false);
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashFaults, AUsageFileThatCannotBeReadNowKeepsItsRecords) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    files().setUnreadableFile(kUsage);
    trash(std::string(kTrash) + "/b");
    s.run(seconds(1));
    files().setUnreadableFile("");
    EXPECT_FALSE(record("a").empty());
    EXPECT_THAT(s.supportFiles(),
                testing::Not(testing::Contains(testing::StartsWith("Trash Usage, unreadable"))));
    trash(std::string(kTrash) + "/c");
    s.run(seconds(1));
    EXPECT_THAT(usage(), SizeIs(3));
}

TEST_F(TrashFaults, AResultThatSomebodyPlantedIsToldOnce) {
    setProgram("");
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(10));
    ASSERT_THAT(jobs, SizeIs(1));
    ASSERT_TRUE(files().createFolders(jobs[0].searchResultPath, "eve"));
    const auto told = [this] {
        const auto lines = s.log();
        return std::ranges::count_if(lines, [](const std::string& line) {
            return line.find("is somebody else's") != std::string::npos;
        });
    };
    for (const char* name : {"/b", "/c"}) {
        trash(std::string(kTrash) + name);
        s.run(seconds(10));
        EXPECT_EQ(told(), 1);
    }
    // Told again once it was gone in between.
    ASSERT_TRUE(files().removeItem(jobs[0].searchResultPath));
    trash(std::string(kTrash) + "/d");
    s.run(seconds(10));
    ASSERT_TRUE(files().createFolders(jobs[0].searchResultPath, "eve"));
    trash(std::string(kTrash) + "/e");
    s.run(seconds(10));
    EXPECT_EQ(told(), 2);
}

// What a kill has left in the middle of a write.
TEST_F(TrashFaults, CutsAFileOfResultsToWholeRecordsBeforeItAddsOne) {
    const std::string path = volumeFolder("Data") + "/" + kDeletes;
    s.run(seconds(1));
    for (const std::size_t torn : {std::size_t{100}, kTrashRecordBytes + 100}) {
        s.put(path, std::string(torn, 'x'));
        trash(kDataTrash + ("/" + std::to_string(torn)));
        s.run(seconds(10));
        const std::string bytes = files().bytes(path).value_or("");
        ASSERT_GE(bytes.size(), 2 * kTrashRecordBytes);
        EXPECT_EQ(bytes.size() % kTrashRecordBytes, 0u);
        EXPECT_TRUE(bytes.substr(kTrashRecordBytes).starts_with("result"));
        const bool hadHeader = torn > kTrashRecordBytes;
        EXPECT_EQ(decodeTrashDeletesHeader(bytes.substr(0, kTrashRecordBytes)).has_value(),
                  !hadHeader);
    }
}

TEST_F(TrashFaults, DropsFilesOfResultsWhereTheSupportFolderIsALink) {
    ASSERT_TRUE(files().rename(kSupportFolder, "/Elsewhere"));
    ASSERT_TRUE(files().putLink(kSupportFolder, "/Elsewhere"));
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(60));
    ASSERT_TRUE(files().exists(volumeFolder("Data") + "/" + kDeletes));
    s.run(hours(5 * 24));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_FALSE(files().exists(volumeFolder("Data") + "/" + kDeletes));
}

TEST_F(TrashFaults, MarksWhatASearchHasFoundOut) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.machine().directoryWatch.setUndecided(true);
    empty(std::string(kTrash) + "/a");
    s.run(seconds(1));
    EXPECT_FALSE(record("a").contains("Deleted"));
    s.machine().directoryWatch.findOut();
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashFaults, DecidesNothingAboutAVolumeThatWentDuringAScan) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(500));
    s.unmount("/Volumes/Data").run(seconds(10));
    trash(std::string(kTrash) + "/b");
    s.run(seconds(5));
    EXPECT_FALSE(record("a").contains("Deleted"));
    EXPECT_FALSE(record("a").contains("Removed"));
    EXPECT_FALSE(record("b").empty());
}

TEST_F(TrashFaults, KeepsVolumesOfOneNameApart) {
    for (const char* const place : {"a", "b"}) {
        MountDescription mount;
        mount.path = std::string("/mnt/") + place + "/Other";
        mount.device = std::string("/dev/sdx") + place;
        mount.type = "ext4";
        s.mount(mount);
        s.put(mount.path + "/.Trashes/501/.x", "");
    }
    s.editPreferences([](Dictionary& settings) {
        PropertyListArray& volumes = *settings.find("volumeArray")->array();
        for (const char* const path : {"/mnt/a/Other", "/mnt/b/Other"}) {
            volumes.push_back(Dictionary{{"volumeMountToName", path}, {"trashOnOff", true}});
        }
    });
    s.run(seconds(1));
    trash("/mnt/a/Other/.Trashes/501/a");
    trash("/mnt/b/Other/.Trashes/501/b");
    s.run(seconds(10));
    EXPECT_EQ(stringValue(record("a").find("volumeName")), "Other");
    EXPECT_EQ(stringValue(record("b").find("volumeName")), "Other 1");
    for (const char* const name : {"Other", "Other 1"}) {
        EXPECT_EQ(files().bytes(volumeFolder(name) + '/' + kDeletes).value_or("").size(),
                  2 * kTrashRecordBytes);
    }
}

TEST_F(TrashFaults, ScansAtOnceWhenItIsAskedTo) {
    s.run(seconds(1));
    s.put(std::string(kTrash) + "/a", "").put(std::string(kDataTrash) + "/b", "");
    s.daemon().setupTrashRetainer(false);
    s.run(seconds(1));
    EXPECT_THAT(usage(), IsEmpty());
    s.daemon().setupTrashRetainer(true);
    EXPECT_FALSE(record("a").empty());
    EXPECT_FALSE(record("b").empty());
}

TEST_F(TrashFaults, TakesAPathThatIsTooLongForADeletion) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    std::string folder = "/Users/ada";
    while (folder.size() < 1024) folder += "/" + std::string(200, 'd');
    s.put(folder + "/x", "");
    move(std::string(kTrash) + "/a", folder + "/a");
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashFaults, LeavesAnItemAloneThatMovedWithinTheTrash) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.put(std::string(kTrash) + "/folder/x", "");
    move(std::string(kTrash) + "/a", std::string(kTrash) + "/folder/a");
    s.run(seconds(1));
    EXPECT_FALSE(record("a").contains("Deleted"));
    EXPECT_FALSE(record("a").contains("Removed"));
}

TEST_F(TrashFaults, KeepsRecordsWhenTheClockStepsBack) {
    s.run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    empty(std::string(kTrash) + "/a");
    s.run(seconds(1));
    ASSERT_TRUE(record("a").contains("Deleted"));
    s.stepClock(-hours(24 * 30));
    trash(std::string(kTrash) + "/b");
    s.run(seconds(5));
    EXPECT_TRUE(record("a").contains("Deleted"));
    EXPECT_FALSE(record("b").empty());
    s.stepClock(hours(24 * 60));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_TRUE(record("a").empty());
}

TEST_F(TrashFaults, KeepsAResultThatCannotBeCollected) {
    s.put(volumeFolder("Data") + "/" + kDeletes + "/a folder in its place", "");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    ASSERT_THAT(jobs, SizeIs(1));
    EXPECT_TRUE(files().exists(jobs[0].searchResultPath));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data.dat"));
}

TEST_F(TrashFaults, BeginsTheFileOfAnHourThoughTheProgramFoundNothing) {
    setProgram("");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    const auto bytes = files().bytes(volumeFolder("Data") + "/" + kDeletes);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->size(), kTrashRecordBytes);
}

TEST_F(TrashFaults, RecordsNothingWithoutTheSupportFolder) {
    s.run(seconds(1));
    s.removeSupportFolder();
    trash(std::string(kTrash) + "/a");
    s.run(milliseconds(100));
    EXPECT_FALSE(files().exists(kSupportFolder));
    EXPECT_THAT(s.machine().processes.launches(), IsEmpty());
}

TEST_F(TrashFaults, FollowsTheSwitchWhileItRuns) {
    s.run(seconds(1));
    ASSERT_THAT(watched(), SizeIs(2));
    s.editPreferences([](Dictionary& settings) { settings.set("trashHistoryOnOff", false); });
    s.send("daemonStartYourEngines").run(seconds(1));
    EXPECT_THAT(watched(), IsEmpty());
    s.editPreferences([](Dictionary& settings) { settings.set("trashHistoryOnOff", true); });
    s.send("daemonStartYourEngines").run(seconds(1));
    EXPECT_THAT(watched(), ElementsAre(kTrash, kDataTrash));
}

TEST_F(TrashFaults, LeavesTheItemsThemselvesAloneWhateverTheirNames) {
    s.run(seconds(1));
    const std::string name = std::string(250, 'n') + "&<>\"'";
    trash(std::string(kTrash) + "/" + name);
    trash(std::string(kTrash) + "/  leading blanks");
    s.run(seconds(5));
    EXPECT_FALSE(record(name).empty());
    EXPECT_FALSE(record("  leading blanks").empty());
    EXPECT_EQ(files().bytes(std::string(kTrash) + "/" + name), std::string(kTrash) + "/" + name);
}

// Those of the settings come first, whatever the order of the mounts.
TEST_F(TrashFaults, GivesSlotsInTheOrderOfTheVolumeEntries) {
    for (int user = 0; user < 120; ++user) {
        s.put("/Users/u" + std::to_string(user) + "/.Trash/.x", "");
    }
    s.editPreferences(
        [](Dictionary& settings) { std::ranges::reverse(*settings.find("volumeArray")->array()); });
    s.run(seconds(1));
    EXPECT_THAT(watched(), SizeIs(100));
    EXPECT_THAT(watched(), testing::Contains(kDataTrash));
}

TEST_F(TrashFaults, CountsHiddenItemsAmongTheHundred) {
    const std::string folder = kDataTrash;
    for (int item = 0; item < 80; ++item) {
        s.put(folder + "/.hidden " + std::to_string(item), "");
        // Of many beginnings: the order of a folder goes by them.
        s.put(folder + '/' + static_cast<char>('a' + item % 26) + std::to_string(item), "");
    }
    const auto names = files().list(folder);
    ASSERT_TRUE(names && names->size() > 100);
    const auto shown = std::count_if(names->begin(), names->begin() + 100,
                                     [](const std::string& name) { return name.front() != '.'; });
    ASSERT_LT(shown, 80);
    s.run(seconds(1));
    s.machine().directoryWatch.changed(folder);
    s.run(seconds(1));
    EXPECT_THAT(usage(), SizeIs(static_cast<std::size_t>(shown)));
}

TEST_F(TrashFaults, CopiesEveryRecordOfAResult) {
    std::string result;
    for (const char character : {'a', 'b', 'c'})
        result += std::string(kTrashRecordBytes, character);
    setProgram(result + "end");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    const std::string bytes = files().bytes(volumeFolder("Data") + "/" + kDeletes).value_or("");
    ASSERT_EQ(bytes.size(), 5 * kTrashRecordBytes);
    for (std::size_t record = 1; record <= 4; ++record) {
        const std::string one = bytes.substr(record * kTrashRecordBytes, kTrashRecordBytes);
        const char expected = "abce"[record - 1];
        EXPECT_EQ(one.front(), expected);
        TrashRecord copy{};
        std::ranges::copy(one, copy.begin());
        EXPECT_NE(trashRecordStamp(copy), 0u) << record;
        EXPECT_EQ(one.back(), record == 4 ? '\0' : expected);
    }
}

TEST_F(TrashFaults, DropsNoFileThatOnlyMentionsTheNameOfResults) {
    const std::string folder = volumeFolder("Data");
    const std::string kept[] = {
        folder + "/My Trash Deletes 2026-01-01-00", folder + "/trash deletes 2026-01-01-00",
        folder + "/Trash Delete 2026-01-01-00", folder + "/Trash Deletes of old/notes"};
    const std::string old = folder + "/Trash Deletes 2026-01-01-00";
    for (const std::string& path : kept) s.put(path, "");
    s.put(old, "");
    s.run(hours(24 * 6));
    s.machine().directoryWatch.changed(kTrash);
    s.run(seconds(1));
    EXPECT_FALSE(files().exists(old));
    for (const std::string& path : kept) EXPECT_TRUE(files().exists(path)) << path;
}

TEST_F(TrashFaults, TicksDoNotWatchAnew) {
    s.run(seconds(10));
    s.put("/Users/bob/.Trash/x", "").run(hours(3));
    EXPECT_THAT(watched(), ElementsAre(kTrash, kDataTrash));
    s.send("daemonPreferencesUpdatedNotification").run(seconds(1));
    EXPECT_THAT(watched(), SizeIs(3));
}

// A word may have the trash watched before the start is over.
class TrashInTheStartWait : public TrashBed {
  protected:
    TrashInTheStartWait() : TrashBed(startedJustNow()) {
        s.run(seconds(1)).send("daemonPreferencesUpdatedNotification").run(seconds(1));
    }
    static MachineDescription startedJustNow() {
        MachineDescription machine = Scenario::describe("two-volumes");
        machine.uptime = seconds(10);
        return machine;
    }
};

TEST_F(TrashInTheStartWait, MarksWhatASearchHasFoundOut) {
    trash(std::string(kTrash) + "/a");
    s.run(seconds(1));
    s.machine().directoryWatch.setUndecided(true);
    empty(std::string(kTrash) + "/a");
    s.run(seconds(1));
    ASSERT_FALSE(record("a").empty());
    ASSERT_FALSE(record("a").contains("Deleted"));
    s.machine().directoryWatch.findOut();
    s.run(seconds(1));
    EXPECT_TRUE(record("a").contains("Deleted"));
}

TEST_F(TrashInTheStartWait, CollectsWhatADaemonBeforeItHadSearchedFor) {
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));  // the program has ended, and no poll was made
    const std::string path = volumeFolder("Data") + "/" + kDeletes;
    ASSERT_FALSE(files().exists(path));
    s.restart().run(seconds(5));
    EXPECT_TRUE(files().exists(path));
}

}  // namespace
}  // namespace korvane
