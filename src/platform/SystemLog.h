// The system log.
#pragma once

#include <initializer_list>
#include <string_view>

#include "base/Format.h"
#include "formats/LogMessages.h"

namespace korvane {

class SystemLog {
  public:
    virtual ~SystemLog() = default;

    // One line: the text of the message with the arguments in the place of its directives. Control
    // characters in it are shown escaped. A line for administrators is seen by the readers of the
    // authorization messages alone, and by no terminal ever.
    void write(LogMessage message, std::initializer_list<FormatArgument> arguments = {});

  private:
    virtual void writeLine(const LogMessageForm& form, std::string_view line) = 0;
};

}  // namespace korvane
