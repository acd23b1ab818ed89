// The message of an alert mail: headers and body, from what is known of the machine at that moment.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "base/Calendar.h"
#include "platform/Host.h"

namespace korvane {

struct AlertMessage {
    Time now{};
    std::string sender;
    std::vector<std::string> recipients;
    std::string subject;
    // The captions and the two sentences around them, in the order of the body.
    std::array<std::string, 7> items;
    std::string consoleUser;
    std::optional<std::string> computer;
    std::string networkAddresses;
    std::string systemVersion;
    std::string alert;
};

// The whole text as it goes to the server, up to and with the line that ends it. Line breaks in the
// alert become blanks. Nothing is escaped: a line of the body that begins with a point stays as it
// is.
[[nodiscard]] std::string composeAlertMessage(const AlertMessage& message);

// From the host's addresses, taken in pairs: those that follow a scoped address of an Ethernet or
// Wi-Fi interface ("...%en0"). A comma and a space stand before each that is not of the first pair.
[[nodiscard]] std::string networkAddresses(const std::vector<std::string>& addresses);

// The first of the host's names that ends in ".local", without that.
[[nodiscard]] std::optional<std::string> localComputerName(const std::vector<std::string>& names);

// The full name of a user, the whole field of the user database, by the short name; nothing when
// there is no such user.
[[nodiscard]] std::optional<std::string> NSFullUserNameForUserName(Host& host,
                                                                   const std::string& name);
// The full name of the user at the console, else of the daemon's own.
[[nodiscard]] std::string QLConsoleUserName(Host& host);

}  // namespace korvane
