// The Linux machine as a whole: owns every part, in the order in which they need each other, and
// hands them out as the machine that the daemon knows.
#pragma once

#include <optional>

#include "platform/Machine.h"
#include "platform/linux/LinuxAlertDialogs.h"
#include "platform/linux/LinuxBundle.h"
#include "platform/linux/LinuxBus.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxControlConnection.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/LinuxPowerSources.h"
#include "platform/linux/LinuxProcesses.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSocketStreams.h"
#include "platform/linux/LinuxVolumes.h"
#include "platform/linux/SleepWatch.h"

namespace korvane {

class LinuxMachine {
  public:
    // Connects to the bus that it will be reached on: the system's for root, else the session's.
    // The log must outlive this object. Throws std::system_error when the kernel refuses what
    // nothing works without.
    LinuxMachine(SystemLog& systemLog, const LinuxVolumesPlaces& volumesPlaces,
                 const LinuxTrashPlaces& trashPlaces);
    LinuxMachine(const LinuxMachine&) = delete;
    LinuxMachine& operator=(const LinuxMachine&) = delete;

    [[nodiscard]] Machine machine();

  private:
    [[nodiscard]] LinuxBus& connectedControlBus();

    SystemLog& systemLog_;
    LinuxRunLoop runLoop_;
    LinuxClock clock_;
    LinuxFileSystem fileSystem_;
    LinuxVolumes volumes_;
    LinuxDeviceRegistry deviceRegistry_;
    LinuxPowerSources powerSources_;
    LinuxHost host_;
    LinuxBus systemBus_;
    std::optional<LinuxBus> sessionBus_;  // for a daemon that does not run as root
    LinuxBus& controlBus_;
    LinuxProcesses processes_;
    SleepWatch sleepWatch_;
    LinuxControlConnection controlConnection_;
    LinuxBundle bundle_;
    LinuxAlertDialogs alertDialogs_;
    LinuxSocketStreams socketStreams_;
    LinuxDirectoryWatch directoryWatch_;
};

}  // namespace korvane
