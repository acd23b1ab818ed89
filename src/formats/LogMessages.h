// Every line that the daemon can write to the system log: an identifier for programs that read the
// log, the level, and the text. There are no lines beside these. A line that is new to the system
// gets its entry here, in the enumeration and, at the same place, in the table of LogMessages.cpp.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace korvane {

enum class LogLevel { info, warning, error };

// Who may see a line: one that may hold a credential is for the readers of the authorization
// messages alone.
enum class LogReaders { everybody, administrators };

enum class LogMessage : std::size_t {
    // The process.
    supportFolderNotAFolder,
    supportFolderNotPermitted,
    cannotRun,
    workFailed,
    started,
    supportFolderGone,
    settingsUnusable,
    // Control messages.
    callerRefused,
    createError,
    deleteError,
    deleteErrorWithReason,
    // Checks.
    driveFailing,
    driveNotPermitted,
    freeSpaceLow,
    // Directory backups.
    locationPassedOver,
    backupFileMissing,
    backupNotStarted,
    backupHelperCrashed,
    // Trash history.
    trashNotWatched,
    searchNotLaunched,
    resultPlaceTaken,
    searchGivenUp,
    resultUnreadable,
    resultsNotKept,
    trashNotRecorded,
    trashNotUpdated,
    usageFileSetAside,
    // Mail.
    mailInconsistent,
    mailLengthsDiffer,
    mailWriteFailed,
    mailCredentialWriteFailed,
    mailStreamFull,
    mailStreamEvent,
    mailStreamError,
    mailReadError,
    mailServerSilent,
    mailCancelled,
    mailUserNameNoAddress,
    mailFailed,
    // Dialogs.
    dialogNotShown,
};

struct LogMessageForm {
    LogMessage message;
    // Never changed once it is released: readers of the log may look for it.
    std::string_view identifier;
    LogLevel level;
    // A format of formatText(). What it names in quotation marks or after a colon is an argument.
    std::string_view text;
    LogReaders readers = LogReaders::everybody;
};

// All of them, in the order of the enumeration.
[[nodiscard]] std::span<const LogMessageForm> logMessages();

[[nodiscard]] const LogMessageForm& formOf(LogMessage message);

}  // namespace korvane
