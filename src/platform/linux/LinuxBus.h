// One connection to a message bus, shared by everything that speaks on it. It outlives the bus:
// when the bus goes away the connection is made again once there is a bus again, told by the
// socket's folder rather than asked for, so that a machine without a bus is not woken either. What
// is said over the bus is none of its business.
#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

struct BusSlotCloser {
    void operator()(sd_bus_slot* slot) const { (void)sd_bus_slot_unref(slot); }
};
// Owns a match, an object or an outstanding call: destroying it ends the callbacks.
using BusSlot = std::unique_ptr<sd_bus_slot, BusSlotCloser>;

// Somebody who speaks on a bus. Both are called on the loop's thread.
class BusUser {
  public:
    virtual ~BusUser() = default;
    // The bus is there, for the first time or again: matches and names are to be set up. Whatever
    // is asked of the bus here must not wait for its answer.
    virtual void busCame(sd_bus* bus) = 0;
    // The bus is gone, and with it every match and name; slots must be let go.
    virtual void busWent() = 0;
};

class LinuxBus {
  public:
    enum class Kind { system, session };

    LinuxBus(LinuxRunLoop& loop, Kind kind);
    ~LinuxBus();
    LinuxBus(const LinuxBus&) = delete;
    LinuxBus& operator=(const LinuxBus&) = delete;

    [[nodiscard]] Kind kind() const { return kind_; }

    // Connects and waits for it, for two seconds at the most; without success it goes on as after
    // a loss. Once, before the users come.
    void connect();
    // The connection, or null while there is none.
    [[nodiscard]] sd_bus* connection() const { return isUp_ ? bus_.get() : nullptr; }

    // From now on the user is told; at once when the bus is there. It must leave before it ends.
    void join(BusUser& user);
    // The same for one that has already set itself up on connection().
    void joinSetUp(BusUser& user) { users_.push_back(&user); }
    void leave(BusUser& user);

  private:
    struct BusCloser {
        // Without a flush, which would wait for a bus that hangs.
        void operator()(sd_bus* bus) const { (void)sd_bus_close_unref(bus); }
    };

    static int onConnected(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    static int onDisconnected(sd_bus_message* message, void* self, sd_bus_error* error) noexcept;
    static int onSocketFolder(sd_event_source* source, const inotify_event* event,
                              void* self) noexcept;

    [[nodiscard]] bool open();
    [[nodiscard]] bool waitUntilReady();
    void announce();
    void lost();
    void tryAgain();
    void watchSocketFolder();

    LinuxRunLoop& loop_;
    const Kind kind_;
    std::string address_;
    std::vector<BusUser*> users_;

    std::unique_ptr<sd_bus, BusCloser> bus_;
    BusSlot connectedSlot_;
    BusSlot disconnectedSlot_;
    bool isUp_ = false;

    std::size_t attempts_ = 0;      // since the bus was lost or its folder last changed
    std::unique_ptr<Timer> retry_;  // the next attempt
    EventSource folderWatch_;       // while there is no connection
    std::string awaitedName_;       // what has to appear in the watched folder
};

// The file name of the first "unix:path=" in a D-Bus address, unescaped; nothing for abstract
// sockets and other transports.
[[nodiscard]] std::optional<std::string> socketPathOf(std::string_view address);

// Takes the answer of an asynchronous call whose failure changes nothing. Without such a callback
// sd-bus closes the connection when a match or a name is refused.
int ignoreBusAnswer(sd_bus_message* message, void* userData, sd_bus_error* error) noexcept;

}  // namespace korvane
