// The way to the running daemon, as the commands see it. The bus stands behind it; tests put
// something else there.
#pragma once

#include <string>
#include <vector>

#include "korvanectl/Outcome.h"
#include "platform/ControlConnection.h"

namespace korvane::ctl {

enum class DaemonPresence {
    absent,       // nothing of it is there
    unreachable,  // its process runs, but does not own its name on the bus
    reachable
};

class DaemonLink {
  public:
    virtual ~DaemonLink() = default;

    [[nodiscard]] virtual DaemonPresence presence() = 0;

    // What tells one run of the daemon from another; empty while it cannot be reached.
    [[nodiscard]] virtual std::string identity() = 0;

    // Sends a command word and waits for the answer, at most a few seconds. Failures: noDaemon,
    // notAllowed, noReply.
    [[nodiscard]] virtual Outcome<bool> send(const std::string& word) = 0;
    // Has the daemon create empty files, or remove items, at absolute paths; waits until it has
    // tried them all, which takes as long as the folders are large. Those that failed.
    [[nodiscard]] virtual Outcome<std::vector<ItemFailure>> createItems(
        const std::vector<std::string>& paths) = 0;
    [[nodiscard]] virtual Outcome<std::vector<ItemFailure>> deleteItems(
        const std::vector<std::string>& paths) = 0;

    // Has the daemon send a test mail and waits for the end of its session, at most some minutes.
    // Failures as above.
    [[nodiscard]] virtual Outcome<MailSessionEnd> sendTestMail() = 0;
};

// Has the daemon read its preferences again; the answer comes when it has.
inline constexpr char kReloadWord[] = "daemonPreferencesUpdatedNotification";
inline constexpr char kTestMailWord[] = "daemonTestSendingEmailNotification";

}  // namespace korvane::ctl
