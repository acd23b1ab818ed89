// The emergency start-up volume "Ostrand": found, unmounted, or left alone on request; and what any
// mount or unmount sets going.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

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
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

bool isMounted(Scenario& scenario, const std::string& path) {
    return scenario.machine().volumes.mountAt(path) != nullptr;
}

bool isPolling(Scenario& scenario) {
    const auto timers = scenario.machine().runLoop.pendingTimers();
    return std::any_of(timers.begin(), timers.end(),
                       [](const auto& timer) { return timer.repeat == Repeat::every; });
}

TEST(EmergencyWatch, UnmountsAVolumeThatIsThereAtTheStart) {
    MachineDescription description = Scenario::describe("two-volumes");
    description.uptime = seconds(0);
    Scenario s(description);
    s.mount("/Volumes/Ostrand");
    s.run(milliseconds(1'999));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
    // Long before protection begins.
    s.run(milliseconds(1));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_FALSE(isPolling(s));
}

TEST(EmergencyWatch, GivesUpAfterTwelvePollsFromTheStart) {
    Scenario s("two-volumes");
    s.run(milliseconds(23'999));
    EXPECT_TRUE(isPolling(s));
    s.run(milliseconds(1));
    EXPECT_FALSE(isPolling(s));
    // Nobody looks any more; and no mount event comes of what was there unseen.
    EXPECT_EQ(s.machine().volumes.unmountRequests(), 0);
}

TEST(EmergencyWatch, GivesUpAfterTwelvePollsFromAMount) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.plug("stick").run(milliseconds(59'999));
    EXPECT_TRUE(isPolling(s));
    s.run(milliseconds(1));
    EXPECT_FALSE(isPolling(s));
}

TEST(EmergencyWatch, StartsAnewWithEveryMount) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.plug("stick").run(seconds(50));
    s.mount("/Volumes/More").run(milliseconds(59'999));
    EXPECT_TRUE(isPolling(s));
    s.run(milliseconds(1));
    EXPECT_FALSE(isPolling(s));
}

TEST(EmergencyWatch, FindsANumberedVolumeWithoutTheFirst) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand 3").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand 3"));
}

TEST(EmergencyWatch, UnmountsOneVolumeAPollInTheOrderOfTheNames) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand 9").mount("/Volumes/Ostrand").run(seconds(6));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand 9"));
    // The unmount arms nothing; the next mount does.
    s.run(hours(1));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand 9"));
    s.plug("stick").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand 9"));
}

TEST(EmergencyWatch, LooksAtNoHigherNumberThanNine) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand 10").mount("/Volumes/ostrand").run(minutes(2));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand 10"));
    EXPECT_TRUE(isMounted(s, "/Volumes/ostrand"));
}

TEST(EmergencyWatch, FindsAVolumeByItsLastPathComponent) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/media/ada/Ostrand").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/media/ada/Ostrand"));
}

TEST(EmergencyWatch, LeavesABusyVolumeUntilTheNextMount) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand");
    ASSERT_TRUE(s.machine().volumes.setBusy("/Volumes/Ostrand", true));
    s.run(minutes(30));
    EXPECT_EQ(s.machine().volumes.unmountRequests(), 1);
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
    ASSERT_TRUE(s.machine().volumes.setBusy("/Volumes/Ostrand", false));
    s.plug("stick").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(EmergencyWatch, LooksAgainWhenTheMainApplicationThatHeldTheVolumeEnds) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand");
    ASSERT_TRUE(s.machine().volumes.setBusy("/Volumes/Ostrand", true));
    s.run(minutes(30));
    ASSERT_TRUE(s.machine().volumes.setBusy("/Volumes/Ostrand", false));
    s.quitProcess("Korvane Pro 12").run(seconds(0));  // it never asked for a permission
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_EQ(s.machine().volumes.unmountRequests(), 2);
}

TEST(EmergencyWatch, SaysNothingOfIt) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    const auto before = s.log();
    s.mount("/Volumes/Ostrand").run(minutes(2));
    EXPECT_EQ(s.log(), before);
}

