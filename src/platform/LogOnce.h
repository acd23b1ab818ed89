// One line in the system log for each cause and episode: a cause that goes on, such as a file that
// cannot be written for as long as the disk is full, is not logged at each attempt.
#pragma once

#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>

#include "platform/SystemLog.h"

namespace korvane {

class LogOnce {
  public:
    // The log outlives this.
    explicit LogOnce(SystemLog& systemLog);

    // Writes the line, unless one about this cause was written and the cause has not ended since. A
    // cause is named by what is wrong: a file, a device, a folder. Of very many causes some may be
    // logged again.
    void write(std::string_view cause, LogMessage message,
               std::initializer_list<FormatArgument> arguments = {});
    // All is well there: the next line about it is written again.
    void ended(std::string_view cause);

  private:
    SystemLog& systemLog_;
    std::set<std::string, std::less<>> logged_;
};

}  // namespace korvane
