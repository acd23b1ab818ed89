#include "platform/simulated/SimulatedSystemLog.h"

#include <fmt/format.h>

namespace korvane {

namespace {

// A control character as people write it: one line stays one line.
std::string escaped(std::string_view line) {
    std::string text;
    text.reserve(line.size());
    for (const char character : line) {
        const auto byte = static_cast<unsigned char>(character);
        if (character == '\n') {
            text += "\\n";
        } else if (character == '\r') {
            text += "\\r";
        } else if (character == '\t') {
            text += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            text += fmt::format("\\x{:02x}", byte);
        } else {
            text += character;
        }
    }
    return text;
}

std::string_view nameOf(LogLevel level) {
    switch (level) {
        case LogLevel::info:
            return "log info";
        case LogLevel::warning:
            return "log warning";
        case LogLevel::error:
            return "log error";
    }
    return "log";
}

}  // namespace

SimulatedSystemLog::SimulatedSystemLog(SimulatedClock& clock, SimulatedJournal& journal)
    : clock_(clock), journal_(journal) {}

void SimulatedSystemLog::writeLine(const LogMessageForm& form, std::string_view line) {
    const bool isConfidential = form.readers == LogReaders::administrators;
    lines_.push_back({clock_.now(), form.level, escaped(line), isConfidential});
    journal_.note(isConfidential ? "log confidential" : nameOf(form.level), lines_.back().text);
}

const std::vector<SimulatedSystemLog::Line>& SimulatedSystemLog::lines() const { return lines_; }

void SimulatedSystemLog::clear() { lines_.clear(); }

}  // namespace korvane
