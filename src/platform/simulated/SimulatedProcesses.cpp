#include "platform/simulated/SimulatedProcesses.h"

#include <algorithm>
#include <utility>

namespace korvane {

SimulatedProcesses::SimulatedProcesses(SimulatedRunLoop& runLoop, SimulatedJournal& journal)
    : runLoop_(runLoop), journal_(journal) {}

void SimulatedProcesses::forEachName(const std::function<bool(std::string_view name)>& visit) {
    for (const Process& process : processes_) {
        if (!process.name.empty() && !visit(process.name)) {
            return;
        }
    }
}

void SimulatedProcesses::setDidTerminateApplication(
    std::function<void(const std::string& bundleIdentifier)> callback) {
    didTerminateApplication_ = std::move(callback);
}

void SimulatedProcesses::watchApplication(std::string_view nameBeginning,
                                          const std::string& bundleIdentifier) {
    watchedBeginning_ = nameBeginning;
    watchedIdentifier_ = watchedRuns() ? bundleIdentifier : "";
}

bool SimulatedProcesses::watchedRuns() const {
    return std::any_of(processes_.begin(), processes_.end(), [this](const Process& process) {
        return process.name.starts_with(watchedBeginning_);
    });
}

void SimulatedProcesses::start(Process process) {
    journal_.note("process started", process.name);
    processes_.push_back(std::move(process));
}

bool SimulatedProcesses::quit(std::string_view name) {
    const auto process = std::find_if(processes_.begin(), processes_.end(),
                                      [&](const Process& each) { return each.name == name; });
    if (process == processes_.end()) {
        return false;
    }
    const std::string bundleIdentifier = process->bundleIdentifier;
    processes_.erase(process);
    journal_.note("process ended", name);
    if (!bundleIdentifier.empty()) {
        applicationEnded(bundleIdentifier);
    } else if (!watchedIdentifier_.empty() && name.starts_with(watchedBeginning_) &&
               !watchedRuns()) {
        applicationEnded(std::exchange(watchedIdentifier_, ""));
    }
    return true;
}

void SimulatedProcesses::applicationEnded(const std::string& bundleIdentifier) {
    if (bundleIdentifier.starts_with(watchedIdentifier_)) {
        watchedIdentifier_.clear();
    }
    runLoop_.post([this, bundleIdentifier] {
        journal_.note("application ended", bundleIdentifier);
        if (didTerminateApplication_) {
            didTerminateApplication_(bundleIdentifier);
        }
    });
}

}  // namespace korvane
