#include "platform/linux/ChildProcess.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

Error errorFrom(int number) { return Error{std::generic_category().message(number)}; }

void endUnless(bool isWell) {
    if (!isWell) ::_exit(EXIT_FAILURE);
}

// What the new process does before it becomes the program: system calls alone, since it borrows its
// parent's memory. -1 for a descriptor that is to stay as it is.
void prepareChild(const ChildSettings& settings, int emptyFile, pid_t parent) {
    if (settings.lifetime == Lifetime::endsWithParent) {
        endUnless(::prctl(PR_SET_PDEATHSIG, SIGTERM) == 0);
        // The parent may have ended before that.
        endUnless(::getppid() == parent);
    }
    // The dispositions are the child's own already; what is ignored would stay so.
    struct sigaction standard {};
    standard.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) (void)::sigaction(number, &standard, nullptr);
    const int input = settings.standardInput >= 0 ? settings.standardInput : emptyFile;
    endUnless(::dup2(input, STDIN_FILENO) >= 0);
    if (settings.standardOutput >= 0) {
        endUnless(::dup2(settings.standardOutput, STDOUT_FILENO) >= 0);
    }
    if (settings.standardError == StandardError::discarded) {
        endUnless(::dup2(emptyFile, STDERR_FILENO) >= 0);
    }
    sigset_t none;
    sigemptyset(&none);
    (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// The new process, or -1 and the errno of what failed in `error`. Between vfork(2) and the
// program's start stands what posix_spawn(3) cannot do, the bond to the parent's life.
pid_t spawn(const char* path, char* const* words, const ChildSettings& settings, int& error) {
    const UniqueFd emptyFile{::open("/dev/null", O_RDWR | O_CLOEXEC)};
    // Closed by the program's start; what comes through it is the errno of its failure. Not a
    // variable: a tool that watches threads makes a fork(2) of it, whose memory is its own.
    std::array<int, 2> ends{-1, -1};
    if (!emptyFile || ::pipe2(ends.data(), O_CLOEXEC) != 0) {
        error = errno;
        return -1;
    }
    const UniqueFd reading{ends[0]};
    UniqueFd writing{ends[1]};
    // No handler of the parent's may run in the child, in the memory of both.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    (void)::pthread_sigmask(SIG_SETMASK, &all, &before);
    const pid_t parent = ::getpid();
    const pid_t id = ::vfork();
    if (id == 0) {
        prepareChild(settings, emptyFile.get(), parent);
        (void)::execve(path, words, environ);
        const int failure = errno;
        (void)!::write(writing.get(), &failure, sizeof failure);
        ::_exit(EXIT_FAILURE);
    }
    error = id < 0 ? errno : 0;
    (void)::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    writing = UniqueFd{};
    if (id < 0) return -1;
    ssize_t got = 0;
    do {
        got = ::read(reading.get(), &error, sizeof error);
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return id;
    (void)::waitpid(id, nullptr, 0);
    return -1;
}

}  // namespace

ChildProcess::ChildProcess(LinuxRunLoop& runLoop, pid_t id, DidEnd didEnd)
    : runLoop_(runLoop), id_(id), didEnd_(std::move(didEnd)) {}

Result<std::unique_ptr<ChildProcess>> ChildProcess::start(LinuxRunLoop& runLoop,
                                                          const std::string& path,
                                                          const std::vector<std::string>& arguments,
                                                          const ChildSettings& settings,
                                                          DidEnd didEnd) {
    std::vector<std::string> words{path.substr(path.rfind('/') + 1)};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);

    pid_t id = 0;
    int error = 0;
    // A program has the priority of the thread that launches it: a dialog that follows from a
    // control command is as urgent as any other.
    runLoop.atOrdinaryPriority([&] { id = spawn(path.c_str(), pointers.data(), settings, error); });
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
