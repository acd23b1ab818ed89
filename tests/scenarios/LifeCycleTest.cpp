// How the daemon comes up, what it does when applications come and go, and how it goes down.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "scenarios/BackupBed.h"
#include "scenarios/DaemonFiles.h"
#include "support/Scenario.h"

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

MachineDescription twoVolumesUpFor(std::chrono::microseconds uptime) {
    MachineDescription description = Scenario::describe("two-volumes");
    description.uptime = uptime;
    return description;
}

// Entries are made by the second stage and not before.
bool hasStarted(Scenario& scenario) { return !volumePathsIn(scenario).empty(); }

TEST(StartUp, WaitsUntilTheMachineHasBeenUpForTwoMinutes) {
    Scenario s(twoVolumesUpFor(seconds(45)));
    s.run(milliseconds(74'999));
    EXPECT_FALSE(hasStarted(s));
    s.run(milliseconds(1));
    EXPECT_TRUE(hasStarted(s));
}

TEST(StartUp, ComesAtOnceOnAMachineThatHasBeenUpLonger) {
    Scenario s(twoVolumesUpFor(hours(5)));
    s.start();
    EXPECT_FALSE(hasStarted(s));
    s.run(seconds(0));
    EXPECT_TRUE(hasStarted(s));
}

TEST(StartUp, CountsWholeSecondsOfUptime) {
    Scenario s(twoVolumesUpFor(milliseconds(119'900)));
    s.run(milliseconds(999));
    EXPECT_FALSE(hasStarted(s));
    s.run(milliseconds(1));
    EXPECT_TRUE(hasStarted(s));
}

TEST(StartUp, MakesAnEntryOfEveryVolume) {
    Scenario s("two-volumes");
    s.run(seconds(0));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
}

TEST(StartUp, MarksEveryEntryAsNotYetExaminedBeforeTheFirstTick) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("driveArray", PropertyListArray{"no entry"});
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                                 {"usageStatus", "2"},
                                                 {"directoryStatus", "1"}},
                                      7,
                                      Dictionary{{"volumeMountToName", "/Volumes/Gone"},
                                                 {"usageStatus", "5"},
                                                 {"directoryStatus", "5"}}});
    putPreferences(s, preferences);
    s.run(milliseconds(999));
    const Dictionary stored = s.preferences();
    EXPECT_EQ(*stored.find("driveArray"), PropertyList(PropertyListArray{"no entry"}));
    for (const char* path : {"/Volumes/Data", "/Volumes/Gone", "/"}) {
        EXPECT_EQ(*s.volumeEntry(path).find("usageStatus"), PropertyList("0")) << path;
        EXPECT_EQ(*s.volumeEntry(path).find("directoryStatus"), PropertyList("0")) << path;
    }
}

TEST(StartUp, AsksForTheFirstTickASecondLater) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                                 {"freeSpaceWarningLevel", 15}}});
    putPreferences(s, preferences);
    s.run(milliseconds(999));
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    s.run(milliseconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

TEST(StartUp, GoesOnInSilenceWhenTheServiceNameIsTaken) {
    Scenario s("two-volumes");
    s.machine().controlConnection.setUnavailable(true);
    s.run(minutes(1));
    EXPECT_FALSE(s.machine().controlConnection.isRegistered());
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    for (const auto& line : s.machine().systemLog.lines()) EXPECT_EQ(line.level, LogLevel::info);
}

TEST(StartUp, IsCancelledForGoodByAReloadInTheMeantime) {
    Scenario s(twoVolumesUpFor(seconds(0)));
    s.run(seconds(30));
    s.send("daemonPreferencesUpdatedNotification");
    // The reload made the entries, due in 10 seconds; the ticks come from the out timer alone.
    s.run(seconds(15));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "3");

    // Nobody listens to mounts: the new volume shows only when a check's time has come.
    s.run(seconds(60));
    s.plug("stick");
    s.run(seconds(30));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
    s.run(minutes(5));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data", "/Volumes/Stick"));

    // Nor to applications, nor to the user.
    s.endApplication("com.apple.finder");
    s.becomeActive();
    s.run(seconds(10));
    EXPECT_FALSE(s.hasEnded());
}

TEST(StartUp, ServesControlMessagesWhileItWaits) {
    Scenario s(twoVolumesUpFor(seconds(0)));
    s.run(seconds(1));
    s.send("isSMARTExecuteComplete");
    EXPECT_EQ(s.answer(), Scenario::Answer::yes);
}

