// What changes in the course of a directory backup's run: settings, volumes, folders and programs
// that are not as they were when it began.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "scenarios/BackupBed.h"
#include "storage/SupportFolder.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kFirstBackup[] = "Directory Backup 2026-03-02-08-00-01";
constexpr char kSettingsCopy[] = "/Volumes/Backup/.KorvaneProtection.plist";

// Runs up to the moment between the tick at second 1 and the start that it has armed.
void runBetweenTickAndStart(BackupBed& s, const std::function<void()>& event) {
    s.run(milliseconds(500));
    // Armed after the tick and for its instant, so called right after it.
    const auto timer = s.machine().runLoop.startTimer(milliseconds(500), Repeat::once, event);
    s.run(milliseconds(500));
}

TEST(BackupRun, MakesTheSupportFolderWhereItIsMissing) {
    BackupBed s;
    runBetweenTickAndStart(s, [&] { s.removeSupportFolder(); });
    ASSERT_THAT(s.helpers(), SizeIs(1));
    const auto folder = s.machine().fileSystem.attributes(kSupportFolder);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->kind, ItemKind::folder);
    EXPECT_THAT(s.supportFiles(), ElementsAre("Data/", "Data/DirectoryBackup (ON)"));
}

TEST(BackupRun, DoesNotBeginForAVolumeThatHasGone) {
    for (const bool entryIsThere : {true, false}) {
        BackupBed s;
        runBetweenTickAndStart(s, [&] {
            s.unmount("/Volumes/Data").unmount("/Volumes/Backup");
            if (!entryIsThere) {
                s.editPreferences(
                    [](Dictionary& settings) { settings.set("volumeArray", PropertyListArray{}); });
                s.reload();
            }
        });
        s.run(seconds(1));
        EXPECT_THAT(s.helpers(), IsEmpty());
        EXPECT_FALSE(s.hasEnded());
    }
}

// A volume of this name gets no entry of the inventory's own: one that is there stays as it is, and
// its folder is not looked after.
class UntendedBed : public BackupBed {
  public:
    static constexpr char kPath[] = "/Volumes/Recovery HD";

    UntendedBed() {
        putSettings({kSystem}, [](Dictionary& entry) { entry.set("directoryOnOff", false); });
        mount(kPath);
        run(seconds(20));
    }
    void backUp(const std::vector<std::string>& locations) {
        putSettings(locations, [](Dictionary& entry) {
            entry.set("directoryOnOff", false);
            if (stringValue(entry.find("volumeMountToName")) == "/Volumes/Data") {
                entry.set("volumeMountToName", kPath);
                entry.set("directoryOnOff", true);
                entry.set("usageStatus", "5");
            }
        });
        reload();
        run(seconds(10));
    }
    std::vector<std::string> markers() {
        auto names = machine()
                         .fileSystem.list(volumeFolder("Recovery HD"))
                         .value_or(std::vector<std::string>{});
        std::erase_if(names, [](const auto& name) { return !name.starts_with("DirectoryBackup"); });
        return names;
    }
};

TEST(BackupRun, WritesTheMarkerOnlyWithTheFolder) {
    UntendedBed s;
    ASSERT_THAT(s.markers(), IsEmpty());
    s.backUp({BackupBed::kSystem});
    EXPECT_THAT(s.helpers(), SizeIs(1));
    EXPECT_THAT(s.markers(), ElementsAre("DirectoryBackup (ON)"));
    EXPECT_EQ(s.machine()
                  .fileSystem.attributes(volumeFolder("Recovery HD") + "/DirectoryBackup (ON)")
                  ->permissions,
              0666U);
    s.backUp({BackupBed::kBackup});
    EXPECT_THAT(s.helpers(), SizeIs(2));
    EXPECT_THAT(s.markers(), ElementsAre("DirectoryBackup (ON)"));
}

TEST(BackupRun, WritesTheOtherMarkerWhereTheStartUpVolumeIsNoLocation) {
    UntendedBed s;
    s.backUp({BackupBed::kBackup});
    EXPECT_THAT(s.markers(), ElementsAre("DirectoryBackup (OFF)"));
}

