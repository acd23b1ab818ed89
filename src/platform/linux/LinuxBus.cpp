#include "platform/linux/LinuxBus.h"

#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace korvane {

namespace {

using std::chrono::milliseconds;

// A bus that does not answer by then hangs; a working one takes a few milliseconds.
constexpr std::chrono::microseconds kLongestWait = std::chrono::seconds{2};
// Each attempt waits twice as long as the one before, from 50 ms on: together some 6 s, in which a
// bus that restarts is back. After that only its folder tells.
constexpr milliseconds kFirstRetryDelay{50};
constexpr std::size_t kMostAttempts = 7;

// The D-Bus document, "Well-known Message Bus Instances".
constexpr char kSystemBusAddress[] = "unix:path=/run/dbus/system_bus_socket";

std::string addressOf(LinuxBus::Kind kind) {
    const bool isSystem = kind == LinuxBus::Kind::system;
    const char* const set =
        ::secure_getenv(isSystem ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS");
    if (set != nullptr && *set != '\0') return set;
    if (isSystem) return kSystemBusAddress;
    const char* const runtimeFolder = ::secure_getenv("XDG_RUNTIME_DIR");
    if (runtimeFolder == nullptr || *runtimeFolder == '\0') return "";
    return std::string("unix:path=") + runtimeFolder + "/bus";
}

}  // namespace

std::optional<std::string> socketPathOf(std::string_view address) {
    constexpr std::string_view kTransport = "unix:";
    constexpr std::string_view kKey = "path=";
    while (!address.empty()) {
        const std::string_view server = address.substr(0, address.find(';'));
        address.remove_prefix(std::min(server.size() + 1, address.size()));
        if (!server.starts_with(kTransport)) continue;
        std::string_view pairs = server.substr(kTransport.size());
        while (!pairs.empty()) {
            const std::string_view pair = pairs.substr(0, pairs.find(','));
            pairs.remove_prefix(std::min(pair.size() + 1, pairs.size()));
            if (!pair.starts_with(kKey)) continue;
            std::string path;
            for (std::string_view rest = pair.substr(kKey.size()); !rest.empty();) {
                unsigned byte = 0;
                const bool isEscape =
                    rest[0] == '%' && rest.size() >= 3 &&
                    std::from_chars(rest.data() + 1, rest.data() + 3, byte, 16).ptr ==
                        rest.data() + 3;
                path += isEscape ? static_cast<char>(byte) : rest[0];
                rest.remove_prefix(isEscape ? 3 : 1);
            }
            if (path.starts_with('/')) return path;
        }
    }
    return std::nullopt;
}

int ignoreBusAnswer(sd_bus_message*, void*, sd_bus_error*) noexcept { return 0; }

LinuxBus::LinuxBus(LinuxRunLoop& loop, Kind kind)
    : loop_(loop), kind_(kind), address_(addressOf(kind)) {}

LinuxBus::~LinuxBus() = default;

bool LinuxBus::open() {
    isUp_ = false;
    connectedSlot_.reset();
    disconnectedSlot_.reset();
    bus_.reset();
    if (address_.empty()) return false;
    sd_bus* bus = nullptr;
    if (sd_bus_new(&bus) < 0) return false;
    bus_.reset(bus);
    // At exit the loop would flush the connection, and wait for a bus that hangs.
    (void)sd_bus_set_close_on_exit(bus, 0);
    (void)sd_bus_set_method_call_timeout(bus, static_cast<std::uint64_t>(kLongestWait.count()));
    sd_bus_slot* slot = nullptr;
    const char* const local = "org.freedesktop.DBus.Local";
    const char* const localPath = "/org/freedesktop/DBus/Local";
    if (sd_bus_set_address(bus, address_.c_str()) < 0 || sd_bus_set_bus_client(bus, 1) < 0 ||
        sd_bus_set_connected_signal(bus, 1) < 0 ||
        sd_bus_match_signal(bus, &slot, nullptr, localPath, local, "Connected", onConnected, this) <
            0) {
        return false;
    }
    connectedSlot_.reset(slot);
    if (sd_bus_match_signal(bus, &slot, nullptr, localPath, local, "Disconnected", onDisconnected,
                            this) < 0) {
        return false;
    }
    disconnectedSlot_.reset(slot);
    return sd_bus_start(bus) >= 0 && sd_bus_attach_event(bus, loop_.event(), kPriorityNormal) >= 0;
}

bool LinuxBus::waitUntilReady() {
    const auto end = std::chrono::steady_clock::now() + kLongestWait;
    while (sd_bus_is_ready(bus_.get()) == 0) {
        const int progress = sd_bus_process(bus_.get(), nullptr);
        if (progress < 0) return false;
        if (progress > 0) continue;
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(
            end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (sd_bus_wait(bus_.get(), static_cast<std::uint64_t>(left.count())) < 0) return false;
    }
    return sd_bus_is_ready(bus_.get()) > 0;
}

void LinuxBus::connect() {
    const bool opened = open();
    if (opened && waitUntilReady()) {
        announce();
        return;
    }
    // A connection that hangs is kept: should the bus answer after all, the loop goes on from
    // there.
    if (!opened || sd_bus_is_open(bus_.get()) <= 0) lost();
}

void LinuxBus::join(BusUser& user) {
    users_.push_back(&user);
    if (isUp_) user.busCame(bus_.get());
}

void LinuxBus::leave(BusUser& user) { std::erase(users_, &user); }

void LinuxBus::announce() {
    if (std::exchange(isUp_, true)) return;
    attempts_ = 0;
    retry_.reset();
    folderWatch_.reset();
    // A copy: a user may leave when it is told.
    const std::vector<BusUser*> users = users_;
    for (BusUser* const user : users) {
        if (std::find(users_.begin(), users_.end(), user) != users_.end()) {
            user->busCame(bus_.get());
        }
    }
}

void LinuxBus::lost() {
    if (std::exchange(isUp_, false)) {
        const std::vector<BusUser*> users = users_;
        for (BusUser* const user : users) {
            if (std::find(users_.begin(), users_.end(), user) != users_.end()) user->busWent();
        }
    }
    // Watched before the next attempt, so that no appearance falls between the two.
    watchSocketFolder();
    if (attempts_ == kMostAttempts) return;
    // The connection itself is let go there, not in a callback of its own.
    const milliseconds delay = kFirstRetryDelay * (1U << attempts_++);
    retry_ = loop_.startTimer(delay, Repeat::once, [this] { tryAgain(); });
}

void LinuxBus::tryAgain() {
    // From here the Connected or the Disconnected signal goes on.
    if (!open()) lost();
}

int LinuxBus::onConnected(sd_bus_message*, void* self, sd_bus_error*) noexcept {
    auto* const bus = static_cast<LinuxBus*>(self);
    bus->loop_.callBack("connecting to the bus", [bus] { bus->announce(); });
    return 0;
}

int LinuxBus::onDisconnected(sd_bus_message*, void* self, sd_bus_error*) noexcept {
    auto* const bus = static_cast<LinuxBus*>(self);
    bus->loop_.callBack("the loss of the bus", [bus] { bus->lost(); });
    return 0;
}

// Watches the folder that the socket will appear in or, when that is missing, the nearest one
// above it.
void LinuxBus::watchSocketFolder() {
    folderWatch_.reset();
    std::optional<std::string> path = socketPathOf(address_);
    while (path && path->size() > 1) {
        const std::size_t slash = path->rfind('/');
        std::string folder = path->substr(0, std::max<std::size_t>(slash, 1));
        std::string name = path->substr(slash + 1);
        sd_event_source* source = nullptr;
        // The change of the attributes is the server's chmod after it began to listen.
        if (sd_event_add_inotify(loop_.event(), &source, folder.c_str(),
                                 IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_ONLYDIR,
                                 onSocketFolder, this) >= 0) {
            folderWatch_.reset(source);
            awaitedName_ = std::move(name);
            return;
        }
        path = std::move(folder);
    }
}

int LinuxBus::onSocketFolder(sd_event_source*, const inotify_event* event, void* self) noexcept {
    auto* const bus = static_cast<LinuxBus*>(self);
    const bool concernsSocket =
        (event->mask & (IN_DELETE_SELF | IN_IGNORED | IN_Q_OVERFLOW)) != 0 ||
        (event->len > 0 && bus->awaitedName_ == event->name);
    if (!concernsSocket) return 0;
    bus->loop_.callBack("waiting for the bus", [bus] {
        bus->attempts_ = 0;
        bus->lost();
    });
    return 0;
}

}  // namespace korvane
