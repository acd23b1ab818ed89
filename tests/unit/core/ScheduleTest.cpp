#include <gtest/gtest.h>

#include "core/Schedule.h"

namespace korvane {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr double kNowSeconds = 1'700'000'000;
const Time kNow = timeFromSecondsSince1970(kNowSeconds);

Dictionary volume(double usageDueInSeconds, const char* usageStatus = "0") {
    return Dictionary{{"usageStatus", usageStatus},
                      {"executionTimeUsage", kNowSeconds + usageDueInSeconds},
                      {"directoryOnOff", false},
                      {"directoryStatus", "0"},
                      {"executionTimeDirectory", kNowSeconds + usageDueInSeconds}};
}

Dictionary backedUpVolume(double dueInSeconds, const char* directoryStatus = "0") {
    Dictionary entry = volume(7200, "0");
    entry.set("directoryOnOff", true);
    entry.set("directoryStatus", directoryStatus);
    entry.set("executionTimeDirectory", kNowSeconds + dueInSeconds);
    return entry;
}

Dictionary drive(double dueInSeconds, bool isOn = true) {
    return Dictionary{{"smartOnOff", isOn},
                      {"smartStatus", "0"},
                      {"executionTimeSmart", kNowSeconds + dueInSeconds}};
}

constexpr CheckSwitches kAllOn{.usage = true, .directory = true, .smart = true};

double intervalFor(const PropertyListArray& volumes, const PropertyListArray& drives = {},
                   const CheckSwitches& switches = kAllOn) {
    return outTimerInterval(volumes, drives, switches, kNow).count();
}

TEST(StartUpDelay, WaitsForTwoMinutesOfUptime) {
    EXPECT_EQ(startUpDelay(seconds(45)), seconds(75));
    EXPECT_EQ(startUpDelay(seconds(0)), seconds(120));
    EXPECT_EQ(startUpDelay(seconds(120)), seconds(0));
    EXPECT_EQ(startUpDelay(seconds(121)), seconds(0));
    EXPECT_EQ(startUpDelay(std::chrono::hours(24 * 365)), seconds(0));
}

TEST(StartUpDelay, CountsWholeSecondsOfUptime) {
    EXPECT_EQ(startUpDelay(milliseconds(119'900)), seconds(1));
    EXPECT_EQ(startUpDelay(microseconds(999'999)), seconds(120));
}

TEST(OnBattery, TakesEverySourceButMainsForABattery) {
    using States = std::optional<std::vector<std::string>>;
    EXPECT_FALSE(isOnBattery(std::nullopt));
    EXPECT_FALSE(isOnBattery(States{std::in_place}));
    EXPECT_FALSE(isOnBattery(States{{"AC Power"}}));
    EXPECT_FALSE(isOnBattery(States{{"AC Power", "AC Power"}}));
    EXPECT_TRUE(isOnBattery(States{{"Battery Power"}}));
    EXPECT_TRUE(isOnBattery(States{{"AC Power", "Battery Power"}}));
    EXPECT_TRUE(isOnBattery(States{{"AC Power", "Off Line"}}));
    EXPECT_TRUE(isOnBattery(States{{""}}));
    EXPECT_TRUE(isOnBattery(States{{"ac power"}}));
}

TEST(UsageWalk, PicksTheFirstDueVolume) {
    EXPECT_EQ(usageCheckToStart({volume(60), volume(-5), volume(-60)}, kNow), 1u);
}

TEST(UsageWalk, PicksNothingWhenNothingIsDue) {
    EXPECT_EQ(usageCheckToStart({}, kNow), std::nullopt);
    EXPECT_EQ(usageCheckToStart({volume(60)}, kNow), std::nullopt);
    EXPECT_EQ(usageCheckToStart({volume(1)}, kNow), std::nullopt);
}

TEST(UsageWalk, CountsHalfASecondAheadAsDue) {
    EXPECT_EQ(usageCheckToStart({volume(0.5)}, kNow), 0u);
    EXPECT_EQ(usageCheckToStart({volume(0)}, kNow), 0u);
}

TEST(UsageWalk, StopsAtADueVolumeWhoseCheckRuns) {
    EXPECT_EQ(usageCheckToStart({volume(-5, "2"), volume(-5)}, kNow), std::nullopt);
}

TEST(UsageWalk, GoesPastARunningCheckThatIsNotDue) {
    EXPECT_EQ(usageCheckToStart({volume(60, "2"), volume(-5)}, kNow), 1u);
}

TEST(UsageWalk, PassesOverVolumesThatAreNotAvailable) {
    EXPECT_EQ(usageCheckToStart({volume(-5, "5"), volume(-5)}, kNow), 1u);
}

TEST(UsageWalk, ChecksAVolumeThatWasWarnedAbout) {
    EXPECT_EQ(usageCheckToStart({volume(-5, "4")}, kNow), 0u);
}

TEST(UsageWalk, ReadsStatusesByTheirValueWhateverTheirType) {
    Dictionary withNumber = volume(-5);
    withNumber.set("usageStatus", 5);
    Dictionary withReal = volume(-5);
    withReal.set("usageStatus", 2.9);
    EXPECT_EQ(usageCheckToStart({withNumber, volume(-5)}, kNow), 1u);
    EXPECT_EQ(usageCheckToStart({withReal, volume(-5)}, kNow), std::nullopt);
    EXPECT_EQ(usageCheckToStart({volume(-5, "5th"), volume(-5)}, kNow), 1u);
}

TEST(UsageWalk, PassesOverWhatIsNoEntry) {
    EXPECT_EQ(usageCheckToStart({"a text", 7, PropertyListArray{}, volume(-5)}, kNow), 3u);
}

TEST(UsageWalk, TakesAnEntryWithoutADueTimeAsOverdue) {
    EXPECT_EQ(usageCheckToStart({Dictionary{}}, kNow), 0u);
}

TEST(OutTimer, WaitsAnHourWhenThereIsNothingToWaitFor) {
    EXPECT_EQ(intervalFor({}), 3600);
    EXPECT_EQ(intervalFor({"a text", 7}, {true}), 3600);
}

TEST(OutTimer, WaitsForTheEarliestCheck) {
    EXPECT_EQ(intervalFor({volume(7230)}), 3600);
    EXPECT_EQ(intervalFor({volume(90)}), 90);
    EXPECT_EQ(intervalFor({volume(90), volume(60), volume(80)}), 60);
    EXPECT_EQ(intervalFor({volume(90)}, {drive(30)}), 30);
    EXPECT_EQ(intervalFor({backedUpVolume(45)}, {drive(50)}), 45);
}

TEST(OutTimer, CountsWholeSecondsThatRemain) {
    EXPECT_EQ(intervalFor({volume(90.9)}), 90);
    EXPECT_EQ(intervalFor({volume(1)}), 1);
    EXPECT_EQ(intervalFor({volume(2.5)}), 2);
}

TEST(OutTimer, WaitsThreeSecondsWhenSomethingIsOverdue) {
    EXPECT_EQ(intervalFor({volume(0)}), 3);
    EXPECT_EQ(intervalFor({volume(0.9)}), 3);  // no whole second remains
    EXPECT_EQ(intervalFor({volume(-0.5)}), 3);
    EXPECT_EQ(intervalFor({volume(-100'000)}), 3);
    EXPECT_EQ(intervalFor({Dictionary{}}), 3);
}

TEST(OutTimer, CountsRunningChecksToo) {
    EXPECT_EQ(intervalFor({volume(-5, "2")}), 3);
    EXPECT_EQ(intervalFor({backedUpVolume(-5, "2")}), 3);
}

TEST(OutTimer, LeavesOutWhatIsNotAvailableOrNotSwitchedOn) {
    EXPECT_EQ(intervalFor({volume(-5, "5")}), 3600);
    EXPECT_EQ(intervalFor({backedUpVolume(-5, "5")}), 3600);
    EXPECT_EQ(intervalFor({}, {drive(-5, false)}), 3600);
    EXPECT_EQ(intervalFor({volume(-5)}, {}, {.usage = false, .directory = true, .smart = true}),
              3600);
    EXPECT_EQ(intervalFor({backedUpVolume(-5)}, {}, {.usage = true, .smart = true}), 3600);
    EXPECT_EQ(intervalFor({}, {drive(-5)}, {.usage = true, .directory = true}), 3600);
}

Dictionary dueDrive(double inSeconds, const char* status = "3", bool isOn = true) {
    return {{"smartOnOff", isOn},
            {"smartStatus", status},
            {"executionTimeSmart", secondsSince1970(kNow) + inSeconds}};
}

TEST(SmartWalk, StopsAtTheFirstDueDriveThatIsSwitchedOn) {
    const DueSmartCheck due =
        dueSmartCheck({dueDrive(60), dueDrive(-5, "3", false), dueDrive(-5), dueDrive(-60)}, kNow);
    EXPECT_TRUE(due.isAnyDue);
    EXPECT_EQ(due.toStart, 2u);
}

TEST(SmartWalk, FindsNothingDue) {
    for (const PropertyListArray& drives :
         {PropertyListArray{}, {dueDrive(1)}, {dueDrive(-5, "3", false)}, {"no entry", 5}}) {
        const DueSmartCheck due = dueSmartCheck(drives, kNow);
        EXPECT_FALSE(due.isAnyDue);
        EXPECT_EQ(due.toStart, std::nullopt);
    }
}

TEST(SmartWalk, LeavesARunningCheckAloneAndThoseBehindItToo) {
    const DueSmartCheck due = dueSmartCheck({dueDrive(-5, "2"), dueDrive(-5)}, kNow);
    EXPECT_TRUE(due.isAnyDue);
    EXPECT_EQ(due.toStart, std::nullopt);
}

TEST(SmartWalk, ChecksDrivesOfAnyOtherStatus) {
    for (const char* status : {"0", "3", "4", "5", "", "9"}) {
        EXPECT_EQ(dueSmartCheck({dueDrive(0.5, status)}, kNow).toStart, 0u) << status;
    }
}

}  // namespace
}  // namespace korvane
