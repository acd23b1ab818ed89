#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "RecordingLog.h"
#include "TemporaryFolder.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::SizeIs;

struct LinuxRunLoopTest : testing::Test {
    // Ends the loop after `delay`, so that a test that waits for nothing still ends.
    void runFor(microseconds delay) {
        const auto stop = loop.startTimer(delay, Repeat::once, [this] { loop.terminate(); });
        loop.run();
    }
    RecordingLog log;
    LinuxRunLoop loop{log};
};

TEST_F(LinuxRunLoopTest, FiresTimersInTheOrderOfTheirPlannedTimes) {
    std::vector<std::string> fired;
    const auto late = loop.startTimer(milliseconds{4}, Repeat::once, [&] {
        fired.emplace_back("late");
        loop.terminate();
    });
    const auto early =
        loop.startTimer(milliseconds{2}, Repeat::once, [&] { fired.emplace_back("early"); });
    const auto now =
        loop.startTimer(microseconds{0}, Repeat::once, [&] { fired.emplace_back("now"); });
    const auto past =
        loop.startTimer(microseconds{-7}, Repeat::once, [&] { fired.emplace_back("past"); });
    loop.run();
    EXPECT_THAT(fired, ElementsAre("now", "past", "early", "late"));
}

TEST_F(LinuxRunLoopTest, FiresOverdueTimersOfOnePassInTheOrderOfTheirPlannedTimes) {
    std::vector<int> fired;
    const auto second = loop.startTimer(milliseconds{2}, Repeat::once, [&] { fired.push_back(2); });
    const auto first = loop.startTimer(milliseconds{1}, Repeat::once, [&] { fired.push_back(1); });
    const auto busy = loop.startTimer(microseconds{0}, Repeat::once, [] { ::usleep(5000); });
    runFor(milliseconds{3});
    EXPECT_THAT(fired, ElementsAre(1, 2));
}

TEST_F(LinuxRunLoopTest, NeverFiresBeforeTheDelayIsOver) {
    const auto started = std::chrono::steady_clock::now();
    runFor(milliseconds{5});
    EXPECT_GE(std::chrono::steady_clock::now() - started, milliseconds{5});
}

TEST_F(LinuxRunLoopTest, FiresATimerStartedInACallbackAtTheNextPassOnly) {
    std::vector<std::string> fired;
    std::unique_ptr<Timer> inner;
    const auto first = loop.startTimer(microseconds{0}, Repeat::once, [&] {
        fired.emplace_back("first");
        inner = loop.startTimer(microseconds{0}, Repeat::once, [&] {
            fired.emplace_back("inner");
            loop.terminate();
        });
    });
    const auto second =
        loop.startTimer(microseconds{0}, Repeat::once, [&] { fired.emplace_back("second"); });
    loop.run();
    EXPECT_THAT(fired, ElementsAre("first", "second", "inner"));
}

TEST_F(LinuxRunLoopTest, ATimerMayDestroyItselfInItsCallback) {
    int fired = 0;
    std::unique_ptr<Timer> timer;
    timer = loop.startTimer(microseconds{0}, Repeat::every, [&, text = std::string(100, 'x')] {
        timer.reset();
        fired += text == std::string(100, 'x') ? 1 : 100;
    });
    runFor(milliseconds{3});
    EXPECT_EQ(fired, 1);
}

TEST_F(LinuxRunLoopTest, ATimerDestroyedBesideOneThatIsDueDoesNotFire) {
    bool fired = false;
    std::unique_ptr<Timer> victim;
    const auto first = loop.startTimer(microseconds{0}, Repeat::once, [&] { victim.reset(); });
    victim = loop.startTimer(microseconds{0}, Repeat::once, [&] { fired = true; });
    runFor(milliseconds{3});
    EXPECT_FALSE(fired);
}

TEST_F(LinuxRunLoopTest, RepeatsFromThePlannedTimeAndSkipsWhatItMissed) {
    const auto started = std::chrono::steady_clock::now();
    std::vector<milliseconds> fired;
    const auto timer = loop.startTimer(milliseconds{10}, Repeat::every, [&] {
        fired.push_back(
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - started));
        if (fired.size() == 1) ::usleep(25'000);  // over the plans of 20 ms and 30 ms
        if (fired.size() == 3) loop.terminate();
    });
    loop.run();
    ASSERT_THAT(fired, SizeIs(3));
    // 10 ms; the one of 20 ms late, at 35 ms, with 30 ms skipped; then the plan again: 40 ms.
    EXPECT_GE(fired[2], milliseconds{40});
}

