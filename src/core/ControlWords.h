// The control vocabulary: the words that the main application may send, and what each one asks for.
// Acting on them is the daemon's work.
#pragma once

#include <string_view>

namespace korvane {

enum class ControlAction {
    reload,                  // read the preferences again and re-arm the scheduler
    ignoreMountedOstrand,    // leave a mounted emergency volume alone
    unmountMountedOstrand,   // no longer
    testMail,                // send a test mail
    stopDirectoryBackup,     // end the directory backup that runs
    disableDirectoryBackup,  // and let no other start
    enableDirectoryBackup,   // let them start again
    isDirectoryComplete,     // whether no directory backup is due or runs
    isSmartComplete,         // whether no SMART check is due or runs
    ignoreFreeSpace,         // raise no free-space alarm
    checkFreeSpace,          // raise it again
    nothing                  // any other word
};

// Words are compared exactly, letter case included.
[[nodiscard]] ControlAction controlAction(std::string_view word);

}  // namespace korvane
