// The way from a root process to a desktop user's session bus: which bus it is, and becoming that
// user. Bus daemons and session policies differ in whether they would let root in; the user
// themselves is let in everywhere.
#pragma once

#include <sys/types.h>

#include <string>

#include "base/Result.h"

namespace korvane {

// The address of the user's session bus: what this process's environment says when it runs as that
// user, else the socket in the user's runtime folder.
[[nodiscard]] Result<std::string> sessionBusAddress(uid_t user);

// Gives up root for the user's ids and groups, for good. Nothing to do for a process that runs as
// that user already.
[[nodiscard]] Result<std::monostate> becomeUser(uid_t user);

}  // namespace korvane
