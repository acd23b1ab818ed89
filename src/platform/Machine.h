// Everything the daemon needs of its machine, handed over as one.
#pragma once

#include "platform/AlertDialogs.h"
#include "platform/Bundle.h"
#include "platform/Clock.h"
#include "platform/ControlConnection.h"
#include "platform/DeviceRegistry.h"
#include "platform/DirectoryWatch.h"
#include "platform/FileSystem.h"
#include "platform/Host.h"
#include "platform/PowerSources.h"
#include "platform/Processes.h"
#include "platform/RunLoop.h"
#include "platform/SocketStream.h"
#include "platform/SystemLog.h"
#include "platform/Volumes.h"

namespace korvane {

// References only: whoever builds the machine owns its parts, and they outlive the daemon.
struct Machine {
    RunLoop& runLoop;
    Clock& clock;
    FileSystem& fileSystem;
    Volumes& volumes;
    DeviceRegistry& deviceRegistry;
    PowerSources& powerSources;
    Processes& processes;
    SystemLog& systemLog;
    ControlConnection& controlConnection;
    Host& host;
    AlertDialogs& alertDialogs;
    Bundle& bundle;
    SocketStreams& socketStreams;
    DirectoryWatch& directoryWatch;
};

}  // namespace korvane