TEST_F(LinuxRunLoopTest, RunsPostsInTheirOrder) {
    std::vector<int> ran;
    loop.post([&] {
        ran.push_back(1);
        loop.post([&] {
            ran.push_back(3);
            loop.terminate();
        });
    });
    loop.post([&] { ran.push_back(2); });
    loop.run();
    EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST_F(LinuxRunLoopTest, CallsNothingBackAfterTerminateButTheWillTerminateCallbackOnce) {
    std::vector<std::string> called;
    loop.setWillTerminate([&] {
        called.emplace_back("will terminate");
        loop.terminate();
    });
    loop.setWillBecomeActive([&] { called.emplace_back("active"); });
    const auto other =
        loop.startTimer(microseconds{0}, Repeat::every, [&] { called.emplace_back("timer"); });
    loop.post([&] { called.emplace_back("post"); });
    loop.terminate();
    loop.terminate();
    ::kill(::getpid(), SIGHUP);
    loop.run();
    EXPECT_THAT(called, ElementsAre("will terminate"));
}

TEST_F(LinuxRunLoopTest, DropsTheOtherTimersOfThePassThatTerminates) {
    bool fired = false;
    const auto stop = loop.startTimer(microseconds{0}, Repeat::once, [&] { loop.terminate(); });
    const auto other = loop.startTimer(microseconds{0}, Repeat::once, [&] { fired = true; });
    loop.run();
    EXPECT_FALSE(fired);
}

class LinuxRunLoopStopSignal : public LinuxRunLoopTest, public testing::WithParamInterface<int> {};

TEST_P(LinuxRunLoopStopSignal, Terminates) {
    int terminated = 0;
    loop.setWillTerminate([&] { ++terminated; });
    ::kill(::getpid(), GetParam());
    loop.run();
    EXPECT_EQ(terminated, 1);
}

INSTANTIATE_TEST_SUITE_P(Signals, LinuxRunLoopStopSignal, testing::Values(SIGTERM, SIGINT));

TEST_F(LinuxRunLoopTest, TakesSighupAsBecomingActive) {
    int active = 0;
    loop.setWillBecomeActive([&] {
        ++active;
        loop.terminate();
    });
    ::kill(::getpid(), SIGHUP);
    loop.run();
    EXPECT_EQ(active, 1);
}

TEST_F(LinuxRunLoopTest, AnExceptionFromACallbackIsOneLogLineAndTheLoopGoesOn) {
    const auto failing = loop.startTimer(microseconds{0}, Repeat::once,
                                         [] { throw std::runtime_error("no such thing"); });
    loop.post([] { throw 7; });
    runFor(milliseconds{2});
    EXPECT_THAT(log.lines,
                testing::UnorderedElementsAre("a timer failed: no such thing",
                                              "a posted call failed: an unknown exception"));
}

TEST_F(LinuxRunLoopTest, AnExceptionWhileTerminatingIsOneLogLineAndTheLoopEnds) {
    loop.setWillTerminate([] { throw std::runtime_error("no such thing"); });
    loop.terminate();
    loop.run();
    EXPECT_THAT(log.lines, ElementsAre("terminating failed: no such thing"));
}

TEST(LinuxRunLoopSignals, RestoresTheSignalMaskAtItsEnd) {
    RecordingLog log;
    { const LinuxRunLoop loop(log); }
    sigset_t mask;
    ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
    EXPECT_EQ(sigismember(&mask, SIGTERM), 0);
}

TEST_F(LinuxRunLoopTest, TellsTheServiceManagerThatItIsReadyAndThatItStops) {
    const TemporaryFolder folder;
    const std::string path = folder / "notify";
    const UniqueFd manager{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(manager.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    const auto nextMessage = [&manager] {
        std::string message(64, '\0');
        const ssize_t size = ::recv(manager.get(), message.data(), message.size(), 0);
        message.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
        return message;
    };
    ::setenv("NOTIFY_SOCKET", path.c_str(), 1);
    std::vector<std::string> messages;
    loop.post([&] {
        messages.push_back(nextMessage());
        loop.terminate();
    });
    loop.run();
    ::unsetenv("NOTIFY_SOCKET");
    messages.push_back(nextMessage());
    EXPECT_THAT(messages, ElementsAre("READY=1", "STOPPING=1"));
}

TEST(LinuxRunLoopIdle, DoesNotWakeWhileNothingIsDue) {
    RecordingLog log;
    // A busy machine makes a process sleep for reasons of its own now and then; a loop that polls
    // wakes in every run.
    long fewest = std::numeric_limits<long>::max();
    for (int run = 0; run < 5 && fewest > 1; ++run) {
        LinuxRunLoop idle{log};
        const auto hourly = idle.startTimer(std::chrono::hours{1}, Repeat::every, [] {});
        const auto stop =
            idle.startTimer(milliseconds{200}, Repeat::once, [&idle] { idle.terminate(); });
        rusage before{};
        ::getrusage(RUSAGE_SELF, &before);
        idle.run();
        rusage after{};
        ::getrusage(RUSAGE_SELF, &after);
        fewest = std::min(fewest, after.ru_nvcsw - before.ru_nvcsw);
    }
    // One sleep, until the stop.
    EXPECT_LE(fewest, 1);
}

}  // namespace
}  // namespace korvane
