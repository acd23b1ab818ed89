// A system log that keeps its lines, each with the virtual time at which it was written.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/SystemLog.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"

namespace korvane {

class SimulatedSystemLog final : public SystemLog {
  public:
    struct Line {
        Time time{};
        LogLevel level = LogLevel::info;
        std::string text;
        bool isConfidential = false;
    };

    SimulatedSystemLog(SimulatedClock& clock, SimulatedJournal& journal);

    [[nodiscard]] const std::vector<Line>& lines() const;
    void clear();

  private:
    void writeLine(const LogMessageForm& form, std::string_view line) override;

    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    std::vector<Line> lines_;
};

}  // namespace korvane
