// The desktop's notification service, org.freedesktop.Notifications (Desktop Notifications
// protocol 1.2): shows one notice and stays until it is off the screen. A service that ends takes
// its notices along; the next one is given this notice anew.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "base/Result.h"
#include "platform/AlertDialogs.h"

namespace korvane {

class NotificationService {
  public:
    // Connects; the caller bounds the time that this and prepare() may take.
    [[nodiscard]] static Result<NotificationService> connect(const std::string& busAddress);

    // Learns what the service is able to show.
    [[nodiscard]] Result<std::monostate> prepare();
    // Hands the notice over and waits for its number, for as long as the service takes: nobody else
    // could take it off the screen.
    [[nodiscard]] Result<std::monostate> show(const Alert& alert);
    // Waits until the service says that the notice that was shown is closed, its button is pressed,
    // its time is up or SIGTERM arrives (blocked, taken through `terminateFd`, a signalfd); in the
    // last three cases the notice is closed here.
    void waitUntilClosed(const Alert& alert, int terminateFd);

  private:
    struct BusCloser {
        void operator()(sd_bus* bus) const { (void)sd_bus_flush_close_unref(bus); }
    };

    explicit NotificationService(sd_bus* bus) : bus_(bus) {}
    // Whether the message ends the notice.
    [[nodiscard]] bool handle(sd_bus_message* message, const Alert& alert);
    void serviceChanged(sd_bus_message* message, const Alert& alert);
    [[nodiscard]] bool processMessages(const Alert& alert);
    void close();

    std::unique_ptr<sd_bus, BusCloser> bus_;
    std::vector<std::string> capabilities_;
    std::uint32_t id_ = 0;  // 0, which is never a notice's: none is on the screen
    bool closedByService_ = false;
};

}  // namespace korvane
