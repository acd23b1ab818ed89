// One connection: looks up, connects, and then carries bytes, plain or through TLS.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <system_error>

#include "platform/SocketStream.h"
#include "platform/linux/ConnectionRace.h"
#include "platform/linux/HostLookup.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSocketStreams.h"
#include "platform/linux/TlsSession.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

class LinuxSocketStream final : public SocketStream,
                                public std::enable_shared_from_this<LinuxSocketStream> {
  public:
    // Loop and streams outlive the stream.
    LinuxSocketStream(LinuxRunLoop& loop, LinuxSocketStreams& streams, std::string host, int port);

    void useTls(const std::string& peerName, std::chrono::microseconds limit) override;
    void open(Handler handler) override;
    [[nodiscard]] bool hasBytesAvailable() override;
    [[nodiscard]] std::ptrdiff_t read(std::span<char> buffer,
                                      std::chrono::microseconds limit) override;
    [[nodiscard]] StreamWrite write(std::string_view bytes,
                                    std::chrono::milliseconds limit) override;
    [[nodiscard]] std::string error(StreamSide side) const override;

  private:
    static int onReady(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;
    static int onFailed(sd_event_source* source, void* self) noexcept;

    void lookedUp(const HostAddresses& found);
    void connected(UniqueFd socket, const std::string& error);
    // What the system refuses, descriptors say, is an error of the connection like any other.
    template <typename Function>
    void attempt(Function&& function) {
        try {
            function();
        } catch (const std::system_error& failure) {
            failLater(failure.what());
        }
    }
    [[nodiscard]] bool beginTls();
    [[nodiscard]] std::string handshakeError() const;
    void ready();
    void handshakeOnLoop();
    // One attempt on whatever carries the bytes now; none of them waits.
    [[nodiscard]] Transfer tryRead(std::span<char> buffer);
    [[nodiscard]] Transfer tryPeek();
    [[nodiscard]] Transfer tryWrite(std::string_view bytes);
    // Waits for what the transfer wants.
    [[nodiscard]] LinuxRunLoop::Wait waitFor(const Transfer& transfer,
                                             std::chrono::steady_clock::time_point deadline) const;
    // Brings the upgrade to its end; whether the connection takes bytes now.
    [[nodiscard]] StreamWrite finishUpgrade();
    // The stream is at its end: nothing more is read or written.
    void end();
    void watch(std::uint32_t events);
    // No events any more: the end, or an error, has been told or is about to be.
    void stopWatching();
    void tell(StreamSide side, StreamEvent event);
    void fail(const std::string& reason);
    // Told at the next pass of the loop, before anything else of that pass could meet a session
    // whose connection has failed already.
    void failLater(const std::string& reason);

    enum class State { closed, connecting, handshaking, open, ended, failed };

    LinuxRunLoop& loop_;
    LinuxSocketStreams& streams_;
    const std::string host_;
    const int port_;
    Handler handler_;
    State state_ = State::closed;
    std::unique_ptr<HostLookup> lookup_;
    std::unique_ptr<ConnectionRace> race_;
    UniqueFd socket_;
    std::optional<std::string> tlsPeerName_;  // TLS is wanted
    std::chrono::microseconds handshakeLimit_{};
    std::unique_ptr<TlsSession> tls_;
    bool isTlsFinished_ = false;
    EventSource source_;
    EventSource failureSource_;
    std::string error_;
};

}  // namespace korvane
