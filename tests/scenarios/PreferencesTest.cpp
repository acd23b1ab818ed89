// The settings document: how it is made, completed, loaded, saved, and what its folder means.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "core/DefaultPreferences.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

MachineDescription justBooted(const char* machine) {
    MachineDescription description = Scenario::describe(machine);
    description.uptime = seconds(0);
    return description;
}

void reload(Scenario& scenario) {
    scenario.send("daemonPreferencesUpdatedNotification");
    ASSERT_EQ(scenario.answer(), Scenario::Answer::yes);
}

// Nine settings, one of them against its default.
Dictionary nineSettings() {
    Dictionary preferences;
    preferences.set("DAEMON_ON", false);
    preferences.set("usageEntryLimit", 99);
    preferences.set("directoryBackupLocations", PropertyListArray{"/Volumes/Data"});
    preferences.set("driveArray", PropertyListArray{Dictionary{{"driveModel", "Castor"}}});
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", "/Volumes/Data"}}});
    for (const char* key : {"own1", "own2", "own3", "own4"}) preferences.set(key, "kept");
    return preferences;
}

TEST(FirstStart, CreatesTheFolderAndTheDefaults) {
    Scenario s(justBooted("two-volumes"));
    s.start();
    EXPECT_EQ(textOf(s.preferences()), textOf(completePreferences()));
    EXPECT_EQ(s.preferences().size(), 24u);
    const auto file = s.machine().fileSystem.attributes(kPreferencesFile);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->permissions, 0666u);
    const auto folder = s.machine().fileSystem.attributes(kSupportFolder);
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->kind, ItemKind::folder);
    EXPECT_EQ(folder->ownerId, 0u);
}

TEST(FirstStart, MakesFoldersThatBelongToTheDaemonsUser) {
    MachineDescription description = justBooted("two-volumes");
    description.userName = "ada";
    Scenario s(description);
    s.start();
    for (const char* path : {"/Library", "/Library/Application Support", kSupportFolder}) {
        const auto folder = s.machine().fileSystem.attributes(path);
        ASSERT_TRUE(folder) << path;
        EXPECT_EQ(folder->ownerId, 1000u) << path;
    }
}

TEST(FirstStart, LeavesTheInventoriesToTheDelayedStart) {
    Scenario s(justBooted("two-volumes"));
    s.run(seconds(119));
    EXPECT_THAT(volumePathsIn(s), IsEmpty());
    s.run(seconds(1));
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
}

TEST(IncompletePreferences, GetEveryDefaultAndLoseTheirEntries) {
    Scenario s(justBooted("two-volumes"));
    putPreferences(s, nineSettings());
    s.start();
    Dictionary expected = completePreferences();
    expected.set("directoryBackupLocations", PropertyListArray{"/Volumes/Data"});
    for (const char* key : {"own1", "own2", "own3", "own4"}) expected.set(key, "kept");
    EXPECT_EQ(textOf(s.preferences()), textOf(expected));
    EXPECT_EQ(s.preferenceWrites(), 1u);
}

TEST(IncompletePreferences, AreCompleteWithTenEntries) {
    Scenario s(justBooted("two-volumes"));
    Dictionary ten = nineSettings();
    ten.set("own5", 5);
    putPreferences(s, ten);
    s.start();
    EXPECT_EQ(textOf(s.preferences()), textOf(ten));
    EXPECT_EQ(s.preferenceWrites(), 0u);
}

TEST(IncompletePreferences, OfNoEntriesAtAllAreADictionaryLikeAnyOther) {
    Scenario s(justBooted("two-volumes"));
    putPreferences(s, {});
    s.start();
    EXPECT_EQ(textOf(s.preferences()), textOf(completePreferences()));
}

TEST(IncompletePreferences, KeepWhatIsInMemoryWhenNothingWasLoadedBefore) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, "no property list"));
    s.run(minutes(1));
    // The inventory has been made all the same; the next load finds no dictionary to replace, so
    // the arrays in memory are what it writes over the incomplete file.
    putPreferences(s, nineSettings());
    reload(s);
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
    EXPECT_EQ(*s.volumeEntry("/Volumes/Data").find("freeSpaceWarningLevel"), PropertyList(15));
}

