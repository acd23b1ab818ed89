#include "Guest.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <vector>

#include "base/PropertyListFile.h"

namespace korvane::guest {

namespace {

using std::chrono::steady_clock;

// Everything here is many times slower than on a real machine, and the build machine may be busy.
constexpr std::chrono::seconds kPatience{40};
constexpr std::chrono::milliseconds kBetweenLooks{100};

const std::string kDaemon = KORVANE_BUILD_DIR "/KorvaneProDaemon";
const std::string kModules = KORVANE_BUILD_DIR "/hardware/kernel/modules/";
const std::string kDaemonLog = "/results/daemon.log";

std::string fillerOf(const std::string& volume) { return volume + "/filler"; }

// For the processes started from now on the machine seems to have been up for longer.
bool makeMachineSeemLongUp() {
    constexpr char kLonger[] = "boottime 1000 0\n";
    if (unshare(CLONE_NEWTIME) != 0) {
        return false;
    }
    const int offsets = open("/proc/self/timens_offsets", O_WRONLY | O_CLOEXEC);
    const bool done =
        offsets >= 0 && write(offsets, kLonger, sizeof kLonger - 1) == sizeof kLonger - 1;
    (void)close(offsets);
    return done;
}

}  // namespace

void loadModule(const std::string& name) {
    std::ifstream dependencies{kModules + "modules.dep"};
    for (std::string line; std::getline(dependencies, line);) {
        const std::size_t colon = line.find(':');
        if (!line.substr(0, colon).ends_with("/" + name + ".ko")) {
            continue;
        }
        line.erase(colon, 1);
        std::istringstream words{line};
        std::vector<std::string> files{std::istream_iterator<std::string>{words}, {}};
        std::ranges::reverse(files);  // what is needed stands behind what needs it
        for (const std::string& file : files) {
            const int module = open((kModules + file).c_str(), O_RDONLY | O_CLOEXEC);
            ASSERT_GE(module, 0) << file;
            const bool loaded = syscall(SYS_finit_module, module, "", 0) == 0 || errno == EEXIST;
            EXPECT_TRUE(loaded) << file << ": " << std::strerror(errno);
            (void)close(module);
        }
        return;
    }
    FAIL() << "the kernel has no module " << name;
}

std::string diskOf(const std::string& serial) {
    namespace fs = std::filesystem;
    for (const auto& disk : fs::directory_iterator("/sys/block")) {
        // The number stands with the disk, its device or, of a USB device, further above.
        for (fs::path folder = fs::canonical(disk.path()); folder != "/sys/devices";
             folder = folder.parent_path()) {
            for (const char* file : {"serial", "device/serial", "device/vpd_pg80"}) {
                std::ifstream attribute{folder / file};
                const std::string text{std::istreambuf_iterator<char>(attribute), {}};
                if (text.find(serial) != std::string::npos) {
                    return "/dev/" + disk.path().filename().string();
                }
            }
        }
    }
    return {};
}

void mountDevice(const std::string& device, const std::string& type, const std::string& path,
                 unsigned long flags) {
    std::filesystem::create_directories(path);
    ASSERT_EQ(mount(device.c_str(), path.c_str(), type.c_str(), flags, nullptr), 0)
        << device << " at " << path << ": " << std::strerror(errno);
}

void unmount(const std::string& path) {
    ASSERT_EQ(umount2(path.c_str(), 0), 0) << path << ": " << std::strerror(errno);
}

// Not by system(3), whose way to start a process a time namespace does not allow.
void run(const std::string& command) {
    const pid_t child = fork();
    if (child == 0) {
        (void)execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
    int status = -1;
    (void)waitpid(child, &status, 0);
    ASSERT_EQ(status, 0) << command;
}

void askEmulator(const std::string& command) {
    static int asked = 0;
    const std::string file = "/results/" + std::to_string(++asked);
    std::ofstream(file + ".ask") << command;
    ASSERT_TRUE(becomes([&] { return std::filesystem::exists(file + ".done"); })) << command;
    std::ifstream answer(file + ".done");
    const std::string text{std::istreambuf_iterator<char>(answer), {}};
    ASSERT_EQ(text.find("error"), std::string::npos) << command << ": " << text;
}

void fill(const std::string& volume, int percent) {
    struct statvfs space {};
    ASSERT_EQ(statvfs(volume.c_str(), &space), 0);
    const auto toStayFree =
        static_cast<off_t>(space.f_blocks * space.f_frsize / 100) * (100 - percent);
    const auto size = static_cast<off_t>(space.f_bavail * space.f_frsize) - toStayFree;
    ASSERT_GT(size, 0) << volume << " is fuller than that";
    const int file = open(fillerOf(volume).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    EXPECT_EQ(posix_fallocate(file, 0, size), 0);
    (void)close(file);
}

void emptyAgain(const std::string& volume) { EXPECT_EQ(unlink(fillerOf(volume).c_str()), 0); }

std::optional<Dictionary> readDictionary(const std::string& path) {
    PropertyListFiles files;
    const auto list = files.read(path);
    const Dictionary* dictionary = list ? (*list).dictionary() : nullptr;
    return dictionary ? std::optional{*dictionary} : std::nullopt;
}

void editPreferences(const std::function<void(Dictionary&)>& edit) {
    auto preferences = readDictionary(kPreferences);
    ASSERT_TRUE(preferences);
    edit(*preferences);
    PropertyListFiles files;
    const auto written = files.write(kPreferences, *preferences, 0666, Durability::process);
    ASSERT_TRUE(written) << written.error().message;
}

std::optional<Dictionary> volumeEntry(const std::string& mountPoint) {
    const auto preferences = readDictionary(kPreferences);
    const PropertyList* volumes = preferences ? preferences->find("volumeArray") : nullptr;
    if (volumes == nullptr || volumes->array() == nullptr) {
        return std::nullopt;
    }
    for (const PropertyList& volume : *volumes->array()) {
        const Dictionary* entry = volume.dictionary();
        if (entry && stringValue(entry->find("volumeMountToName")) == mountPoint) {
            return *entry;
        }
    }
    return std::nullopt;
}

std::string usageStatus(const std::string& mountPoint) {
    const auto entry = volumeEntry(mountPoint);
    return entry ? stringValue(entry->find("usageStatus")) : "no entry";
}

PropertyListArray usageHistory(const std::string& displayName) {
    const auto log = readDictionary(kSupportFolder + "/" + displayName + "/Volume Usage.plist");
    const PropertyList* entries = log ? log->find("logEntries") : nullptr;
    return entries && entries->array() ? *entries->array() : PropertyListArray{};
}

std::string lastResult(const std::string& displayName) {
    const PropertyListArray history = usageHistory(displayName);
    const Dictionary* last = history.empty() ? nullptr : history.back().dictionary();
    return last ? stringValue(last->find("result")) : "no entry";
}

void keepSupportFolder() {
    std::error_code ignored;  // there may be none
    std::filesystem::copy(
        kSupportFolder,
        std::string{"/results/"} + ::testing::UnitTest::GetInstance()->current_test_info()->name(),
        std::filesystem::copy_options::recursive, ignored);
}

bool becomes(const std::function<bool()>& condition) {
    for (const auto end = steady_clock::now() + kPatience; steady_clock::now() < end;) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(kBetweenLooks);
    }
    return condition();
}

int linesLogged(const std::string& text) {
    std::ifstream log{kDaemonLog};
    int count = 0;
    for (std::string line; std::getline(log, line);) {
        count += line.find(text) != std::string::npos ? 1 : 0;
    }
    return count;
}

void ClockSteppedBack::step(std::chrono::seconds by) {
    timespec now{};
    EXPECT_EQ(::clock_gettime(CLOCK_REALTIME, &now), 0);
    now.tv_sec += by.count();
    EXPECT_EQ(::clock_settime(CLOCK_REALTIME, &now), 0);
}

RunningDaemon::RunningDaemon() {
    static const bool isLongUp = makeMachineSeemLongUp();
    EXPECT_TRUE(isLongUp) << std::strerror(errno);
    process_ = fork();
    if (process_ == 0) {
        const int log = open(kDaemonLog.c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0644);
        (void)dup2(log, STDOUT_FILENO);
        (void)dup2(log, STDERR_FILENO);
        (void)execl(kDaemon.c_str(), kDaemon.c_str(), nullptr);
        _exit(127);
    }
}

RunningDaemon::~RunningDaemon() { (void)stop(); }

void RunningDaemon::wake() const { EXPECT_EQ(kill(process_, SIGHUP), 0); }

std::optional<int> RunningDaemon::stop() {
    if (process_ <= 0) {
        return std::nullopt;
    }
    int status = 0;
    (void)kill(process_, SIGTERM);
    const bool ended = becomes([&] { return waitpid(process_, &status, WNOHANG) == process_; });
    if (!ended) {
        (void)kill(process_, SIGKILL);
        (void)waitpid(process_, &status, 0);
    }
    process_ = -1;
    return ended && WIFEXITED(status) ? std::optional{WEXITSTATUS(status)} : std::nullopt;
}

}  // namespace korvane::guest
