// Ticks of the daemon over a thousand mounted volumes, on the real parts of a Linux machine below a
// folder that holds a mount table and a device tree of its own (no build machine has as many block
// devices). bench/volumes counts the system calls between the marks and compares the processor's
// time with a peer's.
//   tick_over_volumes FOLDER VOLUMES TICKS
// FOLDER/mnt/v1 … are the volumes' mount points. Prints the processor's time per tick in µs.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/PropertyListFile.h"
#include "core/KorvaneProDaemon.h"
#include "platform/linux/LinuxBundle.h"
#include "platform/linux/LinuxClock.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "platform/linux/LinuxDirectoryWatch.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LinuxHost.h"
#include "platform/linux/LinuxPowerSources.h"
#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSocketStreams.h"
#include "platform/linux/LinuxVolumes.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;

const std::string kSupport = "/Library/Application Support/Korvane Protection";

// What has no part in a tick.
class NoConnection final : public ControlConnection {
  public:
    std::unique_ptr<RegisteredConnection> registerName(ControlTarget& /*target*/) override {
        return nullptr;
    }
};
class NoLog final : public SystemLog {
  public:
    void writeLine(const LogMessageForm& /*form*/, std::string_view /*line*/) override {}
};
class NoDialogs final : public AlertDialogs {
  public:
    std::unique_ptr<AlertDialog> show(const Alert& /*alert*/,
                                      std::unique_ptr<AlertDialog> /*replaced*/) override {
        return nullptr;
    }
};
class NoProcesses final : public Processes {
  public:
    void forEachName(const std::function<bool(std::string_view)>& /*visit*/) override {}
    bool isRunning(const std::string& /*name*/, const std::string& /*argument*/) override {
        return false;
    }
    void setDidTerminateApplication(std::function<void(const std::string&)> /*told*/) override {}
    void watchApplication(std::string_view /*beginning*/, const std::string& /*told*/) override {}
    std::unique_ptr<Task> launch(const std::string& /*path*/,
                                 const std::vector<std::string>& /*arguments*/) override {
        return nullptr;
    }
    std::unique_ptr<Task> launchCopy(const std::string& /*path*/,
                                     const std::vector<std::string>& /*arguments*/,
                                     const std::optional<CopyPlaces>& /*places*/) override {
        return nullptr;
    }
    void setTaskDidTerminate(std::function<void(const Task&)> /*told*/) override {}
};

// A machine whose settled state is that of one that has been up for long.
class SettledClock final : public LinuxClock {
  public:
    using LinuxClock::LinuxClock;
    std::uint64_t microsecondsSinceBoot() override {
        return LinuxClock::microsecondsSinceBoot() + 1'000'000'000;
    }
};

// sda, sdb, … sdz, sdaa, …
std::string diskName(int number) {
    std::string letters;
    for (int rest = number; rest >= 0; rest = rest / 26 - 1) {
        letters.insert(letters.begin(), static_cast<char>('a' + rest % 26));
    }
    return "sd" + letters;
}

void write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream{file} << text;
}

// A disk a volume, as the kernel shows SATA disks.
void describeMachine(const fs::path& root, int volumes) {
    const fs::path sysfs = root / "sys";
    fs::create_directories(sysfs / "class/block");
    fs::create_directories(sysfs / "dev/block");
    std::string table = "1 0 0:1 / / rw - rootfs rootfs rw\n";
    for (int i = 0; i < volumes; ++i) {
        const std::string name = diskName(i);
        const std::string number = std::to_string(8 + i / 256) + ":" + std::to_string(i % 256);
        const std::string host = std::to_string(i);
        const std::string folder = "devices/pci0000:00/0000:00:1f.2/ata" + std::to_string(i + 1) +
                                   "/host" + host + "/target" + host + ":0:0/" + host +
                                   ":0:0:0/block/" + name;
        write(sysfs / folder / "dev", number + "\n");
        write(sysfs / folder / "ro", "0\n");
        write(sysfs / folder / "removable", "0\n");
        write(sysfs / folder / "device/type", "0\n");  // a disk, SCSI's peripheral device type
        write(sysfs / folder / "device/vendor", "ATA     \n");
        write(sysfs / folder / "device/model", "Disk " + host + "\n");
        fs::create_symlink("../../" + folder, sysfs / "class/block" / name);
        fs::create_symlink("../../" + folder, sysfs / "dev/block" / number);
        table += std::to_string(i + 2) + " 1 " + number + " / " + (root / "mnt/v").string() +
                 std::to_string(i + 1) + " rw - ext4 /dev/" + name + " rw\n";
    }
    write(root / "mountinfo", table);
}

