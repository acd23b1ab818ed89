// Holds the Linux machine's connections to what their interface promises, and to what only real
// sockets can show: their options, the way from one address to the next, a lack of descriptors.
#include <arpa/inet.h>
#include <linux/filter.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

#include "conformance/SocketStreamsConformance.h"
#include "platform/linux/ConnectionRace.h"
#include "platform/linux/LinuxBundle.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSocketStreams.h"
#include "unit/platform/RecordingLog.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;

SocketAddress loopback(int family, int port) {
    SocketAddress address;
    if (family == AF_INET6) {
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<std::uint16_t>(port));
        v6.sin6_addr = in6addr_loopback;
        address.length = sizeof(v6);
        std::memcpy(&address.address, &v6, sizeof(v6));
    } else {
        sockaddr_in v4{};
        v4.sin_family = AF_INET;
        v4.sin_port = htons(static_cast<std::uint16_t>(port));
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.length = sizeof(v4);
        std::memcpy(&address.address, &v4, sizeof(v4));
    }
    return address;
}

const sockaddr* generic(const SocketAddress& address) {
    return reinterpret_cast<const sockaddr*>(&address.address);
}

// A socket on a port of its own that listens, or only keeps others from it.
struct BoundSocket {
    explicit BoundSocket(int family, bool listens) {
        SocketAddress address = loopback(family, 0);
        if (!socket || ::bind(socket.get(), generic(address), address.length) != 0) return;
        if (listens && ::listen(socket.get(), 8) != 0) return;
        if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address.address),
                          &address.length) != 0) {
            return;
        }
        in_port_t number = 0;  // at the same place in both families
        std::memcpy(&number, reinterpret_cast<const char*>(&address.address) + 2, sizeof(number));
        port = ntohs(number);
    }
    UniqueFd socket{::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    int port = 0;
};

struct LinuxSocketStreamsSubject final : SocketStreamsSubject {
    ~LinuxSocketStreamsSubject() override {
        if (server.joinable()) server.join();
    }
    SocketStreams& streams() override { return socketStreams; }
    int serve(const std::string& greeting, const std::string& reply) override {
        server = std::thread([this, greeting, reply] {
            const UniqueFd peer{::accept(listening.socket.get(), nullptr, nullptr)};
            if (greeting.empty() || !send(peer.get(), greeting)) return;
            std::array<char, 256> line{};
            // Ends when the client does, if it never says a word.
            if (::recv(peer.get(), line.data(), line.size(), 0) <= 0 || reply.empty()) return;
            if (!isSilent) (void)send(peer.get(), reply);
            (void)::recv(peer.get(), line.data(), line.size(), 0);
        });
        return listening.port;
    }
    void fallSilent() override { isSilent = true; }
    int refusingPort() override { return deaf.port; }
    void runUntil(const std::function<bool()>& isDone) override {
        // So that no wait is for ever.
        const auto poll = loop.startTimer(milliseconds{10}, Repeat::every, [] {});
        while (!isDone()) ASSERT_GE(sd_event_run(loop.event(), UINT64_MAX), 0);
    }
    void runOut() override {
        bool isOver = false;
        const auto end = loop.startTimer(milliseconds{50}, Repeat::once, [&] { isOver = true; });
        while (!isOver) ASSERT_GE(sd_event_run(loop.event(), UINT64_MAX), 0);
    }
    static bool send(int peer, const std::string& text) {
        return ::send(peer, text.data(), text.size(), MSG_NOSIGNAL) > 0;
    }

    RecordingLog log;
    LinuxRunLoop loop{log};
    LinuxBundle bundle{KORVANE_BUILD_DIR, {}};
    LinuxSocketStreams socketStreams{loop, bundle};
    BoundSocket listening{AF_INET, true};
    BoundSocket deaf{AF_INET, false};
    std::atomic<bool> isSilent = false;
    std::thread server;
};
INSTANTIATE_TEST_SUITE_P(Linux, SocketStreamsConformance,
                         testing::Values(Implementation<SocketStreamsSubject>{
                             "Linux",
                             [] { return std::make_unique<LinuxSocketStreamsSubject>(); }}),
                         testing::PrintToStringParamName());

