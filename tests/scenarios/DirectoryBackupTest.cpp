// The directory backup from its due time to its copies, and what the main application can say to it
// meanwhile. A backup that is due is launched by the tick at second 1; the helper ends at second 2,
// a copy at second 3, and the poll of it comes at second 4.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "scenarios/BackupBed.h"
#include "storage/SupportFolder.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kFirstBackup[] = "Directory Backup 2026-03-02-08-00-01";

std::string inSupportFolder(const std::string& name) { return volumeFolder("Data") + '/' + name; }

TEST(DirectoryBackup, LaunchesTheHelperWithItsWordTheFileAndTheVolume) {
    BackupBed s;
    s.run(seconds(1));
    ASSERT_THAT(s.helpers(), SizeIs(1));
    EXPECT_THAT(s.helpers()[0].arguments,
                ElementsAre("quorlen", inSupportFolder(kFirstBackup), "/Volumes/Data"));
    EXPECT_TRUE(s.isActive());
}

TEST(DirectoryBackup, CopiesTheFileToEachLocationButTheStartUpVolume) {
    BackupBed s;
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(1));
    const std::string copy = std::string("/Volumes/Backup/Korvane Protection/Data/") + kFirstBackup;
    EXPECT_THAT(s.copies()[0].arguments, ElementsAre("-p", inSupportFolder(kFirstBackup), copy));
    s.run(seconds(2));
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    EXPECT_THAT(s.backups(BackupBed::kBackup), ElementsAre(kFirstBackup));
}

