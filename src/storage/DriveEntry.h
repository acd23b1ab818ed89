// A drive entry: a typed view over the string-keyed dictionary that stands for one drive in
// `driveArray`. Owns nothing and must not outlive the dictionary; keys that it does not know are
// left alone.
#pragma once

#include <optional>
#include <string>

#include "base/Calendar.h"
#include "base/PropertyList.h"
#include "storage/EntryFields.h"

namespace korvane {

// For reading. Its operations have the names of the keys.
class ConstDriveEntry {
  public:
    explicit ConstDriveEntry(const Dictionary& fields) : fields_(&fields) {}
    // The view over an element of `driveArray`; nothing when that is no dictionary.
    [[nodiscard]] static std::optional<ConstDriveEntry> over(const PropertyList& element);

    // Empty when there is none.
    [[nodiscard]] const std::string& driveModel() const;
    [[nodiscard]] const std::string& driveSerial() const;
    // Whether the drive has been seen in the current pass of the inventory.
    [[nodiscard]] bool driveChecked() const;
    [[nodiscard]] bool smartOnOff() const;

    // Whether the last check found the drive at rest and did not ask it.
    [[nodiscard]] bool smartResting() const;

    [[nodiscard]] EntryStatus smartStatus() const;
    [[nodiscard]] Time executionTimeSmart() const;
    [[nodiscard]] CheckInterval executionIntervalSmart() const;

  private:
    const Dictionary* fields_;
};

// For reading and changing.
class DriveEntry : public ConstDriveEntry {
  public:
    explicit DriveEntry(Dictionary& fields) : ConstDriveEntry(fields), fields_(&fields) {}
    [[nodiscard]] static std::optional<DriveEntry> over(PropertyList& element);

    void setDriveChecked(bool isChecked);
    // There is no such key in the entry of a drive that was asked.
    void setSmartResting(bool isResting);
    void setSmartStatus(EntryStatus status);
    void setExecutionTimeSmart(Time due);

  private:
    Dictionary* fields_;
};

// What a drive is known by. One of the two may be absent: such an identity equals no entry's.
struct DriveIdentity {
    std::optional<std::string> model;
    std::optional<std::string> serial;
};
// The entry of a drive that was not there before: checked every hour, the first time in 10 seconds.
[[nodiscard]] Dictionary newDriveEntry(const DriveIdentity& identity, Time now);

}  // namespace korvane
