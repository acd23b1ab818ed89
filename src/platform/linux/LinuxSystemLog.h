// The system log: the journal, with structured fields, where there is one, else syslog; besides,
// standard error when a person looks at it, or when there is nothing else to write to.
#pragma once

#include "platform/SystemLog.h"

namespace korvane {

class LinuxSystemLog final : public SystemLog {
  public:
    // Looks once which of them there are.
    LinuxSystemLog();

    void write(LogLevel level, std::string_view line) override;

  private:
    enum class Sink { journal, syslog, none };
    Sink sink_;
    bool toStandardError_;
};

}  // namespace korvane
