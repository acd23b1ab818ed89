// A volume entry: a typed view over the string-keyed dictionary that stands for one volume in
// `volumeArray`. The only place that knows its keys, its defaults and the text form of its
// statuses. A view owns nothing and must not outlive the dictionary; keys that it does not know are
// left alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "storage/EntryFields.h"

namespace korvane {

// For reading. Its operations have the names of the keys.
class ConstVolumeEntry {
  public:
    explicit ConstVolumeEntry(const Dictionary& fields) : fields_(&fields) {}
    // The view over an element of `volumeArray`; nothing when that is no dictionary.
    [[nodiscard]] static std::optional<ConstVolumeEntry> over(const PropertyList& element);

    // The mount point, the entry's identity; empty when it is no text. Holds until the dictionary
    // next changes.
    [[nodiscard]] const std::string& volumeMountToName() const;
    // Whether free space is to be judged. An entry that does not say so is judged.
    [[nodiscard]] bool volumeOnOff() const;
    [[nodiscard]] bool directoryOnOff() const;
    [[nodiscard]] bool trashOnOff() const;
    [[nodiscard]] bool isCoreStorageEncrypted() const;
    // In whole percent of the volume.
    [[nodiscard]] std::int64_t freeSpaceWarningLevel() const;

    [[nodiscard]] EntryStatus usageStatus() const;
    [[nodiscard]] Time executionTimeUsage() const;
    [[nodiscard]] CheckInterval executionIntervalUsage() const;

    [[nodiscard]] EntryStatus directoryStatus() const;
    [[nodiscard]] Time executionTimeDirectory() const;
    [[nodiscard]] CheckInterval executionIntervalDirectory() const;

  private:
    const Dictionary* fields_;
};

// For reading and changing.
class VolumeEntry : public ConstVolumeEntry {
  public:
    explicit VolumeEntry(Dictionary& fields) : ConstVolumeEntry(fields), fields_(&fields) {}
    [[nodiscard]] static std::optional<VolumeEntry> over(PropertyList& element);

    void setDirectoryOnOff(bool on);
    void setTrashOnOff(bool on);
    void setIsCoreStorageEncrypted(bool encrypted);

    void setUsageStatus(EntryStatus status);
    void setExecutionTimeUsage(Time due);
    void setDirectoryStatus(EntryStatus status);
    void setExecutionTimeDirectory(Time due);

  private:
    Dictionary* fields_;
};

// What the defaults of a new entry depend on.
struct NewVolume {
    std::string mountPoint;
    bool isInternal = false;
    bool isHfs = false;
    bool isCoreStorageEncrypted = false;
};
// The entry of a volume that has not been seen before; its checks fall due 10 seconds from now.
[[nodiscard]] Dictionary newVolumeEntry(const NewVolume& volume, Time now);

}  // namespace korvane
