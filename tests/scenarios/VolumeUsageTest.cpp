// The volume usage check: measured, warned about once for each time a volume runs low, recorded,
// and due again.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <string>

#include "core/DefaultPreferences.h"
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

constexpr char kData[] = "/Volumes/Data";

// Only the warnings of this check among the lines of the log.
std::vector<std::string> warnings(Scenario& scenario) {
    std::vector<std::string> lines;
    for (const auto& line : scenario.machine().systemLog.lines()) {
        if (line.text.starts_with("WARNING!")) lines.push_back(line.text);
    }
    return lines;
}

// A settings document with one entry, whose check is due at the first tick.
void putDataEntry(Scenario& scenario, std::int64_t warningLevel, Dictionary more = {}) {
    Dictionary entry{{"volumeMountToName", kData},
                     {"volumeOnOff", true},
                     {"freeSpaceWarningLevel", warningLevel},
                     {"executionIntervalUsage_minutes", 5}};
    for (Dictionary::Entry& field : more) entry.set(field.key, field.value);
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray", PropertyListArray{std::move(entry)});
    putPreferences(scenario, preferences);
}

TEST(UsageCheck, WarnsBelowTheLevelAndShowsWholePercents) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.setSpace(kData, 1'000'000'000, 96'000'000);  // 9.6 percent
    s.run(seconds(1));
    EXPECT_THAT(warnings(s), ElementsAre("WARNING! \"Data\" has 10% free space remaining."));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed"));
}

TEST(UsageCheck, PassesAtExactlyTheLevel) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.setSpace(kData, 1'000'000'000, 100'000'000);
    s.run(seconds(1));
    EXPECT_THAT(warnings(s), IsEmpty());
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

TEST(UsageCheck, LogsEveryRunOfALowEpisodeAndKeepsItsLatch) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.setSpace(kData, 1'000'000'000, 96'000'000).run(seconds(1));
    s.setSpace(kData, 1'000'000'000, 95'000'000).run(minutes(5));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed", "failed"));
    EXPECT_THAT(warnings(s), SizeIs(2));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
}

TEST(UsageCheck, ClearsTheLatchWhenTheSpaceCameBack) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.fill(kData, 95_percent).run(seconds(1));
    ASSERT_EQ(usageStatusIn(s, kData), "4");
    s.fill(kData, 50_percent).run(minutes(5));
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    s.fill(kData, 95_percent).run(minutes(5));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed", "passed", "failed"));
}

TEST(UsageCheck, PassesWhateverIsFreeWhileItsSwitchIsOff) {
    Scenario s("one-volume");
    putDataEntry(s, 10, {{"volumeOnOff", false}, {"usageStatus", "4"}});
    s.fill(kData, 99_percent).run(seconds(1));
    EXPECT_THAT(warnings(s), IsEmpty());
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
}

TEST(UsageCheck, TestsAnEntryWithoutASwitch) {
    Scenario s("one-volume");
    Dictionary preferences = completePreferences();
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", kData},
                                                 {"freeSpaceWarningLevel", 10},
                                                 {"executionIntervalUsage_minutes", 5}}});
    putPreferences(s, preferences);
    s.fill(kData, 99_percent).run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed"));
}

TEST(UsageCheck, MeasuresTheVolumeOfTheEntryAndNoOther) {
    Scenario s("two-volumes");
    s.fill("/", 99_percent).run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "System"), ElementsAre("failed"));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    EXPECT_THAT(warnings(s), ElementsAre("WARNING! \"System\" has 1% free space remaining."));
}

