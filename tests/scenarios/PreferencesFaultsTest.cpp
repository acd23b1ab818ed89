// Settings documents that nobody should have written, and disks that take no writes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "base/PropertyListCodec.h"
#include "core/DefaultPreferences.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// The device of "/" on the machine "two-volumes".
constexpr char kStartUpDevice[] = "/dev/sda1";

std::size_t countOf(Scenario& scenario, LogLevel level) {
    const auto& lines = scenario.machine().systemLog.lines();
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const auto& line) { return line.level == level; }));
}

std::string nestedDictionaries(int depth) {
    std::string text = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)";
    for (int level = 0; level < depth; ++level) text += "<dict><key>k</key>";
    text += "<true/>";
    for (int level = 0; level < depth; ++level) text += "</dict>";
    return text + "</plist>";
}

// What cannot be read as a dictionary is somebody's file: it is left as it is.
class UnreadablePreferences : public testing::TestWithParam<std::pair<const char*, std::string>> {};

TEST_P(UnreadablePreferences, StayUntouchedByteForByte) {
    Scenario s("two-volumes");
    const std::string& bytes = GetParam().second;
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, bytes, 0640));
    s.run(hours(2));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(s.machine().fileSystem.bytes(kPreferencesFile), bytes);
    EXPECT_EQ(s.machine().fileSystem.attributes(kPreferencesFile)->permissions, 0640u);
    EXPECT_EQ(s.preferenceWrites(), 0u);
    // No settings, no checks.
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

TEST_P(UnreadablePreferences, AreNamedInTheLogOnce) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, GetParam().second));
    s.start();
    ASSERT_EQ(countOf(s, LogLevel::error), 1u);
    const auto& lines = s.machine().systemLog.lines();
    const auto line = std::find_if(lines.begin(), lines.end(), [](const auto& candidate) {
        return candidate.level == LogLevel::error;
    });
    EXPECT_THAT(line->text, StartsWith("The settings cannot be used and are left as they are: " +
                                       std::string(kPreferencesFile) + ": "));
    EXPECT_EQ(line->text.find(kPreferencesFile), line->text.rfind(kPreferencesFile));
    EXPECT_THAT(line->text, EndsWith("."));
    s.run(hours(1)).send("daemonPreferencesUpdatedNotification").run(hours(1));
    EXPECT_EQ(countOf(s, LogLevel::error), 1u);
    // Once more when they have been good in between.
    putPreferences(s, completePreferences());
    s.send("daemonPreferencesUpdatedNotification").run(seconds(1));
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, GetParam().second));
    s.send("daemonPreferencesUpdatedNotification").run(seconds(1));
    EXPECT_EQ(countOf(s, LogLevel::error), 2u);
}

TEST_P(UnreadablePreferences, GiveWayToTheNextGoodOnes) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, GetParam().second));
    s.run(minutes(1));
    putPreferences(s, completePreferences());
    s.send("daemonStartYourEngines");
    s.run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

