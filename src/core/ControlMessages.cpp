// The daemon's end of the control connection: what a command word does, and the files that it makes
// and removes for the main application, which may lack the right to.

#include "core/ControlWords.h"
#include "core/KorvaneProDaemon.h"

namespace korvane {

namespace {

// Whoever asked for the file may write it, whoever the daemon runs as.
constexpr mode_t kCreatedFilePermissions = 0666;

}  // namespace

bool KorvaneProDaemon::messageXmitRcvr(const std::string& word) {
    bool answer = true;
    const auto dispatch = [&] { answer = dispatchControlWord(word); };
    // From this release on a command is carried out at background priority, so that one sent while
    // the user works costs the user nothing; the caller waits for its answer either way.
    try {
        if (compareCurrentSystemVersionWith("10.7") != ComparisonResult::ascending) {
            machine_.runLoop.runInBackgroundAndWait(dispatch);
        } else {
            dispatch();
        }
    } catch (const std::exception&) {
        // The caller is answered with it; a reload may have cancelled the ticks before it failed.
        armTickAfterFailure();
        throw;
    }
    return answer;
}

void KorvaneProDaemon::messageDoCreateItems(const std::vector<std::string>& paths) {
    for (auto each = paths.rbegin(); each != paths.rend(); ++each) {
        const std::string& path = *each;
        if (!machine_.fileSystem.createEmptyFile(path, kCreatedFilePermissions)) {
            machine_.systemLog.write(LogMessage::createError, {path});
            if (destConnection) destConnection->itemFailed({.path = path, .reason = ""});
        }
    }
}

void KorvaneProDaemon::messageDoDeleteItems(const std::vector<std::string>& paths) {
    // Older systems do not say why a removal failed.
    const bool saysWhy = compareCurrentSystemVersionWith("10.5") != ComparisonResult::ascending;
    for (auto each = paths.rbegin(); each != paths.rend(); ++each) {
        const std::string& path = *each;
        const Result<std::monostate> removed = machine_.fileSystem.remove(path);
        if (removed) continue;
        if (destConnection) {
            destConnection->itemFailed({.path = path, .reason = removed.error().message});
        }
        if (saysWhy) {
            machine_.systemLog.write(LogMessage::deleteErrorWithReason,
                                     {path, removed.error().message});
        } else {
            machine_.systemLog.write(LogMessage::deleteError, {path});
        }
    }
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
        case ControlAction::testMail:
            daemonTestSendingEmailNotification();
            return true;
        case ControlAction::stopDirectoryBackup:
            directoryBackupStopNotification();
            return true;
        case ControlAction::disableDirectoryBackup:
            disableDirectoryBackupNotification();
            return true;
        case ControlAction::enableDirectoryBackup:
            enableDirectoryBackupNotification();
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

// The permission lasts no longer than the application that asked for it.
void KorvaneProDaemon::doIgnoreOstrand() {
    ignoreMountedOstrand = true;
    watchMainApplication();
}

// Unmounts nothing itself: the watch does that when it next looks.
void KorvaneProDaemon::doUnMountOstrand() { ignoreMountedOstrand = false; }

void KorvaneProDaemon::doIgnoreFreeSpace() { ignoreFreeSpaceUsage = true; }

void KorvaneProDaemon::doCheckFreeSpace() { ignoreFreeSpaceUsage = false; }

}  // namespace korvane
