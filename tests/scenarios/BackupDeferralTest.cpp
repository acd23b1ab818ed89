// Directory backups that fall due while another one runs, and what a tick makes of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "scenarios/BackupBed.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// "Data" stands before "Backup" in the entries.
constexpr char kData[] = "/Volumes/Data";
constexpr char kBackup[] = "/Volumes/Backup";

bool isOf(const Dictionary& entry, const char* path) {
    return stringValue(entry.find("volumeMountToName")) == path;
}

// What else is pending at second 3, in seconds.
constexpr double kEmergencyWatch = 1;
constexpr double kCopyPoll = 1;
constexpr double kEndOfCopy = 59;

// One backup at work: the helper of Data ends at second 2 and its copy runs for a minute. Backup is
// due so many seconds after the start.
class CopyingBed : public BackupBed {
  public:
    explicit CopyingBed(double dueInSeconds = 0) {
        copyTakes(seconds(60));
        putSettings({kSystem, kBackup}, [&](Dictionary& entry) {
            entry.set("directoryOnOff", !isOf(entry, "/"));
            if (isOf(entry, kBackup)) {
                entry.set("executionTimeDirectory", secondsNow() + dueInSeconds);
            }
        });
    }
};

TEST(BackupDeferral, PutsOffBySavingAndLeavesOnlyTheTickOfTheNextDueTime) {
    CopyingBed s;
    s.run(milliseconds(2'999));
    EXPECT_EQ(s.status(kBackup), "0");
    const auto writes = s.preferenceWrites();
    s.run(milliseconds(1));
    EXPECT_EQ(s.preferenceWrites(), writes + 1);
    EXPECT_EQ(s.status(kBackup), "1");
    EXPECT_DOUBLE_EQ(s.dueTime(kBackup), s.secondsNow() + 5);
    // One tick, in five seconds: that which the save has asked for in a second is gone.
    EXPECT_THAT(s.pendingDelays(), ElementsAre(kEmergencyWatch, kCopyPoll, 5, kEndOfCopy));
}

TEST(BackupDeferral, IsRepeatedUntilTheOtherIsOver) {
    CopyingBed s;
    s.run(seconds(3));
    for (int time = 0; time < 4; ++time) {
        const double due = s.dueTime(kBackup);
        s.run(milliseconds(4'999));
        EXPECT_EQ(s.dueTime(kBackup), due);
        s.run(milliseconds(1));
        EXPECT_EQ(s.dueTime(kBackup), due + 5);
        EXPECT_EQ(s.status(kBackup), "1");
    }
    EXPECT_THAT(s.helpers(), SizeIs(1));
    s.run(seconds(60));
    ASSERT_THAT(s.helpers(), SizeIs(2));
    EXPECT_EQ(s.helpers()[1].arguments.at(2), kBackup);
}

TEST(BackupDeferral, IsCountedFromTheTickAndNotFromTheDueTime) {
    CopyingBed s(2.5);
    s.run(seconds(3));
    EXPECT_DOUBLE_EQ(s.dueTime(kBackup), s.secondsNow() + 5);
}

TEST(BackupDeferral, StartsNothingOfAnEntryThatIsMarkedAsRunning) {
    // The helper of Data runs on and its entry stands first: the walk ends there every time.
    CopyingBed s;
    s.helperTakes(std::nullopt);
    s.run(seconds(30));
    EXPECT_THAT(s.helpers(), SizeIs(1));
    EXPECT_EQ(s.status(kBackup), "0");
    EXPECT_TRUE(s.isActive());
}

TEST(BackupDeferral, HoldsForAnEntryBeforeTheRunningOne) {
    BackupBed s;
    s.helperTakes(std::nullopt);
    s.putSettings({BackupBed::kSystem}, [&](Dictionary& entry) {
        entry.set("directoryOnOff", !isOf(entry, "/"));
        entry.set("executionTimeDirectory", s.secondsNow() + (isOf(entry, kData) ? 4 : 0));
    });
    s.run(seconds(1));
    ASSERT_THAT(s.helpers(), SizeIs(1));
    ASSERT_EQ(s.helpers()[0].arguments.at(2), kBackup);
    // The overdue entry that runs brings a tick every three seconds.
    s.run(seconds(3));
    EXPECT_EQ(s.status(kData), "1");
    EXPECT_EQ(s.status(kBackup), "2");
    EXPECT_DOUBLE_EQ(s.dueTime(kData), s.secondsNow() + 5);
    s.run(seconds(3));
    EXPECT_DOUBLE_EQ(s.dueTime(kData), s.secondsNow() + 2);
    EXPECT_TRUE(s.isActive());
    s.send("directoryBackupStopNotification").run(seconds(3));
    EXPECT_THAT(s.helpers(), SizeIs(2));
}

TEST(BackupDeferral, EndsTheTickWhenItsSaveFindsNoFolderAndQuits) {
    CopyingBed s(1.5);
    s.run(milliseconds(2'500));
    // A file in the folder's place is enough for a tick to go on and too little for a save.
    s.removeSupportFolder();
    s.put(kSupportFolder, "");
    s.run(milliseconds(500));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 2);
    // Neither another check nor another tick is begun.
    EXPECT_THAT(s.pendingDelays(), ElementsAre(kEmergencyWatch, kCopyPoll, kEndOfCopy));
}

TEST(BackupDeferral, IsOfNoConcernOnBatteryOrWhileSwitchedOff) {
    CopyingBed s;
    s.run(milliseconds(2'500));
    s.onBattery().run(seconds(10));
    EXPECT_EQ(s.status(kBackup), "0");
    // Nobody has walked the entries since: the last answer stands.
    EXPECT_TRUE(s.isActive());
    s.onMains().send("disableDirectoryBackupNotification").becomeActive().run(seconds(10));
    EXPECT_EQ(s.status(kBackup), "0");
    s.send("enableDirectoryBackupNotification").run(seconds(3));
    EXPECT_EQ(s.status(kBackup), "1");
}

TEST(BackupWalk, PassesOverEntriesThatAreOffOrNotAvailable) {
    BackupBed s;
    s.putSettings({BackupBed::kSystem}, [&](Dictionary& entry) {
        entry.set("directoryOnOff", !isOf(entry, "/"));
        if (isOf(entry, kData)) entry.set("volumeMountToName", "/Volumes/Gone");
    });
    s.run(seconds(1));
    ASSERT_THAT(s.helpers(), SizeIs(1));
    EXPECT_EQ(s.helpers()[0].arguments.at(2), kBackup);
    EXPECT_EQ(s.status("/Volumes/Gone"), "5");
}

TEST(BackupWalk, StartsAnEntryThatWasWaiting) {
    BackupBed s;
    s.run(seconds(20));
    s.editVolumeEntry(kData, [&](Dictionary& entry) {
        entry.set("directoryStatus", "1");
        entry.set("executionTimeDirectory", s.secondsNow());
    });
    s.reload();
    s.run(seconds(3));
    EXPECT_THAT(s.helpers(), SizeIs(2));
}

TEST(BackupWalk, IsLeftOutWithoutItsSwitch) {
    for (const bool isThere : {true, false}) {
        BackupBed s;
        s.editPreferences([&](Dictionary& settings) {
            if (isThere) {
                settings.set("directoryBackupOnOff", false);
            } else {
                settings.remove("directoryBackupOnOff");
            }
        });
        s.run(seconds(30));
        EXPECT_THAT(s.helpers(), IsEmpty());
        EXPECT_FALSE(s.isActive());
    }
}

}  // namespace
}  // namespace korvane
