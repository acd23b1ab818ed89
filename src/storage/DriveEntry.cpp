#include "storage/DriveEntry.h"

#include <chrono>

namespace korvane {

namespace {

constexpr char kDriveModel[] = "driveModel";
constexpr char kDriveSerial[] = "driveSerial";
constexpr char kDriveChecked[] = "driveChecked";
constexpr char kSmartOnOff[] = "smartOnOff";
constexpr char kSmartResting[] = "smartResting";

constexpr CheckInterval kDefaultInterval{.hours = 1};

}  // namespace

std::optional<ConstDriveEntry> ConstDriveEntry::over(const PropertyList& element) {
    const Dictionary* fields = element.dictionary();
    if (!fields) return std::nullopt;
    return ConstDriveEntry(*fields);
}

const std::string& ConstDriveEntry::driveModel() const { return entryText(*fields_, kDriveModel); }

const std::string& ConstDriveEntry::driveSerial() const {
    return entryText(*fields_, kDriveSerial);
}

bool ConstDriveEntry::driveChecked() const { return booleanValue(fields_->find(kDriveChecked)); }

bool ConstDriveEntry::smartOnOff() const { return booleanValue(fields_->find(kSmartOnOff)); }

bool ConstDriveEntry::smartResting() const { return booleanValue(fields_->find(kSmartResting)); }

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

void DriveEntry::setDriveChecked(bool isChecked) { fields_->set(kDriveChecked, isChecked); }

void DriveEntry::setSmartResting(bool isResting) {
    if (isResting) {
        fields_->set(kSmartResting, true);
    } else {
        (void)fields_->remove(kSmartResting);
    }
}

void DriveEntry::setSmartStatus(EntryStatus status) {
    setEntryStatus(*fields_, kSmartKeys, status);
}

void DriveEntry::setExecutionTimeSmart(Time due) { setExecutionTime(*fields_, kSmartKeys, due); }

Dictionary newDriveEntry(const DriveIdentity& identity, Time now) {
    Dictionary fields{{kDriveChecked, true}, {kSmartOnOff, true}};
    if (identity.model) fields.set(kDriveModel, *identity.model);
    if (identity.serial) fields.set(kDriveSerial, *identity.serial);
    setEntryStatus(fields, kSmartKeys, kStatusNotExamined);
    setExecutionInterval(fields, kSmartKeys, kDefaultInterval);
    setExecutionTime(fields, kSmartKeys, now + kFirstCheckDelay);
    return fields;
}

}  // namespace korvane
