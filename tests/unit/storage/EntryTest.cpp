// Entries as they come from the preferences file, which other programs rewrite.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "storage/DriveEntry.h"
#include "storage/VolumeEntry.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::IsEmpty;

constexpr Time kNow{seconds{1'700'000'000}};

TEST(NewVolumeEntry, HasTheDefaultsOfAnInternalStartUpVolume) {
    const Dictionary entry =
        newVolumeEntry({.mountPoint = "/", .isInternal = true, .isHfs = true}, kNow);
    const Dictionary expected{
        {"volumeMountToName", "/"},
        {"volumeOnOff", true},
        {"directoryOnOff", true},
        {"isCoreStorageEncrypted", false},
        {"trashOnOff", true},
        {"freeSpaceWarningLevel", 15},
        {"usageStatus", "0"},
        {"executionIntervalUsage_hours", 0},
        {"executionIntervalUsage_minutes", 5},
        {"executionIntervalUsage_seconds", 0},
        {"executionTimeUsage", 1'700'000'010.0},
        {"directoryStatus", "0"},
        {"executionIntervalDirectory_hours", 4},
        {"executionIntervalDirectory_minutes", 0},
        {"executionIntervalDirectory_seconds", 0},
        {"executionTimeDirectory", 1'700'000'010.0},
    };
    EXPECT_EQ(entry, expected);
}

TEST(NewVolumeEntry, KeepsTrashHistoryButNotMonitoringOfAnExternalHfsVolume) {
    const Dictionary fields = newVolumeEntry({.mountPoint = "/Volumes/Data", .isHfs = true}, kNow);
    const ConstVolumeEntry entry(fields);
    EXPECT_FALSE(entry.volumeOnOff());
    EXPECT_FALSE(entry.directoryOnOff());
    EXPECT_TRUE(entry.trashOnOff());
}

TEST(NewVolumeEntry, BacksUpTheDirectoryOfTheStartUpVolumeAlone) {
    const Dictionary fields =
        newVolumeEntry({.mountPoint = "/Volumes/Data", .isInternal = true, .isHfs = true}, kNow);
    EXPECT_FALSE(ConstVolumeEntry(fields).directoryOnOff());
}

TEST(NewVolumeEntry, KeepsNoTrashHistoryOfOtherFileSystems) {
    const Dictionary fields = newVolumeEntry({.mountPoint = "/", .isInternal = true}, kNow);
    const ConstVolumeEntry entry(fields);
    EXPECT_TRUE(entry.volumeOnOff());
    EXPECT_FALSE(entry.trashOnOff());
    EXPECT_FALSE(entry.directoryOnOff());
}

TEST(NewVolumeEntry, KeepsNoTrashHistoryOfAnEncryptedVolume) {
    const Dictionary fields = newVolumeEntry(
        {.mountPoint = "/Volumes/Data", .isHfs = true, .isCoreStorageEncrypted = true}, kNow);
    const ConstVolumeEntry entry(fields);
    EXPECT_TRUE(entry.isCoreStorageEncrypted());
    EXPECT_FALSE(entry.trashOnOff());
}

TEST(NewVolumeEntry, KeepsFractionsOfASecondInItsDueTimes) {
    const Dictionary fields = newVolumeEntry({.mountPoint = "/"}, kNow + milliseconds{250});
    EXPECT_EQ(doubleValue(fields.find("executionTimeUsage")), 1'700'000'010.25);
    EXPECT_EQ(ConstVolumeEntry(fields).executionTimeUsage(), kNow + milliseconds{10'250});
}

TEST(VolumeEntry, ReadsAStatusByItsIntegerValueWhateverItsType) {
    const struct {
        PropertyList stored;
        std::int64_t status;
    } rows[] = {
        {"5", kStatusNotAvailable},
        {" 2", kStatusRunning},
        {"4 or so", kStatusFailing},
        {"", kStatusNotExamined},
        {"five", 0},
        {5, kStatusNotAvailable},
        {5.9, kStatusNotAvailable},
        {true, kStatusWaiting},
        {"-1", -1},
        {"77", 77},
        {PropertyListArray{}, 0},
        {Dictionary{}, 0},
        {PropertyListData{}, 0},
        {PropertyListDate{}, 0},
        {"99999999999999999999", INT64_MAX},
    };
    for (const auto& row : rows) {
        const Dictionary fields{{"directoryStatus", row.stored}, {"usageStatus", row.stored}};
        EXPECT_EQ(ConstVolumeEntry(fields).usageStatus(), row.status);
        EXPECT_EQ(ConstVolumeEntry(fields).directoryStatus(), row.status);
    }
}

TEST(VolumeEntry, WritesAStatusAsTextEvenOverANumber) {
    Dictionary fields{{"usageStatus", 2}, {"directoryStatus", 2}};
    VolumeEntry entry(fields);
    entry.setUsageStatus(kStatusFailing);
    entry.setDirectoryStatus(kStatusNotAvailable);
    EXPECT_EQ(fields, (Dictionary{{"usageStatus", "4"}, {"directoryStatus", "5"}}));
}

TEST(VolumeEntry, LeavesKeysItDoesNotKnowAlone) {
    Dictionary fields{{"addedByTheApplication", PropertyListArray{1, "two"}}};
    VolumeEntry entry(fields);
    entry.setUsageStatus(kStatusPassed);
    entry.setExecutionTimeUsage(kNow);
    EXPECT_EQ(*fields.find("addedByTheApplication"), PropertyList(PropertyListArray{1, "two"}));
}

TEST(VolumeEntry, IsJudgedUnlessItSaysOtherwise) {
    EXPECT_TRUE(ConstVolumeEntry(Dictionary{}).volumeOnOff());
    EXPECT_FALSE(ConstVolumeEntry(Dictionary{{"volumeOnOff", false}}).volumeOnOff());
    EXPECT_FALSE(ConstVolumeEntry(Dictionary{{"volumeOnOff", "NO"}}).volumeOnOff());
    EXPECT_TRUE(ConstVolumeEntry(Dictionary{{"volumeOnOff", 1}}).volumeOnOff());
}

TEST(VolumeEntry, ReadsAnEmptyDictionaryAsZeros) {
    const Dictionary fields;
    const ConstVolumeEntry entry(fields);
    EXPECT_THAT(entry.volumeMountToName(), IsEmpty());
    EXPECT_FALSE(entry.directoryOnOff());
    EXPECT_FALSE(entry.trashOnOff());
    EXPECT_EQ(entry.freeSpaceWarningLevel(), 0);
    EXPECT_EQ(entry.executionTimeUsage(), Time{});
    EXPECT_EQ(entry.executionIntervalUsage().minutes, 0);
}

TEST(VolumeEntry, HasNoIdentityWhenItsMountPointIsNoText) {
    EXPECT_THAT(ConstVolumeEntry(Dictionary{{"volumeMountToName", 7}}).volumeMountToName(),
                IsEmpty());
}

TEST(VolumeEntry, ReadsIntervalsStoredAsTextsAndReals) {
    const Dictionary fields{{"executionIntervalUsage_hours", "1"},
                            {"executionIntervalUsage_minutes", -3.9},
                            {"executionIntervalUsage_seconds", 90}};
    const CheckInterval interval = ConstVolumeEntry(fields).executionIntervalUsage();
    EXPECT_EQ(interval.hours, 1);
    EXPECT_EQ(interval.minutes, -3);
    EXPECT_EQ(interval.seconds, 90);
}

TEST(VolumeEntry, IsOnlySeenOverADictionary) {
    for (PropertyList element : {PropertyList("text"), PropertyList(3),
                                 PropertyList(PropertyListArray{}), PropertyList(true)}) {
        EXPECT_FALSE(VolumeEntry::over(element));
        EXPECT_FALSE(ConstVolumeEntry::over(element));
        EXPECT_FALSE(DriveEntry::over(element));
        EXPECT_FALSE(ConstDriveEntry::over(element));
    }
    PropertyList element(Dictionary{{"usageStatus", "3"}});
    EXPECT_EQ(ConstVolumeEntry::over(element)->usageStatus(), kStatusPassed);
    VolumeEntry::over(element)->setUsageStatus(kStatusRunning);
    EXPECT_EQ(ConstVolumeEntry::over(element)->usageStatus(), kStatusRunning);
}

TEST(DriveEntry, ReadsAndWritesWhatTheSchedulerNeeds) {
    Dictionary fields{{"smartOnOff", true},
                      {"smartStatus", 2},
                      {"executionTimeSmart", "1700000000"},
                      {"executionIntervalSmart_hours", 1}};
    DriveEntry entry(fields);
    EXPECT_TRUE(entry.smartOnOff());
    EXPECT_EQ(entry.smartStatus(), kStatusRunning);
    EXPECT_EQ(entry.executionTimeSmart(), kNow);
    EXPECT_EQ(entry.executionIntervalSmart().hours, 1);
    entry.setSmartStatus(kStatusPassed);
    EXPECT_EQ(*fields.find("smartStatus"), PropertyList("3"));
}

}  // namespace
}  // namespace korvane
