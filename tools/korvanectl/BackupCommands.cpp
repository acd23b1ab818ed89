// Directory backups: backup stop, disable, enable.

#include "korvanectl/Program.h"

namespace korvane::ctl {

void addBackupCommands(CLI::App& app, Program& program) {
    CLI::App& backup = addGroup(app, "backup", "Steer the directory backup");
    addWordCommand(backup, program, "stop", "End the directory backup that runs",
                   "directoryBackupStopNotification", "No directory backup runs.");
    addWordCommand(backup, program, "disable", "End it and start no other until enabled again",
                   "disableDirectoryBackupNotification", "Directory backups are disabled.");
    addWordCommand(backup, program, "enable", "Let directory backups start again",
                   "enableDirectoryBackupNotification", "Directory backups are enabled.");
}

}  // namespace korvane::ctl
