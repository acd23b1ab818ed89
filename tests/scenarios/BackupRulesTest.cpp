// Directory backups: what each rule is for, seen where breaking it would hurt.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "scenarios/BackupBed.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr std::uint32_t kAlice = 1000;
constexpr char kData[] = "/Volumes/Data";
constexpr char kSettingsCopy[] = "/Volumes/Backup/.KorvaneProtection.plist";

std::string pathOf(const Dictionary& entry) { return stringValue(entry.find("volumeMountToName")); }

// Runs up to the moment between the tick at second 1 and the start that it has armed.
void runBetweenTickAndStart(BackupBed& s, const std::function<void()>& event) {
    s.run(milliseconds(500));
    const auto timer = s.machine().runLoop.startTimer(milliseconds(500), Repeat::once, event);
    s.run(milliseconds(500));
}

// ---- Rotation -----------------------------------------------------------------------------------

TEST(BackupRotation, GoesByTheDatesOfTheFilesAndNotByTheirNames) {
    for (const bool laterNameIsOlder : {true, false}) {
        BackupBed s({BackupBed::kSystem});
        s.putSettings({BackupBed::kSystem}, nullptr, 2);
        const auto put = [&](const std::string& name, hours age) {
            const std::string path = volumeFolder("Data") + "/Directory Backup " + name;
            s.put(path, "an earlier backup");
            s.machine().fileSystem.setModificationDate(path, s.machine().clock.now() - age);
        };
        put("2020", laterNameIsOlder ? hours(30) : hours(40));
        put("2021", laterNameIsOlder ? hours(40) : hours(30));
        s.run(seconds(1));
        EXPECT_THAT(s.backups(), ElementsAre(laterNameIsOlder ? "Directory Backup 2020"
                                                              : "Directory Backup 2021"));
    }
}

TEST(BackupRotation, MakesRoomAtALocationThoughTheHelperWroteNothing) {
    BackupBed s({BackupBed::kBackup});
    s.helperWritesNothing();
    for (const int age : {30, 31, 32}) s.putBackup(BackupBed::kBackup, hours(age));
    s.run(seconds(3));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(2));
}

TEST(BackupRotation, RemovesNothingForALimitOfNoneOrLess) {
    for (const std::int64_t limit : {0, -1, -1000}) {
        BackupBed s;
        s.putSettings({BackupBed::kSystem, BackupBed::kBackup}, nullptr, limit);
        for (const int age : {30, 31, 32, 33}) {
            s.putBackup("", hours(age));
            s.putBackup(BackupBed::kBackup, hours(age));
        }
        s.run(seconds(4));
        EXPECT_THAT(s.backups(), SizeIs(5)) << limit;
        EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(5)) << limit;
    }
}

// ---- The run ------------------------------------------------------------------------------------

TEST(BackupRules, ClearTheFolderOfAnotherSpellingEvenForTheEmergencyVolume) {
    constexpr char kPath[] = "/Volumes/Other";
    BackupBed s;
    MountDescription mount;
    mount.path = kPath;
    mount.device = "/dev/sda9";
    mount.type = "ext4";
    mount.displayName = "Ostrand";
    s.mount(mount);
    s.putSettings({BackupBed::kSystem}, [&](Dictionary& entry) {
        if (pathOf(entry) == kData) entry.set("volumeMountToName", kPath);
    });
    runBetweenTickAndStart(s, [&] {
        ASSERT_TRUE(s.machine().fileSystem.exists(volumeFolder("Ostrand")));
        s.machine().fileSystem.setUnlisted(volumeFolder("Ostrand"));
    });
    EXPECT_THAT(s.helpers(), IsEmpty());
    EXPECT_FALSE(s.machine().fileSystem.exists(volumeFolder("Ostrand")));
}

TEST(BackupRules, MarkTheEntryAsRunningUntilTheHelperHasEnded) {
    BackupBed s;
    s.helperTakes(seconds(20));
    // The usage check of another volume saves meanwhile.
    s.putSettings({BackupBed::kSystem}, [&](Dictionary& entry) {
        entry.set("directoryOnOff", pathOf(entry) == kData);
        if (pathOf(entry) == "/") {
            entry.set("volumeOnOff", true);
            entry.set("executionTimeUsage", s.secondsNow() + 5);
        }
    });
    s.run(seconds(10));
    EXPECT_EQ(s.status(), "2");
    EXPECT_GT(doubleValue(s.volumeEntry("/").find("executionTimeUsage")), s.secondsNow() + 60);
    s.run(seconds(15));
    EXPECT_EQ(s.status(), "3");
}

TEST(BackupRules, LetARunBeginThatWasArmedBeforeBackupsWereDisabled) {
    BackupBed s;
    runBetweenTickAndStart(s, [&] { s.send("disableDirectoryBackupNotification"); });
    EXPECT_THAT(s.helpers(), SizeIs(1));
}

