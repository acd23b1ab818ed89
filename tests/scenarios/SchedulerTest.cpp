// Ticks: what one starts, what it arms, and what keeps the daemon at rest.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// By then the watch for the emergency volume has given up and every volume has been checked once.
constexpr seconds kSettled{60};

// Volumes that ask for nothing by themselves: their checks are due in a week, their backups off.
Dictionary quietVolume(Scenario& scenario, const std::string& path, double dueInSeconds = 604'800) {
    return Dictionary{{"volumeMountToName", path},
                      {"freeSpaceWarningLevel", 15},
                      {"executionIntervalUsage_hours", 168},
                      {"executionTimeUsage", scenario.secondsNow() + dueInSeconds}};
}

void putVolumes(Scenario& scenario, PropertyListArray volumes) {
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray", std::move(volumes));
    putPreferences(scenario, preferences);
}

// A scenario of two quiet volumes after its first tick, with the emergency watch at rest.
void settle(Scenario& scenario) {
    putVolumes(scenario, {quietVolume(scenario, "/"), quietVolume(scenario, "/Volumes/Data")});
    scenario.run(kSettled);
}

// Replaces the settings and has the daemon read them; what is pending then.
std::vector<double> pendingAfterReload(Scenario& scenario, PropertyListArray volumes) {
    putVolumes(scenario, std::move(volumes));
    scenario.send("daemonPreferencesUpdatedNotification");
    return scenario.pendingDelays();
}

TEST(Tick, StartsTheUsageCheckOfTheFirstDueVolumeOnly) {
    Scenario s("three-volumes");
    s.run(milliseconds(9'999));
    EXPECT_THAT(usageResultsIn(s, "System"), IsEmpty());
    s.run(milliseconds(1));
    EXPECT_THAT(usageResultsIn(s, "System"), SizeIs(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    // Each check's save asks for the tick that starts the next one.
    s.run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
    EXPECT_THAT(usageResultsIn(s, "Backup"), IsEmpty());
    s.run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Backup"), SizeIs(1));
}

TEST(Tick, TakesHalfASecondAheadAsDue) {
    Scenario s("two-volumes");
    putVolumes(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 1.5)});
    s.run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
}

TEST(Tick, LeavesAVolumeOutThatIsNotAvailable) {
    Scenario s("two-volumes");
    putVolumes(s, {quietVolume(s, "/Volumes/Gone", -60), quietVolume(s, "/"),
                   quietVolume(s, "/Volumes/Data", -60)});
    s.run(seconds(10));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Gone"), "5");
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "3");
}

TEST(Tick, StopsAtARunningCheckWhoseTimeHasCome) {
    Scenario s("two-volumes");
    settle(s);
    Dictionary running = quietVolume(s, "/", -60);
    running.set("usageStatus", "2");
    (void)pendingAfterReload(s, {running, quietVolume(s, "/Volumes/Data", -60)});
    s.run(hours(1));
    EXPECT_EQ(usageStatusIn(s, "/"), "2");
    EXPECT_THAT(usageResultsIn(s, "System"), IsEmpty());
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

TEST(Tick, DoesNothingWhileTheUsageCheckIsSwitchedOff) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("volumeUsageOnOff", false);
    preferences.set("volumeArray", PropertyListArray{quietVolume(s, "/Volumes/Data", -60)});
    putPreferences(s, preferences);
    s.run(hours(2));
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    EXPECT_FALSE(s.hasEnded());
}

TEST(Tick, RefreshesTheInventoryBeforeItLooksForWhatIsDue) {
    Scenario s("two-volumes");
    putVolumes(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", -60)});
    s.start();
    s.unmount("/Volumes/Data");
    s.run(seconds(2));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "5");
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

TEST(Tick, KeepsAWarningWhileTheCheckRuns) {
    Scenario s("two-volumes");
    settle(s);
    Dictionary warned = quietVolume(s, "/Volumes/Data", -60);
    warned.set("usageStatus", "4");
    s.fill("/Volumes/Data", 95_percent);
    (void)pendingAfterReload(s, {quietVolume(s, "/"), warned});
    s.run(seconds(3));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed"));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "4");
}

TEST(Tick, MarksACheckAsRunningUnlessItsVolumeWasWarnedAbout) {
    for (const char* status : {"0", "3", "4"}) {
        Scenario s("two-volumes");
        settle(s);
        Dictionary due = quietVolume(s, "/Volumes/Data", -60);
        due.set("usageStatus", status);
        // What the tick wrote stays to be seen: the check itself does nothing.
        s.send("QLDaemonIgnoreFreeSpace_WipeData_Msg");
        (void)pendingAfterReload(s, {quietVolume(s, "/"), due});
        s.run(seconds(4)).plug("stick").run(seconds(0));  // a new volume is saved at once
        EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), std::string(status) == "4" ? "4" : "2");
    }
}

