// Why a mail session failed: the one kind of error object that the daemon builds.
#pragma once

#include <optional>
#include <string>

namespace korvane {

inline constexpr char kSmtpErrorDomain[] = "com.quorlen.protectiontool.smtp";

// The codes of that domain; a refusal by the server has the server's own 5xx code.
inline constexpr int kSmtpErrorGeneric = -1;
inline constexpr int kSmtpErrorTimeOut = -2;

struct MailError {
    std::string domain;
    int code = 0;
    std::string description;
    std::optional<std::string> recoverySuggestion;
};

}  // namespace korvane
