// Other programs: names in a list, some of them applications with a bundle identifier.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Processes.h"
#include "platform/simulated/SimulatedRunLoop.h"

namespace korvane {

class SimulatedProcesses final : public Processes {
  public:
    struct Process {
        std::string name;              // empty: the name cannot be read
        std::string bundleIdentifier;  // empty: no application
    };

    SimulatedProcesses(SimulatedRunLoop& runLoop, SimulatedJournal& journal);

    void forEachName(const std::function<bool(std::string_view name)>& visit) override;
    void setDidTerminateApplication(
        std::function<void(const std::string& bundleIdentifier)> callback) override;
    void watchApplication(std::string_view nameBeginning,
                          const std::string& bundleIdentifier) override;

    void start(Process process);
    // The first process of this name ends; when it is an application, or the last process of the
    // watched one, that is told at the next pass of the loop. False when there is none.
    bool quit(std::string_view name);
    // An application that was in no list ends.
    void applicationEnded(const std::string& bundleIdentifier);

  private:
    [[nodiscard]] bool watchedRuns() const;

    SimulatedRunLoop& runLoop_;
    SimulatedJournal& journal_;
    std::vector<Process> processes_;
    std::function<void(const std::string&)> didTerminateApplication_;
    std::string watchedBeginning_;
    std::string watchedIdentifier_;  // empty: none is watched
};

}  // namespace korvane