TEST(BackupRun, MakesTheFolderAndItsMarkerEvenWithoutTheHelper) {
    UntendedBed s;
    s.machine().bundle.removePlugIn("KorvaneProDirectoryBackup");
    s.backUp({BackupBed::kSystem});
    EXPECT_THAT(s.helpers(), IsEmpty());
    EXPECT_THAT(s.markers(), ElementsAre("DirectoryBackup (ON)"));
}

TEST(BackupRun, HeedsTheSettingsAsTheyStandWhenTheHelperEnds) {
    BackupBed s;
    s.helperTakes(seconds(5));
    s.run(seconds(2));
    s.editPreferences([](Dictionary& settings) {
        settings.set("directoryBackupLocations", PropertyListArray{"/Volumes/Backup"});
    });
    s.editVolumeEntry("/Volumes/Data", [](Dictionary& entry) {
        entry.set("executionIntervalDirectory_hours", 1);
        entry.set("executionIntervalDirectory_minutes", 0);
        entry.set("executionIntervalDirectory_seconds", 0);
    });
    s.run(seconds(4));
    EXPECT_DOUBLE_EQ(s.dueTime(), s.secondsNow() + 3600);
    s.run(seconds(4));
    // The start-up volume is no location any more.
    EXPECT_THAT(s.backups(), IsEmpty());
    EXPECT_THAT(s.backups(BackupBed::kBackup), ElementsAre(kFirstBackup));
}

TEST(BackupRun, TakesEveryLocationInItsOrder) {
    BackupBed s({"/Volumes/Second", BackupBed::kSystem, BackupBed::kBackup});
    s.mount("/Volumes/Second");
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(2));
    EXPECT_THAT(s.copies()[0].arguments.at(2), testing::StartsWith("/Volumes/Second/"));
    EXPECT_THAT(s.copies()[1].arguments.at(2), testing::StartsWith("/Volumes/Backup/"));
}

TEST(BackupRun, GoesOnPastALocationThatTakesNothing) {
    BackupBed s({"/Volumes/Second", "/Volumes/File", BackupBed::kBackup});
    s.mount("/Volumes/Second");
    s.machine().fileSystem.setFolderImmutable("/Volumes/Second", true);
    s.put("/Volumes/File", "no folder");
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(1));
    EXPECT_THAT(s.copies()[0].arguments.at(2), testing::StartsWith("/Volumes/Backup/"));
    EXPECT_THAT(s.log(), Not(Contains(HasSubstr("Second"))));
    EXPECT_EQ(s.status(), "3");
}

TEST(BackupRun, LeavesOutALocationNamedLikeTheStartUpVolume) {
    BackupBed s({"/Volumes/Backup/System"});
    ASSERT_TRUE(s.machine().fileSystem.createFolders("/Volumes/Backup/System", "root"));
    s.run(seconds(5));
    EXPECT_THAT(s.copies(), IsEmpty());
    EXPECT_EQ(s.status(), "3");
}

TEST(BackupRun, IsOverWithTheHelperWhereNothingIsCopied) {
    BackupBed s({BackupBed::kSystem});
    s.putSettings({BackupBed::kSystem}, [](Dictionary& entry) {
        entry.set("directoryOnOff", stringValue(entry.find("volumeMountToName")) != "/");
    });
    // The tick that the first run's save asks for starts the second one at once.
    s.run(seconds(3));
    EXPECT_THAT(s.helpers(), SizeIs(2));
    EXPECT_THAT(s.copies(), IsEmpty());
    EXPECT_EQ(s.status("/Volumes/Backup"), "0");
}

TEST(BackupRun, IsOverWhenTheCopyCannotBeLaunched) {
    BackupBed s({BackupBed::kBackup});
    s.machine().processes.removeProgram("/bin/cp");
    s.run(seconds(30));
    EXPECT_THAT(s.copies(), IsEmpty());
    EXPECT_EQ(s.status(), "3");
    EXPECT_FALSE(s.machine().fileSystem.exists(kSettingsCopy));
    // Nobody polls, so what would have been copied stays.
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    s.editVolumeEntry("/Volumes/Data", [&](Dictionary& entry) {
        entry.set("executionTimeDirectory", s.secondsNow());
    });
    s.reload();
    s.run(seconds(4));
    EXPECT_THAT(s.helpers(), SizeIs(2));
}