INSTANTIATE_TEST_SUITE_P(
    Forms, UnreadablePreferences,
    testing::Values(
        std::pair{"Empty", std::string()},
        std::pair{"Truncated", formatPropertyList(completePreferences()).substr(0, 700)},
        std::pair{"Binary", std::string("bplist00\xd1\x01\x02\0\xff", 13)},
        std::pair{"Text", std::string("volumeUsageOnOff = YES;\n")},
        std::pair{"AnArray", formatPropertyList(PropertyListArray{1, 2, 3})},
        std::pair{"DeeplyNested", nestedDictionaries(100'000)},
        std::pair{"JunkAfterTheEnd", formatPropertyList(completePreferences()) + "<dict/>"}),
    [](const auto& form) { return std::string(form.param.first); });

TEST(StrangePreferences, OfWrongTypesAreReadAsFarAsTheyMakeSense) {
    Scenario s("two-volumes");
    Dictionary preferences;
    for (const Dictionary::Entry& setting : completePreferences()) {
        preferences.set(setting.key, PropertyListArray{Dictionary{{"nested", 1}}});
    }
    preferences.set("volumeArray", "no list");
    preferences.set("driveArray", Dictionary{});
    preferences.set("volumeUsageOnOff", "YES");  // a text that says so is as good
    preferences.set("DAEMON_ON", 1);
    preferences.set("usageEntryLimit", "2");
    putPreferences(s, preferences);
    s.run(minutes(21));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed", "passed"));
    EXPECT_EQ(*s.preferences().find("emailServer"),
              PropertyList(PropertyListArray{Dictionary{{"nested", 1}}}));
}

TEST(StrangePreferences, WithElementsThatAreNoEntriesKeepThem) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    const PropertyListArray drives{"a text", PropertyListArray{1}, 7};
    preferences.set("driveArray", drives);
    preferences.set("volumeArray", PropertyListArray{true, 2.5, "a text"});
    putPreferences(s, preferences);
    s.run(hours(1));
    const Dictionary stored = s.preferences();
    EXPECT_EQ(*stored.find("driveArray"), PropertyList(drives));
    const PropertyListArray& volumes = *stored.find("volumeArray")->array();
    ASSERT_EQ(volumes.size(), 5u);
    EXPECT_EQ(volumes[0], PropertyList(true));
    EXPECT_EQ(volumes[1], PropertyList(2.5));
    EXPECT_EQ(volumes[2], PropertyList("a text"));
    EXPECT_THAT(usageResultsIn(s, "Data"), testing::Each("passed"));
}

TEST(StrangePreferences, WithEntriesOfWrongTypesDoNotStopTheChecks) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray",
                    PropertyListArray{
                        Dictionary{},  // no path at all
                        Dictionary{{"volumeMountToName", 7}, {"usageStatus", PropertyListArray{}}},
                        Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                   {"volumeOnOff", PropertyListArray{}},
                                   {"usageStatus", Dictionary{}},
                                   {"freeSpaceWarningLevel", "twenty"},
                                   {"executionTimeUsage", "soon"},
                                   {"executionIntervalUsage_minutes", 1.9},
                                   {"executionIntervalUsage_hours", "1e300"}}});
    putPreferences(s, preferences);
    s.run(minutes(30));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "3");
}

TEST(StrangePreferences, OfTwentyMegabytesAreSavedLikeAnyOther) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    PropertyListArray records;
    for (int number = 0; number < 20'000; ++number) {
        records.emplace_back(Dictionary{{"note", std::string(1000, 'n')}, {"number", number}});
    }
    const PropertyList large(std::move(records));
    preferences.set("recordsOfTheMainApplication", large);
    putPreferences(s, preferences);
    ASSERT_GT(s.machine().fileSystem.bytes(kPreferencesFile)->size(), 20'000'000u);
    s.run(seconds(10));
    const Dictionary stored = s.preferences();
    EXPECT_TRUE(*stored.find("recordsOfTheMainApplication") == large);
    EXPECT_EQ(stored.find("volumeArray")->array()->size(), 2u);
}

TEST(FailingWrites, LeaveTheChecksAtWorkAndAreMadeUpForLater) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const Dictionary before = s.preferences();
    const std::size_t lines = s.log().size();
    s.failNextWrites(1000);
    s.run(minutes(12));
    EXPECT_EQ(textOf(s.preferences()), textOf(before));  // the last good state stands
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(s.log().size(), lines);  // and not a word
    s.failNextWrites(0);
    s.run(minutes(1));  // sooner than any check
    EXPECT_NE(textOf(s.preferences()), textOf(before));
    s.run(minutes(15));
    EXPECT_GE(usageResultsIn(s, "Data").size(), 3u);
}