struct Parts {
    NoLog log;
    LinuxRunLoop loop{log};
    SettledClock clock{loop};
    LinuxFileSystem files;
    LinuxVolumes volumes;
    LinuxDeviceRegistry registry;
    LinuxPowerSources power;
    NoProcesses processes;
    NoConnection connection;
    LinuxHost host;
    NoDialogs dialogs;
    LinuxBundle bundle;
    LinuxSocketStreams streams{loop, bundle};
    LinuxDirectoryWatch watch{loop, volumes, LinuxTrashPlaces{}};
    KorvaneProDaemon daemon;

    explicit Parts(const std::string& root)
        : files(root),
          volumes(loop, {.memoryFile = "",
                         .linksFolder = root + "/Volumes",
                         .mountTable = root + "/mountinfo",
                         .sysfs = root + "/sys",
                         .udevData = root + "/udev"}),
          registry(loop, {.sysfs = root + "/sys", .udevData = root + "/udev"}),
          daemon({.runLoop = loop,
                  .clock = clock,
                  .fileSystem = files,
                  .volumes = volumes,
                  .deviceRegistry = registry,
                  .powerSources = power,
                  .processes = processes,
                  .systemLog = log,
                  .controlConnection = connection,
                  .host = host,
                  .alertDialogs = dialogs,
                  .bundle = bundle,
                  .socketStreams = streams,
                  .directoryWatch = watch}) {}

    // Runs the daemon for this long, doing something on the way.
    void runFor(milliseconds length, const RunLoop::Callback& begin, const RunLoop::Callback& end) {
        daemon.awakeFromNib();
        const auto first = loop.startTimer(milliseconds(3000), Repeat::once, begin);
        const auto last = loop.startTimer(milliseconds(3000) + length, Repeat::once, [&] {
            end();
            loop.terminate();
        });
        loop.run();
    }
};

double processorMicroseconds() {
    timespec spent{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) * 1e6 + static_cast<double>(spent.tv_nsec) / 1e3;
}

// A system call that fails and does nothing, for who counts them.
void mark(std::string_view text) { (void)!::write(-1, text.data(), text.size()); }

// Nothing is due, so that a tick is a tick and not a check.
bool putOffChecks(const std::string& root, std::size_t count) {
    const std::string path = root + kSupport + "/KorvaneProtection.plist";
    PropertyListFiles files;
    auto list = files.read(path);
    if (!list || !(*list).dictionary()) {
        return false;
    }
    PropertyList* volumes = (*list).dictionary()->find("volumeArray");
    if (!volumes || !volumes->array() || volumes->array()->size() != count) {
        return false;
    }
    for (PropertyList& volume : *volumes->array()) {
        volume.dictionary()->set("executionTimeUsage", 4e9);
    }
    return static_cast<bool>(files.write(path, *list, 0666, Durability::process));
}

int run(const std::string& root, int volumes, int ticks) {
    describeMachine(root, volumes);
    Parts{root}.runFor(
        milliseconds(0), [] {}, [] {});
    if (!putOffChecks(root, static_cast<std::size_t>(volumes))) {
        std::fprintf(stderr, "tick_over_volumes: the daemon does not see every volume\n");
        return 1;
    }
    Parts parts{root};
    std::unique_ptr<Timer> timer;
    double before = 0;
    double after = 0;
    std::size_t readings = 0;
    std::size_t disks = 0;
    // Becoming active asks for a tick a second later.
    const auto tick = [&] {
        mark("tick");
        parts.loop.becomeActive();
    };
    parts.runFor(
        milliseconds(2000) * ticks,
        [&] {
            before = processorMicroseconds();
            readings = parts.volumes.readings();
            disks = parts.registry.disksRead();
            tick();
            timer = parts.loop.startTimer(milliseconds(2000), Repeat::every, tick);
        },
        [&] {
            after = processorMicroseconds();
            mark("end");
        });
    std::printf("%.0f %zu %zu\n", (after - before) / ticks, parts.volumes.readings() - readings,
                parts.registry.disksRead() - disks);
    return 0;
}

}  // namespace
}  // namespace korvane

int main(int argumentCount, char** arguments) {
    if (argumentCount != 4) {
        std::fprintf(stderr, "usage: tick_over_volumes FOLDER VOLUMES TICKS\n");
        return 2;
    }
    return korvane::run(arguments[1], std::atoi(arguments[2]), std::atoi(arguments[3]));
}
