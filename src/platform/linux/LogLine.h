// A line for the system log made safe to show: whatever a device, a volume's name or a caller put
// into it, it stays one line and moves no terminal's cursor.
#pragma once

#include <string>
#include <string_view>

namespace korvane {

// The text with control characters and bytes that are not UTF-8 shown as "\n", "\t", "\x1b".
[[nodiscard]] std::string escapedForLog(std::string_view text);

}  // namespace korvane
