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

TEST_P(UnreadablePreferences, AreNamedInTheLogOnceALoad) {
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
    s.run(hours(1));
    EXPECT_EQ(countOf(s, LogLevel::error), 2u);  // the second stage loads once more
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
    s.failNextWrites(8);
    s.run(minutes(5));
    EXPECT_EQ(textOf(s.preferences()), textOf(before));  // the last good state stands
    EXPECT_FALSE(s.hasEnded());
    s.run(minutes(15));
    EXPECT_NE(textOf(s.preferences()), textOf(before));
    EXPECT_GE(usageResultsIn(s, "Data").size(), 3u);
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
