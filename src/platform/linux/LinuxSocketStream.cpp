#include "platform/linux/LinuxSocketStream.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace korvane {

using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

// A peer that has vanished is given up after about two minutes: a minute of silence, then four
// probes a quarter of a minute apart (tcp(7)); for bytes it never acknowledges, the same time at
// once.
constexpr int kKeepAliveIdleSeconds = 60;
constexpr int kKeepAliveIntervalSeconds = 15;
constexpr int kKeepAliveProbes = 4;
constexpr int kUserTimeoutMilliseconds = 120'000;

constexpr char kNoTls[] = "TLS is not available";

void setOption(int socket, int level, int option, int value) {
    // What a kernel does not know stays at its own default: a peer's death is then noticed later.
    (void)::setsockopt(socket, level, option, &value, sizeof(value));
}

void makeWatchful(int socket) {
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, kKeepAliveIdleSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, kKeepAliveIntervalSeconds);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, kKeepAliveProbes);
    setOption(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, kUserTimeoutMilliseconds);
    // Each write is a whole command: nothing to gather them for.
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

// What one of recv and send has come to.
Transfer outcome(ssize_t count, TransferState wanted) {
    if (count >= 0) return {TransferState::done, static_cast<std::size_t>(count)};
    if (errno == EAGAIN || errno == EINTR) return {wanted, 0};
    return {TransferState::failed, 0};
}

std::string systemReason() { return std::generic_category().message(errno); }

}  // namespace

LinuxSocketStream::LinuxSocketStream(LinuxRunLoop& loop, LinuxSocketStreams& streams,
                                     std::string host, int port)
    : loop_(loop), streams_(streams), host_(std::move(host)), port_(port) {}

void LinuxSocketStream::open(Handler handler) {
    handler_ = std::move(handler);
    state_ = State::connecting;
    attempt([this] {
        lookup_ = std::make_unique<HostLookup>(
            loop_, host_, port_, [this](const HostAddresses& found) { lookedUp(found); });
    });
}

void LinuxSocketStream::lookedUp(const HostAddresses& found) {
    lookup_.reset();
    if (!found.error.empty()) {
        fail(found.error);
        return;
    }
    attempt([this, &found] {
        race_ = std::make_unique<ConnectionRace>(loop_, found.addresses,
                                                 [this](UniqueFd socket, const std::string& error) {
                                                     connected(std::move(socket), error);
                                                 });
    });
}

void LinuxSocketStream::connected(UniqueFd socket, const std::string& error) {
    const std::shared_ptr<LinuxSocketStream> self = shared_from_this();
    race_.reset();
    if (!socket) {
        fail(error);
        return;
    }
    makeWatchful(socket.get());
    socket_ = std::move(socket);
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(loop_.event(), &source, socket_.get(), EPOLLIN, onReady, this);
    if (result < 0) {
        fail(std::generic_category().message(-result));
        return;
    }
    source_.reset(source);
    state_ = State::open;
    // Told before the handshake: whoever limits the time to the server's first word limits that,
    // too.
    tell(StreamSide::input, StreamEvent::openCompleted);
    tell(StreamSide::output, StreamEvent::openCompleted);
    if (!tlsPeerName_) return;
    if (!beginTls()) {
        fail(kNoTls);
        return;
    }
    state_ = State::handshaking;
    handshakeOnLoop();
}

void LinuxSocketStream::useTls(const std::string& peerName, microseconds limit) {
    if (tls_) return;
    tlsPeerName_ = peerName;
    handshakeLimit_ = limit;
    if (state_ == State::open && !beginTls()) failLater(kNoTls);
}

bool LinuxSocketStream::beginTls() {
    tls_ = streams_.newTlsSession(socket_.get(), *tlsPeerName_);
    isTlsFinished_ = false;
    return tls_ != nullptr;
}