TEST(BackupRules, TakeAnAbsentSwitchForOff) {
    BackupBed ofEntry;
    ofEntry.putSettings({BackupBed::kSystem},
                        [](Dictionary& entry) { entry.remove("directoryOnOff"); });
    ofEntry.run(minutes(2));
    EXPECT_THAT(ofEntry.helpers(), IsEmpty());
    BackupBed ofAll;
    ofAll.editPreferences([](Dictionary& settings) { settings.remove("directoryBackupOnOff"); });
    ofAll.run(minutes(2));
    EXPECT_THAT(ofAll.helpers(), IsEmpty());
}

TEST(BackupRules, LookAgainInThreeSecondsForAnOverdueBackupThatIsDisabled) {
    BackupBed s;
    s.start().send("disableDirectoryBackupNotification");
    s.run(seconds(2));
    EXPECT_THAT(s.helpers(), IsEmpty());
    EXPECT_THAT(s.pendingDelays(), Contains(testing::DoubleNear(2, 0.01)));
    s.run(seconds(2));
    // The tick has come and the next one is as far away.
    EXPECT_THAT(s.pendingDelays(), Contains(testing::DoubleNear(3, 0.01)));
    EXPECT_THAT(s.helpers(), IsEmpty());
}

// The copy launched last ends between the polls of the two copies: the poll that still saw it
// running comes again when the next run is at work.
TEST(BackupRules, LeaveANewerRunsFileToThatRun) {
    BackupBed s({BackupBed::kBackup, "/Volumes/Second"});
    s.mount("/Volumes/Second");
    s.copyTakes(seconds(2));
    s.putSettings({BackupBed::kBackup, "/Volumes/Second"}, [](Dictionary& entry) {
        entry.set("executionIntervalDirectory_hours", 0);
        entry.set("executionIntervalDirectory_minutes", 0);
        entry.set("executionIntervalDirectory_seconds", 2);
    });
    s.run(milliseconds(7'500));
    ASSERT_THAT(s.helpers(), SizeIs(3));
    EXPECT_THAT(s.backups(BackupBed::kBackup), SizeIs(2));
    EXPECT_THAT(s.backups("/Volumes/Second"), SizeIs(2));
}

TEST(BackupRules, LeaveTheCopiesAloneWhenTheDaemonEnds) {
    BackupBed s;
    s.copyTakes(minutes(1));
    s.run(milliseconds(2'500));
    ASSERT_THAT(s.copies(), SizeIs(1));
    s.endApplication("com.apple.finder").run(seconds(1));
    ASSERT_TRUE(s.hasEnded());
    EXPECT_TRUE(s.copies()[0].isRunning);
    EXPECT_EQ(s.copies()[0].interrupts, 0);
    EXPECT_EQ(s.copies()[0].terminates, 0);
}

// The load at the helper's end makes the folder anew, so the daemon goes on.
TEST(BackupRules, GoOnWithFreshSettingsWhenTheSupportFolderWasRemovedMeanwhile) {
    BackupBed s;
    s.run(milliseconds(1'500));
    ASSERT_THAT(s.helpers(), SizeIs(1));
    s.helperWritesNothing();
    s.removeSupportFolder();
    s.machine().processes.kill(0);
    s.run(milliseconds(100));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_TRUE(s.machine().fileSystem.isFolder(kSupportFolder));
    EXPECT_THAT(s.supportFiles(), Contains("KorvaneProtection.plist"));
    s.run(seconds(5));
    EXPECT_FALSE(s.volumeEntry(kData).empty());
    EXPECT_FALSE(s.hasEnded());
}

// ---- A run that does not run --------------------------------------------------------------------

TEST(StrandedBackup, GivesWayToTheOthersAndComesAgainAtItsNextTime) {
    for (const bool isLaunchable : {true, false}) {
        BackupBed s;
        s.putSettings({BackupBed::kSystem},
                      [](Dictionary& entry) { entry.set("directoryOnOff", pathOf(entry) != "/"); });
        if (isLaunchable) {
            // It turns read-only after the inventory has looked at it.
            runBetweenTickAndStart(s, [&] { s.machine().volumes.setWritable(kData, false); });
        } else {
            s.machine().processes.removeProgram("/PlugIns/KorvaneProDirectoryBackup");
        }
        s.run(seconds(5));
        EXPECT_EQ(s.status(), "0");
        EXPECT_GT(s.dueTime(), s.secondsNow() + 4 * 3600);
        s.helperTakes(seconds(1));
        s.run(seconds(20));
        EXPECT_THAT(s.log(), Contains("The directory backup of \"/Volumes/Data\" could not be "
                                      "started and waits for its next time.")
                                 .Times(1));
        if (isLaunchable) {
            EXPECT_EQ(s.status("/Volumes/Backup"), "3");
        }
        s.machine().volumes.setWritable(kData, true);
        s.run(hours(5));
        EXPECT_EQ(s.status(), "3");
    }
}

TEST(StrandedBackup, StaysAsItIsWhileTheHelperIsMissing) {
    BackupBed s;
    s.machine().bundle.removePlugIn("KorvaneProDirectoryBackup");
    const double due = s.secondsNow();
    s.run(minutes(5));
    EXPECT_EQ(s.dueTime(), due);
    EXPECT_THAT(s.log(), Not(Contains(HasSubstr("could not be started"))));
}

TEST(StrandedBackup, IsNotOneThatRuns) {
    BackupBed s;
    s.helperTakes(minutes(10));
    s.run(minutes(5));
    EXPECT_THAT(s.helpers(), SizeIs(1));
    EXPECT_THAT(s.log(), Not(Contains(HasSubstr("could not be started"))));
}

TEST(StrandedBackup, IsLoggedWhenItsHelperCrashed) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(1));
    s.machine().processes.kill(0);
    s.run(milliseconds(1));
    EXPECT_THAT(s.log(),
                Contains("The directory backup of \"/Volumes/Data\" failed: its helper was "
                         "ended by signal 9."));
    BackupBed well;
    well.run(minutes(1));
    EXPECT_THAT(well.log(), Not(Contains(HasSubstr("was ended by signal"))));
}

// ---- Somebody's location ------------------------------------------------------------------------

class AlicesLocation : public BackupBed {
  public:
    explicit AlicesLocation(const std::vector<std::string>& locations = {kSystem, kBackup})
        : BackupBed(locations) {
        machine().fileSystem.setOwner("/Volumes/Backup", kAlice);
    }
};

TEST(LocationOfAnAccount, IsWorkedOnWithThatAccountsRights) {
    AlicesLocation s;
    s.run(seconds(5));
    EXPECT_THAT(s.copies(), IsEmpty());
    ASSERT_THAT(s.copiesOfAccounts(), SizeIs(1));
    const std::string name = s.backups().at(0);
    EXPECT_THAT(s.copiesOfAccounts()[0].arguments,
                ElementsAre("1000", "1000", name, volumeFolder("Data") + '/' + name,
                            "/Volumes/Backup/Korvane Protection/Data"));
    EXPECT_THAT(s.backups(BackupBed::kBackup), ElementsAre(name));
    for (const char* const path : {"/Volumes/Backup/Korvane Protection",
                                   "/Volumes/Backup/Korvane Protection/Data", kSettingsCopy}) {
        ASSERT_TRUE(s.machine().fileSystem.attributes(path)) << path;
        EXPECT_EQ(s.machine().fileSystem.attributes(path)->ownerId, kAlice) << path;
    }
}

TEST(LocationOfAnAccount, IsWaitedForLikeAnyOther) {
    AlicesLocation s({BackupBed::kBackup});
    s.copyTakes(milliseconds(3'500));
    s.run(milliseconds(5'999));
    EXPECT_THAT(s.backups(), SizeIs(1));
    s.run(milliseconds(1));
    EXPECT_THAT(s.backups(), IsEmpty());
}

TEST(LocationOfAnAccount, KeepsThePrimaryFileWhereItsCopyCannotBeLaunched) {
    AlicesLocation s({BackupBed::kBackup});
    s.machine().bundle.removePlugIn("KorvaneProCopy");
    s.run(minutes(1));
    EXPECT_THAT(s.backups(), SizeIs(1));
    EXPECT_FALSE(s.machine().fileSystem.exists(kSettingsCopy));
}

// The way to a user's folder leads through a volume of root's.
TEST(LocationOfAnAccount, GetsNoSettingsCopyWhereTheAccountMayNotWrite) {
    BackupBed s({"/Volumes/Backup/alice"});
    ASSERT_TRUE(s.machine().fileSystem.createFolders("/Volumes/Backup/alice", "root"));
    s.machine().fileSystem.setOwner("/Volumes/Backup/alice", kAlice);
    s.run(seconds(5));
    EXPECT_THAT(s.copiesOfAccounts(), SizeIs(1));
    EXPECT_FALSE(s.machine().fileSystem.exists(kSettingsCopy));
}

TEST(LocationOfAnAccount, IsLoggedOnceWhenItCannotBeUsed) {
    AlicesLocation s;
    ASSERT_TRUE(s.machine().fileSystem.putLink("/Volumes/Backup/Korvane Protection", "/etc"));
    s.run(hours(13));
    EXPECT_THAT(s.helpers(), SizeIs(4));
    EXPECT_THAT(s.log(), Contains(HasSubstr("\"/Volumes/Backup\" is passed over")).Times(1));
}

}  // namespace
}  // namespace korvane
