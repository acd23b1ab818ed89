// TLS over a connected socket that does not block: what the daemon's TLS module offers. The module
// is a library of its own, loaded when the first session needs it: a daemon that never sends mail
// through TLS has no TLS library in its memory.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace korvane {

enum class TransferState {
    done,
    wantsToRead,   // nothing yet: to be tried again when the socket can be read
    wantsToWrite,  // likewise when it can be written
    ended,         // the peer has closed
    failed
};

struct Transfer {
    TransferState state = TransferState::failed;
    std::size_t count = 0;  // bytes, where it is done
};

class TlsSession {
  public:
    virtual ~TlsSession() = default;
    // Done once both sides speak TLS; reading and writing come after that.
    [[nodiscard]] virtual Transfer handshake() = 0;
    [[nodiscard]] virtual Transfer read(std::span<char> buffer) = 0;
    // Whether a read would give something: reads ahead without taking it.
    [[nodiscard]] virtual Transfer peek() = 0;
    [[nodiscard]] virtual Transfer write(std::string_view bytes) = 0;
    // Of the last failure, in words.
    [[nodiscard]] virtual std::string error() const = 0;
};

// The module's file and the one function that it exports: a new session as the client of `peerName`
// on the socket, which stays the caller's, or null.
inline constexpr char kTlsModule[] = "KorvaneProTls.so";
inline constexpr char kTlsModuleEntry[] = "korvaneNewTlsSession";
using NewTlsSession = TlsSession* (*)(int socket, const char* peerName);

}  // namespace korvane
