// The system log: the journal, with structured fields, where there is one, else syslog; besides,
// standard error when a person looks at it, or when there is nothing else to write to.
#pragma once

#include <string>

#include "platform/SystemLog.h"

namespace korvane {

class LinuxSystemLog final : public SystemLog {
  public:
    // Looks once which of them there are, by the sockets that sd_journal_sendv(3) and syslog(3)
    // write to; an empty path stands for none.
    explicit LinuxSystemLog(const std::string& journalSocket = "/run/systemd/journal/socket",
                            const std::string& syslogSocket = "/dev/log");

  private:
    // A line for administrators goes under the facility authpriv (syslog(3)), which is what its
    // name says. Where there is neither journal nor syslog it is lost.
    void writeLine(const LogMessageForm& form, std::string_view line) override;

    enum class Sink { journal, syslog, none };
    Sink sink_;
    bool toStandardError_;
};

}  // namespace korvane
