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
};

}  // namespace korvane