int LinuxSocketStream::onReady(sd_event_source*, int, std::uint32_t, void* self) noexcept {
    // The handler may let go of the stream.
    const std::shared_ptr<LinuxSocketStream> stream =
        static_cast<LinuxSocketStream*>(self)->shared_from_this();
    stream->loop_.callBack("a connection's event", [&stream] { stream->ready(); });
    return 0;
}

void LinuxSocketStream::ready() {
    if (state_ == State::handshaking) {
        handshakeOnLoop();
        return;
    }
    if (state_ != State::open) return;
    switch (const Transfer ahead = tryPeek(); ahead.state) {
        case TransferState::done:
            tell(StreamSide::input, StreamEvent::hasBytesAvailable);
            return;
        case TransferState::ended:
            end();
            tell(StreamSide::input, StreamEvent::endEncountered);
            return;
        case TransferState::failed:
            fail(tls_ ? tls_->error() : systemReason());
            return;
        case TransferState::wantsToRead:
        case TransferState::wantsToWrite:
            return;
    }
}

void LinuxSocketStream::handshakeOnLoop() {
    switch (const Transfer step = tls_->handshake(); step.state) {
        case TransferState::done:
            state_ = State::open;
            isTlsFinished_ = true;
            watch(EPOLLIN);
            // The first words may have come with the end of the handshake: no event will tell.
            ready();
            return;
        case TransferState::wantsToRead:
            watch(EPOLLIN);
            return;
        case TransferState::wantsToWrite:
            watch(EPOLLOUT);
            return;
        case TransferState::ended:
        case TransferState::failed:
            fail(handshakeError());
            return;
    }
}

Transfer LinuxSocketStream::tryRead(std::span<char> buffer) {
    if (tls_) return tls_->read(buffer);
    const Transfer result =
        outcome(::recv(socket_.get(), buffer.data(), buffer.size(), 0), TransferState::wantsToRead);
    const bool isEnd = result.state == TransferState::done && result.count == 0;
    return isEnd ? Transfer{TransferState::ended, 0} : result;
}

Transfer LinuxSocketStream::tryPeek() {
    if (tls_) return tls_->peek();
    char byte = 0;
    const Transfer result =
        outcome(::recv(socket_.get(), &byte, 1, MSG_PEEK), TransferState::wantsToRead);
    const bool isEnd = result.state == TransferState::done && result.count == 0;
    return isEnd ? Transfer{TransferState::ended, 0} : result;
}

Transfer LinuxSocketStream::tryWrite(std::string_view bytes) {
    if (tls_) return tls_->write(bytes);
    return outcome(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                   TransferState::wantsToWrite);
}

LinuxRunLoop::Wait LinuxSocketStream::waitFor(const Transfer& transfer,
                                              steady_clock::time_point deadline) const {
    const short events = transfer.state == TransferState::wantsToWrite ? POLLOUT : POLLIN;
    const auto remaining = std::max(deadline - steady_clock::now(), steady_clock::duration{0});
    return loop_.waitServingNothing(socket_.get(), events,
                                    std::chrono::duration_cast<microseconds>(remaining));
}

bool LinuxSocketStream::hasBytesAvailable() {
    return state_ == State::open && tryPeek().state == TransferState::done;
}

std::ptrdiff_t LinuxSocketStream::read(std::span<char> buffer, microseconds limit) {
    const auto deadline = steady_clock::now() + limit;
    while (state_ == State::open) {
        const Transfer result = tryRead(buffer);
        switch (result.state) {
            case TransferState::done:
                return static_cast<std::ptrdiff_t>(result.count);
            case TransferState::ended:
                end();
                return 0;
            case TransferState::failed:
                failLater(tls_ ? tls_->error() : systemReason());
                return -1;
            case TransferState::wantsToRead:
            case TransferState::wantsToWrite:
                switch (waitFor(result, deadline)) {
                    case LinuxRunLoop::Wait::ready:
                        break;
                    case LinuxRunLoop::Wait::timedOut:
                        end();
                        return 0;
                    case LinuxRunLoop::Wait::interrupted:
                        return 0;
                }
                break;
        }
    }
    return state_ == State::failed ? -1 : 0;
}

