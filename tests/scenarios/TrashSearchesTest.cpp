// Searches of the trash that hang, that somebody stands in the way of, or that outlive the daemon
// which began them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "scenarios/TrashBed.h"
#include "storage/VolumeLookups.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::SizeIs;

constexpr char kInput[] = "/tmp/.KVDataRec_Data.dat";
constexpr std::uint32_t kSomebodyElse = 501;

class TrashSearches : public TrashBed {
  protected:
    void hang(bool endsWhenTold) {
        s.machine().processes.setProgram(
            kProgram, {.duration = std::nullopt, .work = nullptr, .endsWhenTold = endsWhenTold});
    }
    std::ptrdiff_t lines(const std::string& text) {
        return std::ranges::count_if(
            s.log(), [&](const std::string& line) { return line.find(text) != std::string::npos; });
    }
    std::size_t launches() { return s.machine().processes.launches().size(); }
    std::string resultOf(const std::string& item) {
        return searchResultPathOf(files().nodeId(kDataTrash + ("/" + item)));
    }
    std::string collected() {
        return files().bytes(volumeFolder("Data") + "/" + kDeletes).value_or("");
    }
};

TEST_F(TrashSearches, EndAProgramThatHangsAfterAnHour) {
    hang(true);
    s.run(seconds(1));
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(1));
    }
    s.run(minutes(55));
    EXPECT_EQ(launches(), 4u);
    EXPECT_EQ(lines("has not ended for an hour"), 0);
    setProgram("result");
    s.run(minutes(10));
    EXPECT_EQ(lines("has not ended for an hour"), 4);
    EXPECT_EQ(launches(), 5u);  // what had to wait
    EXPECT_FALSE(files().exists(kInput));
    EXPECT_THAT(jobs, SizeIs(5));
}

TEST_F(TrashSearches, PollNoProgramThatDoesNotEvenEndWhenTold) {
    s.run(seconds(60));
    const std::size_t before = s.pendingDelays().size();
    hang(false);
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(1));
    }
    s.run(minutes(65));
    EXPECT_EQ(lines("has not ended for an hour"), 4);
    EXPECT_EQ(s.pendingDelays().size(), before);
    // Any more would hang beside them.
    trash(std::string(kDataTrash) + "/f");
    s.run(minutes(1));
    EXPECT_EQ(launches(), 4u);
    EXPECT_EQ(s.pendingDelays().size(), before);
    // The disk answers again.
    setProgram("result");
    for (std::size_t launch = 0; launch < 4; ++launch) s.machine().processes.kill(launch);
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(seconds(10));
    EXPECT_EQ(launches(), 5u);
    EXPECT_THAT(jobs, SizeIs(6));
    EXPECT_FALSE(files().exists(kInput));
    EXPECT_EQ(lines("has not ended for an hour"), 4);
}

TEST_F(TrashSearches, ThatWaitMakeNoFolderAgainWhoseSuiteWasRemoved) {
    hang(true);
    s.run(seconds(1));
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(1));
    }
    ASSERT_EQ(launches(), 4u);
    s.removeSupportFolder();
    for (std::size_t launch = 0; launch < 4; ++launch) s.machine().processes.kill(launch);
    s.run(seconds(10));
    EXPECT_EQ(launches(), 4u);
    EXPECT_FALSE(files().exists(std::string(kSupportFolder)));
    s.run(hours(2));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_FALSE(files().exists(std::string(kSupportFolder)));
}

TEST_F(TrashSearches, ThatWaitAreNotBegunOnceTheHistoryIsOff) {
    hang(true);
    s.run(seconds(1));
    for (const char* name : {"a", "b", "c", "d", "e"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(1));
    }
    s.editPreferences([](Dictionary& settings) { settings.set("trashHistoryOnOff", false); });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(1));
    for (std::size_t launch = 0; launch < 4; ++launch) s.machine().processes.kill(launch);
    s.run(minutes(1));
    EXPECT_EQ(launches(), 4u);
}

