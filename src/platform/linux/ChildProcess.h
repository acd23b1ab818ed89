// A program that the daemon has started, watched on the loop until it ends. Destroying it stops
// nothing, but nobody reaps the program then: its owner keeps it until it has ended.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "base/Result.h"
#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

enum class StandardError { inherited, discarded };
// Whether a program ends when this one does, however that ends.
enum class Lifetime { endsWithParent, itsOwn };

// What a program begins with.
struct ChildSettings {
    int standardInput = -1;   // a descriptor; -1 for an empty file
    int standardOutput = -1;  // a descriptor; -1 for this program's own
    StandardError standardError = StandardError::inherited;
    Lifetime lifetime = Lifetime::endsWithParent;
};

class ChildProcess {
  public:
    // What the kernel says of the end.
    using DidEnd = std::function<void(const siginfo_t& info)>;

    // Starts the program with no signal blocked or ignored. `didEnd` is called once, on the loop's
    // thread, never from within this; it may destroy the child. Call it on that thread alone: the
    // lifetime is bound to the calling thread.
    [[nodiscard]] static Result<std::unique_ptr<ChildProcess>> start(
        LinuxRunLoop& runLoop, const std::string& path, const std::vector<std::string>& arguments,
        const ChildSettings& settings, DidEnd didEnd);

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // False from the moment it has ended, told or not.
    [[nodiscard]] bool isRunning() const;
    // Without effect once it has ended.
    void signal(int number) const;

  private:
    ChildProcess(LinuxRunLoop& runLoop, pid_t id, DidEnd didEnd);
    static int onExit(sd_event_source* source, const siginfo_t* info, void* self) noexcept;

    LinuxRunLoop& runLoop_;
    pid_t id_;
    DidEnd didEnd_;
    bool wasReaped_ = false;  // until then the process number is the child's own
    EventSource exitSource_;
};

}  // namespace korvane