TEST(Permission, KeepsTheVolumeMountedWhileTheMainApplicationRuns) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    EXPECT_EQ(s.send("QLDaemonIgnoreMountedOstrand").answer(), Scenario::Answer::yes);
    s.mount("/Volumes/Ostrand").run(seconds(5));
    EXPECT_FALSE(isPolling(s));  // the first poll ends the polling
    s.run(hours(3));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_EQ(s.machine().volumes.unmountRequests(), 0);
}

TEST(Permission, EndsAtTheFirstTickWithoutTheMainApplication) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.startProcess("Korvane Pro 12");
    s.mount("/Volumes/Ostrand").run(seconds(30));
    s.quitProcess("Korvane Pro 12");  // it came after the word: nobody watches for its end
    s.becomeActive().run(seconds(1));
    EXPECT_TRUE(isPolling(s));
    s.run(milliseconds(4'999));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
    s.run(milliseconds(1));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(Permission, DependsOnTheBeginningOfTheProcessName) {
    const struct {
        const char* process;
        bool holds;
    } rows[] = {{"Korvane Pro 12.1", true},   {"Korvane Pro ", true},    {"Korvane Pro", false},
                {"My Korvane Pro 12", false}, {"korvane pro 12", false}, {"", false}};
    for (const auto& row : rows) {
        Scenario s("two-volumes");
        s.startProcess("").startProcess("kthreadd").startProcess(row.process);
        s.run(minutes(1));
        s.send("QLDaemonIgnoreMountedOstrand");
        s.mount("/Volumes/Ostrand").run(minutes(1));
        EXPECT_EQ(isMounted(s, "/Volumes/Ostrand"), row.holds) << row.process;
    }
}

TEST(Permission, IsWithdrawnByTheWordAndTheVolumeUnmountedAtTheNextLook) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.mount("/Volumes/Ostrand").run(minutes(1));
    EXPECT_EQ(s.send("QLDaemonUnmountMountedDrive").answer(), Scenario::Answer::yes);
    s.run(minutes(10));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));  // nobody looks until something is mounted
    s.plug("stick").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(Permission, EndsAtOnceWhenTheMainApplicationQuits) {
    for (const char* identifier : {"com.quorlen.korvanepro", "com.quorlen.korvaneprohelper"}) {
        Scenario s("two-volumes");
        s.startProcess("Korvane Pro 12");
        s.run(minutes(1));
        s.send("QLDaemonIgnoreMountedOstrand");
        s.mount("/Volumes/Ostrand").run(minutes(1));
        s.endApplication(identifier).run(seconds(0));
        EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand")) << identifier;
    }
}

TEST(Permission, EndsAtOnceWithTheLastProcessOfTheMainApplication) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12").startProcess("Korvane Pro ctl");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.mount("/Volumes/Ostrand").run(minutes(1));
    s.quitProcess("Korvane Pro 12").run(seconds(0));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
    s.quitProcess("Korvane Pro ctl").run(seconds(0));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(Permission, OutlivesOtherApplications) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.mount("/Volumes/Ostrand").run(minutes(1));
    s.endApplication("com.quorlen.korvane").endApplication("org.com.quorlen.korvanepro");
    s.run(minutes(10));
    EXPECT_TRUE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(EmergencyWatch, ThePermissionTouchesNoTimer) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    const auto idle = s.pendingDelays();
    s.send("QLDaemonIgnoreMountedOstrand");
    EXPECT_EQ(s.pendingDelays(), idle);
    s.send("QLDaemonUnmountMountedDrive");
    s.plug("stick").run(seconds(2));
    ASSERT_TRUE(isPolling(s));
    const auto polling = s.pendingDelays();
    s.send("QLDaemonIgnoreMountedOstrand");
    EXPECT_EQ(s.pendingDelays(), polling);
    s.send("QLDaemonUnmountMountedDrive");
    EXPECT_EQ(s.pendingDelays(), polling);
}

