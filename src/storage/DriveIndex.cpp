#include "storage/DriveIndex.h"

#include <functional>
#include <map>
#include <string>
#include <utility>

namespace korvane {

namespace {

std::map<std::string, unsigned, std::less<>> numbersOfPaths(DeviceRegistry& registry) {
    std::map<std::string, unsigned, std::less<>> numbers;
    for (unsigned number = 0; number <= kHighestDiskNumber; ++number) {
        if (auto path = registry.diskPath(number)) numbers.emplace(*std::move(path), number);
    }
    return numbers;
}

std::vector<NumberedDrive> numberedDrives(DeviceRegistry& registry) {
    std::vector<NumberedDrive> drives;
    const auto numbers = numbersOfPaths(registry);
    const auto services = registry.services(kDriveClass);
    for (const ServiceId service : services.value_or(std::vector<ServiceId>{})) {
        const auto numbered = numbers.find(devicePathBelow(registry, service));
        if (numbered == numbers.end()) continue;
        const auto properties = registry.properties(service);
        if (!properties || !isSmartCapable(*properties)) continue;
        drives.push_back({.number = numbered->second, .drive = checkedDrive(registry, service)});
    }
    return drives;
}

}  // namespace

std::vector<NumberedDrive> DriveIndex::drivesNamed(std::string_view model,
                                                   std::string_view serial) {
    refresh();
    std::vector<NumberedDrive> named;
    for (const NumberedDrive& each : drives_) {
        // In which drives differ most comes first.
        const DriveIdentity& identity = each.drive.identity;
        if (identity.serial == serial && identity.model == model) named.push_back(each);
    }
    return named;
}

void DriveIndex::refresh() {
    const std::optional<std::uint64_t> generation = registry_.generation();
    if (generation && generation == generation_) return;
    generation_ = generation;
    drives_ = generation ? numberedDrives(registry_) : std::vector<NumberedDrive>{};
}

}  // namespace korvane