TEST(DirectoryBackup, NotesTheNextRunAndItsResultWhenTheHelperEnds) {
    BackupBed s;
    s.run(milliseconds(1'999));
    EXPECT_EQ(s.status(), "0");
    s.run(milliseconds(1));
    EXPECT_EQ(s.status(), "3");
    EXPECT_DOUBLE_EQ(s.dueTime(), s.secondsNow() + 4 * 3600 + 2 * 60 + 3);
    // The tick that the save asked for finds nothing due.
    s.run(seconds(1));
    EXPECT_FALSE(s.isActive());
}

TEST(DirectoryBackup, KeepsTheSettingsOnceAtTheTopOfALocation) {
    BackupBed s;
    s.run(seconds(2));
    const std::string copy = "/Volumes/Backup/.KorvaneProtection.plist";
    const auto bytes = s.machine().fileSystem.bytes(copy);
    ASSERT_TRUE(bytes);
    EXPECT_THAT(*bytes, testing::HasSubstr("<string>/Volumes/Data</string>"));
    EXPECT_EQ(s.machine().fileSystem.attributes(copy)->permissions, 0666U);
    s.put(copy, "kept");
    s.run(hours(5));
    EXPECT_THAT(s.copies(), SizeIs(2));
    EXPECT_EQ(s.machine().fileSystem.bytes(copy), "kept");
}

TEST(DirectoryBackup, RemovesThePrimaryFileAfterTheCopyWhenTheStartUpVolumeIsNoLocation) {
    BackupBed s({BackupBed::kBackup});
    s.run(milliseconds(3'999));
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    s.run(milliseconds(1));
    EXPECT_THAT(s.backups(), IsEmpty());
    EXPECT_THAT(s.backups(BackupBed::kBackup), ElementsAre(kFirstBackup));
}

TEST(DirectoryBackup, PollsTheCopyEveryTwoSeconds) {
    BackupBed s({BackupBed::kBackup});
    s.copyTakes(milliseconds(3'500));
    // The copy runs from second 2 to 5.5; polls come at 4 and 6.
    s.run(milliseconds(5'999));
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    s.run(milliseconds(1));
    EXPECT_THAT(s.backups(), IsEmpty());
}

TEST(DirectoryBackup, WatchesOnlyTheCopyLaunchedLast) {
    BackupBed s({BackupBed::kBackup, "/Volumes/Second"});
    s.mount("/Volumes/Second");
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(2));
    s.run(seconds(2));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(1));
    EXPECT_THAT(s.backups("/Volumes/Second"), SizeIs(1));
    EXPECT_THAT(s.backups(), IsEmpty());
}

TEST(DirectoryBackup, SkipsALocationThatIsNotMounted) {
    BackupBed s({BackupBed::kSystem, "/Volumes/Nowhere", BackupBed::kBackup});
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(1));
    EXPECT_THAT(s.copies()[0].arguments.at(2), testing::StartsWith(BackupBed::kBackup));
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Nowhere"));
    EXPECT_EQ(s.status(), "3");
}

TEST(DirectoryBackup, SaysForEachLocationThatTheHelperWroteNothing) {
    BackupBed s({BackupBed::kSystem, BackupBed::kBackup, "/Volumes/Second"});
    s.mount("/Volumes/Second");
    s.helperWritesNothing();
    s.run(seconds(3));
    const std::string line = "Directory Backup file \"" + inSupportFolder(kFirstBackup) +
                             "\" is not there. (Probably was insufficient space to create it.)";
    EXPECT_EQ(testing::Value(s.log(), Contains(line).Times(2)), true);
    EXPECT_THAT(s.copies(), IsEmpty());
    EXPECT_EQ(s.status(), "3");
    EXPECT_GT(s.dueTime(), s.secondsNow());
    EXPECT_FALSE(s.isActive());
}

TEST(DirectoryBackup, KeepsAsManyFilesAsTheLimitSaysAtEveryPlace) {
    BackupBed s;
    const std::string twoHours = s.putBackup("", hours(2));
    s.putBackup("", hours(1));
    const std::string tenMinutes = s.putBackup("", minutes(10));
    s.putBackup(BackupBed::kBackup, hours(30));
    const std::string copyHour = s.putBackup(BackupBed::kBackup, hours(1));
    const std::string copyTen = s.putBackup(BackupBed::kBackup, minutes(10));
    s.run(seconds(4));
    // The oldest is young here and stays; there it is old and goes.
    EXPECT_THAT(s.backups(), ElementsAre(twoHours, tenMinutes, kFirstBackup));
    EXPECT_THAT(s.backups(BackupBed::kBackup), ElementsAre(copyHour, copyTen, kFirstBackup));
}

TEST(DirectoryBackup, GoesOnWhenABackupCannotBeRemoved) {
    BackupBed s;
    for (const int age : {1, 2, 3}) s.putBackup(BackupBed::kBackup, hours(age));
    s.machine().fileSystem.setFolderImmutable("/Volumes/Backup/Korvane Protection/Data", true);
    s.run(seconds(2));
    EXPECT_THAT(s.copies(), SizeIs(1));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(3));
}

TEST(DirectoryBackup, WritesTheMarkerWithTheFolder) {
    for (const bool startUpVolumeIsChosen : {true, false}) {
        BackupBed s(startUpVolumeIsChosen ? std::vector<std::string>{BackupBed::kSystem}
                                          : std::vector<std::string>{BackupBed::kBackup});
        s.run(seconds(4));
        const auto files = s.supportFiles();
        EXPECT_EQ(testing::Value(files, Contains("Data/DirectoryBackup (ON)")),
                  startUpVolumeIsChosen);
        EXPECT_EQ(testing::Value(files, Contains("Data/DirectoryBackup (OFF)")),
                  !startUpVolumeIsChosen);
    }
}

TEST(DirectoryBackup, DoesNothingFurtherWithoutTheHelper) {
    BackupBed s;
    s.machine().bundle.removePlugIn("KorvaneProDirectoryBackup");
    const double due = s.secondsNow();
    s.run(seconds(30));
    EXPECT_THAT(s.helpers(), IsEmpty());
    EXPECT_EQ(s.dueTime(), due);
    // The tick has marked the entry, and there it stays.
    EXPECT_TRUE(s.isActive());
}

TEST(DirectoryBackup, IsOverWhenTheHelperCannotBeLaunched) {
    BackupBed s;
    s.machine().processes.removeProgram("/PlugIns/KorvaneProDirectoryBackup");
    s.run(seconds(30));
    EXPECT_THAT(s.backups(), IsEmpty());
    // Another volume's backup is not kept waiting by a run that never began.
    s.helperTakes(seconds(1));
    s.putSettings({BackupBed::kSystem}, [](Dictionary& entry) {
        const std::string path = stringValue(entry.find("volumeMountToName"));
        entry.set("directoryOnOff", path == "/Volumes/Backup");
    });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(10));
    EXPECT_EQ(s.status("/Volumes/Backup"), "3");
}

TEST(DirectoryBackup, PassesOverTheEmergencyVolumeAndVolumesThatCannotBeWritten) {
    for (const bool isEmergencyVolume : {true, false}) {
        MountDescription mount;
        mount.path = "/Volumes/Other";
        mount.device = "/dev/sda9";
        mount.type = "ext4";
        mount.isWritable = isEmergencyVolume;
        mount.displayName = isEmergencyVolume ? "Ostrand" : "Other";
        BackupBed s;
        s.mount(mount);
        s.putSettings({BackupBed::kSystem}, [](Dictionary& entry) {
            if (stringValue(entry.find("volumeMountToName")) == "/Volumes/Data") {
                entry.set("volumeMountToName", "/Volumes/Other");
            }
        });
        s.run(seconds(20));
        EXPECT_THAT(s.helpers(), IsEmpty());
        EXPECT_THAT(s.backups(), IsEmpty());
    }
}

TEST(DirectoryBackup, PutsASecondBackupOffWhileOneRuns) {
    BackupBed s;
    s.helperTakes(seconds(20));
    s.putSettings({BackupBed::kSystem}, [](Dictionary& entry) {
        entry.set("directoryOnOff", stringValue(entry.find("volumeMountToName")) != "/");
    });
    s.run(seconds(4));
    // While the first is marked as running the walk ends there.
    ASSERT_THAT(s.helpers(), SizeIs(1));
    EXPECT_EQ(s.status("/Volumes/Backup"), "0");
    s.run(seconds(60));
    ASSERT_THAT(s.helpers(), SizeIs(2));
    EXPECT_EQ(s.helpers()[1].arguments.at(2), "/Volumes/Backup");
    EXPECT_EQ(s.status("/Volumes/Backup"), "3");
}

TEST(DirectoryBackup, WaitsFiveSecondsAtATimeWhileCopiesRun) {
    BackupBed s({BackupBed::kSystem, BackupBed::kBackup});
    s.copyTakes(seconds(8));
    s.putSettings({BackupBed::kSystem, BackupBed::kBackup}, [](Dictionary& entry) {
        entry.set("directoryOnOff", stringValue(entry.find("volumeMountToName")) != "/");
    });
    // The first helper has ended at second 2, its copy runs to 10, and the save's tick is at 3.
    s.run(seconds(3));
    EXPECT_EQ(s.status("/Volumes/Backup"), "1");
    EXPECT_DOUBLE_EQ(s.dueTime("/Volumes/Backup"), s.secondsNow() + 5);
    EXPECT_TRUE(s.isActive());
    s.run(seconds(60));
    EXPECT_EQ(s.status("/Volumes/Backup"), "3");
    EXPECT_THAT(s.helpers(), SizeIs(2));
    EXPECT_FALSE(s.isActive());
}

TEST(DirectoryBackup, DoesNotStartOnBattery) {
    BackupBed s;
    s.onBattery().run(seconds(30));
    EXPECT_THAT(s.helpers(), IsEmpty());
    EXPECT_FALSE(s.isActive());
    s.onMains().becomeActive().run(seconds(2));
    EXPECT_THAT(s.helpers(), SizeIs(1));
}

TEST(DirectoryBackupStop, LeavesNoFileAndTheDueTimeAlone) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    const double due = s.secondsNow();
    s.run(seconds(1));
    s.put(inSupportFolder(kFirstBackup), "half a record");
    s.send("directoryBackupStopNotification");
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
    EXPECT_EQ(s.helpers()[0].interrupts, 1);
    EXPECT_EQ(s.helpers()[0].terminates, 1);
    EXPECT_THAT(s.backups(), IsEmpty());
    EXPECT_EQ(s.status(), "3");
    EXPECT_EQ(s.dueTime(), due);
    // The late word of the helper's end changes nothing; the next tick starts the backup anew.
    s.run(milliseconds(999));
    EXPECT_EQ(s.dueTime(), due);
    EXPECT_THAT(s.helpers(), SizeIs(1));
    s.run(milliseconds(1));
    EXPECT_THAT(s.helpers(), SizeIs(2));
}

TEST(DirectoryBackupStop, DoesNothingWhileCopiesRunOrNothingRuns) {
    BackupBed s;
    s.start();
    const auto writes = s.preferenceWrites();
    s.send("directoryBackupStopNotification");
    EXPECT_EQ(s.preferenceWrites(), writes);
    s.run(milliseconds(2'500));
    s.send("directoryBackupStopNotification");
    s.run(seconds(10));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(1));
    EXPECT_EQ(s.copies()[0].interrupts, 0);
}

TEST(DirectoryBackupStop, LeavesTheEntryAloneThatAReloadTookAway) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(1));
    s.editPreferences(
        [](Dictionary& settings) { settings.set("volumeArray", PropertyListArray{}); });
    s.send("directoryBackupStopNotification");
    EXPECT_EQ(s.helpers()[0].terminates, 1);
    EXPECT_FALSE(s.hasEnded());
}

TEST(DirectoryBackupSwitch, EndsTheBackupAndStartsNoOtherUntilItIsOnAgain) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(1)).send("disableDirectoryBackupNotification");
    EXPECT_FALSE(s.helpers()[0].isRunning);
    s.helperTakes(seconds(1));
    s.run(hours(1));
    EXPECT_THAT(s.helpers(), SizeIs(1));
    // Nobody has looked since: the last answer stands.
    EXPECT_TRUE(s.isActive());
    s.send("enableDirectoryBackupNotification").run(hours(2));
    EXPECT_THAT(s.helpers(), SizeIs(2));
    EXPECT_FALSE(s.isActive());
}