TEST(BackupLocations, ThatAreEmptyBecomeTheStartUpVolumeWithTheNextSave) {
    Scenario s(justBooted("two-volumes"));
    Dictionary preferences = completePreferences();
    preferences.set("directoryBackupLocations", PropertyListArray{});
    putPreferences(s, preferences);
    s.start();
    EXPECT_EQ(textOf(s.preferences()), textOf(preferences));  // not written back by the load
    s.run(minutes(3));
    EXPECT_EQ(*s.preferences().find("directoryBackupLocations"),
              PropertyList(PropertyListArray{"/Volumes/System"}));
    EXPECT_TRUE(s.machine().fileSystem.exists(volumeFolder("Data") + "/DirectoryBackup (ON)"));
}

TEST(BackupLocations, WithoutTheStartUpVolumeSwitchEveryMarkerOff) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("directoryBackupLocations", PropertyListArray{"/Volumes/Data"});
    putPreferences(s, preferences);
    s.run(seconds(1));
    EXPECT_TRUE(s.machine().fileSystem.exists(volumeFolder("System") + "/DirectoryBackup (OFF)"));
    EXPECT_FALSE(s.machine().fileSystem.exists(volumeFolder("System") + "/DirectoryBackup (ON)"));
    EXPECT_EQ(*s.preferences().find("directoryBackupLocations"),
              PropertyList(PropertyListArray{"/Volumes/Data"}));
}

TEST(UnknownKeys, SurviveEveryRewrite) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    const PropertyList nested(Dictionary{{"list", PropertyListArray{1, 2.5, true, "text"}}});
    preferences.set("keyOfTheMainApplication", nested);
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                                 {"executionIntervalUsage_minutes", 5},
                                                 {"colourInTheList", "green"}}});
    putPreferences(s, preferences);
    s.run(hours(1));
    EXPECT_GT(s.preferenceWrites(), 10u);
    EXPECT_EQ(*s.preferences().find("keyOfTheMainApplication"), nested);
    EXPECT_EQ(*s.volumeEntry("/Volumes/Data").find("colourInTheList"), PropertyList("green"));
}

TEST(Reload, TakesWhatTheMainApplicationWrote) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editVolumeEntry("/Volumes/Data", [](Dictionary& entry) {
        entry.set("executionTimeUsage", 0.0);
        entry.set("executionIntervalUsage_minutes", 1);
    });
    reload(s);
    s.run(minutes(1) + seconds(10));
    EXPECT_EQ(usageResultsIn(s, "Data").size(), 3u);  // the first, the forced one, a minute later
}

TEST(Reload, RebuildsTheInventoryAtOnce) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editPreferences(
        [](Dictionary& preferences) { preferences.set("volumeArray", PropertyListArray{}); });
    reload(s);
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
}

TEST(Reload, ForgetsTheEntriesOfAFileThatIsGone) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editVolumeEntry("/Volumes/Data",
                      [](Dictionary& entry) { entry.set("freeSpaceWarningLevel", 42); });
    reload(s);
    ASSERT_TRUE(s.machine().fileSystem.removeItem(kPreferencesFile));
    reload(s);
    EXPECT_EQ(*s.volumeEntry("/Volumes/Data").find("freeSpaceWarningLevel"), PropertyList(15));
    EXPECT_EQ(*s.preferences().find("DAEMON_ON"), PropertyList(true));
}

TEST(Reload, QuitsWhenTheSupportFolderIsGone) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder();
    reload(s);
    EXPECT_EQ(s.terminateSends(), 2);
    s.run(seconds(1));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_FALSE(s.machine().fileSystem.exists(kSupportFolder));
}

TEST(Reload, QuitsWhenTheSupportFolderIsAFile) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder();
    ASSERT_TRUE(s.machine().fileSystem.put(kSupportFolder, "a file"));
    reload(s);
    EXPECT_EQ(s.terminateSends(), 2);
    EXPECT_EQ(s.machine().fileSystem.bytes(kSupportFolder), "a file");
}