// A timer's index is read when it fires: by then another array may stand there.
class CheckByIndex : public testing::Test {
  protected:
    // The tick has started the check of index 1, which comes with the next pass of the loop.
    CheckByIndex() {
        settle(s);
        (void)pendingAfterReload(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 10)});
        s.run(milliseconds(9'999));
        s.machine().runLoop.runOnce();
    }
    void reloadWith(PropertyListArray volumes) { (void)pendingAfterReload(s, std::move(volumes)); }

    Scenario s{"two-volumes"};
};

TEST_F(CheckByIndex, MeasuresWhateverStandsThereThen) {
    reloadWith({quietVolume(s, "/Volumes/Data"), quietVolume(s, "/")});
    s.run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "System"), SizeIs(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

TEST_F(CheckByIndex, DoesNothingPastTheEnd) {
    s.unmount("/Volumes/Data");
    reloadWith({quietVolume(s, "/")});
    const auto writes = s.preferenceWrites();
    s.run(seconds(5));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/"));
    EXPECT_EQ(s.preferenceWrites(), writes);
}

TEST_F(CheckByIndex, DoesNothingWhereNoEntryStands) {
    reloadWith({quietVolume(s, "/"), "no entry", quietVolume(s, "/Volumes/Data")});
    const auto writes = s.preferenceWrites();
    s.run(seconds(5));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(s.preferenceWrites(), writes);
}

TEST(OutTimer, IsArmedForTheEarliestCheck) {
    Scenario s("two-volumes");
    settle(s);
    const PropertyList data(quietVolume(s, "/Volumes/Data"));
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/", 90), data}), ElementsAre(90));
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/", 90.9), data}), ElementsAre(90));
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/", 1), data}), ElementsAre(1));
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/", 2), data}), ElementsAre(2));
}

TEST(OutTimer, IsArmedForAnHourAtMost) {
    Scenario s("two-volumes");
    settle(s);
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/", 7230), quietVolume(s, "/Volumes/Data")}),
                ElementsAre(3600));
}

TEST(OutTimer, IsArmedForAnHourWithoutAnyEntry) {
    Scenario s("empty");
    s.run(kSettled);
    EXPECT_THAT(volumePathsIn(s), IsEmpty());
    ASSERT_THAT(s.pendingDelays(), SizeIs(1));
    EXPECT_DOUBLE_EQ(s.pendingDelays()[0], 3600 - (kSettled.count() - 1));
}

TEST(OutTimer, IsArmedForThreeSecondsWhenSomethingIsOverdue) {
    Scenario s("two-volumes");
    settle(s);
    for (const double ahead : {0.0, 0.9, -0.5, -3600.0}) {
        EXPECT_THAT(
            pendingAfterReload(s, {quietVolume(s, "/", ahead), quietVolume(s, "/Volumes/Data")}),
            ElementsAre(3))
            << ahead;
    }
}