TEST_F(TrashSearches, LetAProgramGoOnThatTheMachineSleptOver) {
    hang(true);
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10)).suspend(hours(8)).run(minutes(10));
    EXPECT_EQ(lines("has not ended for an hour"), 0);
    EXPECT_TRUE(files().exists(kInput));
}

TEST_F(TrashSearches, DropAJobWhoseResultHasSomebodyElsesFileInItsPlace) {
    s.run(seconds(1));
    s.put(std::string(kDataTrash) + "/a", "");
    const std::string planted = resultOf("a");
    s.put(planted, "planted");
    ASSERT_TRUE(files().setOwner(planted, kSomebodyElse));
    for (const char* name : {"b", "c", "d"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(5));
    }
    EXPECT_EQ(lines(planted), 1);
    EXPECT_THAT(jobs, SizeIs(1 + 2 + 3));
    EXPECT_EQ(files().bytes(planted), "planted");
    EXPECT_FALSE(record("a").empty());
    ASSERT_TRUE(files().removeItem(planted));
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(seconds(5));
    EXPECT_THAT(jobs, SizeIs(6 + 4));
}

TEST_F(TrashSearches, AreNotBegunForNothingButSomebodyElsesFiles) {
    s.run(seconds(1));
    s.put(std::string(kDataTrash) + "/a", "");
    ASSERT_TRUE(files().putLink(resultOf("a"), "/etc/passwd"));
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(seconds(5));
    EXPECT_EQ(launches(), 0u);
    EXPECT_FALSE(record("a").empty());
}

TEST_F(TrashSearches, TellOnceOfAnInputFileThatIsSomebodyElses) {
    s.run(seconds(1));
    s.put(kInput, "planted");
    ASSERT_TRUE(files().setOwner(kInput, kSomebodyElse));
    for (const char* name : {"a", "b", "c"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(5));
    }
    EXPECT_EQ(lines("No search for what is in the trash of \"Data\""), 1);
    EXPECT_EQ(files().bytes(kInput), "planted");
}

TEST_F(TrashSearches, KeepTheirResultsUntilThereIsAPlaceForThem) {
    const std::string place = volumeFolder("Data") + "/" + kDeletes;
    s.put(place + "/a folder in its place", "");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    EXPECT_TRUE(files().exists(resultOf("a")));
    for (const char* name : {"b", "c"}) {
        trash(kDataTrash + ("/" + std::string(name)));
        s.run(seconds(5));
    }
    EXPECT_EQ(lines("cannot be kept now"), 1);
    const std::string left = resultOf("a");
    ASSERT_TRUE(files().removeItem(std::string(kDataTrash) + "/a"));
    ASSERT_TRUE(files().removeItem(place));
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(seconds(10));
    EXPECT_FALSE(files().exists(left));
    // Of "a" once, and of "b" and "c".
    EXPECT_THAT(collected(), SizeIs((1 + 3) * kTrashRecordBytes));
}

// File systems number their items alike: the first file on two new sticks has one number.
class TrashSearchesOfTwins : public TrashSearches {
  protected:
    TrashSearchesOfTwins() {
        s.machine().processes.setProgram(
            kProgram, {.duration = seconds(5), .work = [this](const auto& arguments) {
                           const auto job = decodeSearchJob(files().bytes(arguments.at(1)).value());
                           s.put(job->searchResultPath, "item on " + job->deviceName);
                       }});
        s.run(seconds(1));
    }
    void throwTwinAway(const std::string& folder) {
        s.put(folder + "/twin", "");
        files().setNodeId(folder + "/twin", 4711);
        s.machine().directoryWatch.changed(folder);
    }
    std::string collectedOf(const std::string& volume) {
        return files().bytes(volumeFolder(volume) + "/" + kDeletes).value_or("");
    }
    std::string device(const std::string& path) {
        return getVolumeMountFromName(s.machine().volumes, path);
    }
};