TEST(SupportFolder, ItsRemovalEndsTheDaemonAtTheNextTick) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder();
    s.run(minutes(4));
    EXPECT_FALSE(s.hasEnded());  // nothing was due yet
    s.run(minutes(1));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 2);
    // After deciding to quit nothing is done, so nothing brings the folder back.
    EXPECT_FALSE(s.machine().fileSystem.exists(kSupportFolder));
}

// A tick asks only that something is there, a save that it is a folder.
TEST(SupportFolder, AFileInItsPlaceEndsTheDaemonAtTheNextSave) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder();
    ASSERT_TRUE(s.machine().fileSystem.put(kSupportFolder, "a file"));
    s.becomeActive();
    s.run(seconds(2));
    EXPECT_FALSE(s.hasEnded());
    s.run(minutes(5));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_EQ(s.terminateSends(), 2);
    EXPECT_EQ(s.machine().fileSystem.bytes(kSupportFolder), "a file");
}

TEST(SupportFolder, ItsRemovalEndsTheDaemonAtASaveToo) {
    Scenario s("one-volume");
    s.run(milliseconds(9'999));
    // A volume that cannot be measured gets no history, which would bring the folder back.
    ASSERT_TRUE(s.machine().volumes.setWritable("/Volumes/Data", false));
    s.machine().runLoop.runOnce();  // the tick
    s.removeSupportFolder();
    s.run(seconds(0));  // the check and its save
    EXPECT_EQ(s.terminateSends(), 2);
    s.run(seconds(1));
    EXPECT_TRUE(s.hasEnded());
    EXPECT_FALSE(s.machine().fileSystem.exists(kSupportFolder));
}

TEST(SupportFolder, ItsRemovalIsTheLastThingInTheLog) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder().run(minutes(6));
    EXPECT_EQ(s.log().back(),
              "\"" + std::string(kSupportFolder) + "\" is no longer a folder: quitting.");
    EXPECT_EQ(s.log().size(), 2u);
}

TEST(SupportFolder, ALinkToAFolderServesAsOne) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().fileSystem.put("/srv/protection/a file", ""));
    ASSERT_TRUE(s.machine().fileSystem.putLink(kSupportFolder, "/srv/protection"));
    s.run(minutes(10));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_TRUE(s.machine().fileSystem.bytes("/srv/protection/KorvaneProtection.plist"));
    EXPECT_EQ(usageResultsIn(s, "Data").size(), 2u);
}

TEST(SupportFolder, ADanglingLinkCountsAsNone) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.removeSupportFolder();
    ASSERT_TRUE(s.machine().fileSystem.putLink(kSupportFolder, "/nowhere"));
    s.run(minutes(5));
    EXPECT_TRUE(s.hasEnded());
}

TEST(Saves, LeaveTheFileRewritableForEverybody) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    putPreferences(s, preferences);
    ASSERT_TRUE(s.machine().fileSystem.setPermissions(kPreferencesFile, 0600));
    s.run(seconds(1));
    EXPECT_EQ(s.machine().fileSystem.attributes(kPreferencesFile)->permissions, 0666u);
}

TEST(Saves, LeaveTheTickASecondLaterAsTheOnlyOnePending) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editVolumeEntry("/Volumes/Data",
                      [](Dictionary& entry) { entry.set("executionTimeUsage", 0.0); });
    s.send("daemonPreferencesUpdatedNotification").run(seconds(3));
    ASSERT_GT(doubleValue(s.volumeEntry("/Volumes/Data").find("executionTimeUsage")), 0.0);
    EXPECT_THAT(s.pendingDelays(), ElementsAre(1.0));
}

TEST(Saves, HappenOnlyWhenSomethingChanged) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const auto writes = s.preferenceWrites();
    // A tick that finds nothing due.
    s.becomeActive();
    s.run(minutes(2));
    EXPECT_EQ(s.preferenceWrites(), writes);
}

}  // namespace
}  // namespace korvane
