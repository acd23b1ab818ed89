#include "platform/simulated/SimulatedMailServer.h"

#include <algorithm>
#include <deque>
#include <string_view>
#include <utility>

namespace korvane {

namespace {

// How long a server waits for the next command before it closes: less than it should (RFC 5321,
// section 4.5.3.2.7), like many.
constexpr std::chrono::minutes kServersPatience{4};

MailReply line(const std::string& text) { return {.chunks = {text + "\r\n"}}; }

std::string firstWord(const std::string& text) { return text.substr(0, text.find(' ')); }

}  // namespace

class SimulatedMailServer::Stream final : public SocketStream,
                                          public std::enable_shared_from_this<Stream> {
  public:
    explicit Stream(SimulatedMailServer& server) : server_(server) {}
    ~Stream() override { server_.journal_.note("mail connection closed"); }

    void useTls(const std::string& peerName, std::chrono::microseconds /*limit*/) override {
        server_.journal_.note("mail TLS", peerName);
        isUnderTls_ = true;
    }

    void open(Handler handler) override {
        handler_ = std::move(handler);
        later([](Stream& stream) { stream.connect(); });
    }

    bool hasBytesAvailable() override { return !arrived_.empty(); }

    std::ptrdiff_t read(std::span<char> buffer, std::chrono::microseconds limit) override {
        if (arrived_.empty() && isReset_) {
            fail(StreamSide::input, "Connection reset by peer");
            return -1;
        }
        if (arrived_.empty()) {
            // Nothing comes by itself any more: a server that waits for a command gives up, one
            // that owes an answer does not, and one that has closed has nothing to say.
            if (!isClosedByServer_) {
                server_.clock_.advance(
                    owesAnswer_ ? limit
                                : std::min<std::chrono::microseconds>(limit, kServersPatience));
            }
            isClosedByServer_ = true;
            return 0;
        }
        auto& [chunk, pause] = arrived_.front();
        if (pause > limit) {
            server_.clock_.advance(limit);
            isClosedByServer_ = true;
            arrived_.clear();
            return 0;
        }
        server_.clock_.advance(std::exchange(pause, {}));
        const std::size_t count = std::min(chunk.size(), buffer.size());
        std::copy_n(chunk.begin(), count, buffer.begin());
        chunk.erase(0, count);
        if (chunk.empty()) arrived_.pop_front();
        return static_cast<std::ptrdiff_t>(count);
    }

    StreamWrite write(std::string_view bytes, std::chrono::milliseconds limit) override {
        std::string text{bytes};
        if (text.ends_with("\r\n")) text.resize(text.size() - 2);
        const std::string command = commandOf(text);
        if (const auto failed = server_.failedWrites_.find(command);
            failed != server_.failedWrites_.end()) {
            if (failed->second == StreamWrite::timedOut) server_.clock_.advance(limit);
            return failed->second;
        }
        server_.journal_.note("mail command", command);
        server_.received_.push_back({text, isUnderTls_});
        if (command == "message") server_.messages_.push_back(text);
        isMessageNext_ = command == "DATA";
        loginLinesLeft_ = command == "AUTH" ? 2 : std::max(loginLinesLeft_ - 1, 0);
        const MailReply reply = server_.replyTo(command);
        owesAnswer_ = reply.chunks.empty();
        take(reply);
        return StreamWrite::written;
    }

    std::string error(StreamSide side) const override {
        return side == StreamSide::input ? inputError_ : outputError_;
    }

    void fail(StreamSide side, const std::string& reason) {
        (side == StreamSide::input ? inputError_ : outputError_) = reason;
        later([side](Stream& stream) { stream.tell(side, StreamEvent::errorOccurred); });
    }

    // At the next pass of the loop, if the stream is still there.
    void later(std::function<void(Stream&)> work) {
        server_.runLoop_.post([weak = weak_from_this(), work = std::move(work)] {
            if (const std::shared_ptr<Stream> stream = weak.lock()) work(*stream);
        });
    }

    void tell(StreamSide side, StreamEvent event) {
        if (handler_) handler_(side, event);
    }

    void take(const MailReply& reply) {
        for (const std::string& chunk : reply.chunks) arrived_.emplace_back(chunk, reply.pause);
        isClosedByServer_ = isClosedByServer_ || reply.thenCloses;
        isReset_ = isReset_ || reply.thenResets;
    }

  private:
    void connect() {
        switch (server_.reachability_) {
            case Reachability::inputError:
                fail(StreamSide::input, "Connection refused");
                return;
            case Reachability::outputError:
                fail(StreamSide::output, "Network is unreachable");
                return;
            case Reachability::noAnswer:
            case Reachability::noStreams:
                return;
            case Reachability::accepted:
                break;
        }
        tell(StreamSide::input, StreamEvent::openCompleted);
        tell(StreamSide::output, StreamEvent::openCompleted);
        if (!server_.greeting_) return;
        take(*server_.greeting_);
        later([](Stream& stream) {
            const bool isEnd = stream.arrived_.empty();
            stream.tell(StreamSide::input,
                        isEnd ? StreamEvent::endEncountered : StreamEvent::hasBytesAvailable);
        });
    }

    std::string commandOf(const std::string& text) const {
        if (isMessageNext_) return "message";
        if (loginLinesLeft_ > 0) return "login";
        return firstWord(text);
    }

    SimulatedMailServer& server_;
    Handler handler_;
    std::deque<std::pair<std::string, std::chrono::microseconds>> arrived_;
    bool isUnderTls_ = false;
    bool isClosedByServer_ = false;
    bool isReset_ = false;
    bool owesAnswer_ = false;
    bool isMessageNext_ = false;
    int loginLinesLeft_ = 0;
    std::string inputError_;
    std::string outputError_;
};

// An ordinary server that takes any user and any message.
SimulatedMailServer::SimulatedMailServer(SimulatedRunLoop& runLoop, SimulatedClock& clock,
                                         SimulatedJournal& journal)
    : runLoop_(runLoop),
      clock_(clock),
      journal_(journal),
      greeting_(line("220 mail.example.org ESMTP")),
      replies_{{"EHLO", {line("250-mail.example.org\r\n250-STARTTLS\r\n250 AUTH LOGIN")}},
               {"STARTTLS", {line("220 go ahead")}},
               {"NOOP", {line("250 OK")}},
               {"AUTH", {line("334 VXNlcm5hbWU6")}},
               {"login", {line("334 UGFzc3dvcmQ6"), line("235 accepted")}},
               {"MAIL", {line("250 OK")}},
               {"RCPT", {line("250 OK")}},
               {"DATA", {line("354 go on")}},
               {"message", {line("250 queued")}},
               {"QUIT", {MailReply{.chunks = {"221 bye\r\n"}, .thenCloses = true}}}} {}

SimulatedMailServer::~SimulatedMailServer() = default;

std::shared_ptr<SocketStream> SimulatedMailServer::streamsToHost(const std::string& host,
                                                                 int port) {
    lastHost_ = host;
    lastPort_ = port;
    if (reachability_ == Reachability::noStreams) return nullptr;
    ++connections_;
    journal_.note("mail connection", host + ":" + std::to_string(port));
    // Every session hears the replies from the first one on.
    auto stream = std::make_shared<Stream>(*this);
    given_.clear();
    streams_.push_back(stream);
    return stream;
}

void SimulatedMailServer::setReplies(const std::string& command, std::vector<MailReply> replies) {
    replies_[command] = std::move(replies);
}

void SimulatedMailServer::failWrites(const std::string& command, StreamWrite outcome) {
    failedWrites_[command] = outcome;
}

void SimulatedMailServer::reportError(StreamSide side, const std::string& error) {
    for (const std::weak_ptr<Stream>& weak : streams_) {
        if (const std::shared_ptr<Stream> stream = weak.lock()) stream->fail(side, error);
    }
}

void SimulatedMailServer::completeOpening(StreamSide side) {
    for (const std::weak_ptr<Stream>& weak : streams_) {
        if (const std::shared_ptr<Stream> stream = weak.lock()) {
            stream->tell(side, StreamEvent::openCompleted);
        }
    }
}

void SimulatedMailServer::speak(const std::string& chunk) {
    for (const std::weak_ptr<Stream>& weak : streams_) {
        if (const std::shared_ptr<Stream> stream = weak.lock()) {
            stream->take({.chunks = {chunk}});
            stream->later([](Stream& speaking) {
                speaking.tell(StreamSide::input, StreamEvent::hasBytesAvailable);
            });
        }
    }
}

std::vector<std::string> SimulatedMailServer::lines() const {
    std::vector<std::string> texts;
    for (const Received& line : received_) texts.push_back(line.text);
    return texts;
}

std::size_t SimulatedMailServer::openStreams() const {
    return static_cast<std::size_t>(
        std::count_if(streams_.begin(), streams_.end(),
                      [](const std::weak_ptr<Stream>& stream) { return !stream.expired(); }));
}

MailReply SimulatedMailServer::replyTo(const std::string& command) {
    const auto replies = replies_.find(command);
    if (replies == replies_.end() || replies->second.empty()) {
        return line("502 command not implemented");
    }
    const std::size_t given = given_[command]++;
    return replies->second[std::min(given, replies->second.size() - 1)];
}

}  // namespace korvane
