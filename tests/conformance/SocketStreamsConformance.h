// What every machine's connections promise, beside a server that greets, hears one line, answers it
// and may then close.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/SocketStream.h"

namespace korvane {

class SocketStreamsSubject {
  public:
    virtual ~SocketStreamsSubject() = default;
    virtual SocketStreams& streams() = 0;
    // Starts the server; its port. An empty greeting, or reply: it closes instead.
    virtual int serve(const std::string& greeting, const std::string& reply) = 0;
    // What it replies from now on is nothing, without closing.
    virtual void fallSilent() = 0;
    // A port where nobody listens.
    virtual int refusingPort() = 0;
    virtual void runUntil(const std::function<bool()>& isDone) = 0;
    // Lets come what may still come.
    virtual void runOut() = 0;
};

class SocketStreamsConformance
    : public testing::TestWithParam<Implementation<SocketStreamsSubject>> {
  protected:
    using Event = std::pair<StreamSide, StreamEvent>;

    SocketStreamsConformance() : subject_(GetParam().make()) {}

    void connect(int port) {
        stream_ = subject_->streams().streamsToHost("127.0.0.1", port);
        ASSERT_NE(stream_, nullptr);
        stream_->open([this](StreamSide side, StreamEvent event) {
            events_.emplace_back(side, event);
            if (onEvent_) onEvent_(event);
        });
    }
    [[nodiscard]] bool heard(StreamEvent event) const {
        for (const Event& one : events_) {
            if (one.second == event) return true;
        }
        return false;
    }
    void runUntilHeard(StreamEvent event) {
        subject_->runUntil([this, event] { return heard(event); });
    }
    std::string read(std::chrono::microseconds limit = std::chrono::seconds{20}) {
        std::array<char, 1024> buffer{};
        const std::ptrdiff_t count = stream_->read(buffer, limit);
        return count > 0 ? std::string(buffer.data(), static_cast<std::size_t>(count))
                         : std::to_string(count);
    }

    std::unique_ptr<SocketStreamsSubject> subject_;
    std::shared_ptr<SocketStream> stream_;
    std::vector<Event> events_;
    std::function<void(StreamEvent)> onEvent_;
};

TEST_P(SocketStreamsConformance, TellsOnceOfEachSideThatItIsOpenBeforeAnyBytes) {
    connect(subject_->serve("220 hello\r\n", ""));
    EXPECT_TRUE(events_.empty());  // never from open() itself
    runUntilHeard(StreamEvent::hasBytesAvailable);
    ASSERT_GE(events_.size(), 3U);
    EXPECT_EQ(events_[0], Event(StreamSide::input, StreamEvent::openCompleted));
    EXPECT_EQ(events_[1], Event(StreamSide::output, StreamEvent::openCompleted));
    EXPECT_EQ(events_[2], Event(StreamSide::input, StreamEvent::hasBytesAvailable));
}

TEST_P(SocketStreamsConformance, CarriesLinesBothWaysAndWaitsForTheAnswer) {
    connect(subject_->serve("220 hello\r\n", "250 all right\r\n"));
    runUntilHeard(StreamEvent::hasBytesAvailable);
    EXPECT_TRUE(stream_->hasBytesAvailable());
    EXPECT_EQ(read(), "220 hello\r\n");
    EXPECT_FALSE(stream_->hasBytesAvailable());
    EXPECT_EQ(stream_->write("EHLO me\r\n", std::chrono::seconds{20}), StreamWrite::written);
    EXPECT_EQ(read(), "250 all right\r\n");
    EXPECT_EQ(stream_->error(StreamSide::input), "");
    EXPECT_EQ(stream_->error(StreamSide::output), "");
}

TEST_P(SocketStreamsConformance, AReadAtTheEndGivesNothing) {
    connect(subject_->serve("220 hello\r\n", ""));
    runUntilHeard(StreamEvent::hasBytesAvailable);
    EXPECT_EQ(read(), "220 hello\r\n");
    EXPECT_EQ(stream_->write("EHLO me\r\n", std::chrono::seconds{20}), StreamWrite::written);
    EXPECT_EQ(read(), "0");
    EXPECT_EQ(read(), "0");
    EXPECT_FALSE(stream_->hasBytesAvailable());
}

TEST_P(SocketStreamsConformance, ASilentServerIsTheEndOfTheStreamOnceTheLimitHasPassed) {
    subject_->fallSilent();
    connect(subject_->serve("220 hello\r\n", "250 too late\r\n"));
    runUntilHeard(StreamEvent::hasBytesAvailable);
    EXPECT_EQ(read(), "220 hello\r\n");
    EXPECT_EQ(stream_->write("EHLO me\r\n", std::chrono::seconds{20}), StreamWrite::written);
    EXPECT_EQ(read(std::chrono::milliseconds{50}), "0");
    EXPECT_EQ(read(), "0");  // and stays so
    EXPECT_FALSE(stream_->hasBytesAvailable());
    subject_->runOut();
    EXPECT_FALSE(heard(StreamEvent::errorOccurred));
}

TEST_P(SocketStreamsConformance, AServerThatClosesWithoutAWordIsToldOnce) {
    connect(subject_->serve("", ""));
    runUntilHeard(StreamEvent::endEncountered);
    subject_->runOut();
    EXPECT_EQ(events_.size(), 3U);
    EXPECT_EQ(events_.back(), Event(StreamSide::input, StreamEvent::endEncountered));
}

TEST_P(SocketStreamsConformance, AnErrorWhileConnectingIsToldOnceAndSaysWhy) {
    connect(subject_->refusingPort());
    runUntilHeard(StreamEvent::errorOccurred);
    subject_->runOut();
    EXPECT_THAT(events_,
                testing::ElementsAre(Event(StreamSide::input, StreamEvent::errorOccurred)));
    EXPECT_EQ(stream_->error(StreamSide::input), "Connection refused");
    EXPECT_EQ(stream_->error(StreamSide::output), "");
}

TEST_P(SocketStreamsConformance, MayBeLetGoInTheCourseOfAnEventAndTellsNoMore) {
    connect(subject_->serve("220 hello\r\n", ""));
    onEvent_ = [this](StreamEvent event) {
        if (event == StreamEvent::hasBytesAvailable) stream_.reset();
    };
    subject_->runUntil([this] { return stream_ == nullptr; });
    const std::size_t before = events_.size();
    subject_->runOut();
    EXPECT_EQ(events_.size(), before);
}

}  // namespace korvane