// In every place that writes settings or a history: the start, the checks, the inventories.
TEST(FailingWrites, AreNotLogged) {
    Scenario good("two-volumes");
    good.run(hours(1));
    Scenario failing("two-volumes");
    failing.run(seconds(0)).failNextWrites(100'000);
    failing.run(hours(1));
    EXPECT_EQ(failing.log(), good.log());
}

TEST(FailingWrites, OnAFullDiskCostNothingButTheSaves) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const Dictionary before = s.preferences();
    s.machine().fileSystem.setFull(kStartUpDevice, true);
    s.run(hours(2));
    EXPECT_FALSE(s.hasEnded());
    EXPECT_EQ(textOf(s.preferences()), textOf(before));
    s.machine().fileSystem.setFull(kStartUpDevice, false);
    s.run(minutes(6));
    EXPECT_GT(executionTimeUsageIn(s, "/Volumes/Data"),
              secondsSince1970(s.machine().clock.now()) - 1);
}

TEST(FailingWrites, OnAReadOnlyDiskStillWarn) {
    Scenario s("two-volumes");
    ASSERT_TRUE(
        s.machine().fileSystem.put(kPreferencesFile, formatPropertyList(completePreferences())));
    ASSERT_TRUE(s.machine().volumes.setFreeBytes("/Volumes/Data", 1'000'000'000));
    s.machine().fileSystem.setReadOnly(kStartUpDevice, true);
    s.run(minutes(1));
    EXPECT_FALSE(s.hasEnded());
    const auto& lines = s.machine().systemLog.lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const auto& line) {
        return line.text == "WARNING! \"Data\" has 0% free space remaining.";
    }));
    EXPECT_EQ(textOf(s.preferences()), textOf(completePreferences()));
}

TEST(FailingWrites, OfTheFirstDefaultsAreNoReasonToEnd) {
    Scenario s("two-volumes");
    s.machine().fileSystem.setReadOnly(kStartUpDevice, true);
    s.run(seconds(0));
    EXPECT_FALSE(s.machine().fileSystem.exists(kSupportFolder));
    // The first tick finds no folder: then it is time.
    s.run(seconds(1));
    EXPECT_TRUE(s.hasEnded());
}

TEST(SettingsThatCannotBeReadNow, AreLoadedWhenTheyCan) {
    Scenario s("two-volumes");
    putPreferences(s, completePreferences());
    s.machine().fileSystem.setUnreadableFile(kPreferencesFile);
    s.run(minutes(10));
    EXPECT_EQ(countOf(s, LogLevel::error), 1u);
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    EXPECT_EQ(s.preferenceWrites(), 0u);
    s.machine().fileSystem.setUnreadableFile("");
    s.run(seconds(30));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

// The last daemon was killed in a check. The start could not know that.
TEST(SettingsThatCannotBeReadNow, LeaveNoCheckAsRunning) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set(kVolumeArray,
                    PropertyListArray{Dictionary{{"volumeMountToName", "/"},
                                                 {"freeSpaceWarningLevel", 15},
                                                 {"usageStatus", "2"},
                                                 {"executionIntervalUsage_minutes", 5},
                                                 {"executionTimeUsage", s.secondsNow() - 60}}});
    putPreferences(s, preferences);
    s.machine().fileSystem.setUnreadableFile(kPreferencesFile);
    s.run(minutes(1));
    s.machine().fileSystem.setUnreadableFile("");
    s.run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "System"), ElementsAre("passed"));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

