// A drive entry: a typed view over the string-keyed dictionary that stands for one drive in
// `driveArray`. Owns nothing and must not outlive the dictionary; keys that it does not know are
// left alone.
#pragma once

#include <optional>

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

    [[nodiscard]] bool smartOnOff() const;

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

    void setSmartStatus(EntryStatus status);

  private:
    Dictionary* fields_;
};

}  // namespace korvane
