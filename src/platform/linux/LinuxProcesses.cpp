#include "platform/linux/LinuxProcesses.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <utility>

#include "platform/linux/SmallFile.h"

namespace korvane {

namespace {

// proc(5): comm is cut to TASK_COMM_LEN - 1 bytes.
constexpr std::size_t kLongestKernelName = 15;
// The suite's applications; the bus tells of no others, so they do not wake the daemon.
constexpr char kNameOwnerMatch[] =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0namespace='com.quorlen'";
constexpr char kFileManager[] = "com.apple.finder";

// The process of a folder of /proc with this name; nothing when it is not a process's.
std::optional<pid_t> processIdIn(std::string_view name) {
    pid_t id = 0;
    const char* const end = name.data() + name.size();
    const auto [rest, error] = std::from_chars(name.data(), end, id);
    if (error != std::errc() || rest != end || id <= 0) return std::nullopt;
    return id;
}

// The file name in the first word of a command line, which ends at its first zero byte.
std::string programNameOf(const std::string& commandLine) {
    const std::string_view program =
        std::string_view(commandLine).substr(0, commandLine.find('\0'));
    return std::string(program.substr(program.rfind('/') + 1));
}

}  // namespace

std::optional<std::string> runningNameOf(std::string_view stat) {
    // The name stands in parentheses and may hold some itself: the outermost count (proc(5)).
    const std::size_t open = stat.find('(');
    const std::size_t close = stat.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open ||
        close + 2 >= stat.size()) {
        return std::nullopt;
    }
    const char state = stat[close + 2];
    if (state == 'Z' || state == 'X' || state == 'x') return std::nullopt;
    return std::string(stat.substr(open + 1, close - open - 1));
}

class LinuxProcesses::LaunchedTask final : public Task {
  public:
    explicit LaunchedTask(std::shared_ptr<Launched> launched) : launched_(std::move(launched)) {
        launched_->task = this;
    }
    ~LaunchedTask() override { launched_->task = nullptr; }
    LaunchedTask(const LaunchedTask&) = delete;
    LaunchedTask& operator=(const LaunchedTask&) = delete;

    bool isRunning() override { return launched_->process && launched_->process->isRunning(); }
    void interrupt() override { signal(SIGINT); }
    void terminate() override { signal(SIGTERM); }
    int endingSignal() override { return launched_->endingSignal; }

  private:
    void signal(int number) {
        if (launched_->process) launched_->process->signal(number);
    }

    std::shared_ptr<Launched> launched_;
};

LinuxProcesses::LinuxProcesses(LinuxRunLoop& loop, LinuxBus& bus, std::string processFolder)
    : loop_(loop), bus_(bus), processFolder_(std::move(processFolder)) {
    bus_.join(*this);
}

// A task handed out may live longer, and must not reach the loop then.
LinuxProcesses::~LinuxProcesses() {
    for (const auto& launched : running_) launched->process.reset();
    bus_.leave(*this);
}

std::optional<std::string> LinuxProcesses::nameOf(pid_t id) const {
    const std::string process = processFolder_ + "/" + std::to_string(id);
    const std::optional<std::string> stat = readSmallFile(process + "/stat");
    std::optional<std::string> name = stat ? runningNameOf(*stat) : std::nullopt;
    if (!name || name->empty()) return std::nullopt;
    if (name->size() == kLongestKernelName) {
        std::string program = programNameOf(readSmallFile(process + "/cmdline").value_or(""));
        if (program.starts_with(*name)) name = std::move(program);
    }
    return name;
}

void LinuxProcesses::forEachProcess(
    const std::function<bool(pid_t id, const std::string& name)>& visit) const {
    std::error_code error;
    for (std::filesystem::directory_iterator it(processFolder_, error), end; !error && it != end;
         it.increment(error)) {
        const std::optional<pid_t> id = processIdIn(it->path().filename().native());
        const std::optional<std::string> name = id ? nameOf(*id) : std::nullopt;
        if (name && !visit(*id, *name)) return;
    }
}

void LinuxProcesses::forEachName(const std::function<bool(std::string_view name)>& visit) {
    forEachProcess([&visit](pid_t, const std::string& name) { return visit(name); });
}

bool LinuxProcesses::isRunning(const std::string& name, const std::string& argument) {
    bool isRunning = false;
    forEachProcess([&](pid_t id, const std::string& running) {
        if (running != name) return true;
        const std::string process = processFolder_ + "/" + std::to_string(id);
        struct stat status {};
        if (::stat(process.c_str(), &status) != 0 || status.st_uid != ::geteuid()) return true;
        // Each word of a command line ends with a zero byte (proc(5)).
        const std::string line = '\0' + readSmallFile(process + "/cmdline").value_or("") + '\0';
        isRunning = line.find('\0' + argument + '\0') != std::string::npos;
        return !isRunning;
    });
    return isRunning;
}

void LinuxProcesses::setDidTerminateApplication(
    std::function<void(const std::string& bundleIdentifier)> callback) {
    didTerminateApplication_ = std::move(callback);
}

