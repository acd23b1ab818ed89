#include "formats/LogMessages.h"

namespace korvane {

namespace {

using enum LogLevel;
using Message = LogMessage;

constexpr LogMessageForm kForms[] = {
    {Message::supportFolderNotAFolder, "support-folder-not-a-folder", error,
     "\"%@\" is not a folder: move it away and start the daemon again"},
    {Message::supportFolderNotPermitted, "support-folder-not-permitted", error,
     "no right to write \"%@\": start the daemon as root"},
    {Message::cannotRun, "cannot-run", error, "cannot run: %@"},
    {Message::workFailed, "work-failed", error, "%@ failed: %@"},
    {Message::started, "started", info,
     "Started on system version %@: protection begins in %ld seconds."},
    {Message::supportFolderGone, "support-folder-gone", info,
     "\"%@\" is no longer a folder: quitting."},
    {Message::settingsUnusable, "settings-unusable", error,
     "The settings cannot be used and are left as they are: %@."},

    {Message::callerRefused, "caller-refused", warning, "control message refused: it came from %@"},
    {Message::createError, "create-error", warning, "\"%@\" create error"},
    {Message::deleteError, "delete-error", warning, "\"%@\" delete error"},
    {Message::deleteErrorWithReason, "delete-error-with-reason", warning,
     "\"%@\" delete error: %@"},

    {Message::driveFailing, "drive-failing", warning, "SMART is reporting failing for %s."},
    {Message::driveNotPermitted, "drive-not-permitted", warning,
     "No right to ask %@ for its SMART status: it is not checked. Start the daemon as root."},
    {Message::freeSpaceLow, "free-space-low", warning,
     "WARNING! \"%@\" has %.0f%% free space remaining."},

    {Message::locationPassedOver, "location-passed-over", warning,
     "Backup location \"%@\" is passed over: %@."},
    {Message::backupFileMissing, "backup-file-missing", warning,
     "Directory Backup file \"%@\" is not there. (Probably was insufficient space to create it.)"},
    {Message::backupNotStarted, "backup-not-started", warning,
     "The directory backup of \"%@\" could not be started and waits for its next time."},
    {Message::backupHelperCrashed, "backup-helper-crashed", warning,
     "The directory backup of \"%@\" failed: its helper was ended by signal %d."},

    {Message::trashNotWatched, "trash-not-watched", warning,
     "Not all trash folders can be watched now: the machine has no more watches for folders. It is "
     "tried again."},
    {Message::searchNotLaunched, "search-not-launched", warning,
     "No search for what is in the trash of \"%@\": %@."},
    {Message::resultPlaceTaken, "result-place-taken", warning,
     "No search for an item in the trash: \"%@\" is somebody else's."},
    {Message::searchGivenUp, "search-given-up", warning,
     "A search for what is in the trash of \"%@\" has not ended for an hour and is given up: the "
     "disk may be failing."},
    {Message::resultUnreadable, "result-unreadable", warning,
     "A result of the trash search is left where it is: %@."},
    {Message::resultsNotKept, "results-not-kept", warning,
     "What was found out of items in the trash cannot be kept now: %@."},
    {Message::trashNotRecorded, "trash-not-recorded", warning,
     "What is in the trash cannot be recorded now: %@."},
    {Message::trashNotUpdated, "trash-not-updated", warning,
     "What became of items in the trash cannot be recorded now: %@."},
    {Message::usageFileSetAside, "usage-file-set-aside", error,
     "\"%@\" cannot be used and is kept as \"%@\"."},

    {Message::mailInconsistent, "mail-inconsistent", warning,
     "Internal Consistency Check Failed! %@ expecting to be in state: %d, but we are currently "
     "in: %d"},
    {Message::mailLengthsDiffer, "mail-lengths-differ", info,
     "strlen(rawText): %zd && [streamedText length]: %zd"},
    {Message::mailWriteFailed, "mail-write-failed", warning,
     "Error writing to outStream while sending: \"%@\""},
    {Message::mailCredentialWriteFailed, "mail-credential-write-failed", warning,
     "Error writing to outStream while sending: \"%@\"", LogReaders::administrators},
    {Message::mailStreamFull, "mail-stream-full", warning,
     "The stream has been filled to capacity!"},
    {Message::mailStreamEvent, "mail-stream-event", warning, "NSStreamEventErrorOccurred"},
    {Message::mailStreamError, "mail-stream-error", warning, "streamError: %@"},
    {Message::mailReadError, "mail-read-error", warning,
     "An error occured reading the stream, result: %d"},
    {Message::mailServerSilent, "mail-server-silent", warning,
     "The mail server %@ does not answer any more: its session is given up."},
    {Message::mailCancelled, "mail-cancelled", warning, "cancelConnectionWithError: %@"},
    {Message::mailUserNameNoAddress, "mail-user-name-no-address", info,
     "username: %@ is not detected as an email address."},
    {Message::mailFailed, "mail-failed", error, "no mail: %@"},

    {Message::dialogNotShown, "dialog-not-shown", warning, "The dialog \"%@\" is not shown: %@."},
};

// The entry of a message is found by its place.
constexpr bool isInOrder() {
    for (std::size_t place = 0; place < std::size(kForms); ++place) {
        if (static_cast<std::size_t>(kForms[place].message) != place) return false;
    }
    return true;
}
static_assert(isInOrder());

}  // namespace

std::span<const LogMessageForm> logMessages() { return kForms; }

const LogMessageForm& formOf(LogMessage message) {
    return kForms[static_cast<std::size_t>(message)];
}

}  // namespace korvane
