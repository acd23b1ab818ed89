// What a mount costs the daemon until its inventories are finished, beside one bare reading of the
// tables that they are made from. On the real machine, in a mount namespace of its own whose
// support folder nobody else sees; both take turns.
//   mount_to_inventory IMAGE FOLDER ROUNDS
// IMAGE is a file system, FOLDER where it is mounted again and again. Prints the medians of the
// processor's time in µs: the daemon's, the bare reading's.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/KorvaneProDaemon.h"
#include "platform/linux/LinuxMachine.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

class NoLog final : public SystemLog {
  public:
    void writeLine(const LogMessageForm& /*form*/, std::string_view /*line*/) override {}
};

double processorMicroseconds() {
    timespec spent{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) * 1e6 + static_cast<double>(spent.tv_nsec) / 1e3;
}

std::size_t bytesIn(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return 0;
    std::array<char, 16384> block;
    std::size_t bytes = 0;
    for (ssize_t length = 0; (length = ::read(file, block.data(), block.size())) > 0;) {
        bytes += static_cast<std::size_t>(length);
    }
    ::close(file);
    return bytes;
}

// Every byte of the mount table, and of what sysfs and the udev database say of each block device.
std::size_t readTables() {
    std::size_t bytes = bytesIn("/proc/self/mountinfo");
    std::error_code error;
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/class/block", error)) {
        const std::string folder = device.path().string();
        for (const char* const name : {"dev", "uevent", "ro", "removable", "size"}) {
            bytes += bytesIn(folder + "/" + name);
        }
        bytes += bytesIn("/run/udev/data/" + device.path().filename().string());
        (void)fs::canonical(device.path(), error);  // what it is part of
    }
    return bytes;
}

// Another process, so that the mount itself is not counted.
bool runProgram(const std::string& command) { return std::system(command.c_str()) == 0; }

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
}

class Rounds {
  public:
    Rounds(RunLoop& loop, std::string image, std::string folder, int rounds)
        : loop_(loop), image_(std::move(image)), folder_(std::move(folder)), left_(rounds) {}

    // Begins when the daemon has settled: its start, and the tick that follows it, are over.
    void begin() {
        next(milliseconds(3000), [this] { mount(); });
    }
    [[nodiscard]] bool print() const {
        if (daemon_.empty() || failed_) return false;
        std::printf("%.0f %.0f\n", median(daemon_), median(bare_));
        return true;
    }

  private:
    void mount() {
        if (left_-- == 0) {
            loop_.terminate();
            return;
        }
        const double began = processorMicroseconds();
        (void)readTables();
        bare_.push_back(processorMicroseconds() - began);
        if (!runProgram("mount -o loop '" + image_ + "' '" + folder_ + "'")) {
            failed_ = true;
            loop_.terminate();
            return;
        }
        before_ = processorMicroseconds();
        // Past the pause in which a burst of mounts gathers, before the tick a second later.
        next(milliseconds(600), [this] {
            daemon_.push_back(processorMicroseconds() - before_);
            (void)runProgram("umount '" + folder_ + "'");
            next(milliseconds(2000), [this] { mount(); });
        });
    }
    void next(milliseconds delay, const RunLoop::Callback& work) {
        // The one that runs is let go when the next is made.
        timers_[++turn_ % timers_.size()] = loop_.startTimer(delay, Repeat::once, work);
    }

    RunLoop& loop_;
    std::string image_;
    std::string folder_;
    int left_;
    bool failed_ = false;
    double before_ = 0;
    std::size_t turn_ = 0;
    std::array<std::unique_ptr<Timer>, 2> timers_;
    std::vector<double> daemon_;
    std::vector<double> bare_;
};

int run(const std::string& image, const std::string& folder, int count) {
    NoLog log;
    LinuxMachine linuxMachine(log, LinuxVolumesPlaces{}, LinuxTrashPlaces{});
    const Machine machine = linuxMachine.machine();
    KorvaneProDaemon daemon(machine);
    daemon.awakeFromNib();
    Rounds rounds(machine.runLoop, image, folder, count);
    rounds.begin();
    machine.runLoop.run();
    return rounds.print() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace korvane

int main(int argumentCount, char** arguments) {
    if (argumentCount != 4) {
        std::fprintf(stderr, "usage: mount_to_inventory IMAGE FOLDER ROUNDS\n");
        return 2;
    }
    return korvane::run(arguments[1], arguments[2], std::atoi(arguments[3]));
}
