#include "storage/TrashEntry.h"

#include <fmt/format.h>

#include <chrono>
#include <string_view>

#include "storage/EntryFields.h"

namespace korvane {

namespace {

constexpr char kItemName[] = "itemName";
constexpr char kNodeId[] = "nodeID";
constexpr char kVolRefNum[] = "volRefNum";
constexpr char kDirPath[] = "dirPath";
constexpr char kVolumeName[] = "volumeName";
constexpr char kAddDate[] = "addDate";
constexpr char kRemoved[] = "Removed";
constexpr char kDeleted[] = "Deleted";

PropertyListDate dateOf(Time time) { return std::chrono::floor<std::chrono::seconds>(time); }

std::optional<Time> dateIn(const Dictionary& fields, const char* key) {
    const PropertyList* const value = fields.find(key);
    if (!value || !value->date()) return std::nullopt;
    return Time(*value->date());
}

// Read as far as it is a number; node numbers use all 64 bits.
std::uint64_t unsignedValue(std::string_view text) {
    std::uint64_t value = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9') break;
        value = value * 10 + static_cast<std::uint64_t>(digit - '0');
    }
    return value;
}

}  // namespace

std::string trashEntryKey(const TrashItem& item) {
    return item.volumeName.value_or(item.itemName) + '_' + std::to_string(item.nodeId);
}

std::string endedTrashEntryKey(const std::string& key, Time addDate) {
    const auto day = std::chrono::floor<std::chrono::days>(addDate);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss time(dateOf(addDate) - day);
    return fmt::format("{}_{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", key, int{date.year()},
                       unsigned{date.month()}, unsigned{date.day()}, time.hours().count(),
                       time.minutes().count(), time.seconds().count());
}

Dictionary newTrashEntry(const TrashItem& item, float totalSize, Time now) {
    Dictionary record{{kItemName, item.itemName},
                      {kNodeId, std::to_string(item.nodeId)},
                      {kVolRefNum, std::to_string(item.volRefNum)},
                      {kDirPath, item.dirPath},
                      {kTrashTotalSize, double{totalSize}},
                      {kAddDate, dateOf(now)}};
    if (item.volumeName) record.set(kVolumeName, *item.volumeName);
    return record;
}

std::optional<ConstTrashEntry> ConstTrashEntry::over(const PropertyList& value) {
    const Dictionary* const fields = value.dictionary();
    if (!fields) return std::nullopt;
    return ConstTrashEntry(*fields);
}

const std::string& ConstTrashEntry::itemName() const { return entryText(*fields_, kItemName); }

const std::string& ConstTrashEntry::dirPath() const { return entryText(*fields_, kDirPath); }

std::uint64_t ConstTrashEntry::nodeId() const {
    return unsignedValue(entryText(*fields_, kNodeId));
}

std::int16_t ConstTrashEntry::volRefNum() const {
    return static_cast<std::int16_t>(integerValue(fields_->find(kVolRefNum)));
}

std::string ConstTrashEntry::volumeName() const { return entryText(*fields_, kVolumeName); }

double ConstTrashEntry::totalSize() const { return doubleValue(fields_->find(kTrashTotalSize)); }

std::optional<Time> ConstTrashEntry::addDate() const { return dateIn(*fields_, kAddDate); }

std::optional<Time> ConstTrashEntry::removedDate() const { return dateIn(*fields_, kRemoved); }

std::optional<Time> ConstTrashEntry::deletedDate() const { return dateIn(*fields_, kDeleted); }

// By the keys alone: whatever stands under them, the item has left.
TrashState ConstTrashEntry::state() const {
    if (fields_->contains(kDeleted)) return TrashState::deleted;
    if (fields_->contains(kRemoved)) return TrashState::removed;
    return TrashState::inTrash;
}

std::optional<TrashEntry> TrashEntry::over(PropertyList& value) {
    Dictionary* const fields = value.dictionary();
    if (!fields) return std::nullopt;
    return TrashEntry(*fields);
}

void TrashEntry::setAddDate(Time date) { fields_->set(kAddDate, dateOf(date)); }

void TrashEntry::setRemoved(Time date) { fields_->set(kRemoved, dateOf(date)); }

void TrashEntry::setDeleted(Time date) { fields_->set(kDeleted, dateOf(date)); }

}  // namespace korvane
