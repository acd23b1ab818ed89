// A connection to the first of several addresses that takes it. They are tried in their order, each
// a moment after the one before unless that has failed sooner (RFC 8305), so that a network whose
// IPv6 leads nowhere costs a quarter of a second.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/HostLookup.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

class ConnectionRace {
  public:
    // The connected socket, which does not block; or none, and why the first address failed.
    using Callback = std::function<void(UniqueFd, const std::string& error)>;

    // Calls back once, on the loop, never from here. Destroying the race ends it.
    ConnectionRace(LinuxRunLoop& loop, std::vector<SocketAddress> addresses, Callback callback);
    ~ConnectionRace();
    ConnectionRace(const ConnectionRace&) = delete;
    ConnectionRace& operator=(const ConnectionRace&) = delete;

  private:
    struct Attempt {
        UniqueFd socket;
        EventSource source;
    };

    static int onReady(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;
    // Begins the next attempt that can be begun, and sets the timer for the one after it.
    void startNext();
    [[nodiscard]] int begin(const SocketAddress& address);
    void attemptReady(int fd);
    void noteFailure(int error);
    void end(UniqueFd socket);

    LinuxRunLoop& loop_;
    const std::vector<SocketAddress> addresses_;
    Callback callback_;
    std::size_t next_ = 0;
    std::vector<Attempt> attempts_;
    std::unique_ptr<Timer> timer_;
    std::string error_;
};

}  // namespace korvane
