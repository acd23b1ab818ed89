// A scripted mail server and the connections to it: what it answers to which command, when it
// hangs, refuses or drops, and what it has received. Every stream of the machine leads to this one
// server.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/SocketStream.h"
#include "platform/simulated/SimulatedClock.h"
#include "platform/simulated/SimulatedJournal.h"
#include "platform/simulated/SimulatedRunLoop.h"

namespace korvane {

// What the server does once it has read a command.
struct MailReply {
    // Each is what one read of the client gives; none: the server stays silent for ever.
    std::vector<std::string> chunks;
    bool thenCloses = false;
    bool thenResets = false;            // the client's next read fails
    std::chrono::microseconds pause{};  // before each chunk
};

class SimulatedMailServer final : public SocketStreams {
  public:
    // How a connection comes to nothing; accepted is a server at work.
    enum class Reachability { accepted, noStreams, inputError, outputError, noAnswer };

    // One line that the client has sent, or the whole message, without the line's end.
    struct Received {
        std::string text;
        bool isUnderTls = false;
    };

    SimulatedMailServer(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                        SimulatedJournal& journal);
    ~SimulatedMailServer() override;

    [[nodiscard]] std::shared_ptr<SocketStream> streamsToHost(const std::string& host,
                                                              int port) override;

    // ---- The script; it stays for all further connections ---------------------------------------

    void setReachability(Reachability reachability) { reachability_ = reachability; }
    // Nothing: the server never says a word of its own.
    void setGreeting(std::optional<MailReply> greeting) { greeting_ = std::move(greeting); }
    // By the command's first word ("EHLO", "RCPT", "AUTH"), "message" for the message, "login" for
    // the lines after AUTH LOGIN. Several replies are given one after the other, the last for ever.
    void setReplies(const std::string& command, std::vector<MailReply> replies);
    // What a write of this command comes to instead of reaching the server.
    void failWrites(const std::string& command, StreamWrite outcome);
    // An error that the connection reports of one side, from now on.
    void reportError(StreamSide side, const std::string& error);

    // The connection says once more that this side of it is open.
    void completeOpening(StreamSide side);
    // The server says something of its own, whatever state the connection is in.
    void speak(const std::string& chunk);

    // ---- What came ------------------------------------------------------------------------------

    [[nodiscard]] const std::vector<Received>& received() const { return received_; }
    [[nodiscard]] std::vector<std::string> lines() const;
    // The messages, as they were sent.
    [[nodiscard]] const std::vector<std::string>& messages() const { return messages_; }
    [[nodiscard]] std::size_t connections() const { return connections_; }
    // Streams that are open now.
    [[nodiscard]] std::size_t openStreams() const;
    [[nodiscard]] const std::string& lastHost() const { return lastHost_; }
    [[nodiscard]] int lastPort() const { return lastPort_; }

  private:
    class Stream;

    [[nodiscard]] MailReply replyTo(const std::string& command);

    SimulatedRunLoop& runLoop_;
    SimulatedClock& clock_;
    SimulatedJournal& journal_;
    Reachability reachability_ = Reachability::accepted;
    std::optional<MailReply> greeting_;
    std::map<std::string, std::vector<MailReply>> replies_;
    std::map<std::string, std::size_t> given_;  // replies to each command of this session
    std::map<std::string, StreamWrite> failedWrites_;
    std::vector<Received> received_;
    std::vector<std::string> messages_;
    std::vector<std::weak_ptr<Stream>> streams_;
    std::size_t connections_ = 0;
    std::string lastHost_;
    int lastPort_ = 0;
};

}  // namespace korvane
