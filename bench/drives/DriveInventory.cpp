// Passes of the drive inventory, between marks for who counts system calls:
//   drive_inventory --machine    the daemon's pass over the machine's disks: the first, one with
//                                nothing changed, one after an event about one disk; prints how
//                                many disks each has read
//   drive_inventory --described FOLDER COUNT   the same over so many ATA disks that are described
//                                              in FOLDER
//   drive_inventory --libudev    the block devices and their properties, as libudev gives them
//   drive_inventory --by-hand    the same questions put to sysfs by hand, as few as can be
//   drive_inventory --simulated COUNT   prints the processor's time of a pass in µs
#include "storage/DriveInventory.h"

#include <dirent.h>
#include <fcntl.h>
#include <libudev.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "DescribedDisks.h"
#include "platform/linux/LinuxDeviceRegistry.h"
#include "platform/simulated/SimulatedMachine.h"

namespace korvane {
namespace {

class NoLog final : public SystemLog {
  public:
    void writeLine(const LogMessageForm& /*form*/, std::string_view /*line*/) override {}
};

// A system call that fails and does nothing, for who counts them.
void mark(std::string_view text) { (void)!::write(-1, text.data(), text.size()); }

void pass(DeviceRegistry& registry, PropertyListArray& drives, const char* name) {
    mark(name);
    (void)refreshDriveEntries(registry, DriveProbe::none, drives, Time{});
}

int passesOver(const std::string& root) {
    NoLog log;
    LinuxRunLoop loop{log};
    LinuxDeviceRegistry registry{loop,
                                 {.sysfs = root + "/sys", .udevData = root + "/run/udev/data"}};
    PropertyListArray drives;
    pass(registry, drives, "first");
    const std::size_t all = registry.disksRead();
    pass(registry, drives, "unchanged");
    const std::size_t again = registry.disksRead() - all;
    const auto disk = registry.diskPath(0);
    registry.deviceChanged(disk ? disk->substr(5) : "");
    pass(registry, drives, "event");
    mark("end");
    std::printf("%zu %zu %zu\n", all, again, registry.disksRead() - all - again);
    return 0;
}

int libudev() {
    udev* const context = udev_new();
    mark("first");
    udev_enumerate* const found = udev_enumerate_new(context);
    (void)udev_enumerate_add_match_subsystem(found, "block");
    (void)udev_enumerate_scan_devices(found);
    std::size_t properties = 0;
    udev_list_entry* entry = nullptr;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(found)) {
        udev_device* const device =
            udev_device_new_from_syspath(context, udev_list_entry_get_name(entry));
        if (device == nullptr) continue;
        udev_list_entry* property = nullptr;
        udev_list_entry_foreach(property, udev_device_get_properties_list_entry(device)) {
            ++properties;
        }
        (void)udev_device_get_sysattr_value(device, "removable");
        (void)udev_device_unref(device);
    }
    mark("end");
    (void)udev_enumerate_unref(found);
    (void)udev_unref(context);
    return properties > 0 ? 0 : 1;
}

int byHand() {
    const auto read = [](const std::string& path) {
        char bytes[4096];
        const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file < 0) return std::string{};
        const ssize_t got = ::read(file, bytes, sizeof bytes);
        (void)::close(file);
        return got > 0 ? std::string(bytes, static_cast<std::size_t>(got)) : std::string{};
    };
    mark("first");
    DIR* const folder = ::opendir("/sys/class/block");
    if (folder == nullptr) return 1;
    while (const dirent* entry = ::readdir(folder)) {
        const std::string path = std::string{"/sys/class/block/"} + entry->d_name;
        char target[4096];
        if (::readlink(path.c_str(), target, sizeof target) < 0) continue;
        const std::string number = read(path + "/dev");
        (void)read("/run/udev/data/b" + number.substr(0, number.find('\n')));
        for (const char* attribute :
             {"/removable", "/device/vendor", "/device/model", "/device/vpd_pg89"}) {
            (void)read(path + attribute);
        }
    }
    mark("end");
    (void)::closedir(folder);
    return 0;
}

double processorMicroseconds() {
    timespec spent{};
    (void)clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &spent);
    return static_cast<double>(spent.tv_sec) * 1e6 + static_cast<double>(spent.tv_nsec) / 1e3;
}

int simulated(int count) {
    constexpr int kPasses = 200;
    MachineDescription description;
    for (int i = 0; i < count; ++i) {
        const std::string name = "disk" + std::to_string(i);
        description.services.push_back(
            {name + " device", "IOService", "",
             Dictionary{{"device model", "Bench Disk"}, {"device serial", name}}});
        description.services.push_back({name + " drive", "IOBlockStorageDevice", name + " device",
                                        Dictionary{{"SMART Capable", true}}});
        description.services.push_back(
            {name, "IOMedia", name + " drive", Dictionary{{"BSD Name", name}, {"Whole", true}}});
    }
    SimulatedMachine machine(description, 1);
    PropertyListArray drives;
    pass(machine.deviceRegistry, drives, "first");
    const double before = processorMicroseconds();
    for (int i = 0; i < kPasses; ++i) pass(machine.deviceRegistry, drives, "pass");
    std::printf("%.1f\n", (processorMicroseconds() - before) / kPasses);
    return drives.size() == static_cast<std::size_t>(count) ? 0 : 1;
}

}  // namespace
}  // namespace korvane

int main(int argumentCount, char** arguments) {
    const std::string_view what = argumentCount > 1 ? arguments[1] : "";
    if (what == "--libudev") return korvane::libudev();
    if (what == "--by-hand") return korvane::byHand();
    if (what == "--simulated" && argumentCount == 3) {
        return korvane::simulated(std::atoi(arguments[2]));
    }
    if (what == "--described" && argumentCount == 4) {
        korvane::bench::describeDisks(arguments[2], std::atoi(arguments[3]));
        return korvane::passesOver(arguments[2]);
    }
    return what == "--machine" ? korvane::passesOver("") : 2;
}
