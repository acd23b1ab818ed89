// Other programs: names in a list, some of them applications with a bundle identifier; and programs
// that can be launched, each with the time that it takes and what it has done when it ends.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Processes.h"
#include "platform/simulated/SimulatedRunLoop.h"

namespace korvane {

class SimulatedProcesses final : public Processes {
  public:
    struct Process {
        std::string name;                // empty: the name cannot be read
        std::string bundleIdentifier{};  // empty: no application
        std::vector<std::string> arguments{};
    };

    struct Launch {
        std::string path;
        std::vector<std::string> arguments;
        bool isRunning = true;
        int interrupts = 0;
        int terminates = 0;
        int endingSignal = 0;
    };
    struct Program {
        // How long a run takes; nothing: until it is told to end.
        std::optional<std::chrono::microseconds> duration;
        // What it has done when it ends by itself.
        std::function<void(const std::vector<std::string>& arguments)> work;
        // No for one that waits for a disk and hears nothing.
        bool endsWhenTold = true;
        // Called each time that it is told to end, before it does.
        std::function<void(const Launch&)> whenTold = nullptr;
    };

    SimulatedProcesses(SimulatedRunLoop& runLoop, SimulatedJournal& journal);
    ~SimulatedProcesses() override;
    SimulatedProcesses(const SimulatedProcesses&) = delete;
    SimulatedProcesses& operator=(const SimulatedProcesses&) = delete;

    void forEachName(const std::function<bool(std::string_view name)>& visit) override;
    [[nodiscard]] bool isRunning(const std::string& name, const std::string& argument) override;
    void setDidTerminateApplication(
        std::function<void(const std::string& bundleIdentifier)> callback) override;
    void watchApplication(std::string_view nameBeginning,
                          const std::string& bundleIdentifier) override;
    [[nodiscard]] std::unique_ptr<Task> launch(const std::string& path,
                                               const std::vector<std::string>& arguments) override;
    // The program finds the paths of the file and of the folder behind its arguments.
    [[nodiscard]] std::unique_ptr<Task> launchCopy(
        const std::string& path, const std::vector<std::string>& arguments,
        const std::optional<CopyPlaces>& places) override;
    void setTaskDidTerminate(std::function<void(const Task& task)> callback) override;

    void start(Process process);
    // The first process of this name ends; when it is an application, or the last process of the
    // watched one, that is told at the next pass of the loop. False when there is none.
    bool quit(std::string_view name);
    // An application that was in no list ends.
    void applicationEnded(const std::string& bundleIdentifier);

    // What is at the path from now on; without a program there nothing can be launched.
    void setProgram(const std::string& path, Program program);
    void removeProgram(const std::string& path);
    // Everything launched so far, oldest first.
    [[nodiscard]] std::vector<Launch> launches() const;
    // A launched program ends without having done its work.
    void kill(std::size_t launch);

  private:
    [[nodiscard]] bool watchedRuns() const;
    class LaunchedTask;
    struct Running;

    // By this signal, or by itself with 0.
    void end(Running& running, int signal);

    SimulatedRunLoop& runLoop_;
    SimulatedJournal& journal_;
    std::vector<Process> processes_;
    std::function<void(const std::string&)> didTerminateApplication_;
    std::string watchedBeginning_;
    std::string watchedIdentifier_;  // empty: none is watched
    std::map<std::string, Program> programs_;
    std::vector<std::shared_ptr<Running>> launched_;
    std::function<void(const Task&)> taskDidTerminate_;
};

}  // namespace korvane
