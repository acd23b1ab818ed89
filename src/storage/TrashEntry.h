// A record of the trash usage file: a typed view over the string-keyed dictionary that stands for
// one item that was put into a trash folder, and the only place that knows its keys. A view owns
// nothing and must not outlive the dictionary; keys that it does not know are left alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "base/Calendar.h"
#include "base/PropertyList.h"

namespace korvane {

// In the support folder: a dictionary with a record for each item, by trashEntryKey().
inline constexpr char kTrashUsageFile[] = "Trash Usage.plist";
// At the top of that dictionary, beside the records, stands one number that another program keeps.
inline constexpr char kTrashTotalSize[] = "totalSize";

// An item that was seen in a trash folder; name and path in the form of platform/DirectoryWatch.h.
struct TrashItem {
    std::string itemName;
    std::uint64_t nodeId = 0;
    std::int16_t volRefNum = 0;
    std::string dirPath;                    // the trash folder
    std::optional<std::string> volumeName;  // nothing when it cannot be told
};
// The volume's name, or the item's where that is not known, and the node: "Data_1234".
[[nodiscard]] std::string trashEntryKey(const TrashItem& item);
// The key of a record whose item is gone, once another item has its number: "Data_1234" and the
// moment at which it came, "Data_1234_2026-03-02T08:00:00Z".
[[nodiscard]] std::string endedTrashEntryKey(const std::string& key, Time addDate);
// A new record of an item seen now. `totalSize` is that of the file.
[[nodiscard]] Dictionary newTrashEntry(const TrashItem& item, float totalSize, Time now);

enum class TrashState {
    inTrash,  // as far as was seen
    removed,  // it was put back, or moved out of the trash
    deleted   // it exists no longer under its name
};

// For reading. Its operations have the names of the keys; what is missing is empty or 0.
class ConstTrashEntry {
  public:
    explicit ConstTrashEntry(const Dictionary& fields) : fields_(&fields) {}
    // The view over a value of the usage file; nothing when that is no dictionary.
    [[nodiscard]] static std::optional<ConstTrashEntry> over(const PropertyList& value);

    // These two hold until the dictionary next changes.
    [[nodiscard]] const std::string& itemName() const;
    [[nodiscard]] const std::string& dirPath() const;
    [[nodiscard]] std::uint64_t nodeId() const;  // all 64 bits of the inode number
    [[nodiscard]] std::int16_t volRefNum() const;
    [[nodiscard]] std::string volumeName() const;
    [[nodiscard]] double totalSize() const;
    // When it was first seen in the trash, and when it was seen to have left it.
    [[nodiscard]] std::optional<Time> addDate() const;
    [[nodiscard]] std::optional<Time> removedDate() const;
    [[nodiscard]] std::optional<Time> deletedDate() const;
    // "Deleted" counts more than "Removed" where another program has written both.
    [[nodiscard]] TrashState state() const;

  private:
    const Dictionary* fields_;
};

// For reading and changing.
class TrashEntry : public ConstTrashEntry {
  public:
    explicit TrashEntry(Dictionary& fields) : ConstTrashEntry(fields), fields_(&fields) {}
    [[nodiscard]] static std::optional<TrashEntry> over(PropertyList& value);

    void setAddDate(Time date);
    void setRemoved(Time date);
    void setDeleted(Time date);

  private:
    Dictionary* fields_;
};

}  // namespace korvane
