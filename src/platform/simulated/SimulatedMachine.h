// A whole machine in memory with virtual time. Its parts are open to the test, which is everything
// that happens to a machine: the verbs here are the events that concern more than one part. The
// same description, seed and verbs give the same run.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "platform/Machine.h"
#include "platform/simulated/MachineDescription.h"
#include "platform/simulated/SimulatedAlertDialogs.h"
#include "platform/simulated/SimulatedBundle.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedControlConnection.h"
#include "platform/simulated/SimulatedDeviceRegistry.h"
#include "platform/simulated/SimulatedDirectoryWatch.h"
#include "platform/simulated/SimulatedDrives.h"
#include "platform/simulated/SimulatedFileSystem.h"
#include "platform/simulated/SimulatedHost.h"
#include "platform/simulated/SimulatedJournal.h"
#include "platform/simulated/SimulatedMailServer.h"
#include "platform/simulated/SimulatedPowerSources.h"
#include "platform/simulated/SimulatedProcesses.h"
#include "platform/simulated/SimulatedRunLoop.h"
#include "platform/simulated/SimulatedSystemLog.h"
#include "platform/simulated/SimulatedVolumes.h"

namespace korvane {

class SimulatedMachine {
  public:
    explicit SimulatedMachine(const MachineDescription& description, std::uint64_t seed = 1);
    SimulatedMachine(const SimulatedMachine&) = delete;
    SimulatedMachine& operator=(const SimulatedMachine&) = delete;

    [[nodiscard]] Machine machine();

    // A drive is plugged in: an accessory of the description, or one that was pulled. Its volumes
    // mount at once. False when there is none of this name.
    bool plug(const std::string& name);
    // A drive is pulled without a word: an accessory by its name, any other by the name of its
    // topmost service. Its volumes are gone, busy or not.
    bool pull(const std::string& name);

    // The machine sleeps: time passes, nothing runs, and on waking the application becomes active.
    void suspend(std::chrono::microseconds duration);
    // Mains or battery, for every power source there is (one, if there was none).
    void setOnBattery(bool isOnBattery);

    // Members in the order in which they need each other.
    SimulatedClock clock;
    SimulatedJournal journal;
    SimulatedRunLoop runLoop;
    SimulatedSystemLog systemLog;
    SimulatedFileSystem fileSystem;
    SimulatedVolumes volumes;
    SimulatedDrives drives;
    SimulatedDeviceRegistry deviceRegistry;
    SimulatedPowerSources powerSources;
    SimulatedProcesses processes;
    SimulatedControlConnection controlConnection;
    SimulatedHost host;
    SimulatedAlertDialogs alertDialogs;
    SimulatedBundle bundle;
    SimulatedMailServer mailServer;
    SimulatedDirectoryWatch directoryWatch;

  private:
    std::map<std::string, AccessoryDescription> unplugged_;
    std::map<std::string, std::vector<std::string>> topServicesOfAccessories_;
};

}  // namespace korvane
