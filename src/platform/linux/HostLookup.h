// The addresses of a host by its name. The resolver may wait for a server that does not answer, so
// it has a thread of its own; the answer comes on the loop.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

struct SocketAddress {
    sockaddr_storage address{};
    socklen_t length = 0;
};

struct HostAddresses {
    std::vector<SocketAddress> addresses;  // in the order in which they should be tried
    std::string error;                     // why there are none
};

class HostLookup {
  public:
    using Callback = std::function<void(const HostAddresses&)>;

    // Calls back once, on the loop, never from here. Destroying the look-up forgets it; its thread
    // ends when the resolver lets it.
    HostLookup(LinuxRunLoop& loop, const std::string& host, int port, Callback callback);
    ~HostLookup();
    HostLookup(const HostLookup&) = delete;
    HostLookup& operator=(const HostLookup&) = delete;

  private:
    struct Answer;
    static int onAnswer(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;

    LinuxRunLoop& loop_;
    Callback callback_;
    std::shared_ptr<Answer> answer_;  // the thread's, too
    EventSource source_;
};

}  // namespace korvane
