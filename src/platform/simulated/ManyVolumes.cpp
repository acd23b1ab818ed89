#include "platform/simulated/ManyVolumes.h"

#include <fmt/format.h>

namespace korvane {

namespace {

constexpr std::uint64_t kSizeBytes = 1'000'000'000'000;

void addDrive(MachineDescription& machine, const std::string& disk) {
    const Dictionary protocol{{"Physical Interconnect", "SATA"},
                              {"Physical Interconnect Location", "Internal"}};
    machine.services.push_back({disk + "-device", "IOBlockStorageServices", "root",
                                Dictionary{{"Protocol Characteristics", protocol},
                                           {"device model", "Castor 1000"},
                                           {"device serial", disk}}});
    machine.services.push_back({disk + "-drive", "IOBlockStorageDevice", disk + "-device",
                                Dictionary{{"SMART Capable", true}}});
    machine.services.push_back(
        {disk, "IOMedia", disk + "-drive", Dictionary{{"BSD Name", disk}, {"Whole", true}}});
    machine.services.push_back(
        {disk + "p1", "IOMedia", disk, Dictionary{{"BSD Name", disk + "p1"}, {"Whole", false}}});
}

}  // namespace

MachineDescription describeManyVolumes(int count) {
    MachineDescription machine;
    machine.services.push_back({"root", "IOPlatformExpertDevice", "", {}});
    for (int number = 0; number < count; ++number) {
        const std::string disk = fmt::format("nvme{}n1", number);
        addDrive(machine, disk);
        MountDescription mount;
        mount.path = number == 0 ? "/" : fmt::format("/Volumes/Volume {}", number);
        mount.device = "/dev/" + disk + "p1";
        mount.type = "ext4";
        mount.sizeBytes = kSizeBytes;
        mount.freeBytes = kSizeBytes / 2;
        mount.isUnmountable = number != 0;
        machine.mounts.push_back(std::move(mount));
    }
    return machine;
}

}  // namespace korvane
