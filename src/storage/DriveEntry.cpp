#include "storage/DriveEntry.h"

namespace korvane {

std::optional<ConstDriveEntry> ConstDriveEntry::over(const PropertyList& element) {
    const Dictionary* fields = element.dictionary();
    if (!fields) return std::nullopt;
    return ConstDriveEntry(*fields);
}

bool ConstDriveEntry::smartOnOff() const { return booleanValue(fields_->find("smartOnOff")); }

EntryStatus ConstDriveEntry::smartStatus() const { return entryStatus(*fields_, kSmartKeys); }

Time ConstDriveEntry::executionTimeSmart() const { return executionTime(*fields_, kSmartKeys); }

CheckInterval ConstDriveEntry::executionIntervalSmart() const {
    return executionInterval(*fields_, kSmartKeys);
}

std::optional<DriveEntry> DriveEntry::over(PropertyList& element) {
    Dictionary* fields = element.dictionary();
    if (!fields) return std::nullopt;
    return DriveEntry(*fields);
}

void DriveEntry::setSmartStatus(EntryStatus status) {
    setEntryStatus(*fields_, kSmartKeys, status);
}

}  // namespace korvane
