// Command words from the main application.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

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
using testing::StartsWith;
using Answer = Scenario::Answer;

// The lines that the system log got after it had this many.
std::vector<std::string> linesSince(const Scenario& scenario, std::size_t before) {
    std::vector<std::string> lines = scenario.log();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    return lines;
}

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

TEST(CreateItems, MakesEmptyFilesThatAnyoneMayWrite) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/full", "contents");
    s.createItems({"/Volumes/Data/a", "/Volumes/Data/full", "/Volumes/Data/b c"});
    EXPECT_EQ(s.answer(), Answer::yes);
    for (const char* path : {"/Volumes/Data/a", "/Volumes/Data/full", "/Volumes/Data/b c"}) {
        EXPECT_EQ(s.machine().fileSystem.bytes(path), "") << path;
        EXPECT_EQ(s.machine().fileSystem.attributes(path)->permissions, 0666U) << path;
    }
}

TEST(CreateItems, LogsWhatFailsFromTheLastToTheFirstAndGoesOn) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/folder/file", "");
    const std::size_t before = s.log().size();
    s.createItems({"relative", "/Volumes/Data/made", "/Volumes/Data/missing/file",
                   "/Volumes/Data/folder", ""});
    EXPECT_THAT(
        linesSince(s, before),
        ElementsAre("\"\" create error", "\"/Volumes/Data/folder\" create error",
                    "\"/Volumes/Data/missing/file\" create error", "\"relative\" create error"));
    EXPECT_TRUE(s.machine().fileSystem.exists("/Volumes/Data/made"));
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/missing"));
    EXPECT_TRUE(s.machine().fileSystem.exists("/Volumes/Data/folder/file"));
    std::vector<std::string> failed;
    for (const ItemFailure& failure : s.machine().controlConnection.itemFailures()) {
        failed.push_back(failure.path);
    }
    EXPECT_THAT(failed, SizeIs(linesSince(s, before).size()));
    EXPECT_EQ(failed.back(), "relative");
}

TEST(DeleteItems, RemovesFilesAndFoldersWithTheirContents) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/folder/deep/file", "x").put("/Volumes/Data/file", "x");
    const std::size_t before = s.log().size();
    s.deleteItems({"/Volumes/Data/folder", "/Volumes/Data/file"});
    EXPECT_EQ(s.answer(), Answer::yes);
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/folder"));
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/file"));
    EXPECT_THAT(linesSince(s, before), IsEmpty());
}

TEST(DeleteItems, WalksFromTheLastToTheFirst) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/folder/file", "x");
    const std::size_t before = s.log().size();
    // What lies inside goes before what it lies in.
    s.deleteItems({"/Volumes/Data/folder", "/Volumes/Data/folder/file"});
    EXPECT_THAT(linesSince(s, before), IsEmpty());
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/folder"));
}

TEST(DeleteItems, LogsWhatFailsWithItsReasonAndGoesOn) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/file", "x");
    const std::size_t before = s.log().size();
    s.deleteItems({"/Volumes/Data/file", "/Volumes/Data/gone", "relative"});
    EXPECT_THAT(linesSince(s, before),
                ElementsAre(StartsWith("\"relative\" delete error: "),
                            StartsWith("\"/Volumes/Data/gone\" delete error: ")));
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/file"));
    // Whoever sent the list is told the same.
    const auto& failures = s.machine().controlConnection.itemFailures();
    ASSERT_THAT(failures, SizeIs(2));
    EXPECT_EQ("\"relative\" delete error: " + failures[0].reason, s.log()[before]);
    EXPECT_EQ(failures[0].path, "relative");
    EXPECT_EQ(failures[1].path, "/Volumes/Data/gone");
}

TEST(DeleteItems, NamesNoReasonOnAnOlderSystem) {
    for (const SystemVersion version : {SystemVersion{10, 4, 11}, SystemVersion{10, 5, 0}}) {
        MachineDescription description = Scenario::describe("two-volumes");
        description.version = version;
        Scenario s(description);
        s.run(minutes(1));
        const std::size_t before = s.log().size();
        s.deleteItems({"/gone"});
        const auto lines = linesSince(s, before);
        ASSERT_THAT(lines, SizeIs(1));
        EXPECT_EQ(lines[0] == "\"/gone\" delete error", version.minor == 4) << lines[0];
    }
}

TEST(DeleteItems, RemovesALinkAndNotWhatItLeadsTo) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/kept/file", "x").put("/Volumes/Data/folder/file", "x");
    s.machine().fileSystem.putLink("/Volumes/Data/folder/link", "/Volumes/Data/kept");
    s.machine().fileSystem.putLink("/Volumes/Data/link", "/Volumes/Data/kept");
    s.deleteItems({"/Volumes/Data/folder", "/Volumes/Data/link/"});
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/folder"));
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/link"));
    EXPECT_EQ(s.machine().fileSystem.bytes("/Volumes/Data/kept/file"), "x");
}

TEST(ItemLists, DoNothingWhenTheyAreEmptyOrFromAnotherUser) {
    Scenario s("two-volumes");
    s.run(minutes(1)).put("/Volumes/Data/file", "x");
    const std::size_t before = s.log().size();
    EXPECT_EQ(s.createItems({}).answer(), Answer::yes);
    EXPECT_EQ(s.deleteItems({}).answer(), Answer::yes);
    EXPECT_EQ(s.createItems({"/Volumes/Data/new"}, Scenario::Caller::other).answer(),
              Answer::refused);
    EXPECT_EQ(s.deleteItems({"/Volumes/Data/file"}, Scenario::Caller::other).answer(),
              Answer::refused);
    EXPECT_THAT(linesSince(s, before), IsEmpty());
    EXPECT_FALSE(s.machine().fileSystem.exists("/Volumes/Data/new"));
    EXPECT_EQ(s.machine().fileSystem.bytes("/Volumes/Data/file"), "x");
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
