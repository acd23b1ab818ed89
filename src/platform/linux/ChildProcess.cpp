#include "platform/linux/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <system_error>
#include <utility>

namespace korvane {

namespace {

Error errorFrom(int number) { return Error{std::generic_category().message(number)}; }

// Spawn attributes and actions of a child that starts with no signal blocked or ignored.
class SpawnSettings {
  public:
    SpawnSettings(int standardInput, StandardError standardError) {
        sigset_t none;
        sigemptyset(&none);
        sigset_t all;
        sigfillset(&all);
        // These fail only for lack of memory, and then so does the spawning.
        (void)posix_spawnattr_init(&attributes);
        (void)posix_spawnattr_setsigmask(&attributes, &none);
        (void)posix_spawnattr_setsigdefault(&attributes, &all);
        (void)posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        (void)posix_spawn_file_actions_init(&actions);
        if (standardInput >= 0) {
            (void)posix_spawn_file_actions_adddup2(&actions, standardInput, STDIN_FILENO);
        } else {
            (void)posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY,
                                                   0);
        }
        if (standardError == StandardError::discarded) {
            (void)posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY,
                                                   0);
        }
    }
    ~SpawnSettings() {
        (void)posix_spawnattr_destroy(&attributes);
        (void)posix_spawn_file_actions_destroy(&actions);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    posix_spawnattr_t attributes{};
    posix_spawn_file_actions_t actions{};
};

}  // namespace

ChildProcess::ChildProcess(LinuxRunLoop& runLoop, pid_t id, DidEnd didEnd)
    : runLoop_(runLoop), id_(id), didEnd_(std::move(didEnd)) {}

Result<std::unique_ptr<ChildProcess>> ChildProcess::start(
    LinuxRunLoop& runLoop, const std::string& path, const std::vector<std::string>& arguments,
    int standardInput, StandardError standardError, DidEnd didEnd) {
    std::vector<std::string> words{path.substr(path.rfind('/') + 1)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    const SpawnSettings settings{standardInput, standardError};
    pid_t id = 0;
    int error = 0;
    // A program has the priority of the thread that launches it: a dialog that follows from a
    // control command is as urgent as any other.
    runLoop.atOrdinaryPriority([&] {
        error = ::posix_spawn(&id, path.c_str(), &settings.actions, &settings.attributes,
                              pointers.data(), environ);
    });
    if (error != 0) return errorFrom(error);

    std::unique_ptr<ChildProcess> child{new ChildProcess(runLoop, id, std::move(didEnd))};
    sd_event_source* source = nullptr;
    const int added =
        sd_event_add_child(runLoop.event(), &source, id, WEXITED, onExit, child.get());
    if (added < 0) {
        // Nobody would ever learn of its end.
        (void)::kill(id, SIGKILL);
        (void)::waitpid(id, nullptr, 0);
        return errorFrom(-added);
    }
    child->exitSource_.reset(source);
    return child;
}

bool ChildProcess::isRunning() const {
    if (wasReaped_) return false;
    siginfo_t info{};
    // Looks without reaping: that is the loop's, which tells of the end.
    return ::waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

void ChildProcess::signal(int number) const {
    if (!wasReaped_) (void)::kill(id_, number);  // one that has just ended takes it as well
}

int ChildProcess::onExit(sd_event_source*, const siginfo_t* info, void* self) noexcept {
    auto* const child = static_cast<ChildProcess*>(self);
    child->wasReaped_ = true;
    child->exitSource_.reset();
    // Copies, since the callback may destroy the child.
    LinuxRunLoop& runLoop = child->runLoop_;
    const siginfo_t end = *info;
    const DidEnd didEnd = std::move(child->didEnd_);
    runLoop.callBack("the end of a launched program", [&] { didEnd(end); });
    return 0;
}

}  // namespace korvane