StreamWrite LinuxSocketStream::finishUpgrade() {
    const auto deadline = steady_clock::now() + handshakeLimit_;
    while (state_ == State::open && tls_ && !isTlsFinished_) {
        const Transfer step = tls_->handshake();
        isTlsFinished_ = step.state == TransferState::done;
        if (isTlsFinished_) break;
        if (step.state == TransferState::failed || step.state == TransferState::ended) {
            failLater(handshakeError());
            return StreamWrite::notOpen;
        }
        switch (waitFor(step, deadline)) {
            case LinuxRunLoop::Wait::ready:
                break;
            case LinuxRunLoop::Wait::timedOut:
                end();
                return StreamWrite::notOpen;
            case LinuxRunLoop::Wait::interrupted:
                return StreamWrite::failed;
        }
    }
    return state_ == State::open ? StreamWrite::written : StreamWrite::notOpen;
}

StreamWrite LinuxSocketStream::write(std::string_view bytes, std::chrono::milliseconds limit) {
    // The upgrade comes first, and has a limit of its own: until then the connection takes no
    // bytes.
    const StreamWrite upgrade = finishUpgrade();
    if (upgrade != StreamWrite::written) return upgrade;
    const auto deadline = steady_clock::now() + limit;
    for (;;) {
        const Transfer result = tryWrite(bytes);
        if (result.state == TransferState::done) {
            return result.count == 0 && !bytes.empty() ? StreamWrite::full : StreamWrite::written;
        }
        if (result.state == TransferState::failed || result.state == TransferState::ended) break;
        switch (waitFor(result, deadline)) {
            case LinuxRunLoop::Wait::ready:
                break;
            case LinuxRunLoop::Wait::timedOut:
                return StreamWrite::timedOut;
            case LinuxRunLoop::Wait::interrupted:
                return StreamWrite::failed;
        }
    }
    return StreamWrite::failed;
}

std::string LinuxSocketStream::handshakeError() const {
    return tls_->error().empty() ? "TLS: the connection ended" : tls_->error();
}

std::string LinuxSocketStream::error(StreamSide side) const {
    return side == StreamSide::input ? error_ : std::string{};
}

void LinuxSocketStream::watch(std::uint32_t events) {
    // Cannot fail on a live source of a descriptor that was added before.
    if (source_) (void)sd_event_source_set_io_events(source_.get(), events);
}

void LinuxSocketStream::end() {
    state_ = State::ended;
    stopWatching();
}

void LinuxSocketStream::stopWatching() { source_.reset(); }

void LinuxSocketStream::tell(StreamSide side, StreamEvent event) {
    // A copy, since the handler may let go of the stream and so of itself.
    const Handler handler = handler_;
    if (handler) handler(side, event);
}

void LinuxSocketStream::fail(const std::string& reason) {
    if (state_ == State::failed) return;
    const std::shared_ptr<LinuxSocketStream> self = shared_from_this();
    state_ = State::failed;
    error_ = reason;
    stopWatching();
    tell(StreamSide::input, StreamEvent::errorOccurred);
}

void LinuxSocketStream::failLater(const std::string& reason) {
    if (state_ == State::failed) return;
    state_ = State::failed;
    error_ = reason;
    stopWatching();
    sd_event_source* source = nullptr;
    // Fails for want of memory alone; then the peer's time-outs have to do.
    if (sd_event_add_defer(loop_.event(), &source, onFailed, this) < 0) return;
    failureSource_.reset(source);
    (void)sd_event_source_set_priority(source, kPriorityFailures);
}

int LinuxSocketStream::onFailed(sd_event_source*, void* self) noexcept {
    const std::shared_ptr<LinuxSocketStream> stream =
        static_cast<LinuxSocketStream*>(self)->shared_from_this();
    stream->failureSource_.reset();
    stream->loop_.callBack("a connection's error", [&stream] {
        stream->tell(StreamSide::input, StreamEvent::errorOccurred);
    });
    return 0;
}

}  // namespace korvane
