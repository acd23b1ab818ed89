// Who sits at the console: the active session of the first seat, as the login service tells it in
// its files (no call to it, so nothing to hang on).
#pragma once

#include <sys/types.h>

#include <optional>

namespace korvane {

// Nothing where nobody is logged in at the console; a login screen is not a user.
[[nodiscard]] std::optional<uid_t> consoleUser();

}  // namespace korvane
