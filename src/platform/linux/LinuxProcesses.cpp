#include "platform/linux/LinuxProcesses.h"

#include <algorithm>
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

bool isNumber(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(),
                                        [](char digit) { return digit >= '0' && digit <= '9'; });
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

LinuxProcesses::LinuxProcesses(LinuxRunLoop& loop, LinuxBus& bus, std::string processFolder)
    : loop_(loop), bus_(bus), processFolder_(std::move(processFolder)) {
    bus_.join(*this);
}

LinuxProcesses::~LinuxProcesses() { bus_.leave(*this); }

void LinuxProcesses::forEachName(const std::function<bool(std::string_view name)>& visit) {
    std::error_code error;
    for (std::filesystem::directory_iterator it(processFolder_, error), end; !error && it != end;
         it.increment(error)) {
        if (!isNumber(it->path().filename().native())) continue;
        const std::string process = it->path().native();
        const std::optional<std::string> stat = readSmallFile(process + "/stat");
        std::optional<std::string> name = stat ? runningNameOf(*stat) : std::nullopt;
        if (!name || name->empty()) continue;
        if (name->size() == kLongestKernelName) {
            std::string program = programNameOf(readSmallFile(process + "/cmdline").value_or(""));
            if (program.starts_with(*name)) name = std::move(program);
        }
        if (!visit(*name)) return;
    }
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
    processes->loop_.callBack("the end of an application",
                              [processes, name] { processes->tell(name); });
    return 0;
}

}  // namespace korvane