TEST(EmergencyWatch, IsArmedByAMountThoughThePermissionHolds) {
    Scenario s("two-volumes");
    s.startProcess("Korvane Pro 12");
    s.run(minutes(1));
    s.send("QLDaemonIgnoreMountedOstrand");
    s.mount("/Volumes/Ostrand").run(milliseconds(4'999));
    EXPECT_TRUE(isPolling(s));
    // The permission is withdrawn just before the first poll, which finds the volume then.
    s.send("QLDaemonUnmountMountedDrive").run(milliseconds(1));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
}

TEST(EmergencyWatch, ItsOwnUnmountIsAnUnmountLikeAnyOther) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.mount("/Volumes/Ostrand").run(milliseconds(4'999));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Ostrand"), "0");
    s.run(milliseconds(1));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Ostrand"), "5");
}

TEST(EmergencyWatch, CountsThePollOfAQuittingApplicationLikeAnyOther) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.plug("stick").run(seconds(1));
    for (int times = 0; times < 11; ++times) s.endApplication("com.quorlen.korvanepro");
    s.run(milliseconds(3'999));
    EXPECT_TRUE(isPolling(s));
    // The first poll of the timer is the twelfth since it was armed.
    s.run(milliseconds(1));
    EXPECT_FALSE(isPolling(s));
}

TEST(EmergencyWatch, KeepsItsCountAfterAVolumeWasFound) {
    Scenario s("two-volumes");
    s.run(minutes(1));  // twelve polls in vain
    s.endApplication("com.quorlen.korvanepro").run(seconds(1));
    EXPECT_FALSE(isPolling(s));
    s.mount("/Volumes/Ostrand").run(seconds(5));
    EXPECT_FALSE(isMounted(s, "/Volumes/Ostrand"));
    EXPECT_FALSE(isPolling(s));
}

TEST(Mounting, RebuildsTheInventoryAndTicksASecondLater) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.editVolumeEntry("/", [&](Dictionary&) {});
    s.plug("stick").run(seconds(0));
    EXPECT_THAT(volumePathsIn(s), Contains("/Volumes/Stick"));
    ASSERT_THAT(s.pendingDelays(), SizeIs(2));
    EXPECT_THAT(s.pendingDelays(), ElementsAre(1, 5));  // the tick, and the emergency watch
    s.run(seconds(11));
    EXPECT_THAT(usageResultsIn(s, "Stick"), ElementsAre("passed"));
}

TEST(Unmounting, MarksTheEntryAndTicksAtOnce) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.unmount("/Volumes/Data").run(seconds(0));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "5");
    EXPECT_EQ(*s.volumeEntry("/Volumes/Data").find("directoryStatus"), PropertyList("5"));
    // The tick has been and armed the next one; the emergency watch was left alone.
    ASSERT_THAT(s.pendingDelays(), SizeIs(1));
    EXPECT_GT(s.pendingDelays()[0], 100);
}

TEST(Unmounting, LeavesTheEmergencyWatchAsItIs) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.plug("stick").run(seconds(31));
    s.unmount("/Volumes/Stick").run(milliseconds(28'999));
    EXPECT_TRUE(isPolling(s));
    s.run(milliseconds(1));
    EXPECT_FALSE(isPolling(s));
}

TEST(Mounting, TheSameVolumeAgainRevivesItsEntry) {
    Scenario s("two-volumes");
    s.run(minutes(1));
    s.plug("stick").run(minutes(1));
    s.editVolumeEntry("/Volumes/Stick",
                      [](Dictionary& entry) { entry.set("freeSpaceWarningLevel", 42); });
    s.send("daemonPreferencesUpdatedNotification");
    s.pull("stick").run(minutes(20));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Stick"), "5");
    s.plug("stick").run(minutes(10));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Stick"), "3");
    EXPECT_EQ(*s.volumeEntry("/Volumes/Stick").find("freeSpaceWarningLevel"), PropertyList(42));
}

}  // namespace
}  // namespace korvane
