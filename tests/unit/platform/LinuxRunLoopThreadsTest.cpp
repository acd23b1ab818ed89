#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "RecordingLog.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {
namespace {

using std::chrono::microseconds;

struct LinuxRunLoopThreads : testing::Test {
    RecordingLog log;
    LinuxRunLoop loop{log};
};

TEST_F(LinuxRunLoopThreads, RunsPostsFromManyThreadsInTheOrderOfEachThread) {
    constexpr int kThreads = 4;
    constexpr int kPosts = 2000;
    std::vector<int> last(kThreads, -1);
    int ran = 0;
    bool inOrder = true;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&, thread] {
            for (int number = 0; number < kPosts; ++number) {
                loop.post([&, thread, number] {
                    int& before = last[static_cast<std::size_t>(thread)];
                    inOrder = inOrder && before == number - 1;
                    before = number;
                    if (++ran == kThreads * kPosts) loop.terminate();
                });
            }
        });
    }
    loop.run();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(ran, kThreads * kPosts);
    EXPECT_TRUE(inOrder);
}

TEST_F(LinuxRunLoopThreads, RunsBackgroundWorkOnAnotherThreadOfLowerPriority) {
    errno = 0;
    const int ownNice = ::getpriority(PRIO_PROCESS, 0);
    const auto ownThread = std::this_thread::get_id();
    int nice = -100;
    auto thread = ownThread;
    loop.runInBackgroundAndWait([&] {
        nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()));
        thread = std::this_thread::get_id();
    });
    EXPECT_NE(thread, ownThread);
    EXPECT_EQ(nice, std::min(ownNice + 10, 19));
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), ownNice);
}

TEST_F(LinuxRunLoopThreads, BackgroundWorkHandsPartsBackToTheThreadThatWaits) {
    std::vector<std::thread::id> threads;
    const auto note = [&] { threads.push_back(std::this_thread::get_id()); };
    loop.atOrdinaryPriority(note);
    loop.runInBackgroundAndWait([&] {
        loop.atOrdinaryPriority(note);
        loop.atOrdinaryPriority(note);
    });
    EXPECT_THAT(threads,
                testing::ElementsAre(std::this_thread::get_id(), std::this_thread::get_id(),
                                     std::this_thread::get_id()));
}

TEST_F(LinuxRunLoopThreads, TimersStartedInBackgroundWorkFireOnTheLoop) {
    const auto ownThread = std::this_thread::get_id();
    auto firedOn = std::thread::id{};
    std::unique_ptr<Timer> timer;
    auto cancelled = loop.startTimer(std::chrono::hours{1}, Repeat::once, [] { FAIL(); });
    loop.post([&] {
        loop.runInBackgroundAndWait([&] {
            cancelled.reset();
            timer = loop.startTimer(microseconds{0}, Repeat::once, [&] {
                firedOn = std::this_thread::get_id();
                loop.runInBackgroundAndWait([&] { loop.terminate(); });
            });
        });
    });
    loop.run();
    EXPECT_EQ(firedOn, ownThread);
}

TEST_F(LinuxRunLoopThreads, RethrowsWhatBackgroundWorkThrows) {
    EXPECT_THROW(loop.runInBackgroundAndWait([] { throw std::out_of_range("far"); }),
                 std::out_of_range);
    bool ran = false;
    loop.runInBackgroundAndWait([&] { ran = true; });
    EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace korvane
