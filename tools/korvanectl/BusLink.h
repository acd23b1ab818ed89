// The way to the daemon over D-Bus. root talks to the system bus, where root's daemon is; another
// user to the session bus and then, where the daemon is not there, to the system bus.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <functional>
#include <memory>

#include "korvanectl/DaemonLink.h"

namespace korvane::ctl {

// Within this the bus must take the connection, and the daemon must answer a word: a reload asks
// every drive once, which takes well under a second for healthy ones.
inline constexpr std::chrono::seconds kBusLimit{5};
// Removing a folder takes a while on a slow disk: some thousand files a second.
inline constexpr std::chrono::seconds kItemsLimit{300};
// The daemon answers the word for a test mail after a minute when an earlier mail is under way.
inline constexpr std::chrono::seconds kTestMailAnswerLimit{75};
// A mail server has ten minutes to take the message, and some for the commands before it.
inline constexpr std::chrono::seconds kTestMailLimit{900};

class BusLink : public DaemonLink {
  public:
    [[nodiscard]] DaemonPresence presence() override;
    [[nodiscard]] std::string identity() override;
    [[nodiscard]] Outcome<bool> send(const std::string& word) override;
    [[nodiscard]] Outcome<std::vector<ItemFailure>> createItems(
        const std::vector<std::string>& paths) override;
    [[nodiscard]] Outcome<std::vector<ItemFailure>> deleteItems(
        const std::vector<std::string>& paths) override;
    [[nodiscard]] Outcome<MailSessionEnd> sendTestMail() override;

  private:
    struct UnrefMessage {
        void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
    };
    using Message = std::unique_ptr<sd_bus_message, UnrefMessage>;
    struct CloseBus {
        // Nothing is left to be flushed, and a bus that never spoke would be waited for.
        void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    };
    using Bus = std::unique_ptr<sd_bus, CloseBus>;

    [[nodiscard]] Outcome<bool> send(const std::string& word, std::chrono::seconds limit);
    // A connection on which the daemon's name is owned. Asked for once; later calls ask anew only
    // when there was none, so that a daemon that comes up meanwhile is found.
    sd_bus* busWithDaemon();
    // Calls a method of the daemon with the arguments that `append` adds; its reply.
    [[nodiscard]] Outcome<Message> call(const char* method,
                                        const std::function<int(sd_bus_message*)>& append,
                                        std::chrono::seconds limit);
    [[nodiscard]] Outcome<std::vector<ItemFailure>> handOver(const char* method,
                                                             const std::vector<std::string>& paths);

    Bus bus_;
};

}  // namespace korvane::ctl
