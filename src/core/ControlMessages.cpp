// The daemon's end of the control connection: what a command word does.

#include "core/ControlWords.h"
#include "core/KorvaneProDaemon.h"

namespace korvane {

bool KorvaneProDaemon::messageXmitRcvr(const std::string& word) {
    bool answer = true;
    const auto dispatch = [&] { answer = dispatchControlWord(word); };
    // From this release on a command is carried out at background priority, so that one sent while
    // the user works costs the user nothing; the caller waits for its answer either way.
    if (compareCurrentSystemVersionWith("10.7") != ComparisonResult::ascending) {
        machine_.runLoop.runInBackgroundAndWait(dispatch);
    } else {
        dispatch();
    }
    return answer;
}

bool KorvaneProDaemon::dispatchControlWord(std::string_view word) {
    switch (controlAction(word)) {
        case ControlAction::reload:
            preferencesUpdated();
            return true;
        case ControlAction::ignoreMountedOstrand:
            doIgnoreOstrand();
            return true;
        case ControlAction::unmountMountedOstrand:
            doUnMountOstrand();
            return true;
        case ControlAction::isDirectoryComplete:
            return !backupActive;
        case ControlAction::isSmartComplete:
            return !smartActive;
        case ControlAction::ignoreFreeSpace:
            doIgnoreFreeSpace();
            return true;
        case ControlAction::checkFreeSpace:
            doCheckFreeSpace();
            return true;
        case ControlAction::nothing:
            return true;
    }
    return true;
}

void KorvaneProDaemon::doIgnoreOstrand() { ignoreMountedOstrand = true; }

// Unmounts nothing itself: the watch does that when it next looks.
void KorvaneProDaemon::doUnMountOstrand() { ignoreMountedOstrand = false; }

void KorvaneProDaemon::doIgnoreFreeSpace() { ignoreFreeSpaceUsage = true; }

void KorvaneProDaemon::doCheckFreeSpace() { ignoreFreeSpaceUsage = false; }

}  // namespace korvane
