#include "platform/linux/LinuxSystemLog.h"

#include <sys/uio.h>
#include <syslog.h>
// Every line comes from this file: its name and line number in the journal would say nothing.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <array>
#include <ctime>

#include "platform/linux/LogLine.h"

namespace korvane {

namespace {

constexpr char kIdentifier[] = "KorvaneProDaemon";

int priorityOf(LogLevel level) {
    switch (level) {
        case LogLevel::error:
            return LOG_ERR;
        case LogLevel::warning:
            return LOG_WARNING;
        case LogLevel::info:
            break;
    }
    return LOG_INFO;
}

iovec fieldOf(std::string& text) { return {text.data(), text.size()}; }

// The facility as syslog(3) codes it, in the upper bits.
void writeToJournal(int facility, LogLevel level, const std::string& line) {
    std::string message = "MESSAGE=" + line;
    std::string priority = "PRIORITY=" + std::to_string(priorityOf(level));
    std::string facilityNumber = "SYSLOG_FACILITY=" + std::to_string(LOG_FAC(facility));
    std::string identifier = std::string("SYSLOG_IDENTIFIER=") + kIdentifier;
    const std::array fields{fieldOf(message), fieldOf(priority), fieldOf(facilityNumber),
                            fieldOf(identifier)};
    // A log that cannot be written has nowhere to say so.
    (void)sd_journal_sendv(fields.data(), static_cast<int>(fields.size()));
}

// One write, so that lines of several processes on one terminal do not mix.
void writeToStandardError(const std::string& line) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> clock{};
    std::string text;
    if (::localtime_r(&now, &local) != nullptr &&
        std::strftime(clock.data(), clock.size(), "%H:%M:%S ", &local) != 0) {
        text = clock.data();
    }
    text += line;
    text += '\n';
    [[maybe_unused]] const ssize_t ignoredCount = ::write(STDERR_FILENO, text.data(), text.size());
}

}  // namespace

LinuxSystemLog::LinuxSystemLog(const std::string& journalSocket, const std::string& syslogSocket)
    : sink_(::access(journalSocket.c_str(), W_OK) == 0  ? Sink::journal
            : ::access(syslogSocket.c_str(), W_OK) == 0 ? Sink::syslog
                                                        : Sink::none),
      toStandardError_(sink_ == Sink::none || ::isatty(STDERR_FILENO) == 1) {
    if (sink_ == Sink::syslog) ::openlog(kIdentifier, LOG_PID, LOG_DAEMON);
}

void LinuxSystemLog::writeLine(const LogMessageForm& form, std::string_view line) {
    const std::string shown = escapedForLog(line);
    const bool isForEverybody = form.readers == LogReaders::everybody;
    const int facility = isForEverybody ? LOG_DAEMON : LOG_AUTHPRIV;
    if (sink_ == Sink::journal) writeToJournal(facility, form.level, shown);
    if (sink_ == Sink::syslog) ::syslog(facility | priorityOf(form.level), "%s", shown.c_str());
    if (toStandardError_ && isForEverybody) writeToStandardError(shown);
}

}  // namespace korvane