TEST(OutTimer, TicksEveryThreeSecondsWhileACheckRuns) {
    Scenario s("two-volumes");
    settle(s);
    Dictionary running = quietVolume(s, "/", -60);
    running.set("usageStatus", "2");
    (void)pendingAfterReload(s, {running, quietVolume(s, "/Volumes/Data")});
    // Each tick refreshes the inventory: the new entry comes with the next one.
    for (int round = 1; round <= 3; ++round) {
        s.run(milliseconds(2'999));
        EXPECT_THAT(s.pendingDelays(), ElementsAre(0.001));
        s.run(milliseconds(1));
        EXPECT_THAT(s.pendingDelays(), ElementsAre(3));
    }
}

TEST(OutTimer, CountsBackupsAndDrivesThatAreSwitchedOn) {
    Scenario s("two-volumes");
    settle(s);
    Dictionary backedUp = quietVolume(s, "/");
    backedUp.set("directoryOnOff", true);
    backedUp.set("executionTimeDirectory", s.secondsNow() + 50);
    EXPECT_THAT(pendingAfterReload(s, {backedUp, quietVolume(s, "/Volumes/Data")}),
                ElementsAre(50));
    backedUp.set("directoryOnOff", false);
    EXPECT_THAT(pendingAfterReload(s, {backedUp, quietVolume(s, "/Volumes/Data")}),
                ElementsAre(3600));

    // A drive that is new is due in 10 seconds.
    ASSERT_TRUE(s.machine().deviceRegistry.setProperty("drive-a", "SMART Capable", true));
    s.send("daemonPreferencesUpdatedNotification");
    EXPECT_THAT(s.pendingDelays(), ElementsAre(10));
    s.editPreferences([&](Dictionary& preferences) {
        preferences.find("driveArray")->array()->front().dictionary()->set("smartOnOff", false);
    });
    s.send("daemonPreferencesUpdatedNotification");
    EXPECT_THAT(s.pendingDelays(), ElementsAre(3600));
}

TEST(OutTimer, CountsAnOverdueBackupThatTheMainApplicationHasDisabled) {
    Scenario s("two-volumes");
    settle(s);
    s.send("disableDirectoryBackupNotification");
    Dictionary overdue = quietVolume(s, "/");
    overdue.set("directoryOnOff", true);
    overdue.set("executionTimeDirectory", s.secondsNow() - 60);
    EXPECT_THAT(pendingAfterReload(s, {overdue, quietVolume(s, "/Volumes/Data")}), ElementsAre(3));
    s.run(seconds(3));
    EXPECT_THAT(s.pendingDelays(), ElementsAre(3));
}

TEST(OutTimer, IsNotArmedWhenTheSupportFolderGoesInTheCourseOfATick) {
    Scenario s("two-volumes");
    settle(s);
    s.machine().powerSources.setWhenAsked([&s] { s.removeSupportFolder(); });
    s.becomeActive().run(seconds(1));
    EXPECT_EQ(s.terminateSends(), 2);
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
}

TEST(OutTimer, IsNotArmedWhileASwitchIsMissing) {
    for (const char* key : {"volumeUsageOnOff", "smartCheckOnOff", "directoryBackupOnOff"}) {
        Scenario s("two-volumes");
        settle(s);
        s.editPreferences([&](Dictionary& preferences) { preferences.remove(key); });
        s.send("daemonPreferencesUpdatedNotification");
        EXPECT_THAT(s.pendingDelays(), IsEmpty()) << key;
    }
}

TEST(OutTimer, IsTheOnlyOnePendingAfterATick) {
    Scenario s("two-volumes");
    settle(s);
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
    s.becomeActive().run(seconds(2));
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
}

TEST(OnBattery, ATickStillChecksAndArmsNothing) {
    Scenario s("two-volumes");
    settle(s);
    s.onBattery();
    EXPECT_THAT(pendingAfterReload(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", -60)}),
                IsEmpty());
    s.becomeActive().run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    // The check's save brings one more tick, and then there is nothing to wait for.
    s.run(seconds(1));
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
    s.run(hours(24));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
}

TEST(OnBattery, AMountStillRebuildsTheInventoryAndBringsATick) {
    Scenario s("two-volumes");
    settle(s);
    s.onBattery().becomeActive().run(seconds(5));
    ASSERT_THAT(s.pendingDelays(), IsEmpty());
    s.plug("stick").run(seconds(0));
    EXPECT_THAT(volumePathsIn(s), Contains("/Volumes/Stick"));
    EXPECT_THAT(s.pendingDelays(), ElementsAre(1, 5));  // the tick, and the emergency watch
}

TEST(OnBattery, PowerComingBackArmsNothingByItself) {
    Scenario s("two-volumes");
    settle(s);
    s.onBattery().becomeActive().run(seconds(5));
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
    s.onMains().run(hours(2));
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
    s.becomeActive().run(seconds(2));
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
}

TEST(OnBattery, AnyOtherStateThanMainsCountsAsBattery) {
    Scenario s("two-volumes");
    settle(s);
    const struct {
        std::vector<std::string> states;
        bool isArmed;
    } rows[] = {{{"AC Power", "AC Power"}, true},
                {{"AC Power", "Off Line"}, false},
                {{"Battery Power"}, false},
                {{}, true}};
    for (const auto& row : rows) {
        s.setPowerSources(row.states);
        s.send("daemonPreferencesUpdatedNotification");
        EXPECT_EQ(s.pendingDelays().size(), row.isArmed ? 1u : 0u);
    }
    // A machine without power-source information is on mains.
    s.setPowerSources(std::nullopt);
    s.send("daemonPreferencesUpdatedNotification");
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
}

TEST(SwitchedOff, TheDaemonRestsUntilAReload) {
    Scenario s("two-volumes");
    settle(s);
    s.editPreferences([](Dictionary& preferences) { preferences.set("DAEMON_ON", false); });
    s.send("daemonStopYourEngines");
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
    s.run(hours(24));
    EXPECT_THAT(s.pendingDelays(), IsEmpty());

    // A tick that an event asks for ends before it does anything.
    s.plug("stick").run(minutes(5));
    s.becomeActive().run(minutes(5));
    EXPECT_THAT(usageResultsIn(s, "Stick"), IsEmpty());
    EXPECT_THAT(s.pendingDelays(), IsEmpty());

    s.editPreferences([](Dictionary& preferences) { preferences.set("DAEMON_ON", true); });
    s.send("daemonStartYourEngines");
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
}

TEST(SwitchedOff, TheDaemonTakesItsInventoryAndThenRests) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("DAEMON_ON", false);
    putPreferences(s, preferences);
    s.run(hours(2));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "0");
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
}

TEST(SwitchedOff, TheInventoryFollowsMountsAndUnmountsAllTheSame) {
    Scenario s("two-volumes");
    settle(s);
    s.editPreferences([](Dictionary& preferences) { preferences.set("DAEMON_ON", false); });
    s.send("daemonStopYourEngines");
    s.plug("stick").run(seconds(0));
    EXPECT_THAT(volumePathsIn(s), Contains("/Volumes/Stick"));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Stick"), "0");
    s.unmount("/Volumes/Stick").run(seconds(0));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Stick"), "5");
}

TEST(SwitchedOff, AnAbsentSwitchCountsAsOn) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.remove("DAEMON_ON");
    putPreferences(s, preferences);
    s.run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

TEST(BusyMail, LeavesTheAnswersAboutWorkUnderWayAsTheyAre) {
    Scenario s("one-volume");
    ASSERT_TRUE(s.machine().deviceRegistry.setProperty("drive-a", "SMART Capable", true));
    Dictionary preferences = completePreferences();
    preferences.set("emailServer", "mail.example.org");
    preferences.set("emailPort", "25");
    putPreferences(s, preferences);
    s.run(kSettled);
    const auto setDue = [&s](double due) {
        s.editPreferences([due](Dictionary& settings) {
            Dictionary& volume = *settings.find("volumeArray")->array()->front().dictionary();
            volume.set("directoryOnOff", true);
            volume.set("directoryStatus", "2");
            volume.set("executionTimeDirectory", due);
            Dictionary& drive = *settings.find("driveArray")->array()->front().dictionary();
            drive.set("smartStatus", "2");
            drive.set("executionTimeSmart", due);
        });
        s.send("daemonPreferencesUpdatedNotification").becomeActive().run(seconds(2));
    };
    const auto answers = [&s] {
        return std::vector{s.send("isDirectoryExecuteComplete").answer(),
                           s.send("isSMARTExecuteComplete").answer()};
    };
    using enum Scenario::Answer;
    setDue(0);
    EXPECT_THAT(answers(), ElementsAre(no, no));
    s.machine().mailServer.setReachability(SimulatedMailServer::Reachability::noAnswer);
    s.send("daemonTestSendingEmailNotification");
    setDue(s.secondsNow() + 604'800);
    EXPECT_THAT(answers(), ElementsAre(no, no));
    s.machine().mailServer.reportError(StreamSide::input, "Connection timed out");
    s.becomeActive().run(seconds(2));
    EXPECT_THAT(answers(), ElementsAre(yes, yes));
    // Nor does a tick that finds something due while a mail is on its way say so.
    s.machine().mailServer.setReachability(SimulatedMailServer::Reachability::noAnswer);
    s.send("daemonTestSendingEmailNotification");
    setDue(0);
    EXPECT_THAT(answers(), ElementsAre(yes, yes));
}

// Set back or ahead, by a minute or by years.
constexpr std::chrono::seconds kSteps[] = {-hours(24 * 365 * 8), -hours(2), -minutes(1),
                                           minutes(1),           hours(3),  hours(24 * 365 * 8)};

TEST(SettingTheClock, LeavesAChecksTimeAsFarAwayAsItWas) {
    for (const seconds step : kSteps) {
        Scenario s("two-volumes");
        settle(s);
        (void)pendingAfterReload(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 300)});
        s.run(minutes(1)).stepClock(step).run(seconds(0));
        EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, "/Volumes/Data"), s.secondsNow() + 240) << step;
        s.run(milliseconds(239'000));
        EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty()) << step;
        s.run(seconds(1));
        EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1)) << step;
    }
}