TEST(BackupRun, KeepsThePrimaryFileWhereNoLocationTookACopy) {
    BackupBed s({"/Volumes/Nowhere"});
    s.run(hours(1));
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    EXPECT_EQ(s.status(), "3");
}

TEST(BackupRun, IsNotThrownAwayByAStopThatComesAfterTheHelpersEnd) {
    BackupBed s({BackupBed::kSystem});
    s.helperTakes(std::nullopt);
    s.run(seconds(1));
    s.put(volumeFolder("Data") + '/' + kFirstBackup, "a whole record");
    // It has ended and the daemon has not been told yet.
    s.machine().processes.kill(0);
    s.send("directoryBackupStopNotification");
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
    s.run(milliseconds(1));
    EXPECT_EQ(s.status(), "3");
    EXPECT_GT(s.dueTime(), s.secondsNow());
    EXPECT_THAT(s.backups(), ElementsAre(kFirstBackup));
}

TEST(BackupRun, LeavesASlowerEarlierCopyToItself) {
    BackupBed s({"/Volumes/Second", BackupBed::kBackup});
    s.mount("/Volumes/Second");
    s.copyTakes(seconds(30));
    s.run(seconds(2));
    ASSERT_THAT(s.copies(), SizeIs(2));
    // The last one ends first: with its poll the run is over and the primary file gone.
    s.machine().processes.kill(2);
    s.run(seconds(2));
    EXPECT_THAT(s.backups(), IsEmpty());
    EXPECT_TRUE(s.copies()[0].isRunning);
    EXPECT_EQ(s.copies()[0].interrupts + s.copies()[0].terminates, 0);
}

TEST(BackupRun, KeepsNoSettingsAtALocationThatGetsNoCopy) {
    BackupBed s;
    s.helperWritesNothing();
    s.run(seconds(5));
    EXPECT_FALSE(s.machine().fileSystem.exists(kSettingsCopy));
}

TEST(BackupRun, WritesTheSettingsCopyThroughNoLink) {
    BackupBed s;
    ASSERT_TRUE(s.machine().fileSystem.putLink(kSettingsCopy, "/etc/planted"));
    s.run(seconds(5));
    EXPECT_THAT(s.copies(), SizeIs(1));
    EXPECT_FALSE(s.machine().fileSystem.exists("/etc/planted"));
}

TEST(BackupRun, QuitsWhenItsEndFindsNoSupportFolder) {
    BackupBed s({BackupBed::kSystem});
    s.helperWritesNothing();
    s.run(milliseconds(1'500));
    s.removeSupportFolder();
    s.put(kSupportFolder, "a file, which is no folder");
    s.run(seconds(5));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 2);
}

TEST(BackupRun, TakesTheNameOfItsFileFromTheLocalTime) {
    BackupBed s;
    const ZoneSetting zone("EST5EDT");
    s.run(seconds(4));
    EXPECT_THAT(s.backups(), ElementsAre("Directory Backup 2026-03-02-03-00-01"));
}

TEST(BackupRun, WithoutALimitRemovesNothing) {
    for (const std::int64_t limit : {0, -1}) {
        BackupBed s;
        s.putSettings({BackupBed::kSystem}, nullptr, limit);
        for (const int age : {50, 40, 30, 2, 1}) s.putBackup("", hours(age));
        s.run(seconds(4));
        EXPECT_THAT(s.backups(), SizeIs(6));
    }
}

TEST(BackupRun, IgnoresTheEndOfOtherPrograms) {
    BackupBed s({BackupBed::kBackup});
    s.copyTakes(milliseconds(500));
    s.run(seconds(2));
    const double due = s.dueTime();
    s.run(seconds(1));
    // The copy has ended, and nothing has been noted or saved anew for that.
    EXPECT_FALSE(s.copies()[0].isRunning);
    EXPECT_EQ(s.dueTime(), due);
    EXPECT_THAT(s.copies(), SizeIs(1));
}

TEST(BackupRun, DisabledWhileItCopiesRunsToItsEnd) {
    BackupBed s({BackupBed::kBackup});
    s.run(milliseconds(2'500)).send("disableDirectoryBackupNotification").run(seconds(10));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(1));
    EXPECT_THAT(s.backups(), IsEmpty());
}

}  // namespace
}  // namespace korvane
