#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

using std::chrono::hours;
using std::chrono::microseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

MachineDescription provided(const std::string& name) {
    const auto description = readMachineDescription(
        std::string(KORVANE_SOURCE_DIR "/tests/fixtures/machines/") + name + ".plist");
    if (!description) throw std::runtime_error(description.error().message);
    return *description;
}

TEST(SimulatedTime, JumpsToWhatIsDueAndStopsAtTheEndOfTheStretch) {
    SimulatedMachine machine{MachineDescription{}};
    const std::uint64_t start = machine.clock.microsecondsSinceBoot();
    std::vector<std::uint64_t> firedAfter;
    const auto note = [&] { firedAfter.push_back(machine.clock.microsecondsSinceBoot() - start); };
    const auto soon = machine.runLoop.startTimer(minutes{1}, Repeat::once, note);
    const auto late = machine.runLoop.startTimer(hours{1}, Repeat::once, note);
    machine.runLoop.runFor(minutes{30});
    EXPECT_THAT(firedAfter, ElementsAre(60000000U));
    EXPECT_EQ(machine.clock.microsecondsSinceBoot() - start, 1800000000U);
    machine.runLoop.runFor(minutes{30});
    EXPECT_THAT(firedAfter, ElementsAre(60000000U, 3600000000U));
}

TEST(SimulatedTime, ShowsThePendingTimersAndTheirDelays) {
    SimulatedMachine machine{MachineDescription{}};
    const auto once = machine.runLoop.startTimer(seconds{3}, Repeat::once, [] {});
    const auto every = machine.runLoop.startTimer(seconds{2}, Repeat::every, [] {});
    const auto pending = machine.runLoop.pendingTimers();
    ASSERT_EQ(pending.size(), 2U);
    EXPECT_EQ(pending[0].remaining, seconds{2});
    EXPECT_EQ(pending[0].repeat, Repeat::every);
    EXPECT_EQ(pending[1].remaining, seconds{3});
}

TEST(SimulatedTime, CountsEveryRequestToTerminate) {
    SimulatedMachine machine{MachineDescription{}};
    int shutdowns = 0;
    machine.runLoop.setWillTerminate([&] { ++shutdowns; });
    machine.runLoop.terminate();
    machine.runLoop.terminate();
    EXPECT_FALSE(machine.runLoop.hasEnded());
    machine.runLoop.runFor(hours{1});
    EXPECT_EQ(machine.runLoop.terminateSends(), 2);
    EXPECT_EQ(shutdowns, 1);
    EXPECT_TRUE(machine.runLoop.hasEnded());
}

TEST(SimulatedTime, RefusesToTurnForeverAtOneInstant) {
    SimulatedMachine machine{MachineDescription{}};
    machine.journal.setRecording(false);
    std::unique_ptr<Timer> timer;
    std::function<void()> again = [&] {
        timer = machine.runLoop.startTimer(microseconds{0}, Repeat::once, again);
    };
    again();
    EXPECT_THROW(machine.runLoop.runFor(seconds{1}), std::runtime_error);
}

TEST(SimulatedTime, StepsTheWallClockApartFromTheTimeSinceBoot) {
    SimulatedMachine machine{MachineDescription{}};
    const Time wall = machine.clock.now();
    const std::uint64_t uptime = machine.clock.microsecondsSinceBoot();
    machine.clock.step(-hours{5});
    EXPECT_EQ(machine.clock.now(), wall - hours{5});
    EXPECT_EQ(machine.clock.microsecondsSinceBoot(), uptime);
}

TEST(SimulatedTime, GoesByAsleepAndWakesTheApplication) {
    SimulatedMachine machine{MachineDescription{}};
    std::vector<std::string> events;
    machine.runLoop.setWillBecomeActive([&] { events.emplace_back("active"); });
    const auto overdue =
        machine.runLoop.startTimer(hours{1}, Repeat::once, [&] { events.emplace_back("overdue"); });
    machine.suspend(hours{8});
    EXPECT_TRUE(events.empty());
    machine.runLoop.runFor(seconds{1});
    EXPECT_THAT(events, ElementsAre("overdue", "active"));
}

