// The kernel's mount table as a file that tells when it has changed. Costs nothing while it has
// not. A burst of changes is waited out and told once.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

class MountWatch {
  public:
    // Tells of changes on the loop's thread. A file that is not the kernel's never tells.
    MountWatch(LinuxRunLoop& loop, const std::string& path, std::function<void()> didChange);
    MountWatch(const MountWatch&) = delete;
    MountWatch& operator=(const MountWatch&) = delete;

    // The whole table; nothing when it cannot be read. When it changes while it is being read it is
    // told again.
    [[nodiscard]] std::optional<std::string> read();
    [[nodiscard]] std::size_t readings() const { return readings_; }

  private:
    static int onChange(sd_event_source* source, int fd, std::uint32_t events, void* self) noexcept;

    void startPause();
    void pauseOver();
    // Whether the table has changed since it was last asked for, here or by the loop.
    [[nodiscard]] bool takeChange() const;

    LinuxRunLoop& loop_;
    std::function<void()> didChange_;
    UniqueFd file_;
    std::size_t readings_ = 0;
    int pauses_ = 0;  // since the first change that has not been told
    std::unique_ptr<Timer> pause_;
    EventSource source_;
};

}  // namespace korvane
