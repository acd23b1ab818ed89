// Memory runs out at any moment of a tick, a reload or a save, for once or for good: the settings
// are never destroyed by it, in memory or in the file. The files are real ones, so that the
// daemon's own way to write them is what runs out.

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

INSTANTIATE_TEST_SUITE_P(Allocations, ShortMemory,
                         testing::Values(Shortage::once, Shortage::forGood),
                         [](const auto& shortage) {
                             return shortage.param == Shortage::once ? "Once" : "ForGood";
                         });

}  // namespace
}  // namespace korvane
