// The clocks of the kernel. That the wall clock has been set is an event of the kernel's on the
// loop, so that nothing is polled for it.
#pragma once

#include "platform/Clock.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

class LinuxClock : public Clock {
  public:
    // The loop must outlive this object. Throws std::system_error when the kernel refuses the
    // watch.
    explicit LinuxClock(LinuxRunLoop& loop);

    [[nodiscard]] Time now() override;
    [[nodiscard]] std::uint64_t microsecondsSinceBoot() override;
    void setDidStep(std::function<void(std::chrono::microseconds step)> callback) override;

    // Compares the wall clock with the time since boot and reports how far it has been set. The
    // watch calls this.
    void lookForStep();

  private:
    static int onClockSet(sd_event_source* source, int fd, std::uint32_t events,
                          void* self) noexcept;
    // The wall clock at boot, as both clocks have it now.
    [[nodiscard]] std::chrono::microseconds wallClockAtBoot();
    [[nodiscard]] bool armWatch() noexcept;

    LinuxRunLoop& loop_;
    std::function<void(std::chrono::microseconds)> didStep_;
    std::chrono::microseconds knownWallClockAtBoot_{0};
    UniqueFd watchFd_;
    EventSource watchSource_;
};

}  // namespace korvane