TEST(SettingTheClock, LeavesTheDateThatTheMainApplicationHasChosen) {
    Scenario s("two-volumes");
    settle(s);
    // The interval is a week.
    const double chosen = s.secondsNow() + 30 * 86'400;
    (void)pendingAfterReload(s,
                             {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 30 * 86'400)});
    for (const hours step : {-hours(24 * 365), hours(48), hours(24 * 394)}) {
        s.stepClock(step).run(seconds(0));
        EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, "/Volumes/Data"), chosen);
    }
    s.run(seconds(2));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1)) << "its date has come";
}

TEST(SettingTheClock, MakesNoRemovedSupportFolderAnew) {
    Scenario s("two-volumes");
    settle(s);
    ASSERT_TRUE(s.machine().fileSystem.remove(kSupportFolder));
    s.stepClock(hours(1)).run(seconds(0));
    EXPECT_FALSE(s.machine().fileSystem.exists(kSupportFolder));
    s.run(seconds(2));
    EXPECT_TRUE(s.hasEnded());
}

TEST(SettingTheClock, MovesWhatIsOverdueAndWhatIsNew) {
    Scenario s("two-volumes");
    s.run(seconds(5));  // both entries are new, and due at second 10
    s.stepClock(-hours(24)).run(seconds(20));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
    Dictionary running = quietVolume(s, "/", -60);
    running.set("usageStatus", "2");
    (void)pendingAfterReload(s, {running, quietVolume(s, "/Volumes/Data")});
    s.stepClock(-hours(24)).run(seconds(0));
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, "/"), s.secondsNow() - 60);
}

