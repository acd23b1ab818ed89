// Memory runs out at any moment of a tick, a reload or a save, for once or for good: the settings
// are never destroyed by it, in memory or in the file. There the files are real ones, so that the
// daemon's own way to write them is what runs out. Nor does it end the schedule, or a start.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "core/DefaultPreferences.h"
#include "core/KorvaneProDaemon.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/simulated/SimulatedMachine.h"
#include "scenarios/BackupBed.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/FailingAllocations.h"
#include "support/Scenario.h"
#include "unit/base/TemporaryFolder.h"

namespace korvane {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr char kOwnKey[] = "keyOfTheMainApplication";

bool isWhole(const Dictionary& preferences) {
    const PropertyList* volumes = preferences.find(kVolumeArray);
    return preferences.size() == completePreferences().size() + 1 &&
           stringValue(preferences.find(kOwnKey)) == "kept" && volumes && volumes->array() &&
           volumes->array()->size() == 2;
}

// The daemon at work on a machine whose files alone are real, in a folder of their own.
class Bed {
  public:
    Bed() : machine_(Scenario::describe("two-volumes")), files_(root_.path()) {
        Dictionary preferences = completePreferences();
        preferences.set(kOwnKey, "kept");
        std::filesystem::create_directories(root_.path() + kSupportFolder);
        putContents(root_.path() + kPreferencesFile, textOf(preferences));
        const Machine simulated = machine_.machine();
        daemon_.emplace(Machine{.runLoop = simulated.runLoop,
                                .clock = simulated.clock,
                                .fileSystem = files_,
                                .volumes = simulated.volumes,
                                .deviceRegistry = simulated.deviceRegistry,
                                .powerSources = simulated.powerSources,
                                .processes = simulated.processes,
                                .systemLog = simulated.systemLog,
                                .controlConnection = simulated.controlConnection,
                                .host = simulated.host,
                                .alertDialogs = simulated.alertDialogs,
                                .bundle = simulated.bundle,
                                .socketStreams = simulated.socketStreams,
                                .directoryWatch = simulated.directoryWatch});
        daemon_->awakeFromNib();
        machine_.runLoop.runFor(minutes(2));
    }

    // The settings as any program reads them now; empty when they cannot be read.
    [[nodiscard]] Dictionary stored() {
        const Result<PropertyList> document = files_.readPropertyList(kPreferencesFile);
        return document && document->dictionary() ? *document->dictionary() : Dictionary{};
    }
    void tick() {
        machine_.runLoop.becomeActive();
        machine_.runLoop.runFor(minutes(6));
    }
    void reload() { (void)daemon_->messageXmitRcvr("daemonPreferencesUpdatedNotification"); }
    // A volume goes: the next tick writes what the daemon has in memory.
    void loseVolume() {
        ASSERT_TRUE(machine_.volumes.forceUnmount("/Volumes/Data"));
        machine_.runLoop.becomeActive();
        machine_.runLoop.runFor(seconds(10));
    }

