// Other programs: their names from /proc, and the end of applications from the bus that the daemon
// runs on, where an application's bundle identifier is its bus name, or from the end of their
// processes, which costs nothing until it comes.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Processes.h"
#include "platform/linux/ChildProcess.h"
#include "platform/linux/LinuxBus.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

// The command name in the text of /proc/PID/stat; nothing when it is not such a text, or when the
// process is dead and only waits to be reaped.
[[nodiscard]] std::optional<std::string> runningNameOf(std::string_view stat);

class LinuxProcesses final : public Processes, private BusUser {
  public:
    LinuxProcesses(LinuxRunLoop& loop, LinuxBus& bus, std::string processFolder = "/proc");
    ~LinuxProcesses() override;
    LinuxProcesses(const LinuxProcesses&) = delete;
    LinuxProcesses& operator=(const LinuxProcesses&) = delete;

    // The kernel keeps 15 bytes of a name; a longer one is taken from the command line when that
    // goes on where the kernel's cut.
    void forEachName(const std::function<bool(std::string_view name)>& visit) override;
    [[nodiscard]] bool isRunning(const std::string& name, const std::string& argument) override;
    // The end of a session bus counts as the end of the desktop's file manager: the user has
    // logged out.
    void setDidTerminateApplication(
        std::function<void(const std::string& bundleIdentifier)> callback) override;
    // An end that the bus tells of is not told of again.
    void watchApplication(std::string_view nameBeginning,
                          const std::string& bundleIdentifier) override;
    [[nodiscard]] std::unique_ptr<Task> launch(const std::string& path,
                                               const std::vector<std::string>& arguments) override;
    [[nodiscard]] std::unique_ptr<Task> launchCopy(
        const std::string& path, const std::vector<std::string>& arguments,
        const std::optional<CopyPlaces>& places) override;
    void setTaskDidTerminate(std::function<void(const Task& task)> callback) override;

  private:
    class LaunchedTask;
    // A launched program and, while somebody holds it, its task.
    struct Launched {
        std::unique_ptr<ChildProcess> process;  // null once this machine goes
        const Task* task = nullptr;
        int endingSignal = 0;
    };
    // A process of the watched application; its descriptor is readable once it has ended.
    struct WatchedProcess {
        UniqueFd descriptor;
        EventSource source;
    };

    static int onProcessEnd(sd_event_source* source, int descriptor, std::uint32_t events,
                            void* self) noexcept;
    static int onNameOwnerChanged(sd_bus_message* message, void* self,
                                  sd_bus_error* error) noexcept;
    void busCame(sd_bus* bus) override;
    void busWent() override;
    void tell(const std::string& bundleIdentifier);
    void forEachProcess(const std::function<bool(pid_t id, const std::string& name)>& visit) const;
    // The name of a process as forEachName() gives it; nothing when it has ended or has none.
    [[nodiscard]] std::optional<std::string> nameOf(pid_t id) const;
    void watchProcess(pid_t id);
    void watchedProcessEnded(int descriptor);
    std::unique_ptr<Task> start(const std::string& path, const std::vector<std::string>& arguments,
                                const ChildSettings& settings);
    void ended(const Launched* launched, const siginfo_t& info);

    LinuxRunLoop& loop_;
    LinuxBus& bus_;
    std::string processFolder_;
    std::function<void(const std::string&)> didTerminateApplication_;
    BusSlot nameOwnerChanged_;
    std::string watchedBeginning_;
    std::string watchedIdentifier_;
    std::map<pid_t, WatchedProcess> watchedProcesses_;
    std::function<void(const Task&)> taskDidTerminate_;
    std::vector<std::shared_ptr<Launched>> running_;
};

}  // namespace korvane
