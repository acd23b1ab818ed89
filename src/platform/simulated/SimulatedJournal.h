// What happened on a simulated machine, one line an event, each with its virtual time: log lines,
// writes, timers, mounts, words, terminations. Two runs are the same run when their journals are.
// Keeps the last lines for people and a digest of all of them for comparing.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

#include "platform/simulated/SimulatedClock.h"

namespace korvane {

class SimulatedJournal {
  public:
    explicit SimulatedJournal(SimulatedClock& clock);

    void note(std::string_view event, std::string_view detail = {});

    // Off, nothing is kept: for measuring what the daemon itself costs.
    void setRecording(bool isRecording);

    // The last lines, oldest first, with a line saying how many went before them.
    [[nodiscard]] std::string text() const;
    [[nodiscard]] std::uint64_t lineCount() const;
    // Equal for equal journals (FNV-1a over every line).
    [[nodiscard]] std::uint64_t digest() const;

  private:
    SimulatedClock& clock_;
    bool isRecording_ = true;
    std::deque<std::string> lastLines_;
    std::uint64_t lineCount_ = 0;
    std::uint64_t digest_;
};

}  // namespace korvane
