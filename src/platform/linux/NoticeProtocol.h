// What the daemon and its notice program say to each other: the alert as a property list on the
// program's standard input, a byte on its standard output once it is shown, and its exit status.
#pragma once

#include <string>
#include <string_view>

#include "base/Result.h"
#include "platform/AlertDialogs.h"

namespace korvane {

enum class NoticeExit {
    closed = 0,     // was shown, and is off the screen
    badInput = 2,   // was started wrongly
    noSession = 3,  // the user has no session bus that lets them in
    noService = 4   // the session has no notification service, or it refused
};

[[nodiscard]] std::string formatNotice(const Alert& alert);
// Refuses what is no such property list or holds no text; a time-out is held between 0 and a day.
[[nodiscard]] Result<Alert> parseNotice(std::string_view propertyList);

}  // namespace korvane
