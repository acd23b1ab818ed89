// Whole small files of the kernel's and the system's making (/proc, /sys, os-release) read at once.
// Not for files that may be large or that other users write.
#pragma once

#include <optional>
#include <string>

namespace korvane {

// The contents, at most 64 KiB of them; nothing when the file cannot be opened or read.
[[nodiscard]] std::optional<std::string> readSmallFile(const std::string& path);
// The same without a final line feed: a value as sysfs shows it.
[[nodiscard]] std::optional<std::string> readAttributeFile(const std::string& path);

}  // namespace korvane