void LinuxProcesses::tell(const std::string& bundleIdentifier) {
    // A copy, since it may set another one.
    const auto callback = didTerminateApplication_;
    if (callback) callback(bundleIdentifier);
}

void LinuxProcesses::watchApplication(std::string_view nameBeginning,
                                      const std::string& bundleIdentifier) {
    if (watchedBeginning_ != nameBeginning) watchedProcesses_.clear();
    watchedBeginning_ = nameBeginning;
    watchedIdentifier_ = bundleIdentifier;
    forEachProcess([this](pid_t id, const std::string& name) {
        if (name.starts_with(watchedBeginning_)) watchProcess(id);
        return true;
    });
}

void LinuxProcesses::watchProcess(pid_t id) {
    // One that is there has not ended, so the number is still the same process's.
    if (watchedProcesses_.contains(id)) return;
    WatchedProcess process{UniqueFd{static_cast<int>(::syscall(SYS_pidfd_open, id, 0U))}, nullptr};
    // The number may have passed on to another process before the descriptor held it.
    if (!process.descriptor || !nameOf(id).value_or("").starts_with(watchedBeginning_)) return;
    sd_event_source* source = nullptr;
    if (sd_event_add_io(loop_.event(), &source, process.descriptor.get(), EPOLLIN, onProcessEnd,
                        this) < 0) {
        return;
    }
    process.source.reset(source);
    watchedProcesses_.emplace(id, std::move(process));
}

int LinuxProcesses::onProcessEnd(sd_event_source*, int descriptor, std::uint32_t,
                                 void* self) noexcept {
    auto* const processes = static_cast<LinuxProcesses*>(self);
    processes->loop_.callBack("the end of a process", [processes, descriptor] {
        processes->watchedProcessEnded(descriptor);
    });
    return 0;
}

void LinuxProcesses::watchedProcessEnded(int descriptor) {
    std::erase_if(watchedProcesses_, [descriptor](const auto& process) {
        return process.second.descriptor.get() == descriptor;
    });
    // Others may have come since.
    watchApplication(watchedBeginning_, watchedIdentifier_);
    if (watchedProcesses_.empty()) tell(watchedIdentifier_);
}

std::unique_ptr<Task> LinuxProcesses::launch(const std::string& path,
                                             const std::vector<std::string>& arguments) {
    return start(path, arguments, {});
}

std::unique_ptr<Task> LinuxProcesses::launchCopy(const std::string& path,
                                                 const std::vector<std::string>& arguments,
                                                 const std::optional<CopyPlaces>& places) {
    ChildSettings settings{.lifetime = Lifetime::itsOwn};
    if (!places) return start(path, arguments, settings);
    const UniqueFd file{
        ::open(places->file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
    if (!file) return nullptr;
    settings.standardInput = file.get();
    settings.standardOutput = places->folder.descriptor();
    return start(path, arguments, settings);
}

std::unique_ptr<Task> LinuxProcesses::start(const std::string& path,
                                            const std::vector<std::string>& arguments,
                                            const ChildSettings& settings) {
    auto launched = std::make_shared<Launched>();
    Result<std::unique_ptr<ChildProcess>> process = ChildProcess::start(
        loop_, path, arguments, settings,
        [this, known = launched.get()](const siginfo_t& info) { ended(known, info); });
    if (!process) return nullptr;
    launched->process = std::move(*process);
    running_.push_back(launched);
    return std::make_unique<LaunchedTask>(std::move(launched));
}

void LinuxProcesses::setTaskDidTerminate(std::function<void(const Task& task)> callback) {
    taskDidTerminate_ = std::move(callback);
}

void LinuxProcesses::ended(const Launched* launched, const siginfo_t& info) {
    const auto known = std::find_if(running_.begin(), running_.end(),
                                    [&](const auto& each) { return each.get() == launched; });
    const std::shared_ptr<Launched> kept = std::move(*known);
    running_.erase(known);
    kept->process.reset();
    if (info.si_code != CLD_EXITED) kept->endingSignal = info.si_status;
    // A copy, since it may set another one.
    const auto callback = taskDidTerminate_;
    if (callback && kept->task) callback(*kept->task);
}

void LinuxProcesses::busCame(sd_bus* bus) {
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_match_async(bus, &slot, kNameOwnerMatch, onNameOwnerChanged, ignoreBusAnswer,
                               this) >= 0) {
        nameOwnerChanged_.reset(slot);
    }
}

void LinuxProcesses::busWent() {
    nameOwnerChanged_.reset();
    if (bus_.kind() == LinuxBus::Kind::session) tell(kFileManager);
}

int LinuxProcesses::onNameOwnerChanged(sd_bus_message* message, void* self,
                                       sd_bus_error*) noexcept {
    auto* const processes = static_cast<LinuxProcesses*>(self);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) < 0) return 0;
    if (*before == '\0' || *after != '\0') return 0;
    processes->loop_.callBack("the end of an application", [processes, name] {
        if (!processes->watchedIdentifier_.empty() &&
            std::string_view(name).starts_with(processes->watchedIdentifier_)) {
            processes->watchedProcesses_.clear();
        }
        processes->tell(name);
    });
    return 0;
}

}  // namespace korvane
