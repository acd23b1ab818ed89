#include "platform/simulated/SimulatedProcesses.h"

#include <algorithm>
#include <csignal>
#include <utility>

namespace korvane {

// One run of a program.
struct SimulatedProcesses::Running {
    Launch launch;
    bool endsWhenTold = true;
    std::function<void(const Launch&)> whenTold;
    const Task* task = nullptr;  // while somebody holds it
    std::unique_ptr<Timer> timer;
};

class SimulatedProcesses::LaunchedTask final : public Task {
  public:
    LaunchedTask(SimulatedProcesses& processes, std::shared_ptr<Running> running)
        : processes_(processes), running_(std::move(running)) {
        running_->task = this;
    }
    ~LaunchedTask() override { running_->task = nullptr; }
    LaunchedTask(const LaunchedTask&) = delete;
    LaunchedTask& operator=(const LaunchedTask&) = delete;

    bool isRunning() override { return running_->launch.isRunning; }
    void interrupt() override {
        ++running_->launch.interrupts;
        endAsTold();
    }
    void terminate() override {
        ++running_->launch.terminates;
        endAsTold();
    }

    int endingSignal() override { return running_->launch.endingSignal; }

  private:
    void endAsTold() {
        if (running_->whenTold) running_->whenTold(running_->launch);
        if (running_->endsWhenTold) processes_.end(*running_, SIGTERM);
    }

    SimulatedProcesses& processes_;
    std::shared_ptr<Running> running_;
};

SimulatedProcesses::SimulatedProcesses(SimulatedRunLoop& runLoop, SimulatedJournal& journal)
    : runLoop_(runLoop), journal_(journal) {}

SimulatedProcesses::~SimulatedProcesses() = default;

void SimulatedProcesses::forEachName(const std::function<bool(std::string_view name)>& visit) {
    for (const Process& process : processes_) {
        if (!process.name.empty() && !visit(process.name)) {
            return;
        }
    }
}

bool SimulatedProcesses::isRunning(const std::string& name, const std::string& argument) {
    return std::ranges::any_of(processes_, [&](const Process& process) {
        return process.name == name &&
               std::ranges::find(process.arguments, argument) != process.arguments.end();
    });
}

void SimulatedProcesses::setDidTerminateApplication(
    std::function<void(const std::string& bundleIdentifier)> callback) {
    if (didTerminateApplication_ && !callback) journal_.note("applications unobserved");
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

std::unique_ptr<Task> SimulatedProcesses::launch(const std::string& path,
                                                 const std::vector<std::string>& arguments) {
    const auto known = programs_.find(path);
    if (known == programs_.end()) return nullptr;
    journal_.note("launched", path);
    auto running = std::make_shared<Running>();
    running->launch = Launch{.path = path, .arguments = arguments};
    running->endsWhenTold = known->second.endsWhenTold;
    running->whenTold = known->second.whenTold;
    launched_.push_back(running);
    if (known->second.duration) {
        running->timer =
            runLoop_.startTimer(*known->second.duration, Repeat::once,
                                [this, each = running.get(), work = known->second.work] {
                                    if (work) work(each->launch.arguments);
                                    end(*each, 0);
                                });
    }
    return std::make_unique<LaunchedTask>(*this, std::move(running));
}

std::unique_ptr<Task> SimulatedProcesses::launchCopy(const std::string& path,
                                                     const std::vector<std::string>& arguments,
                                                     const std::optional<CopyPlaces>& places) {
    std::vector<std::string> words = arguments;
    if (places) {
        words.push_back(places->file);
        words.push_back(places->folder.path());
    }
    return launch(path, words);
}

void SimulatedProcesses::setTaskDidTerminate(std::function<void(const Task& task)> callback) {
    taskDidTerminate_ = std::move(callback);
}

void SimulatedProcesses::setProgram(const std::string& path, Program program) {
    programs_.insert_or_assign(path, std::move(program));
}

void SimulatedProcesses::removeProgram(const std::string& path) { programs_.erase(path); }

std::vector<SimulatedProcesses::Launch> SimulatedProcesses::launches() const {
    std::vector<Launch> launches;
    for (const auto& running : launched_) launches.push_back(running->launch);
    return launches;
}

void SimulatedProcesses::kill(std::size_t launch) { end(*launched_.at(launch), SIGKILL); }

void SimulatedProcesses::end(Running& running, int signal) {
    if (!std::exchange(running.launch.isRunning, false)) return;
    running.launch.endingSignal = signal;
    journal_.note("program ended", running.launch.path);
    // Told at the next pass, as the kernel would: until then it has ended and nobody knows.
    runLoop_.post([this, &running] {
        const auto callback = taskDidTerminate_;
        if (callback && running.task) callback(*running.task);
    });
    running.timer.reset();
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
