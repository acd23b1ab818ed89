#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <thread>

#include "platform/linux/ThreadPriority.h"

namespace korvane {
namespace {

// The first version of what sched_getattr(2) fills in: the kernel's header and the C library's do
// not go together.
struct Attributes {
    std::uint32_t size;
    std::uint32_t policy;
    std::uint64_t flags;
    std::int32_t nice;
    std::uint32_t priority;
    std::uint64_t runtime;  // of a turn, in nanoseconds
    std::uint64_t deadline;
    std::uint64_t period;
};

Attributes attributesOfThisThread() {
    Attributes attributes{};
    EXPECT_EQ(::syscall(SYS_sched_getattr, 0, &attributes, sizeof attributes, 0), 0);
    return attributes;
}

// What the kernel tells of a thread's turns, which is nothing before 6.12.
bool hasTurnsToAskFor() {
    utsname system{};
    int major = 0;
    int minor = 0;
    EXPECT_EQ(::uname(&system), 0);
    EXPECT_EQ(std::sscanf(system.release, "%d.%d", &major, &minor), 2);
    return major > 6 || (major == 6 && minor >= 12);
}

// Each on a thread of its own: what it changes stays changed.
TEST(ThreadPriorityTest, ShortTurnsLeaveTheShareAndGoToNoThreadThatIsStarted) {
    std::thread([] {
        const Attributes before = attributesOfThisThread();
        runInShortTurns();
        const Attributes after = attributesOfThisThread();
        EXPECT_EQ(after.policy, before.policy);
        EXPECT_EQ(after.nice, before.nice);
        EXPECT_EQ(after.runtime, hasTurnsToAskFor() ? 100'000u : before.runtime);
        std::thread([&] { EXPECT_EQ(attributesOfThisThread().runtime, before.runtime); }).join();
    }).join();
}

TEST(ThreadPriorityTest, YieldingLowersTheThreadAndNoOther) {
    const int before = ::getpriority(PRIO_PROCESS, 0);
    std::thread([] {
        yieldToEverything();
        EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), 19);
    }).join();
    EXPECT_EQ(::getpriority(PRIO_PROCESS, 0), before);
}

}  // namespace
}  // namespace korvane
