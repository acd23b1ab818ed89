#include "platform/linux/LinuxMachine.h"

#include <unistd.h>

#include "platform/linux/ThreadPriority.h"

namespace korvane {

LinuxMachine::LinuxMachine(SystemLog& systemLog, const LinuxVolumesPlaces& volumesPlaces,
                           const LinuxTrashPlaces& trashPlaces)
    : systemLog_(systemLog),
      runLoop_(systemLog),
      clock_(runLoop_),
      volumes_(runLoop_, volumesPlaces),
      deviceRegistry_(runLoop_, LinuxDevicePlaces{}),
      systemBus_(runLoop_, LinuxBus::Kind::system),
      controlBus_(connectedControlBus()),
      processes_(runLoop_, controlBus_),
      sleepWatch_(runLoop_, systemBus_),
      controlConnection_(runLoop_, controlBus_, systemLog),
      alertDialogs_(runLoop_, bundle_, systemLog),
      socketStreams_(runLoop_, bundle_),
      directoryWatch_(runLoop_, volumes_, trashPlaces) {
    runInShortTurns();
}

LinuxBus& LinuxMachine::connectedControlBus() {
    systemBus_.connect();
    if (::geteuid() == 0) return systemBus_;
    sessionBus_.emplace(runLoop_, LinuxBus::Kind::session);
    sessionBus_->connect();
    return *sessionBus_;
}

Machine LinuxMachine::machine() {
    return Machine{.runLoop = runLoop_,
                   .clock = clock_,
                   .fileSystem = fileSystem_,
                   .volumes = volumes_,
                   .deviceRegistry = deviceRegistry_,
                   .powerSources = powerSources_,
                   .processes = processes_,
                   .systemLog = systemLog_,
                   .controlConnection = controlConnection_,
                   .host = host_,
                   .alertDialogs = alertDialogs_,
                   .bundle = bundle_,
                   .socketStreams = socketStreams_,
                   .directoryWatch = directoryWatch_};
}

}  // namespace korvane
