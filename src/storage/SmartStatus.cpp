#include "storage/SmartStatus.h"

#include <cstddef>

namespace korvane {

namespace {

// ATA8-ACS 7.16.7.37 and .40: words of the description whose lowest bit is about SMART.
constexpr std::size_t kSupportedWord = 82;
constexpr std::size_t kEnabledWord = 85;

bool hasLowestBit(const IdentifyData& data, std::size_t word) { return (data[2 * word] & 1U) != 0; }

}  // namespace

DriveStatus enable_smart(SmartInterface& smart) {
    const DriveStatus status = smart.enableOperations();
    return status == kDriveSuccess ? smart.enableAutosave() : status;
}

DriveStatus checkSMART(SmartInterface& smart) {
    const IdentifyAnswer identified = smart.identify();
    if (identified.status != kDriveSuccess) return identified.status;
    return hasLowestBit(identified.data, kSupportedWord) &&
                   hasLowestBit(identified.data, kEnabledWord)
               ? kDriveSuccess
               : kSmartIsOff;
}

SmartStatusAnswer askSmartStatus(DeviceRegistry& registry, ServiceId drive) {
    const SmartOpening opened = registry.openSmart(drive);
    if (!opened.smart) return {.status = opened.status};
    if (const DriveStatus status = enable_smart(*opened.smart)) return {.status = status};
    if (const DriveStatus status = checkSMART(*opened.smart)) return {.status = status};
    return opened.smart->returnStatus();
}

}  // namespace korvane