TEST(UsageCheck, RecordsWhatItMeasuredInSinglePrecision) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.setSpace(kData, 1'000'000'000'001, 333'333'333'333).run(seconds(1));
    ASSERT_THAT(s.historyLog("Data"), SizeIs(1));
    const Dictionary entry = s.historyLog("Data")[0];
    const auto size = static_cast<float>(1'000'000'000'001);
    const auto free = static_cast<float>(333'333'333'333);
    EXPECT_EQ(entry.size(), 8u);
    EXPECT_EQ(*entry.find("displayName"), PropertyList("Data"));
    EXPECT_EQ(*entry.find("calendarDate"), PropertyList("2026-03-02 08:00:01 +0000"));
    EXPECT_EQ(*entry.find("percentFree"), PropertyList(double{free / size * 100.0F}));
    EXPECT_EQ(*entry.find("fs_size"), PropertyList(double{size}));
    EXPECT_EQ(*entry.find("fs_freeSize"), PropertyList(double{free}));
    EXPECT_EQ(*entry.find("fs_usedSize"), PropertyList(double{size - free}));
    EXPECT_NE(entry.find("fs_number")->integer(), nullptr);
    EXPECT_EQ(*entry.find("result"), PropertyList("passed"));
}

TEST(UsageCheck, DatesItsRecordsInTheLocalZone) {
    MachineDescription description = Scenario::describe("one-volume");
    description.zone = "Asia/Kolkata";
    Scenario s(description);
    putDataEntry(s, 10);
    s.run(seconds(1));
    ASSERT_THAT(s.historyLog("Data"), SizeIs(1));
    EXPECT_EQ(*s.historyLog("Data")[0].find("calendarDate"),
              PropertyList("2026-03-02 13:30:01 +0530"));
}

TEST(UsageCheck, IsDueAgainAfterTheEntrysInterval) {
    Scenario s("one-volume");
    putDataEntry(s, 10,
                 {{"executionIntervalUsage_hours", 1},
                  {"executionIntervalUsage_minutes", 2},
                  {"executionIntervalUsage_seconds", 3}});
    s.run(seconds(1));
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, kData), s.secondsNow() + 3723);
    EXPECT_NE(s.volumeEntry(kData).find("executionTimeUsage")->real(), nullptr);
    s.run(seconds(3722));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(1));
    s.run(seconds(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), SizeIs(2));
}

TEST(UsageCheck, KeepsItsIntervalAsAbsoluteTimeWhenTheZoneChangesIts) {
    MachineDescription description = Scenario::describe("one-volume");
    description.zone = "Europe/Berlin";
    // Half an hour before the clocks go forward.
    description.wallClock = timeFromSecondsSince1970(1'774'744'200);
    Scenario s(description);
    putDataEntry(s, 10,
                 {{"executionIntervalUsage_hours", 1}, {"executionIntervalUsage_minutes", 0}});
    s.run(seconds(1));
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, kData), s.secondsNow() + 3600);
}

TEST(UsageCheck, MeasuresNoEmergencyVolume) {
    Scenario s("one-volume");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.mount("/Volumes/Ostrand").fill("/Volumes/Ostrand", 99_percent).run(minutes(1));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Ostrand"), "3");
    EXPECT_GT(executionTimeUsageIn(s, "/Volumes/Ostrand"), s.secondsNow());
    EXPECT_THAT(usageResultsIn(s, "Ostrand"), IsEmpty());
    EXPECT_THAT(warnings(s), IsEmpty());
}

TEST(UsageCheck, MeasuresNoVolumeThatCannotBeWritten) {
    Scenario s("one-volume");
    putDataEntry(s, 10, {{"usageStatus", "4"}});
    ASSERT_TRUE(s.machine().volumes.setWritable(kData, false));
    s.fill(kData, 99_percent).run(seconds(1));
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, kData), s.secondsNow() + 300);
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
}

// The tick finds the volume there, the check a moment later does not.
TEST(UsageCheck, FindsAVolumeGoneThatWasThereAMomentAgo) {
    Scenario s("one-volume");
    putDataEntry(s, 10, {{"usageStatus", "4"}});
    s.run(std::chrono::milliseconds(999));
    s.machine().runLoop.runOnce();  // the tick
    s.unmount(kData);
    s.machine().runLoop.runOnce();  // the check that it started
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, kData), s.secondsNow() + 300);
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    s.run(seconds(1));
    EXPECT_EQ(usageStatusIn(s, kData), "5");
}

TEST(UsageCheck, PassesAVolumeWhoseSizesCannotBeHad) {
    Scenario s("one-volume");
    putDataEntry(s, 100);
    ASSERT_TRUE(s.machine().volumes.setUnreadable(kData, true));
    s.run(seconds(1));
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    ASSERT_THAT(s.historyLog("Data"), SizeIs(1));
    const Dictionary entry = s.historyLog("Data")[0];
    EXPECT_EQ(*entry.find("result"), PropertyList("passed"));
    EXPECT_TRUE(std::isnan(doubleValue(entry.find("percentFree"))));
    EXPECT_EQ(*entry.find("fs_size"), PropertyList(0.0));
    EXPECT_THAT(warnings(s), IsEmpty());
}

