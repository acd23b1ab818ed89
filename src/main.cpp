// Puts the Linux machine and the daemon together and runs the loop until the daemon quits. No
// options: the settings document says everything. A call with an argument is refused before
// anything is done, since the start of a second daemon would reset the statuses that the first one
// keeps.

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "core/KorvaneProDaemon.h"
#include "platform/linux/LinuxMachine.h"
#include "platform/linux/LinuxSystemLog.h"
#include "storage/SupportFolder.h"

namespace {

// As for other programs that are called wrongly.
constexpr int kExitUsage = 2;

// What the machine layer has to know again after a restart: beside the settings, hidden, since it
// is the daemon's alone.
korvane::LinuxVolumesPlaces volumesPlaces() {
    korvane::LinuxVolumesPlaces places;
    places.memoryFile = std::string(korvane::kSupportFolder) + "/.Volume Numbers.plist";
    // The folder of links belongs to the whole machine, so only the machine's own daemon keeps it.
    places.keepsLinks = ::geteuid() == 0;
    return places;
}

korvane::LinuxTrashPlaces trashPlaces() {
    korvane::LinuxTrashPlaces places;
    places.tracesFile = std::string(korvane::kSupportFolder) + "/.Trash Items.plist";
    return places;
}

// Why nothing can be kept in the support folder: something else is in its place, or this user may
// not write it or, where it is missing, make it.
std::optional<korvane::LogMessage> objectionToSupportFolder() {
    std::string folder = korvane::kSupportFolder;
    struct stat status {};
    if (::stat(folder.c_str(), &status) == 0 && !S_ISDIR(status.st_mode)) {
        return korvane::LogMessage::supportFolderNotAFolder;
    }
    while (::access(folder.c_str(), F_OK) != 0 && folder.size() > 1) {
        folder.resize(std::max<std::size_t>(folder.rfind('/'), 1));
    }
    if (::access(folder.c_str(), W_OK | X_OK) == 0 || errno != EACCES) return std::nullopt;
    return korvane::LogMessage::supportFolderNotPermitted;
}

}  // namespace

int main(int argumentCount, char** /*arguments*/) {
    if (argumentCount > 1) {
        (void)std::fputs("usage: KorvaneProDaemon (without arguments)\n", stderr);
        return kExitUsage;
    }
    // Threads never work at the same time here, so a second arena would only hold memory apart.
    (void)::mallopt(M_ARENA_MAX, 1);
    // A reader that has gone is an error of that write, not the end of the daemon.
    (void)std::signal(SIGPIPE, SIG_IGN);

    korvane::LinuxSystemLog systemLog;
    if (const auto objection = objectionToSupportFolder()) {
        systemLog.write(*objection, {korvane::kSupportFolder});
        return EXIT_FAILURE;
    }
    try {
        korvane::LinuxMachine linuxMachine(systemLog, volumesPlaces(), trashPlaces());
        const korvane::Machine machine = linuxMachine.machine();
        korvane::KorvaneProDaemon daemon(machine);
        daemon.awakeFromNib();
        machine.runLoop.run();
    } catch (const std::exception& failure) {
        systemLog.write(korvane::LogMessage::cannotRun, {failure.what()});
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
