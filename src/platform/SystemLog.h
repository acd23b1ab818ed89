// The system log.
#pragma once

#include <string_view>

namespace korvane {

enum class LogLevel { info, warning, error };

class SystemLog {
  public:
    virtual ~SystemLog() = default;

    // One line, without its line feed; control characters in it are shown escaped.
    virtual void write(LogLevel level, std::string_view line) = 0;

    // The same for a line that may hold a credential: only the readers of the authorization
    // messages get to see it, and no terminal ever.
    virtual void writeConfidential(LogLevel level, std::string_view line) = 0;
};

}  // namespace korvane
