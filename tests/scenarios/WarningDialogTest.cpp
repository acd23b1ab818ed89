// The warning dialog that the monitors share: once for each low-space episode, one on the screen at
// the most, and never waited for.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "scenarios/DaemonFiles.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kData[] = "/Volumes/Data";

std::string lowMessage(const std::string& volume, int percent) {
    return "The volume “" + volume + "” has only " + std::to_string(percent) +
           "% free space remaining. Move or delete some files to make room.";
}

TEST(WarningDialog, ComesOncePerEpisode) {
    Scenario s("one-volume");
    s.run(minutes(6)).fill(kData, 95_percent).run(hours(2));
    EXPECT_THAT(s.dialogs(), ElementsAre(lowMessage("Data", 5)));
}

TEST(WarningDialog, ComesAgainAfterTheSpaceCameBack) {
    Scenario s("one-volume");
    s.run(minutes(6)).fill(kData, 95_percent).run(minutes(6));
    s.fill(kData, 50_percent).run(minutes(6));
    s.fill(kData, 99_percent).run(minutes(6));
    EXPECT_THAT(s.dialogs(), ElementsAre(lowMessage("Data", 5), lowMessage("Data", 1)));
}

TEST(WarningDialog, IsACautionThatStaysUntilItIsDismissed) {
    Scenario s("one-volume");
    s.fill(kData, 95_percent).run(hours(24));
    ASSERT_EQ(s.machine().alertDialogs.shown().size(), 1U);
    const Alert& alert = s.machine().alertDialogs.shown()[0].alert;
    EXPECT_EQ(alert.header, "Korvane Pro Warning");
    EXPECT_EQ(alert.defaultButton, "OK");
    EXPECT_EQ(alert.level, AlertLevel::caution);
    EXPECT_EQ(alert.timeOut, milliseconds(0));
    EXPECT_TRUE(s.machine().alertDialogs.shown()[0].isOnScreen);
}

TEST(WarningDialog, ANewOneReplacesTheOneOnTheScreen) {
    Scenario s("two-volumes");
    s.fill("/", 95_percent).fill(kData, 95_percent).run(minutes(6));
    EXPECT_THAT(s.dialogs(), ElementsAre(lowMessage("System", 5), lowMessage("Data", 5)));
    EXPECT_THAT(s.dialogsOnScreen(), ElementsAre(lowMessage("Data", 5)));
}

TEST(WarningDialog, OneThatWasDismissedIsReplacedAllTheSame) {
    Scenario s("two-volumes");
    s.fill("/", 95_percent).run(minutes(6));
    s.machine().alertDialogs.dismiss(0);
    s.fill(kData, 95_percent).run(minutes(6));
    EXPECT_THAT(s.dialogsOnScreen(), ElementsAre(lowMessage("Data", 5)));
}

TEST(WarningDialog, TheLatchHoldsWhenNobodyCanBeShownIt) {
    Scenario s("one-volume");
    s.machine().alertDialogs.setUnavailable(true);
    s.fill(kData, 95_percent).run(minutes(6));
    EXPECT_EQ(usageStatusIn(s, kData), "4");
    s.machine().alertDialogs.setUnavailable(false);
    s.run(minutes(30));
    EXPECT_THAT(s.dialogs(), IsEmpty());
}

TEST(WarningDialog, AMissingTextShowsItsKey) {
    Scenario s("one-volume");
    s.machine().bundle.setTable(kDefaultStringsTable, StringsTable{});
    s.fill(kData, 95_percent).run(minutes(6));
    EXPECT_THAT(s.dialogs(), ElementsAre("percentFreeSpaceRemaining"));
}

TEST(WarningDialog, NoneWhileTheSwitchOfTheVolumeIsOff) {
    Scenario s("one-volume");
    s.run(minutes(1));
    s.editVolumeEntry(kData, [](Dictionary& entry) { entry.set("volumeOnOff", false); });
    s.send("daemonPreferencesUpdatedNotification").fill(kData, 99_percent).run(minutes(30));
    EXPECT_THAT(s.dialogs(), IsEmpty());
}

}  // namespace
}  // namespace korvane
