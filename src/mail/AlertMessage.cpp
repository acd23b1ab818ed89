#include "mail/AlertMessage.h"

#include <algorithm>
#include <string_view>

#include "base/Format.h"
#include "mail/SmtpCommands.h"
#include "mail/Transformers.h"

namespace korvane {

namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr char kBodyFormat[] =
    "%@\r\n\r\n%@\r\n\r\n%@ %@\r\n\r\n%@ %@\r\n\r\n%@ %@\r\n\r\n%@ %@\r\n\r\n%@ %@\r\n\r\n"
    "%@\r\n\r\n\t%@";
// How a text shows a value that is not there.
constexpr std::string_view kNothing = "(null)";
constexpr std::string_view kLocal = ".local";

// Of the two parts of a scoped address, the interface; nothing when there are not two.
std::optional<std::string_view> interfaceOf(std::string_view address) {
    const std::size_t at = address.find('%');
    if (at == std::string_view::npos || address.find('%', at + 1) != std::string_view::npos) {
        return std::nullopt;
    }
    return address.substr(at + 1);
}

// A volume is named by whoever formatted it, a drive by whoever built it: a name of several lines
// could end the message early and go on with commands to the mail server.
std::string onOneLine(std::string text) {
    std::ranges::replace_if(
        text, [](char character) { return character == '\r' || character == '\n'; }, ' ');
    return text;
}

std::string bodyOf(const AlertMessage& message) {
    const auto& items = message.items;
    const std::string date = shortDateAndTime(message.now);
    const std::string alert = onOneLine(message.alert);
    const std::string_view computer =
        message.computer ? std::string_view(*message.computer) : kNothing;
    return formatText(kBodyFormat,
                      {message.subject, items[0], items[1], date, items[2], message.consoleUser,
                       items[3], computer, items[4], message.networkAddresses, items[5],
                       message.systemVersion, items[6], alert});
}

}  // namespace

std::string composeAlertMessage(const AlertMessage& message) {
    std::string text;
    const auto addLine = [&text](std::string_view name, std::string_view value) {
        text.append(name).append(value).append(kLineEnd);
    };
    addLine("Content-Type: text/plain;charset=UTF-8;", "");
    addLine("Date: ", formatLocalTime(message.now, "%a, %d %b %Y %H:%M:%S %z"));
    addLine("From: ", message.sender);
    addLine("To: ", QLEmailArrayValueTransformer::stringFromArray(message.recipients));
    addLine("Subject: ", message.subject);
    addLine("", "");
    addLine(bodyOf(message), "");
    addLine("", "");
    addLine(kSmtpMessageEnd, "");
    return text;
}

std::string networkAddresses(const std::vector<std::string>& addresses) {
    std::string text;
    for (std::size_t i = 0; i + 1 < addresses.size(); i += 2) {
        const std::optional<std::string_view> interface = interfaceOf(addresses[i]);
        if (!interface || !interface->starts_with("en")) continue;
        // By the place in the list: what was left out before it leaves its comma behind.
        if (i > 0) text += ", ";
        text += addresses[i + 1];
    }
    return text;
}

std::optional<std::string> localComputerName(const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        if (name.ends_with(kLocal)) return name.substr(0, name.size() - kLocal.size());
        // A name of that one part alone has nothing before it.
        if (name == kLocal.substr(1)) return std::string{};
    }
    return std::nullopt;
}

std::optional<std::string> NSFullUserNameForUserName(Host& host, const std::string& name) {
    return host.fullUserName(name);
}

std::string QLConsoleUserName(Host& host) {
    const std::optional<std::string> name = host.consoleUserName();
    const std::optional<std::string> fullName =
        name ? NSFullUserNameForUserName(host, *name) : std::nullopt;
    return fullName ? *fullName : host.ownFullUserName();
}

}  // namespace korvane