TEST(UsageCheck, DoesNothingAtAllWhileFreeSpaceIsIgnored) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.start().send("QLDaemonIgnoreFreeSpace_WipeData_Msg");
    const double before = s.secondsNow();
    s.fill(kData, 99_percent).run(minutes(1));
    EXPECT_LT(executionTimeUsageIn(s, kData), before);
    EXPECT_THAT(usageResultsIn(s, "Data"), IsEmpty());
    EXPECT_THAT(warnings(s), IsEmpty());
}

TEST(UsageCheck, SavesWhatItChanged) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.run(std::chrono::milliseconds(999));
    const auto writes = s.preferenceWrites();
    s.run(std::chrono::milliseconds(1));
    EXPECT_EQ(s.preferenceWrites(), writes + 1);
}

TEST(UsageCheck, ADyingDiskOnlyDelaysTheOthers) {
    Scenario s("two-volumes");
    ASSERT_TRUE(s.machine().volumes.setSlow("/", minutes(2)));
    s.run(minutes(10));
    EXPECT_THAT(usageResultsIn(s, "Data"), testing::Not(IsEmpty()));
}

TEST(UsageCheck, GoesOnForDaysWithoutMissingATurn) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.run(seconds(1));
    const auto writes = s.preferenceWrites();
    s.run(hours(48));
    EXPECT_EQ(s.preferenceWrites(), writes + 48 * 12);
}

TEST(UsageCheck, MailsAfterItHasLoggedAndSaved) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.editPreferences([](Dictionary& settings) {
        settings.set("volumeUsageEmail", true);
        settings.set("emailServer", "mail.example.org");
        settings.set("emailPort", "25");
        settings.set("emailAddress", "ada@example.org");
    });
    s.fill(kData, 99_percent).run(seconds(1));
    const std::string journal = s.machine().journal.text();
    const auto warning = journal.find("log warning WARNING!");
    const auto result = journal.find("Volume Usage.plist", warning);
    const auto save = journal.find("KorvaneProtection.plist", result);
    const auto mail = journal.find("mail connection", warning);
    ASSERT_NE(mail, std::string::npos) << journal;
    ASSERT_NE(save, std::string::npos) << journal;
    EXPECT_LT(result, save);
    EXPECT_LT(save, mail);
    EXPECT_EQ(usageStatusIn(s, kData), "4");
}

TEST(UsageCheck, KeepsItsStatusWhenFreeSpaceIsNoLongerIgnored) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.fill(kData, 99_percent).run(seconds(2));
    ASSERT_EQ(usageStatusIn(s, kData), "4");
    s.send("QLDaemonIgnoreFreeSpace_WipeData_Msg");
    s.send("QLDaemonCheckFreeSpace_WipeData_Msg").run(minutes(6));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    EXPECT_THAT(s.dialogs(), SizeIs(1)) << "the latch holds";
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("failed", "failed"));
}

TEST(UsageCheck, ThatHasNotEndedIsNotStartedAnewAtEachTick) {
    Scenario s("one-volume");
    putDataEntry(s, 10);
    s.start().send("QLDaemonIgnoreFreeSpace_WipeData_Msg").run(seconds(4));
    // A check is started by a timer of 0 seconds.
    const auto starts = [&s] {
        const std::string journal = s.machine().journal.text();
        int count = 0;
        for (auto at = journal.find("timer 0.000000 s"); at != std::string::npos;
             at = journal.find("timer 0.000000 s", at + 1)) {
            ++count;
        }
        return count;
    };
    const int before = starts();
    ASSERT_GT(before, 0);
    s.run(seconds(30));
    EXPECT_EQ(starts(), before);
    EXPECT_THAT(s.pendingDelays(), testing::Contains(testing::Le(3.0))) << "it is overdue still";
}

TEST(UsageCheck, ReadsALevelAsAWholeNumber) {
    Scenario s("one-volume");
    putDataEntry(s, 10, {{"freeSpaceWarningLevel", 15.9}});
    s.setSpace(kData, 1'000'000'000, 155'000'000).run(seconds(1));  // 15.5 percent
    EXPECT_EQ(usageStatusIn(s, kData), "3");
    s.setSpace(kData, 1'000'000'000, 149'000'000).run(minutes(5));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
}

}  // namespace
}  // namespace korvane