TEST(DirectoryBackup, EndsWithTheDaemonAndLeavesNoPartialFile) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(1));
    s.put(inSupportFolder(kFirstBackup), "half a record");
    s.endApplication("com.apple.finder").run(seconds(1));
    ASSERT_TRUE(s.hasEnded());
    EXPECT_EQ(s.helpers()[0].interrupts, 1);
    EXPECT_EQ(s.helpers()[0].terminates, 1);
    EXPECT_THAT(s.backups(), IsEmpty());
}

TEST(DirectoryBackup, KeepsAFileThatWasWholeWhenTheDaemonEnds) {
    BackupBed s;
    s.run(milliseconds(2'500));
    s.endApplication("com.apple.finder").run(seconds(1));
    ASSERT_TRUE(s.hasEnded());
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
}

TEST(DirectoryBackup, CopiesWhatAKilledHelperLeft) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(1));
    s.machine().processes.kill(0);
    s.run(milliseconds(1));
    EXPECT_EQ(s.status(), "3");
    EXPECT_THAT(s.log(), Contains(testing::HasSubstr("is not there.")));
}

TEST(DirectoryBackup, PassesOverALocationWhoseFolderIsALinkOrSomebodyElses) {
    for (const bool isLink : {true, false}) {
        BackupBed s;
        const std::string folder = "/Volumes/Backup/Korvane Protection";
        if (isLink) {
            ASSERT_TRUE(s.machine().fileSystem.putLink(folder, "/etc"));
        } else {
            s.put(folder + "/Data/file", "");
            ASSERT_TRUE(s.machine().fileSystem.setOwner(folder + "/Data", 1000));
        }
        s.run(seconds(5));
        EXPECT_THAT(s.copies(), IsEmpty());
        EXPECT_FALSE(s.machine().fileSystem.exists("/etc/Data"));
        EXPECT_EQ(testing::Value(
                      s.log(),
                      Contains(testing::HasSubstr("\"/Volumes/Backup\" is passed over")).Times(1)),
                  true);
        EXPECT_EQ(s.status(), "3");
    }
}