TEST_F(TrashSearchesOfTwins, AreMadeOneAfterTheOther) {
    throwTwinAway(kTrash);
    s.run(seconds(1));
    throwTwinAway(kDataTrash);
    s.run(seconds(2));
    EXPECT_EQ(launches(), 1u);
    s.run(seconds(20));
    EXPECT_EQ(launches(), 2u);
    for (const auto& [volume, path] :
         {std::pair("System", "/"), std::pair("Data", "/Volumes/Data")}) {
        EXPECT_THAT(collectedOf(volume), SizeIs(2 * kTrashRecordBytes));
        EXPECT_THAT(collectedOf(volume), HasSubstr("item on " + device(path)));
    }
    EXPECT_THAT(files().list("/tmp").value(), SizeIs(1));  // what was there before
}

TEST_F(TrashSearchesOfTwins, WaitForAResultThatHasNoPlaceYet) {
    const std::string place = volumeFolder("System") + "/" + kDeletes;
    s.put(place + "/a folder in its place", "");
    throwTwinAway(kTrash);
    s.run(seconds(20));
    throwTwinAway(kDataTrash);
    s.run(seconds(20));
    EXPECT_EQ(launches(), 1u);
    ASSERT_TRUE(files().removeItem(place));
    s.run(seconds(20));
    EXPECT_THAT(collectedOf("System"), HasSubstr("item on " + device("/")));
    EXPECT_THAT(collectedOf("Data"), HasSubstr("item on " + device("/Volumes/Data")));
}

TEST_F(TrashSearchesOfTwins, AreBothMadeAnewByTheNextDaemon) {
    throwTwinAway(kTrash);
    throwTwinAway(kDataTrash);
    s.run(seconds(20));
    for (const std::string volume : {"System", "Data"}) {
        ASSERT_TRUE(files().removeItem(volumeFolder(volume) + "/" + kDeletes));
        const SearchJobBytes job =
            encodeSearchJob({.nodeId = 4711,
                             .deviceName = device(volume == "System" ? "/" : "/Volumes/Data"),
                             .searchResultPath = searchResultPathOf(4711)});
        s.put(searchInputPathOf(volume), std::string(job.data(), job.size()));
    }
    s.restart().run(seconds(30));
    EXPECT_THAT(collectedOf("System"), HasSubstr("item on " + device("/")));
    EXPECT_THAT(collectedOf("Data"), HasSubstr("item on " + device("/Volumes/Data")));
}

TEST_F(TrashSearches, AreCollectedOnceTheirProgramHasEnded) {
    s.machine().processes.setProgram(
        kProgram,
        {.duration = seconds(7), .work = [this](const auto&) { s.put(resultOf("a"), "late"); }});
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.put(resultOf("a"), "early").run(milliseconds(6900));
    EXPECT_EQ(collected(), "");
    EXPECT_TRUE(files().exists(kInput));
    s.run(seconds(2));
    EXPECT_THAT(collected(), HasSubstr("late"));
    EXPECT_FALSE(files().exists(kInput));
}

TEST_F(TrashSearches, ThatEndInTwoHoursLeaveTwoFiles) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    ASSERT_TRUE(files().removeItem(std::string(kDataTrash) + "/a"));
    trash(std::string(kDataTrash) + "/b");
    s.run(milliseconds(100)).stepClock(hours(1)).run(seconds(10));
    const auto next = files().bytes(volumeFolder("Data") + "/Trash Deletes 2026-03-02-09");
    ASSERT_TRUE(next);
    EXPECT_THAT(*next, SizeIs(2 * kTrashRecordBytes));
    EXPECT_TRUE(decodeTrashDeletesHeader(next->substr(0, kTrashRecordBytes)));
    EXPECT_THAT(collected(), SizeIs(2 * kTrashRecordBytes));
}

TEST_F(TrashSearches, AreNotMadeForAnItemWhoseVolumeIsNotKnown) {
    s.run(seconds(1));
    MountDescription network;
    network.path = "/Users/ada";
    network.device = "server:/ada";
    network.type = "nfs4";
    network.kind = MountKind::network;
    s.mount(network);
    s.put(std::string(kTrash) + "/.DS_Store", "").send("daemonStartYourEngines").run(seconds(1));
    trash(std::string(kTrash) + "/a");
    s.run(seconds(5));
    EXPECT_EQ(launches(), 0u);
    ASSERT_TRUE(
        usage().contains("a_" + std::to_string(files().nodeId(kTrash + std::string("/a")))));
    EXPECT_EQ(stringValue(record("a").find("volRefNum")), "0");
    EXPECT_FALSE(record("a").contains("volumeName"));
}

