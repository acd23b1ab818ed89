// The steps of an SMTP session, numbered as the session counts them: each is named after what has
// been sent last, and waits for the reply to that.
#pragma once

#include <chrono>

namespace korvane {

enum SmtpStep {
    kStepNone = 0,
    kStepGreeting = 1,  // connected; nothing sent yet
    kStepHello = 2,
    kStepStartTls = 3,  // or NOOP, where TLS is not wanted or there from the first byte
    kStepLogin = 4,
    kStepUserName = 5,
    kStepPassword = 6,
    kStepMailFrom = 7,  // and each recipient but the last
    kStepRecipients = 8,
    kStepData = 9,
    kStepMessage = 10,
    kStepQuit = 11  // or after a refusal: any reply ends the session
};

// From a command to a reply that leads on, and from the end of the message to the server's taking
// it: the least that a client has to wait for most commands and for that one (RFC 5321, section
// 4.5.3.2).
inline constexpr std::chrono::minutes kReplyLimit{5};
inline constexpr std::chrono::minutes kAcceptanceLimit{10};

// The lowest code by which a server refuses for good (RFC 5321, section 4.2.1).
inline constexpr int kLowestRefusal = 500;

}  // namespace korvane