// The start that is pending stays so, and no check comes before it.
TEST(SettingsThatCannotBeReadNow, DoNotReplaceTheStart) {
    MachineDescription description = Scenario::describe("two-volumes");
    description.uptime = seconds(30);
    Scenario s(description);
    putPreferences(s, completePreferences());
    s.machine().fileSystem.setUnreadableFile(kPreferencesFile);
    s.run(seconds(15));
    s.machine().fileSystem.setUnreadableFile("");
    s.run(seconds(74));
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    s.run(seconds(30));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

// Nothing is known of the settings then, but what was derived from the last good ones.
TEST(FailedReload, KeepsWhatWasDerivedFromTheSettingsBefore) {
    Scenario s("two-volumes");
    Dictionary preferences = completePreferences();
    preferences.set("directoryBackupLocations", PropertyListArray{"/Volumes/Data"});
    putPreferences(s, preferences);
    s.run(seconds(1));
    const std::string off = volumeFolder("System") + "/DirectoryBackup (OFF)";
    ASSERT_TRUE(s.machine().fileSystem.exists(off));
    ASSERT_TRUE(s.machine().fileSystem.put(kPreferencesFile, "no property list"));
    s.send("daemonPreferencesUpdatedNotification").run(seconds(1));
    EXPECT_TRUE(s.machine().fileSystem.exists(off));
}

// The machine finds statuses and due times again, but nobody a setting.
TEST(Saves, AreSyncedWhenASettingOrAnInventoryChanged) {
    Scenario s("two-volumes");
    putPreferences(s, completePreferences());
    s.run(minutes(1));
    const auto syncs = [&s] {
        const std::string text = s.machine().journal.text();
        const std::string line = "write and sync " + std::string(kPreferencesFile);
        std::size_t count = 0;
        for (auto at = text.find(line); at != std::string::npos; at = text.find(line, at + 1)) {
            ++count;
        }
        return count;
    };
    const std::size_t atStart = syncs();
    const std::uint64_t writes = s.preferenceWrites();
    ASSERT_GT(atStart, 0u);
    s.run(minutes(20));  // checks alone
    EXPECT_GT(s.preferenceWrites(), writes);
    EXPECT_EQ(syncs(), atStart);
    s.mount("/Volumes/New").run(seconds(10));
    EXPECT_GT(syncs(), atStart);
    const std::size_t afterMount = syncs();
    s.editPreferences([](Dictionary& settings) { settings.set("trashSaveDays", 9); });
    s.send("daemonPreferencesUpdatedNotification").run(minutes(6));
    EXPECT_GT(syncs(), afterMount);
}

TEST(LargeSettings, AreWrittenEveryTenSecondsAtMost) {
    const auto writesIn20Minutes = [](std::size_t noteBytes) {
        Scenario s("two-volumes");
        Dictionary preferences = completePreferences();
        preferences.set("note", std::string(noteBytes, 'n'));
        PropertyListArray volumes;
        for (const char* const path : {"/", "/Volumes/Data"}) {
            volumes.emplace_back(
                Dictionary{{"volumeMountToName", path}, {"executionIntervalUsage_seconds", 2}});
        }
        preferences.set("volumeArray", std::move(volumes));
        putPreferences(s, preferences);
        s.run(minutes(1));
        const std::uint64_t before = s.preferenceWrites();
        s.run(minutes(20));
        // The last state is written all the same.
        s.editVolumeEntry("/", [](Dictionary&) {});
        EXPECT_GT(executionTimeUsageIn(s, "/"), s.secondsNow() - 15);
        return s.preferenceWrites() - before;
    };
    const std::uint64_t small = writesIn20Minutes(10);
    const std::uint64_t large = writesIn20Minutes(2'000'000);
    EXPECT_GT(small, 300u);
    EXPECT_LE(large, 121u);
    EXPECT_GT(large, 100u);
}

// However far a write had come, the next start reads the old contents or the new.
TEST(KilledWrites, LoseNothing) {
    for (const KillMoment moment :
         {KillMoment::beforeWriting, KillMoment::siblingWhole, KillMoment::siblingWhole,
          KillMoment::fileTorn, KillMoment::written}) {
        Scenario s("two-volumes");
        Dictionary preferences = completePreferences();
        preferences.set("keyOfTheMainApplication", "kept");
        putPreferences(s, preferences);
        s.run(minutes(1)).killAtNextWrite(moment).run(minutes(10));
        s.restart().run(minutes(1));
        const Dictionary stored = s.preferences();
        EXPECT_EQ(*stored.find("keyOfTheMainApplication"), PropertyList("kept"));
        EXPECT_THAT(volumePathsIn(s), ElementsAre("/", "/Volumes/Data"));
        EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "3");
        EXPECT_EQ(countOf(s, LogLevel::error), 0u) << static_cast<int>(moment);
    }
}

}  // namespace
}  // namespace korvane