TEST(SimulatedDrives, ArePluggedInAndPulledWithTheirVolumes) {
    SimulatedMachine machine(provided("two-volumes"));
    std::vector<std::string> events;
    machine.volumes.setDidMount([&] { events.emplace_back("mount"); });
    machine.volumes.setDidUnmount([&] { events.emplace_back("unmount"); });
    EXPECT_FALSE(machine.pull("stick"));
    ASSERT_TRUE(machine.plug("stick"));
    EXPECT_FALSE(machine.plug("stick"));
    machine.runLoop.runFor(seconds{1});
    EXPECT_THAT(machine.volumes.mountedLocalVolumePaths(), Contains("/Volumes/Stick"));
    EXPECT_EQ(machine.deviceRegistry.servicesNamed("IOMedia", "sdc1")->size(), 1U);

    machine.volumes.setBusy("/Volumes/Stick", true);
    ASSERT_TRUE(machine.pull("stick"));
    machine.runLoop.runFor(seconds{1});
    EXPECT_THAT(machine.volumes.mountedLocalVolumePaths(), Not(Contains("/Volumes/Stick")));
    EXPECT_TRUE(machine.deviceRegistry.servicesNamed("IOMedia", "sdc1")->empty());
    ASSERT_TRUE(machine.plug("stick"));
    machine.runLoop.runFor(seconds{1});
    EXPECT_THAT(events, ElementsAre("mount", "unmount", "mount"));
}

TEST(SimulatedDrives, CanBePulledByTheNameOfAnyService) {
    SimulatedMachine machine(provided("three-volumes"));
    ASSERT_TRUE(machine.pull("drive-b-device"));
    EXPECT_THAT(machine.volumes.mountedLocalVolumePaths(), ElementsAre("/", "/Volumes/Data"));
    ASSERT_TRUE(machine.plug("drive-b-device"));
    EXPECT_THAT(machine.volumes.mountedLocalVolumePaths(),
                ElementsAre("/", "/Volumes/Data", "/Volumes/Backup"));
}

TEST(SimulatedVolumes, AreOneEventHoweverManyCome) {
    SimulatedMachine machine{MachineDescription{}};
    int mounts = 0;
    machine.volumes.setDidMount([&] { ++mounts; });
    for (int number = 0; number < 1000; ++number) {
        MountDescription mount;
        mount.path = "/Volumes/" + std::to_string(number);
        mount.device = "/dev/vd" + std::to_string(number);
        mount.type = "ext4";
        machine.volumes.mount(mount);
    }
    machine.runLoop.runFor(seconds{1});
    EXPECT_EQ(mounts, 1);
}

TEST(SimulatedVolumes, TakeTheirTimeOnADyingDisk) {
    SimulatedMachine machine(provided("one-volume"));
    const std::uint64_t before = machine.clock.microsecondsSinceBoot();
    machine.volumes.setSlow("/Volumes/Data", seconds{30});
    machine.volumes.setUnreadable("/Volumes/Data", true);
    EXPECT_FALSE(machine.volumes.fileSystemAttributes("/Volumes/Data"));
    EXPECT_EQ(machine.clock.microsecondsSinceBoot() - before, 30000000U);
}

TEST(SimulatedVolumes, MayFailAtOneIndexAndGoOnAtTheNext) {
    SimulatedMachine machine(provided("two-volumes"));
    machine.volumes.setStatusOfIndex(1, ioErr);
    EXPECT_EQ(machine.volumes.volumeInfoByIndex(1).status, ioErr);
    EXPECT_EQ(machine.volumes.volumeInfoByIndex(2).status, 0);
    EXPECT_EQ(machine.volumes.volumeInfoByIndex(3).status, nsvErr);
}

TEST(SimulatedJournal, DiffersWhenAnythingDiffers) {
    const auto digestOf = [](seconds delay) {
        SimulatedMachine machine(provided("two-volumes"));
        const auto timer = machine.runLoop.startTimer(
            delay, Repeat::once, [&] { machine.systemLog.write(LogMessage::mailStreamFull); });
        machine.runLoop.runFor(minutes{1});
        return machine.journal.digest();
    };
    EXPECT_EQ(digestOf(seconds{1}), digestOf(seconds{1}));
    EXPECT_NE(digestOf(seconds{1}), digestOf(seconds{2}));
}

}  // namespace
}  // namespace korvane
