#include "core/ControlWords.h"

namespace korvane {

namespace {

struct ControlWord {
    std::string_view word;
    ControlAction action;
};

// Starting and stopping are both a reload: whether the daemon runs or rests is decided by
// "DAEMON_ON" in the preferences that it then reads.
constexpr ControlWord kControlWords[] = {
    {"daemonStartYourEngines", ControlAction::reload},
    {"daemonStopYourEngines", ControlAction::reload},
    {"QLDaemonIgnoreMountedOstrand", ControlAction::ignoreMountedOstrand},
    {"QLDaemonUnmountMountedDrive", ControlAction::unmountMountedOstrand},
    {"daemonTestSendingEmailNotification", ControlAction::testMail},
    {"daemonPreferencesUpdatedNotification", ControlAction::reload},
    {"directoryBackupStopNotification", ControlAction::stopDirectoryBackup},
    {"disableDirectoryBackupNotification", ControlAction::disableDirectoryBackup},
    {"enableDirectoryBackupNotification", ControlAction::enableDirectoryBackup},
    {"isDirectoryExecuteComplete", ControlAction::isDirectoryComplete},
    {"isSMARTExecuteComplete", ControlAction::isSmartComplete},
    {"QLDaemonIgnoreFreeSpace_WipeData_Msg", ControlAction::ignoreFreeSpace},
    {"QLDaemonCheckFreeSpace_WipeData_Msg", ControlAction::checkFreeSpace},
};

}  // namespace

ControlAction controlAction(std::string_view word) {
    for (const ControlWord& known : kControlWords) {
        if (known.word == word) return known.action;
    }
    return ControlAction::nothing;
}

}  // namespace korvane
