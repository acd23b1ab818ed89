#include "platform/linux/LinuxAlertDialogs.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "platform/linux/ConsoleSession.h"
#include "platform/linux/NoticeProtocol.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

constexpr char kNoticeProgram[] = "KorvaneProNotice";

// The text in a file of memory, to be read from its beginning: unlike a pipe it takes any length
// at once.
UniqueFd memoryFile(const std::string& text) {
    UniqueFd file{::memfd_create("notice", MFD_CLOEXEC)};
    if (!file) return {};
    const ssize_t written = ::write(file.get(), text.data(), text.size());
    if (written != static_cast<ssize_t>(text.size()) || ::lseek(file.get(), 0, SEEK_SET) != 0) {
        return {};
    }
    return file;
}

// Spawn attributes and actions of a child that starts with no signal blocked or ignored.
class SpawnSettings {
  public:
    explicit SpawnSettings(int standardInput) {
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
        (void)posix_spawn_file_actions_adddup2(&actions, standardInput, STDIN_FILENO);
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

// Who is to see a notice of a daemon of this user: root speaks to whoever sits at the console,
// anyone else to themselves.
std::optional<uid_t> audience() { return ::geteuid() == 0 ? consoleUser() : ::geteuid(); }

std::string describeEnd(const siginfo_t& info) {
    if (info.si_code != CLD_EXITED) return "the desktop did not answer";
    switch (static_cast<NoticeExit>(info.si_status)) {
        case NoticeExit::noSession:
            return "the console user's session could not be reached";
        case NoticeExit::noService:
            return "the session has no notification service that takes it";
        case NoticeExit::closed:
        case NoticeExit::badInput:
            break;
    }
    return "the notice program failed with status " + std::to_string(info.si_status);
}

}  // namespace

// A process that has not been waited for yet: its number is its own until then.
struct LinuxAlertDialogs::NoticeProcess {
    LinuxAlertDialogs* owner = nullptr;
    pid_t id = 0;
    std::string header;
    EventSource exitSource;
    bool running = true;
    bool cancelled = false;
};

class LinuxAlertDialogs::Dialog final : public AlertDialog {
  public:
    explicit Dialog(std::shared_ptr<NoticeProcess> process) : process_(std::move(process)) {}

    void cancel() override {
        if (!process_->running || std::exchange(process_->cancelled, true)) return;
        // It takes the notice off the screen before it ends.
        (void)::kill(process_->id, SIGTERM);
    }

  private:
    std::shared_ptr<NoticeProcess> process_;
};

LinuxAlertDialogs::LinuxAlertDialogs(LinuxRunLoop& runLoop, Bundle& bundle, SystemLog& systemLog)
    : runLoop_(runLoop), bundle_(bundle), systemLog_(systemLog) {}

LinuxAlertDialogs::~LinuxAlertDialogs() {
    for (const auto& [id, process] : running_) {
        process->exitSource.reset();
        process->running = false;
    }
}

std::unique_ptr<AlertDialog> LinuxAlertDialogs::show(const Alert& alert) {
    std::shared_ptr<NoticeProcess> process = start(alert);
    if (!process) return nullptr;
    return std::make_unique<Dialog>(std::move(process));
}

std::shared_ptr<LinuxAlertDialogs::NoticeProcess> LinuxAlertDialogs::start(const Alert& alert) {
    const auto refuse = [&](const std::string& why) {
        systemLog_.write(LogLevel::warning,
                         "The dialog \"" + alert.header + "\" is not shown: " + why + ".");
        return nullptr;
    };
    const std::optional<uid_t> user = audience();
    if (!user) return refuse("nobody is logged in at the console");
    const std::string program = bundle_.plugIn(kNoticeProgram);
    if (program.empty()) return refuse(std::string{kNoticeProgram} + " is missing");
    const UniqueFd input = memoryFile(formatNotice(alert));
    if (!input) return refuse(std::strerror(errno));

    std::string name{kNoticeProgram};
    std::string userId = std::to_string(*user);
    const std::array<char*, 3> arguments{name.data(), userId.data(), nullptr};
    const SpawnSettings settings{input.get()};
    pid_t id = 0;
    const int error = ::posix_spawn(&id, program.c_str(), &settings.actions, &settings.attributes,
                                    arguments.data(), environ);
    if (error != 0) return refuse(std::strerror(error));

    auto process = std::make_shared<NoticeProcess>();
    process->owner = this;
    process->id = id;
    process->header = alert.header;
    sd_event_source* source = nullptr;
    const int added =
        sd_event_add_child(runLoop_.event(), &source, id, WEXITED, onExit, process.get());
    if (added < 0) {
        (void)::kill(id, SIGKILL);
        (void)::waitpid(id, nullptr, 0);
        return refuse(std::strerror(-added));
    }
    process->exitSource.reset(source);
    running_.emplace(id, process);
    return process;
}

int LinuxAlertDialogs::onExit(sd_event_source*, const siginfo_t* info, void* process) noexcept {
    auto* const ended = static_cast<NoticeProcess*>(process);
    LinuxAlertDialogs* const owner = ended->owner;
    owner->runLoop_.callBack("the end of a dialog", [&] { owner->ended(*ended, *info); });
    return 0;
}

void LinuxAlertDialogs::ended(const NoticeProcess& process, const siginfo_t& info) {
    const auto known = running_.find(process.id);
    const std::shared_ptr<NoticeProcess> kept = std::move(known->second);
    running_.erase(known);
    kept->running = false;
    kept->exitSource.reset();
    const bool wasShown =
        info.si_code == CLD_EXITED && info.si_status == static_cast<int>(NoticeExit::closed);
    if (wasShown || kept->cancelled) return;
    systemLog_.write(LogLevel::warning, "The dialog \"" + kept->header +
                                            "\" is not shown: " + describeEnd(info) + ".");
}

}  // namespace korvane
