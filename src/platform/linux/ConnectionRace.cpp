#include "platform/linux/ConnectionRace.h"

#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

namespace korvane {

namespace {

// RFC 8305, section 8: the recommended delay between attempts.
constexpr std::chrono::milliseconds kAttemptDelay{250};

}  // namespace

ConnectionRace::ConnectionRace(LinuxRunLoop& loop, std::vector<SocketAddress> addresses,
                               Callback callback)
    : loop_(loop), addresses_(std::move(addresses)), callback_(std::move(callback)) {
    timer_ = loop_.startTimer(std::chrono::microseconds{0}, Repeat::once, [this] { startNext(); });
}

ConnectionRace::~ConnectionRace() = default;

void ConnectionRace::startNext() {
    timer_.reset();
    while (next_ < addresses_.size()) {
        const int error = begin(addresses_[next_++]);
        if (error == 0) {
            if (next_ < addresses_.size()) {
                timer_ = loop_.startTimer(kAttemptDelay, Repeat::once, [this] { startNext(); });
            }
            return;
        }
        noteFailure(error);
    }
    if (attempts_.empty()) end(UniqueFd{});
}

// A connection that stands at once is told by the socket's readiness like any other.
int ConnectionRace::begin(const SocketAddress& address) {
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address.address);
    UniqueFd socket{::socket(generic->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!socket) return errno;
    if (::connect(socket.get(), generic, address.length) != 0 && errno != EINPROGRESS) return errno;
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(loop_.event(), &source, socket.get(), EPOLLOUT, onReady, this);
    if (result < 0) return -result;
    attempts_.push_back({std::move(socket), EventSource{source}});
    return 0;
}

void ConnectionRace::noteFailure(int error) {
    if (error_.empty()) error_ = std::generic_category().message(error);
}

int ConnectionRace::onReady(sd_event_source*, int fd, std::uint32_t, void* self) noexcept {
    auto* const race = static_cast<ConnectionRace*>(self);
    race->loop_.callBack("a connection", [race, fd] { race->attemptReady(fd); });
    return 0;
}

void ConnectionRace::attemptReady(int fd) {
    const auto attempt = std::find_if(attempts_.begin(), attempts_.end(),
                                      [fd](const Attempt& a) { return a.socket.get() == fd; });
    if (attempt == attempts_.end()) return;
    int error = 0;
    socklen_t length = sizeof(error);
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    UniqueFd socket = std::move(attempt->socket);
    attempts_.erase(attempt);
    if (error == 0) {
        end(std::move(socket));
    } else {
        noteFailure(error);
        startNext();
    }
}

void ConnectionRace::end(UniqueFd socket) {
    attempts_.clear();
    timer_.reset();
    // The callback may destroy the race.
    const Callback callback = std::move(callback_);
    const std::string error = socket ? std::string{} : error_;
    callback(std::move(socket), error);
}

}  // namespace korvane
