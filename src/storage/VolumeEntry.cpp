#include "storage/VolumeEntry.h"

#include <chrono>

namespace korvane {

namespace {

constexpr char kMountToName[] = "volumeMountToName";
constexpr char kVolumeOnOff[] = "volumeOnOff";
constexpr char kDirectoryOnOff[] = "directoryOnOff";
constexpr char kTrashOnOff[] = "trashOnOff";
constexpr char kIsCoreStorageEncrypted[] = "isCoreStorageEncrypted";
constexpr char kFreeSpaceWarningLevel[] = "freeSpaceWarningLevel";

// What a new entry is given; the main application offers the same.
constexpr int kDefaultWarningLevelPercent = 15;
constexpr CheckInterval kDefaultUsageInterval{.minutes = 5};
constexpr CheckInterval kDefaultDirectoryInterval{.hours = 4};
// The start-up volume is mounted here.
constexpr char kStartUpMountPoint[] = "/";

}  // namespace

std::optional<ConstVolumeEntry> ConstVolumeEntry::over(const PropertyList& element) {
    const Dictionary* fields = element.dictionary();
    if (!fields) return std::nullopt;
    return ConstVolumeEntry(*fields);
}

const std::string& ConstVolumeEntry::volumeMountToName() const {
    return entryText(*fields_, kMountToName);
}

bool ConstVolumeEntry::volumeOnOff() const {
    const PropertyList* value = fields_->find(kVolumeOnOff);
    return !value || booleanValue(value);
}

bool ConstVolumeEntry::directoryOnOff() const {
    return booleanValue(fields_->find(kDirectoryOnOff));
}

bool ConstVolumeEntry::trashOnOff() const { return booleanValue(fields_->find(kTrashOnOff)); }

bool ConstVolumeEntry::isCoreStorageEncrypted() const {
    return booleanValue(fields_->find(kIsCoreStorageEncrypted));
}

std::int64_t ConstVolumeEntry::freeSpaceWarningLevel() const {
    return integerValue(fields_->find(kFreeSpaceWarningLevel));
}

EntryStatus ConstVolumeEntry::usageStatus() const { return entryStatus(*fields_, kUsageKeys); }

Time ConstVolumeEntry::executionTimeUsage() const { return executionTime(*fields_, kUsageKeys); }

CheckInterval ConstVolumeEntry::executionIntervalUsage() const {
    return executionInterval(*fields_, kUsageKeys);
}

EntryStatus ConstVolumeEntry::directoryStatus() const {
    return entryStatus(*fields_, kDirectoryKeys);
}

Time ConstVolumeEntry::executionTimeDirectory() const {
    return executionTime(*fields_, kDirectoryKeys);
}

CheckInterval ConstVolumeEntry::executionIntervalDirectory() const {
    return executionInterval(*fields_, kDirectoryKeys);
}

std::optional<VolumeEntry> VolumeEntry::over(PropertyList& element) {
    Dictionary* fields = element.dictionary();
    if (!fields) return std::nullopt;
    return VolumeEntry(*fields);
}

void VolumeEntry::setDirectoryOnOff(bool on) { fields_->set(kDirectoryOnOff, on); }

void VolumeEntry::setTrashOnOff(bool on) { fields_->set(kTrashOnOff, on); }

void VolumeEntry::setIsCoreStorageEncrypted(bool encrypted) {
    fields_->set(kIsCoreStorageEncrypted, encrypted);
}

void VolumeEntry::setUsageStatus(EntryStatus status) {
    setEntryStatus(*fields_, kUsageKeys, status);
}

void VolumeEntry::setExecutionTimeUsage(Time due) { setExecutionTime(*fields_, kUsageKeys, due); }

void VolumeEntry::setDirectoryStatus(EntryStatus status) {
    setEntryStatus(*fields_, kDirectoryKeys, status);
}

void VolumeEntry::setExecutionTimeDirectory(Time due) {
    setExecutionTime(*fields_, kDirectoryKeys, due);
}

Dictionary newVolumeEntry(const NewVolume& volume, Time now) {
    Dictionary fields;
    VolumeEntry entry(fields);
    fields.set(kMountToName, volume.mountPoint);
    fields.set(kVolumeOnOff, volume.isInternal);
    entry.setDirectoryOnOff(volume.isInternal && volume.isHfs &&
                            volume.mountPoint == kStartUpMountPoint);
    entry.setIsCoreStorageEncrypted(volume.isCoreStorageEncrypted);
    entry.setTrashOnOff(volume.isHfs && !volume.isCoreStorageEncrypted);
    fields.set(kFreeSpaceWarningLevel, kDefaultWarningLevelPercent);
    entry.setUsageStatus(kStatusNotExamined);
    setExecutionInterval(fields, kUsageKeys, kDefaultUsageInterval);
    entry.setExecutionTimeUsage(now + kFirstCheckDelay);
    entry.setDirectoryStatus(kStatusNotExamined);
    setExecutionInterval(fields, kDirectoryKeys, kDefaultDirectoryInterval);
    entry.setExecutionTimeDirectory(now + kFirstCheckDelay);
    return fields;
}

}  // namespace korvane