// ---- Real sockets alone -------------------------------------------------------------------------

// This process's socket that is connected to the port.
int socketTo(int port) {
    for (int fd = 3; fd < 1024; ++fd) {
        sockaddr_in peer{};
        socklen_t length = sizeof(peer);
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            ntohs(peer.sin_port) == port) {
            return fd;
        }
    }
    return -1;
}

int option(int socket, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(::getsockopt(socket, level, name, &value, &length), 0);
    return value;
}

TEST(LinuxSocketStream, NoticesThatItsPeerHasDiedWithinMinutes) {
    LinuxSocketStreamsSubject subject;
    const int port = subject.serve("220 hello\r\n", "");
    bool isOpen = false;
    auto stream = subject.streams().streamsToHost("127.0.0.1", port);
    stream->open([&](StreamSide, StreamEvent) { isOpen = true; });
    subject.runUntil([&] { return isOpen; });
    const int socket = socketTo(port);
    ASSERT_GE(socket, 0);
    EXPECT_EQ(option(socket, SOL_SOCKET, SO_KEEPALIVE), 1);
    const int silence =
        option(socket, IPPROTO_TCP, TCP_KEEPIDLE) +
        option(socket, IPPROTO_TCP, TCP_KEEPINTVL) * option(socket, IPPROTO_TCP, TCP_KEEPCNT);
    EXPECT_LE(silence, 180);
    EXPECT_GT(option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 0);
    EXPECT_LE(option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT), 180'000);
    EXPECT_EQ(option(socket, IPPROTO_TCP, TCP_NODELAY), 1);
    stream.reset();
}

// A connection whose other end can vanish: what is sent there is dropped, and nothing is
// acknowledged, as by a machine that has lost its power.
class VanishingPeer : public testing::Test {
  protected:
    void connect() {
        stream_ = subject_.socketStreams.streamsToHost("127.0.0.1", subject_.listening.port);
        stream_->open([this](StreamSide, StreamEvent event) { events_.push_back(event); });
        subject_.runUntil([&] { return events_.size() == 2; });  // both sides are open
        peer_ = UniqueFd{::accept(subject_.listening.socket.get(), nullptr, nullptr)};
        ASSERT_TRUE(peer_);
        // The connection's own limits take minutes.
        const int socket = socketTo(subject_.listening.port);
        for (const auto& [name, value] :
             std::initializer_list<std::pair<int, int>>{{TCP_KEEPIDLE, 1},
                                                        {TCP_KEEPINTVL, 1},
                                                        {TCP_KEEPCNT, 2},
                                                        {TCP_USER_TIMEOUT, 2000}}) {
            ASSERT_EQ(::setsockopt(socket, IPPROTO_TCP, name, &value, sizeof(value)), 0);
        }
    }
    void vanish() {
        sock_filter dropAll{.code = BPF_RET | BPF_K, .jt = 0, .jf = 0, .k = 0};
        const sock_fprog program{.len = 1, .filter = &dropAll};
        ASSERT_EQ(
            ::setsockopt(peer_.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof(program)), 0);
    }
    void expectTimeOut() {
        std::array<char, 64> buffer{};
        EXPECT_LT(stream_->read(buffer, std::chrono::minutes{1}), 0);
        subject_.runUntil([&] { return events_.back() == StreamEvent::errorOccurred; });
        EXPECT_EQ(stream_->error(StreamSide::input), "Connection timed out");
    }

    LinuxSocketStreamsSubject subject_;
    std::vector<StreamEvent> events_;
    std::shared_ptr<SocketStream> stream_;
    UniqueFd peer_;
};

TEST_F(VanishingPeer, EndsAReadThatOnlyWaits) {
    connect();
    vanish();
    expectTimeOut();
}

TEST_F(VanishingPeer, EndsAReadForTheAnswerToBytesThatNeverArrived) {
    connect();
    vanish();
    EXPECT_EQ(stream_->write("EHLO studio\r\n", milliseconds{2000}), StreamWrite::written);
    expectTimeOut();
}