TEST(DirectoryBackup, OpensWhatRootMadeBelowTheVolumesFolders) {
    BackupBed s;
    s.put("/Library/Application Support/Korvane Protection/Data/Trash/record", "");
    s.run(seconds(2));
    const auto permissions = [&](const std::string& name) {
        return s.machine().fileSystem.attributes(inSupportFolder(name))->permissions;
    };
    EXPECT_EQ(permissions(kFirstBackup), 0666U);
    EXPECT_EQ(permissions("Trash"), 0666U);
    EXPECT_EQ(permissions("Trash/record"), 0666U);
    EXPECT_NE(s.machine().fileSystem.attributes(volumeFolder("Data"))->permissions, 0666U);
}

TEST(DirectoryBackup, NotesNothingForAVolumeThatAReloadTookAway) {
    BackupBed s;
    s.helperTakes(seconds(5));
    s.run(seconds(2));
    s.editPreferences(
        [](Dictionary& settings) { settings.set("volumeArray", PropertyListArray{}); });
    s.run(seconds(30));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(1));
}

TEST(DirectoryBackup, LeavesANewerRunsFileToThatRunsOwnPolls) {
    // The poll of the second copy comes when the first poll has ended the run and a new one began.
    BackupBed s({BackupBed::kBackup, "/Volumes/Second"});
    s.mount("/Volumes/Second");
    s.putSettings({BackupBed::kBackup, "/Volumes/Second"}, [](Dictionary& entry) {
        entry.set("executionIntervalDirectory_hours", 0);
        entry.set("executionIntervalDirectory_minutes", 0);
        entry.set("executionIntervalDirectory_seconds", 1);
    });
    s.run(minutes(2));
    EXPECT_GT(s.helpers().size(), 5U);
    EXPECT_THAT(s.log(), Not(Contains(testing::HasSubstr("is not there."))));
    EXPECT_THAT(s.backups("/Volumes/Second"), SizeIs(3));
}

}  // namespace
}  // namespace korvane
