// A system log that keeps its lines for the test to look at.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/SystemLog.h"

namespace korvane {

class RecordingLog final : public SystemLog {
  public:
    std::vector<std::string> lines;

  private:
    void writeLine(const LogMessageForm&, std::string_view line) override {
        lines.emplace_back(line);
    }
};

}  // namespace korvane
