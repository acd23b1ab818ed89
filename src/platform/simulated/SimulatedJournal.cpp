#include "platform/simulated/SimulatedJournal.h"

#include <fmt/format.h>

#include "platform/simulated/SimulatedHash.h"

namespace korvane {

namespace {
// Enough to see the hours before a failure, little enough to read.
constexpr std::size_t kLinesKept = 400;
}  // namespace

SimulatedJournal::SimulatedJournal(SimulatedClock& clock) : clock_(clock), digest_(kHashStart) {}

void SimulatedJournal::note(std::string_view event, std::string_view detail) {
    if (!isRecording_) {
        return;
    }
    const std::uint64_t uptime = clock_.microsecondsSinceBoot();
    const std::uint64_t seconds = uptime / 1000000;
    std::string line =
        fmt::format("{:>5}:{:02}:{:02}.{:06} {} {}", seconds / 3600, seconds / 60 % 60,
                    seconds % 60, uptime % 1000000, event, detail);
    digest_ = hashBytes(hashBytes(digest_, line), "\n");
    ++lineCount_;
    lastLines_.push_back(std::move(line));
    if (lastLines_.size() > kLinesKept) {
        lastLines_.pop_front();
    }
}

void SimulatedJournal::setRecording(bool isRecording) { isRecording_ = isRecording; }

std::string SimulatedJournal::text() const {
    std::string text;
    if (lineCount_ > lastLines_.size()) {
        text = fmt::format("({} lines before these)\n", lineCount_ - lastLines_.size());
    }
    for (const std::string& line : lastLines_) {
        text += line;
        text += '\n';
    }
    return text;
}

std::uint64_t SimulatedJournal::lineCount() const { return lineCount_; }

std::uint64_t SimulatedJournal::digest() const { return digest_; }

}  // namespace korvane
