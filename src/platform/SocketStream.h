// A connection to a server, by name and port, with or without TLS: a pair of streams, one to read
// and one to write, whose events come on the loop. A read waits; so may a write, up to a limit.
// While they wait nothing is called back: the loop's thread serves nothing else, but stays ready to
// end.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace korvane {

enum class StreamSide { input, output };

enum class StreamEvent {
    openCompleted,      // told once for each side, when the connection stands
    hasBytesAvailable,  // input alone; told again on every pass of the loop until they are read
    endEncountered,     // input alone, once
    errorOccurred       // once, and nothing after it; error() says what
};

// The outcome of a write of some bytes.
enum class StreamWrite {
    written,   // some of them at least: what was left out is not sent later
    timedOut,  // the limit passed before the connection took any
    failed,
    full,    // the connection takes nothing any more
    notOpen  // nothing was tried: the connection has ended or failed, which is told otherwise
};

class SocketStream {
  public:
    using Handler = std::function<void(StreamSide, StreamEvent)>;

    // Closes the connection and its socket. No event comes after that; it may happen in the course
    // of one.
    virtual ~SocketStream() = default;

    // TLS from the first byte on when asked for before open(); afterwards the open connection is
    // upgraded, by the next read or write, which waits for the handshake for `limit` at most: then
    // the stream is at its end. The server may show any certificate: expired, self-signed, for
    // another name. `peerName` only says which server is meant, for those that serve several. Asked
    // for again, nothing changes.
    virtual void useTls(const std::string& peerName, std::chrono::microseconds limit) = 0;

    // Begins to connect. Once. An error while it connects is told of the input side.
    virtual void open(Handler handler) = 0;

    // Whether a read would give something at once.
    [[nodiscard]] virtual bool hasBytesAvailable() = 0;
    // Waits until there is something: the number of bytes read; 0 at the end of the stream, which
    // is also where nothing has come within the limit, and when the application is to end; negative
    // for an error, which is told as an event, too, at the next pass of the loop.
    [[nodiscard]] virtual std::ptrdiff_t read(std::span<char> buffer,
                                              std::chrono::microseconds limit) = 0;
    // Hands the bytes over in one call as soon as the connection takes any.
    [[nodiscard]] virtual StreamWrite write(std::string_view bytes,
                                            std::chrono::milliseconds limit) = 0;
    // In words, without a final full stop; empty where nothing has failed.
    [[nodiscard]] virtual std::string error(StreamSide side) const = 0;
};

class SocketStreams {
  public:
    virtual ~SocketStreams() = default;

    // Streams to the server, not open yet. Null when there can be none. The stream is shared so
    // that whoever reads from it may still hold it when its owner lets go.
    [[nodiscard]] virtual std::shared_ptr<SocketStream> streamsToHost(const std::string& host,
                                                                      int port) = 0;
};

}  // namespace korvane
