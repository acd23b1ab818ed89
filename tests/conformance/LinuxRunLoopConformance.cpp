// Holds the Linux machine's run loop to what its interface promises.
#include <unistd.h>

#include <csignal>

#include "conformance/RunLoopConformance.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxRunLoop.h"
#include "unit/platform/RecordingLog.h"

namespace korvane {
namespace {

struct LinuxLoopSubject final : RunLoopSubject {
    RunLoop& loop() override { return runLoop; }
    Clock& clock() override { return linuxClock; }
    void spend(std::chrono::microseconds duration) override {
        ::usleep(static_cast<useconds_t>(duration.count()));
    }
    void becomeActive() override { ::kill(::getpid(), SIGHUP); }

    RecordingLog log;
    LinuxRunLoop runLoop{log};
    LinuxClock linuxClock{runLoop};
};
INSTANTIATE_TEST_SUITE_P(Linux, RunLoopConformance,
                         testing::Values(Implementation<RunLoopSubject>{
                             "Linux", [] { return std::make_unique<LinuxLoopSubject>(); }}),
                         testing::PrintToStringParamName());

}  // namespace
}  // namespace korvane