  private:
    // In memory, where a thousand syncs take no time.
    const TemporaryFolder root_{"/dev/shm"};
    SimulatedMachine machine_;
    LinuxFileSystem files_;
    std::optional<KorvaneProDaemon> daemon_;
};

class ShortMemory : public testing::TestWithParam<Shortage> {
  protected:
    // Has every allocation of the work fail in turn, and holds the settings against that.
    void failEachAllocationOf(void (Bed::*work)()) {
        int allocation = 0;
        for (bool isThrough = false; !isThrough;) {
            Bed bed;
            {
                const FailingAllocations failing(++allocation, GetParam());
                try {
                    (bed.*work)();
                } catch (const std::bad_alloc&) {
                    // The run loop of a real machine goes on after that.
                }
                isThrough = FailingAllocations::count() < allocation;
            }
            const Dictionary inFile = bed.stored();
            ASSERT_TRUE(isWhole(inFile)) << "in the file, after allocation " << allocation;
            bed.loseVolume();
            const Dictionary inMemory = bed.stored();
            ASSERT_FALSE(inMemory == inFile) << "not saved, after allocation " << allocation;
            ASSERT_TRUE(isWhole(inMemory)) << "in memory, after allocation " << allocation;
        }
        ASSERT_GT(allocation, 100);
    }
};

TEST_P(ShortMemory, InATickDestroysNoSettings) { failEachAllocationOf(&Bed::tick); }

TEST_P(ShortMemory, InAReloadDestroysNoSettings) { failEachAllocationOf(&Bed::reload); }

// Entries of the machine's volumes and its drive that have been there before.
Dictionary checkedEveryMinute(double firstDue) {
    Dictionary preferences = completePreferences();
    PropertyListArray volumes;
    for (const char* path : {"/", "/Volumes/Data"}) {
        volumes.emplace_back(Dictionary{{"volumeMountToName", path},
                                        {"freeSpaceWarningLevel", 15},
                                        {"executionIntervalUsage_minutes", 1},
                                        {"executionTimeUsage", firstDue}});
    }
    preferences.set(kVolumeArray, std::move(volumes));
    preferences.set(kDriveArray, PropertyListArray{Dictionary{{"driveModel", "Castor 500"},
                                                              {"driveSerial", "CST00A1"},
                                                              {"smartOnOff", true},
                                                              {"executionIntervalSmart_minutes", 1},
                                                              {"executionTimeSmart", firstDue}}});
    return preferences;
}

// What is to be seen of a daemon that does its work: every check comes when it is due, a volume
// that is mounted is noticed at once, and nothing is left as running.
void expectToBeAtWork(Scenario& s, int allocation) {
    s.plug("stick").run(seconds(1));
    ASSERT_FALSE(s.volumeEntry("/Volumes/Stick").empty()) << "after allocation " << allocation;
    s.run(minutes(4));
    ASSERT_FALSE(s.hasEnded()) << "after allocation " << allocation;
    for (const char* path : {"/", "/Volumes/Data", "/Volumes/Stick"}) {
        const Dictionary entry = s.volumeEntry(path);
        ASSERT_EQ(stringValue(entry.find("usageStatus")), "3")
            << path << " after allocation " << allocation;
        ASSERT_GT(doubleValue(entry.find("executionTimeUsage")), s.secondsNow())
            << path << " after allocation " << allocation;
    }
    const Dictionary drive = s.driveEntry("CST00A1");
    ASSERT_EQ(stringValue(drive.find("smartStatus")), "3") << "after allocation " << allocation;
    ASSERT_GT(doubleValue(drive.find("executionTimeSmart")), s.secondsNow())
        << "after allocation " << allocation;
}

// As the loop of a real machine does, goes on with the next callback after one that failed.
void runOnShortMemory(Scenario& s, seconds duration) {
    for (const double until = s.secondsNow() + static_cast<double>(duration.count());
         s.secondsNow() < until;) {
        try {
            s.machine().runLoop.runFor(seconds(1));
        } catch (const std::bad_alloc&) {
            // What could not be begun is tried again, as a loop does; time goes by.
            s.machine().clock.advance(std::chrono::milliseconds(100));
        }
    }
}

// The same for a whole simulated machine, from a moment of its life on.
void failEachAllocationFrom(Shortage shortage, seconds begin, seconds end) {
    int allocation = 0;
    for (bool isThrough = false; !isThrough && !testing::Test::HasFailure();) {
        Scenario s("two-volumes");
        ASSERT_TRUE(s.machine().deviceRegistry.setProperty("drive-a", "SMART Capable", true));
        putPreferences(s, checkedEveryMinute(s.secondsNow() + 10));
        s.start();
        if (begin > seconds(0)) s.run(begin);
        {
            const FailingAllocations failing(++allocation, shortage);
            runOnShortMemory(s, end - begin);
            isThrough = FailingAllocations::count() < allocation;
        }
        expectToBeAtWork(s, allocation);
    }
    ASSERT_GT(allocation, 100);
}

TEST_P(ShortMemory, InTheStartLeavesADaemonAtWork) {
    failEachAllocationFrom(GetParam(), seconds(0), seconds(1));
}

// Second 10 brings the first checks of the volumes and of the drive.
TEST_P(ShortMemory, InTicksAndChecksLeavesADaemonAtWork) {
    failEachAllocationFrom(GetParam(), seconds(9), seconds(14));
}

void endAllPrograms(Scenario& s) {
    const auto launches = s.machine().processes.launches();
    for (std::size_t launch = 0; launch < launches.size(); ++launch) {
        if (launches[launch].isRunning) s.machine().processes.kill(launch);
    }
}

// A backup is due every minute. Memory runs out from the launch of its helper on, or from the end
// of the helper on; the programs end when memory is there again.
enum class BackupPhase { launch, end };

void failEachAllocationOfABackup(Shortage shortage, BackupPhase phase) {
    int allocation = 0;
    for (bool isThrough = false; !isThrough && !testing::Test::HasFailure();) {
        BackupBed s;
        s.putSettings({BackupBed::kSystem, BackupBed::kBackup}, [](Dictionary& data) {
            data.set("executionIntervalDirectory_hours", 0);
            data.set("executionIntervalDirectory_minutes", 1);
        });
        s.helperTakes(std::nullopt);
        s.copyTakes(std::nullopt);
        s.start().run(seconds(0));
        if (phase == BackupPhase::end) {
            s.run(seconds(2));
            s.put(s.helpers().at(0).arguments.at(1), "the folders");
            endAllPrograms(s);
        }
        {
            const FailingAllocations failing(++allocation, shortage);
            runOnShortMemory(s, seconds(8));
            isThrough = FailingAllocations::count() < allocation;
        }
        endAllPrograms(s);
        s.helperTakes(seconds(1));
        s.copyTakes(seconds(1));
        const std::size_t soFar = s.helpers().size();
        s.run(minutes(4));
        ASSERT_GT(s.helpers().size(), soFar) << "after allocation " << allocation;
    }
    ASSERT_GT(allocation, 100);
}

TEST_P(ShortMemory, AtTheLaunchOfABackupKeepsNoOtherWaiting) {
    failEachAllocationOfABackup(GetParam(), BackupPhase::launch);
}

TEST_P(ShortMemory, AtTheEndOfABackupKeepsNoOtherWaiting) {
    failEachAllocationOfABackup(GetParam(), BackupPhase::end);
}

INSTANTIATE_TEST_SUITE_P(Allocations, ShortMemory,
                         testing::Values(Shortage::once, Shortage::forGood),
                         [](const auto& shortage) {
                             return shortage.param == Shortage::once ? "Once" : "ForGood";
                         });

}  // namespace
}  // namespace korvane
