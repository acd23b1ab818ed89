// The arguments of the control connection's methods, read from the messages that carry them. What
// they hold comes from outside: it is bounded here and otherwise taken as it is.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <string>
#include <vector>

namespace korvane {

// What a person selects for one call is thousands at the most; a longer list would keep everything
// else that the daemon has to do waiting for too long.
inline constexpr std::size_t kMostPathsOfACall = 65'536;

// Both take a message that stands at its beginning, and answer 0 or a negative errno: -ENXIO or
// -EBADMSG for arguments of another kind, -E2BIG for too many paths. After an error the result is
// not to be used.
[[nodiscard]] int readControlWord(sd_bus_message* message, std::string& word);
[[nodiscard]] int readControlPaths(sd_bus_message* message, std::vector<std::string>& paths);

}  // namespace korvane
