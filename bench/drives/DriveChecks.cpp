// SMART checks of drives, all but what the daemon writes of them: the drive is looked for among all
// drives and asked, as often as it is said.
//   drive_checks FOLDER CHECKS      of the drives that are described in FOLDER, one after another
//   drive_checks / CHECKS           of the machine's own
// Prints the processor's time in µs and the commands sent, both for all checks together, and the
// drives that answered.
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "platform/linux/LinuxDeviceRegistry.h"
#include "storage/DriveEntry.h"
#include "storage/DriveIndex.h"
#include "storage/DriveInventory.h"
#include "storage/SmartStatus.h"

namespace korvane {
namespace {

class NoLog final : public SystemLog {
  public:
    void writeLine(const LogMessageForm& /*form*/, std::string_view /*line*/) override {}
};

class CountedCommands final : public DriveCommands {
  public:
    int open(const std::string& path, UniqueFd& descriptor) override {
        return kernelDriveCommands().open(path, descriptor);
    }
    int control(int descriptor, unsigned long request, void* argument) override {
        ++count;
        return kernelDriveCommands().control(descriptor, request, argument);
    }
    int count = 0;
};

double processorMicroseconds() {
    timespec spent{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) * 1e6 + static_cast<double>(spent.tv_nsec) / 1e3;
}

int run(const std::string& folder, int checks) {
    const std::string root = folder == "/" ? "" : folder;
    NoLog log;
    LinuxRunLoop loop{log};
    CountedCommands commands;
    LinuxDeviceRegistry registry{
        loop,
        {.sysfs = root + "/sys", .udevData = root + "/run/udev/data", .deviceFiles = root + "/dev"},
        commands};
    PropertyListArray drives;
    (void)refreshDriveEntries(registry, DriveProbe::none, drives, Time{});
    if (drives.empty()) return 1;

    DriveIndex index{registry};
    int answered = 0;
    commands.count = 0;
    const double before = processorMicroseconds();
    for (int i = 0; i < checks; ++i) {
        const std::size_t number =
            static_cast<std::size_t>(i) % drives.size() % (kHighestDiskNumber + 1);
        const ConstDriveEntry entry = *ConstDriveEntry::over(drives[number]);
        for (const auto& [ownNumber, drive] :
             index.drivesNamed(entry.driveModel(), entry.driveSerial())) {
            answered += askSmartStatus(registry, drive.service).status == kDriveSuccess ? 1 : 0;
        }
    }
    std::printf("%.0f %d %d\n", processorMicroseconds() - before, commands.count, answered);
    return 0;
}

}  // namespace
}  // namespace korvane

int main(int argumentCount, char** arguments) {
    if (argumentCount != 3) {
        std::fprintf(stderr, "usage: drive_checks FOLDER CHECKS\n");
        return 2;
    }
    return korvane::run(arguments[1], std::atoi(arguments[2]));
}
