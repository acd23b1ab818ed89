#include "platform/LogOnce.h"

#include <cstddef>

namespace korvane {

namespace {

// Far more than go wrong at a time, and little memory: some causes are paths that anybody can make
// up.
constexpr std::size_t kMostCauses = 1000;

}  // namespace

LogOnce::LogOnce(SystemLog& systemLog) : systemLog_(systemLog) {}

void LogOnce::write(std::string_view cause, LogMessage message,
                    std::initializer_list<FormatArgument> arguments) {
    if (logged_.contains(cause)) return;
    if (logged_.size() >= kMostCauses) logged_.clear();
    logged_.emplace(cause);
    systemLog_.write(message, arguments);
}

void LogOnce::ended(std::string_view cause) {
    const auto known = logged_.find(cause);
    if (known != logged_.end()) logged_.erase(known);
}

}  // namespace korvane