TEST(LinuxSocketStream, GivesUpAWriteToAPeerThatNeverReads) {
    LinuxSocketStreamsSubject subject;
    bool isOpen = false;
    auto stream = subject.streams().streamsToHost("127.0.0.1", subject.listening.port);
    stream->open([&](StreamSide, StreamEvent) { isOpen = true; });
    subject.runUntil([&] { return isOpen; });
    constexpr milliseconds kLimit{200};
    const std::string much(1 << 20, 'x');
    StreamWrite outcome = StreamWrite::written;
    auto began = std::chrono::steady_clock::now();
    // Until the system's buffers are full, which is some megabytes.
    for (int times = 0; times < 1000 && outcome == StreamWrite::written; ++times) {
        began = std::chrono::steady_clock::now();
        outcome = stream->write(much, kLimit);
    }
    EXPECT_EQ(outcome, StreamWrite::timedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - began, kLimit);
}

// The sanitizer of undefined behaviour opens a pipe at its first look at a type, and takes what it
// cannot look at for no object at all: it does not go together with a lack of descriptors.
#ifndef __SANITIZE_ADDRESS__
TEST(LinuxSocketStream, WithoutDescriptorsEndsInAnError) {
    LinuxSocketStreamsSubject subject;
    std::vector<StreamEvent> events;
    auto stream = subject.streams().streamsToHost("127.0.0.1", subject.refusingPort());
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const UniqueFd next{::dup(0)};
    const rlimit none{.rlim_cur = static_cast<rlim_t>(next.get()), .rlim_max = before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    stream->open([&](StreamSide, StreamEvent event) { events.push_back(event); });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    subject.runUntil([&] { return !events.empty(); });
    EXPECT_THAT(events, testing::ElementsAre(StreamEvent::errorOccurred));
    EXPECT_THAT(stream->error(StreamSide::input), testing::HasSubstr("open files"));
}
#endif

class LinuxConnectionRace : public testing::Test {
  protected:
    // The port that the race ends at, or why it does not.
    std::string winner(std::vector<SocketAddress> addresses) {
        std::optional<std::string> outcome;
        ConnectionRace race(
            subject_.loop, std::move(addresses), [&](UniqueFd socket, const std::string& error) {
                outcome =
                    socket ? "family " + std::to_string(option(socket.get(), SOL_SOCKET, SO_DOMAIN))
                           : error;
            });
        subject_.runUntil([&] { return outcome.has_value(); });
        return *outcome;
    }
    LinuxSocketStreamsSubject subject_;
};

const std::string kIpv4 = "family " + std::to_string(AF_INET);

TEST_F(LinuxConnectionRace, GoesOnToTheNextAddressWhereOneRefuses) {
    EXPECT_EQ(winner({loopback(AF_INET6, subject_.deaf.port), loopback(AF_INET, subject_.deaf.port),
                      loopback(AF_INET, subject_.listening.port)}),
              kIpv4);
}

TEST_F(LinuxConnectionRace, ConnectsOverIpv6) {
    const UniqueFd listener{::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const SocketAddress any = loopback(AF_INET6, 0);
    if (!listener || ::bind(listener.get(), generic(any), any.length) != 0) {
        GTEST_SKIP() << "this machine has no IPv6";
    }
    ASSERT_EQ(::listen(listener.get(), 1), 0);
    sockaddr_in6 bound{};
    socklen_t length = sizeof(bound);
    ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&bound), &length), 0);
    EXPECT_EQ(
        winner({loopback(AF_INET, subject_.deaf.port), loopback(AF_INET6, ntohs(bound.sin6_port))}),
        "family " + std::to_string(AF_INET6));
}

TEST_F(LinuxConnectionRace, SaysWhyTheFirstAddressFailedWhereAllDo) {
    EXPECT_EQ(
        winner({loopback(AF_INET, subject_.deaf.port), loopback(AF_INET, subject_.deaf.port)}),
        "Connection refused");
    EXPECT_EQ(winner({}), "");
}

}  // namespace
}  // namespace korvane
