// A message bus of the test's own: dbus-daemon on a socket in a temporary folder, by default with
// a policy that allows everything. It can be killed and started again at the same address.
#pragma once

#include <sys/types.h>

#include <string>

#include "unit/platform/TemporaryFolder.h"

namespace korvane {

class PrivateBus {
  public:
    // Makes it the bus that this process and its children find, as system and as session bus.
    PrivateBus();
    ~PrivateBus();
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Starts the server and waits until it listens.
    void start();
    // Ends it at once, as a crash would.
    void kill();

    [[nodiscard]] const std::string& address() const { return address_; }
    [[nodiscard]] std::string socketPath() const { return folder_ / "bus/socket"; }
    [[nodiscard]] const TemporaryFolder& folder() const { return folder_; }

  private:
    TemporaryFolder folder_;
    std::string address_;
    pid_t server_ = -1;
};

// What a command printed on both of its outputs, and how it ended.
struct CommandResult {
    int status = -1;
    std::string output;
};
// Runs a shell command and waits for it.
[[nodiscard]] CommandResult runCommand(const std::string& command);

}  // namespace korvane
