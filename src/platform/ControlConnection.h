// The named inter-process connection over which the main application steers the daemon.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvane {

// The root object of the connection: what may be called from outside. On the loop's thread.
class ControlTarget {
  public:
    virtual ~ControlTarget() = default;
    virtual bool messageXmitRcvr(const std::string& word) = 0;
    virtual void messageDoCreateItems(const std::vector<std::string>& paths) = 0;
    virtual void messageDoDeleteItems(const std::vector<std::string>& paths) = 0;
};

enum class MailOutcome {
    sent,     // the server has taken the message
    refused,  // the server has said no (5xx)
    failed,   // no connection, no greeting in time, or a command that could not be handed over
    dropped,  // the server has closed the connection in the middle of the session
    busy      // not begun: an earlier session holds on
};

// How a mail session ended, for a caller that waits for its test mail.
struct MailSessionEnd {
    std::string sender;  // the word of who sent: empty for a test mail
    MailOutcome outcome = MailOutcome::failed;
    int step = 0;      // the step of the session in which it ended
    std::string text;  // the server's last words, or what went wrong
};

// An item of a list that could not be created or removed.
struct ItemFailure {
    std::string path;    // as it was in the list
    std::string reason;  // in words, without a final full stop; empty where none is known
    bool operator==(const ItemFailure&) const = default;
};

// A registered name. Destroying it gives the name back.
class RegisteredConnection {
  public:
    virtual ~RegisteredConnection() = default;
    // Tells whoever listens; nobody may.
    virtual void mailSessionEnded(const MailSessionEnd& end) = 0;
    // Likewise; the caller whose list it is hears it before the answer to its call.
    virtual void itemFailed(const ItemFailure& failure) = 0;
};

class ControlConnection {
  public:
    virtual ~ControlConnection() = default;

    // Registers the daemon's service name and delivers calls to the target, which must outlive the
    // result. Null when the name is taken, or there will never be anything to register it with.
    // Callers other than root and the daemon's own user are refused here.
    [[nodiscard]] virtual std::unique_ptr<RegisteredConnection> registerName(
        ControlTarget& target) = 0;
};

}  // namespace korvane