TEST(SettingTheClock, MovesTheTimesOfBackupsAndDrivesToo) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().deviceRegistry.setProperty("drive-a", "SMART Capable", true));
    s.run(kSettled);
    const auto backupDue = [&s] {
        return doubleValue(s.volumeEntry("/Volumes/Data").find("executionTimeDirectory"));
    };
    const auto driveDue = [&s] {
        return doubleValue(s.driveEntry("CST00A1").find("executionTimeSmart"));
    };
    const double backupIn = backupDue() - s.secondsNow();
    const double driveIn = driveDue() - s.secondsNow();
    s.stepClock(-hours(24 * 30)).run(seconds(0));
    EXPECT_DOUBLE_EQ(backupDue() - s.secondsNow(), backupIn);
    EXPECT_DOUBLE_EQ(driveDue() - s.secondsNow(), driveIn);
}

TEST(SettingTheClock, HoldsOverARestart) {
    Scenario s("two-volumes");
    settle(s);
    (void)pendingAfterReload(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 300)});
    s.stepClock(-hours(24 * 30)).run(seconds(0));
    s.restart().run(seconds(301));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
}

TEST(SettingTheClock, InTheStartWaitLeavesTheStartAsItIs) {
    MachineDescription description = Scenario::describe("two-volumes");
    description.uptime = seconds(0);
    Scenario s(description);
    putVolumes(s, {quietVolume(s, "/"), quietVolume(s, "/Volumes/Data", 300)});
    s.run(seconds(30));
    s.stepClock(-hours(24)).run(milliseconds(89'999));
    EXPECT_NEAR(executionTimeUsageIn(s, "/Volumes/Data"), s.secondsNow() + 180.001, 1e-6);
    s.plug("stick").run(milliseconds(1));
    EXPECT_THAT(volumePathsIn(s), Contains("/Volumes/Stick"));
    s.run(seconds(180));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
}

}  // namespace
}  // namespace korvane
