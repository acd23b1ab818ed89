// Command words from the main application.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "scenarios/DaemonFiles.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using Answer = Scenario::Answer;

TEST(ReloadWords, AllReadThePreferencesAgain) {
    for (const char* word : {"daemonStartYourEngines", "daemonStopYourEngines",
                             "daemonPreferencesUpdatedNotification"}) {
        Scenario s("two-volumes");
        s.run(minutes(1));
        s.editVolumeEntry("/Volumes/Data",
                          [](Dictionary& entry) { entry.set("executionTimeUsage", 0.0); });
        s.send(word);
        EXPECT_EQ(s.answer(), Answer::yes) << word;
        s.run(seconds(4));
        EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(2)) << word;
    }
}

TEST(ReloadWords, TheStopWordStopsNothingWhileTheSwitchIsOn) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.send("daemonStopYourEngines");
    EXPECT_EQ(s.answer(), Answer::yes);
    EXPECT_THAT(s.pendingDelays(), SizeIs(1));
    s.run(minutes(5));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(2));
}

TEST(ReloadWords, TheStartWordStartsNothingWhileTheSwitchIsOff) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editPreferences([](Dictionary& preferences) { preferences.set("DAEMON_ON", false); });
    s.send("daemonStartYourEngines");
    EXPECT_THAT(s.pendingDelays(), IsEmpty());
}

TEST(QuestionWords, AnswerYesWhileNothingIsUnderWay) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    for (const char* word : {"isDirectoryExecuteComplete", "isSMARTExecuteComplete"}) {
        EXPECT_EQ(s.send(word).answer(), Answer::yes) << word;
    }
}

TEST(OtherWords, DoNothingAndAreAnsweredYes) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editVolumeEntry("/Volumes/Data",
                      [](Dictionary& entry) { entry.set("executionTimeUsage", 0.0); });
    const auto writes = s.preferenceWrites();
    const auto pending = s.pendingDelays();
    for (const std::string& word :
         {std::string("daemonstartyourengines"), std::string("DAEMONSTOPYOURENGINES"),
          std::string("daemonPreferencesUpdatedNotification "), std::string(),
          std::string("daemonStartYourEngines\0", 23), std::string("\xff\xfe"),
          std::string(1 << 20, 'x')}) {
        EXPECT_EQ(s.send(word).answer(), Answer::yes) << word.substr(0, 40);
    }
    EXPECT_EQ(s.pendingDelays(), pending);
    s.run(seconds(30));
    EXPECT_EQ(s.preferenceWrites(), writes);
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
}

TEST(FreeSpaceWords, SwitchTheAlarmOffAndOn) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    EXPECT_EQ(s.send("QLDaemonIgnoreFreeSpace_WipeData_Msg").answer(), Answer::yes);
    s.fill("/Volumes/Data", 99_percent).run(hours(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));

    EXPECT_EQ(s.send("QLDaemonCheckFreeSpace_WipeData_Msg").answer(), Answer::yes);
    // The checks that were let go by have left their entries as running; the next reload is told
    // otherwise by whoever edits them.
    for (const char* path : {"/", "/Volumes/Data"}) {
        s.editVolumeEntry(path, [](Dictionary& entry) { entry.set("usageStatus", "0"); });
    }
    s.send("daemonPreferencesUpdatedNotification").run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed", "failed"));
}

TEST(ControlMessages, AreServedOnASystemOfAnyVersion) {
    for (const SystemVersion version : {SystemVersion{10, 6, 8}, SystemVersion{10, 7, 0}}) {
        MachineDescription description = Scenario::describe("two-volumes");
        description.version = version;
        Scenario s(description);
        s.run(minutes(1));
        s.editVolumeEntry("/Volumes/Data",
                          [](Dictionary& entry) { entry.set("executionTimeUsage", 0.0); });
        EXPECT_EQ(s.send("daemonPreferencesUpdatedNotification").answer(), Answer::yes);
        s.run(seconds(4));
        EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(2)) << version.minor;
    }
}

TEST(ControlMessages, AreCarriedOutInTheBackgroundFrom10_7On) {
    const auto backgroundRunsOn = [](SystemVersion version) {
        MachineDescription description = Scenario::describe("two-volumes");
        description.version = version;
        Scenario s(description);
        s.run(minutes(1));
        (void)s.send("isSMARTExecuteComplete");
        return s.machine().runLoop.backgroundRuns();
    };
    EXPECT_EQ(backgroundRunsOn({10, 6, 8}), 0);
    EXPECT_EQ(backgroundRunsOn({10, 7, 0}), 1);
    EXPECT_EQ(backgroundRunsOn({12, 0, 0}), 1);
}

TEST(ControlMessages, FromAnotherUserDoNothing) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const auto pending = s.pendingDelays();
    s.send("daemonPreferencesUpdatedNotification", Scenario::Caller::other);
    EXPECT_EQ(s.answer(), Answer::refused);
    EXPECT_EQ(s.pendingDelays(), pending);
}

TEST(ControlMessages, FindNobodyAfterTheEnd) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.machine().runLoop.terminate();
    s.run(seconds(1));
    EXPECT_EQ(s.send("isSMARTExecuteComplete").answer(), Answer::nobody);
}

}  // namespace
}  // namespace korvane