TEST(StartUp, ComesInTimeWhateverElseIsAskedForWhileItWaits) {
    for (const char* word :
         {"QLDaemonIgnoreMountedOstrand", "QLDaemonUnmountMountedDrive",
          "daemonTestSendingEmailNotification", "directoryBackupStopNotification",
          "disableDirectoryBackupNotification", "enableDirectoryBackupNotification",
          "isDirectoryExecuteComplete", "isSMARTExecuteComplete",
          "QLDaemonIgnoreFreeSpace_WipeData_Msg", "QLDaemonCheckFreeSpace_WipeData_Msg",
          "no such word"}) {
        Scenario s(twoVolumesUpFor(seconds(0)));
        s.run(seconds(30));
        EXPECT_EQ(s.send(word).answer(), Scenario::Answer::yes) << word;
        s.run(milliseconds(89'999));
        EXPECT_FALSE(hasStarted(s)) << word;
        s.run(milliseconds(1));
        EXPECT_TRUE(hasStarted(s)) << word;
    }
}

TEST(StartUp, HeedsWhatWasAskedForWhileItWaited) {
    Scenario s(twoVolumesUpFor(seconds(0)));
    s.startProcess("Korvane Pro 12").mount("/Volumes/Ostrand");
    s.run(seconds(1));
    s.send("QLDaemonIgnoreMountedOstrand").send("QLDaemonIgnoreFreeSpace_WipeData_Msg");
    s.createItems({"/Volumes/Data/made"}).deleteItems({"/Volumes/Data/no such file"});
    EXPECT_TRUE(s.machine().fileSystem.exists("/Volumes/Data/made"));
    s.run(minutes(10));
    EXPECT_EQ(s.machine().volumes.unmountRequests(), 0);
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

TEST(StartUp, IncludesAVolumeMountedDuringTheWait) {
    Scenario s(twoVolumesUpFor(seconds(0)));
    s.run(seconds(60));
    s.plug("stick");
    s.run(seconds(59));
    EXPECT_FALSE(hasStarted(s));
    s.run(seconds(1));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data", "/Volumes/Stick"));
}

TEST(StartUp, SaysOnceInTheLogWhenProtectionBegins) {
    Scenario s(twoVolumesUpFor(seconds(45)));
    s.start();
    ASSERT_EQ(s.machine().systemLog.lines().size(), 1u);
    EXPECT_EQ(s.machine().systemLog.lines()[0].text,
              "Started on system version 11.0.0: protection begins in 75 seconds.");
}

TEST(BecomingActive, ChangesNothingDuringTheStart) {
    Scenario s(twoVolumesUpFor(seconds(100)));
    s.run(seconds(10));
    s.becomeActive();
    s.run(milliseconds(9'999));
    EXPECT_FALSE(hasStarted(s));
    s.run(milliseconds(1));
    EXPECT_TRUE(hasStarted(s));
}

TEST(BecomingActive, ForcesATickASecondLater) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/New");
    s.machine().volumes.forgetChanges();  // nobody is told, so that only a tick finds it
    s.becomeActive().run(milliseconds(999));
    EXPECT_THAT(volumePathsIn(s), Not(Contains("/Volumes/New")));
    s.run(milliseconds(1));
    EXPECT_THAT(volumePathsIn(s), Contains("/Volumes/New"));
}

TEST(BecomingActive, LeavesThatTickAsTheOnlyOnePending) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.becomeActive().run(seconds(0));
    EXPECT_THAT(s.pendingDelays(), ElementsAre(1.0));
}

TEST(BecomingActive, FollowsTheMachinesSleep) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.suspend(hours(8));
    s.run(seconds(2));
    EXPECT_EQ(usageResultsIn(s, "Data").size(), 2u);
}

TEST(ApplicationsEnding, TheFinderEndsTheDaemon) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.endApplication("com.apple.finder");
    s.run(seconds(1));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 2);
}

TEST(ApplicationsEnding, NoOtherEndsTheDaemon) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    for (const char* identifier :
         {"com.apple.finder2", "com.apple.Finder", "finder", "", "org.example.editor",
          "com.quorlen.korvanepro", "com.quorlen.korvanepro.uninstaller"}) {
        s.endApplication(identifier);
    }
    s.run(minutes(1));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 0);
}

TEST(Termination, LeavesNothingBehindThatCouldCallIt) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.machine().runLoop.terminate();
    s.run(seconds(1));
    const auto log = s.log();
    s.plug("stick").unmount("/Volumes/Data").endApplication("com.quorlen.korvanepro");
    s.becomeActive().run(minutes(10));
    EXPECT_EQ(s.log(), log);
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
}

TEST(Termination, SavesNothing) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const auto writes = s.preferenceWrites();
    s.machine().runLoop.terminate();
    s.run(minutes(10));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.preferenceWrites(), writes);
}

// What the journal says of these events, in the order in which they came.
std::vector<std::string> inTheirOrder(Scenario& s, const std::vector<std::string>& events) {
    const std::string journal = s.machine().journal.text();
    std::map<std::size_t, std::string> found;
    for (const std::string& event : events) found[journal.rfind(event)] = event;
    std::vector<std::string> ordered;
    for (const auto& [place, event] : found) ordered.push_back(event);
    return ordered;
}

TEST(Termination, LetsGoOfTheTrashThenOfTheBackupThenOfItsName) {
    BackupBed s;
    s.putSettings({}, [](Dictionary& entry) { entry.set("trashOnOff", true); });
    s.put("/Users/ada/.Trash/thrown away", "x");
    std::vector<std::string> seen;
    s.machine().processes.setProgram(
        "/PlugIns/KorvaneProDirectoryBackup",
        {.duration = std::nullopt,
         .work = nullptr,
         .endsWhenTold = false,
         .whenTold = [&](const SimulatedProcesses::Launch& launch) {
             seen.push_back(launch.terminates == 0 ? "interrupted" : "terminated");
             EXPECT_THAT(s.machine().directoryWatch.subscribed(), IsEmpty());
             EXPECT_TRUE(s.machine().controlConnection.isRegistered());
             EXPECT_THAT(s.machine().journal.text(), Not(HasSubstr("unobserved")));
         }});
    s.run(seconds(30));
    ASSERT_THAT(s.machine().directoryWatch.subscribed(), Not(IsEmpty()));
    ASSERT_THAT(s.helpers(), SizeIs(1));
    s.machine().runLoop.terminate();
    s.run(seconds(1));
    EXPECT_THAT(seen, ElementsAre("interrupted", "terminated"));
    const std::vector<std::string> order{"service name given back", " mounts unobserved",
                                         "unmounts unobserved", "applications unobserved"};
    EXPECT_EQ(inTheirOrder(s, order), order) << s.machine().journal.text();
}

TEST(Termination, GivesTheServiceNameBack) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    EXPECT_TRUE(s.machine().controlConnection.isRegistered());
    s.machine().runLoop.terminate();
    s.run(seconds(1));
    EXPECT_FALSE(s.machine().controlConnection.isRegistered());
}

}  // namespace
}  // namespace korvane