TEST_F(TrashSearches, AreNotMadeInAFolderWhosePathIsTooLong) {
    const std::string folder = "/Users/" + std::string(1100, 'u') + "/.Trash";
    s.put(folder + "/.DS_Store", "").run(seconds(1));
    ASSERT_THAT(watched(), testing::Contains(folder));
    trash(folder + "/a");
    s.run(seconds(5));
    EXPECT_EQ(launches(), 0u);
    EXPECT_THAT(usage(), testing::IsEmpty());
}

TEST_F(TrashSearches, BeginAFileWithWhatTheDeviceIsKnownBy) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    const auto header = decodeTrashDeletesHeader(collected().substr(0, kTrashRecordBytes));
    ASSERT_TRUE(header);
    EXPECT_EQ(header->deviceName, "/dev/sda2");
    EXPECT_EQ(header->volumePath, "/Volumes/Data");
    EXPECT_EQ(header->deviceValue, "CST00A1");
    EXPECT_FALSE(header->schemeOfPartition);
}

TEST_F(TrashSearches, AreCollectedByTheNextDaemon) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));
    ASSERT_TRUE(files().exists(kInput));
    ASSERT_TRUE(files().exists(resultOf("a")));
    EXPECT_EQ(collected(), "");
    s.restart().run(seconds(10));
    EXPECT_EQ(launches(), 1u);
    EXPECT_THAT(collected(), SizeIs(2 * kTrashRecordBytes));
    EXPECT_THAT(collected(), HasSubstr("result"));
    EXPECT_FALSE(files().exists(kInput));
    EXPECT_FALSE(files().exists(resultOf("a")));
}

TEST_F(TrashSearches, OfAnEarlierDaemonAreWaitedForWhileItsProgramRuns) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));
    s.machine().processes.start({.name = kRecoveryProgram, .arguments = {"inFile", kInput}});
    s.restart().run(minutes(1));
    EXPECT_EQ(collected(), "");
    EXPECT_TRUE(files().exists(kInput));
    s.quitProcess(kRecoveryProgram).run(seconds(5));
    EXPECT_THAT(collected(), HasSubstr("result"));
    EXPECT_FALSE(files().exists(kInput));
}

TEST_F(TrashSearches, OfAnEarlierDaemonDoNotWaitForSomebodyElsesProgram) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));
    s.startProcess(kRecoveryProgram).restart().run(seconds(10));
    EXPECT_THAT(collected(), HasSubstr("result"));
    EXPECT_FALSE(files().exists(kInput));
}

TEST_F(TrashSearches, ThatCameToNothingAreBegunAnewByTheNextDaemon) {
    hang(true);
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(500));
    s.put(std::string(kDataTrash) + "/b", "");
    s.machine().directoryWatch.changed(kDataTrash);
    s.run(milliseconds(500));
    ASSERT_EQ(launches(), 2u);
    s.put(resultOf("b"), "item b");
    setProgram("result");
    s.restart().run(seconds(10));
    // "a", which both were to look for; "b" has its result.
    EXPECT_THAT(jobs, SizeIs(1));
    EXPECT_THAT(collected(), HasSubstr("item b"));
    EXPECT_THAT(collected(), HasSubstr("result"));
    EXPECT_FALSE(files().exists(kInput));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_Data 1.dat"));
    EXPECT_FALSE(files().exists(resultOf("a")));
}

TEST_F(TrashSearches, LeaveResultsThatAreFoundByTheirRecords) {
    setProgram("");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(seconds(10));
    const std::string left = resultOf("a");
    s.put(left, "item a");
    s.restart().run(seconds(5));
    EXPECT_THAT(collected(), HasSubstr("item a"));
    EXPECT_FALSE(files().exists(left));
}

TEST_F(TrashSearches, LeaveAloneWhatIsNotTheirs) {
    setProgram("");
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    trash(std::string(kDataTrash) + "/b");
    s.run(seconds(10));
    s.put(resultOf("a"), "item a");
    ASSERT_TRUE(files().setOwner(resultOf("a"), kSomebodyElse));
    s.put(resultOf("b"), "no result").put("/tmp/.77777.dat", "item of nobody");
    s.put("/tmp/.KVDataRec_x.dat", "of somebody else").put("/tmp/.KVDataRec_y.dat", "no jobs");
    ASSERT_TRUE(files().setOwner("/tmp/.KVDataRec_x.dat", kSomebodyElse));
    ASSERT_TRUE(files().putLink("/tmp/.KVDataRec_z.dat", "/tmp/.x"));
    s.restart().run(seconds(5));
    for (const std::string& path : {resultOf("a"), resultOf("b"), std::string("/tmp/.77777.dat"),
                                    std::string("/tmp/.KVDataRec_x.dat"),
                                    std::string("/tmp/.KVDataRec_z.dat"), std::string("/tmp/.x")}) {
        EXPECT_TRUE(files().attributes(path)) << path;
    }
    // What belongs to nothing goes in time.
    EXPECT_TRUE(files().exists("/tmp/.KVDataRec_y.dat"));
    s.stepClock(hours(2)).restart().run(seconds(5));
    EXPECT_FALSE(files().exists("/tmp/.KVDataRec_y.dat"));
    EXPECT_TRUE(files().exists("/tmp/.77777.dat"));
    s.stepClock(hours(24 * 6)).restart().run(seconds(5));
    EXPECT_FALSE(files().exists("/tmp/.77777.dat"));
    EXPECT_TRUE(files().exists("/tmp/.KVDataRec_x.dat"));
    EXPECT_TRUE(files().exists(resultOf("b")));
}

TEST_F(TrashSearches, OfAVolumeThatIsNotMountedWaitForIt) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));
    const std::string left = resultOf("a");
    s.unmount("/Volumes/Data").restart().run(seconds(10));
    EXPECT_TRUE(files().exists(left));
    EXPECT_EQ(launches(), 1u);
    s.stepClock(hours(2)).restart().run(seconds(10));
    EXPECT_FALSE(files().exists(kInput));
    EXPECT_TRUE(files().exists(left));
}

TEST_F(TrashSearches, AreNotTakenUpWhileTheHistoryIsOff) {
    s.run(seconds(1));
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(1500));
    s.editPreferences([](Dictionary& settings) { settings.set("trashHistoryOnOff", false); });
    s.restart().run(seconds(10));
    EXPECT_TRUE(files().exists(kInput));
    EXPECT_EQ(collected(), "");
}

// Its daemon runs as somebody, as it may where it only has to see what is theirs.
class TrashSearchesOfAUser : public TrashBed {
  protected:
    TrashSearchesOfAUser() : TrashBed(machineOfAda()) {}
    static MachineDescription machineOfAda() {
        MachineDescription machine = Scenario::describe("two-volumes");
        machine.userName = "ada";
        for (MountDescription& mount : machine.mounts) {
            if (mount.path == "/Volumes/Data") mount.displayName = "Old/Data";
        }
        return machine;
    }
};

TEST_F(TrashSearchesOfAUser, MakeTheFolderOfTheirResultsAgainWithThoseAboveIt) {
    const std::string above = std::string(kSupportFolder) + "/Old";
    s.run(seconds(1));
    (void)files().removeItem(above);  // whether a check has made it by now does not matter
    trash(std::string(kDataTrash) + "/a");
    s.run(milliseconds(500));
    ASSERT_THAT(s.machine().processes.launches(), SizeIs(1));
    for (const std::string& path : {above, above + "/Data"}) {
        const auto made = files().attributes(path);
        ASSERT_TRUE(made) << path;
        EXPECT_EQ(made->kind, ItemKind::folder) << path;
        EXPECT_EQ(made->ownerId, files().userId()) << path;
    }
    EXPECT_NE(files().userId(), 0U);
}

}  // namespace
}  // namespace korvane
