#include "KorvaneProDataRecovery/ResultRecords.h"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

namespace korvane {

namespace {

// The layout of docs/trash-records.md: byte offsets, numbers in the machine's own order.
constexpr std::uint16_t kVersion = 1;
constexpr std::size_t kVersionAt = 4;
constexpr std::size_t kFlagsAt = 6;
constexpr std::size_t kNodeAt = 8;
constexpr std::size_t kParentAt = 16;
constexpr std::size_t kTrashNodeAt = 24;
constexpr std::size_t kVolumeIdAt = 32;
constexpr std::size_t kModeAt = 40;
constexpr std::size_t kUserIdAt = 44;
constexpr std::size_t kGroupIdAt = 48;
constexpr std::size_t kLinkCountAt = 52;
constexpr std::size_t kSizeAt = 56;
constexpr std::size_t kModifiedAt = 64;
constexpr std::size_t kChangedAt = 72;
constexpr std::size_t kBornAt = 80;
constexpr std::size_t kModifiedNanosecondsAt = 88;
constexpr std::size_t kSequenceAt = 92;
constexpr std::size_t kCountAt = 96;
constexpr std::size_t kExtentCountAt = 100;
constexpr std::size_t kExtentsHereAt = 104;
constexpr std::size_t kTextHereAt = 106;
constexpr std::size_t kTextLengthAt = 108;
constexpr std::size_t kChecksumAt = 112;
constexpr std::size_t kCheckAt = 144;
constexpr std::size_t kTextAt = 148;
constexpr std::size_t kTextRoom = kResultStampOffset - kTextAt;
constexpr std::size_t kExtentsAt = kResultStampOffset + 4;
constexpr std::size_t kExtentSize = 28;
constexpr std::size_t kExtentRoom = 7;
// Zeros in records of before there was such a field.
constexpr std::size_t kVolumeUuidAt = kExtentsAt + kExtentRoom * kExtentSize;
static_assert(kVolumeUuidAt + sizeof(VolumeUuid) <= kResultRecordSize);

// 255 UTF-16 units, which FAT and NTFS allow, are 765 bytes of UTF-8; elsewhere it is NAME_MAX.
constexpr std::size_t kMostName = 765;
// PATH_MAX of linux/limits.h: no path in one call is longer.
constexpr std::size_t kMostPath = 4096;
constexpr std::size_t kMostText = kMostName + 3 * kMostPath + 4;

template <typename T>
void put(std::uint8_t* record, std::size_t offset, const T& value) {
    std::memcpy(record + offset, &value, sizeof value);
}

template <typename T>
void get(const std::uint8_t* record, std::size_t offset, T& value) {
    std::memcpy(&value, record + offset, sizeof value);
}

constexpr std::array<std::uint32_t, 256> crcTable() {
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t byte = 0; byte < table.size(); ++byte) {
        std::uint32_t crc = byte;
        for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1U) ^ ((crc & 1U) != 0 ? 0xEDB88320U : 0U);
        table[byte] = crc;
    }
    return table;
}

// CRC-32 (ISO 3309) of the record without the check itself and without the stamp, which comes in
// later. By a table: whoever looks for one item reads all records of a volume.
std::uint32_t checkOf(const std::uint8_t* record) {
    static constexpr auto kTable = crcTable();
    std::uint32_t crc = 0xFFFFFFFFU;
    for (std::size_t at = 0; at < kResultRecordSize; ++at) {
        const bool isLeftOut = (at >= kCheckAt && at < kCheckAt + 4) ||
                               (at >= kResultStampOffset && at < kResultStampOffset + 4);
        if (isLeftOut) continue;
        crc = (crc >> 8U) ^ kTable[(crc ^ record[at]) & 0xFFU];
    }
    return ~crc;
}

std::size_t recordsFor(std::size_t textLength, std::size_t extentCount) {
    const auto rounds = [](std::size_t amount, std::size_t room) {
        return (amount + room - 1) / room;
    };
    return std::max(
        {std::size_t{1}, rounds(textLength, kTextRoom), rounds(extentCount, kExtentRoom)});
}

// The part of the whole that record number `index` holds.
std::pair<std::size_t, std::size_t> partOf(std::size_t whole, std::size_t room, std::size_t index) {
    const std::size_t begin = std::min(whole, index * room);
    return {begin, std::min(room, whole - begin)};
}

// The fields of the item that are the same in each of its records, written or read by `each`, which
// takes an offset and a member.
template <typename Item, typename Each>
void fixedFields(Item& item, const Each& each) {
    each(kFlagsAt, item.flags);
    each(kNodeAt, item.node);
    each(kParentAt, item.parent);
    each(kTrashNodeAt, item.trashNode);
    each(kVolumeIdAt, item.volumeId);
    each(kModeAt, item.mode);
    each(kUserIdAt, item.userId);
    each(kGroupIdAt, item.groupId);
    each(kLinkCountAt, item.linkCount);
    each(kSizeAt, item.size);
    each(kModifiedAt, item.modified);
    each(kChangedAt, item.changed);
    each(kBornAt, item.born);
    each(kModifiedNanosecondsAt, item.modifiedNanoseconds);
    each(kChecksumAt, item.checksum);
    each(kVolumeUuidAt, item.volumeUuid);
}

// An extent's fields from its offset on.
template <typename Extent, typename Each>
void extentFields(Extent& extent, std::size_t offset, const Each& each) {
    each(offset, extent.logical);
    each(offset + 8, extent.physical);
    each(offset + 16, extent.length);
    each(offset + 24, extent.flags);
}

// Leaves out what no record may hold, and says so in the flags.
void fit(RecordedItem& item) {
    const auto drop = [&item](std::string& text, std::size_t most, RecordFlag flag) {
        if (text.size() <= most && text.find('\0') == std::string::npos) return;
        text.clear();
        item.flags |= flag;
    };
    if (item.name.size() > kMostName) item.name.resize(kMostName);
    item.name = item.name.substr(0, item.name.find('\0'));
    drop(item.path, kMostPath, kRecordPathCut);
    drop(item.linkTarget, kMostPath, kRecordTextCut);
    drop(item.origin, kMostPath, kRecordTextCut);
    if (item.extents.size() > kMostExtents) {
        item.extents.resize(kMostExtents);
        item.flags |= kRecordExtentsCut;
    }
}

// The four texts of the item's records, each with a zero at its end; false for anything else.
bool splitText(std::string_view text, RecordedItem& item) {
    for (std::string* const part : {&item.name, &item.path, &item.linkTarget, &item.origin}) {
        const std::size_t end = text.find('\0');
        if (end == std::string_view::npos) return false;
        *part = text.substr(0, end);
        text.remove_prefix(end + 1);
    }
    return text.empty();
}

}  // namespace

std::string encodeItem(RecordedItem item) {
    fit(item);
    const std::string text =
        item.name + '\0' + item.path + '\0' + item.linkTarget + '\0' + item.origin + '\0';
    const std::size_t count = recordsFor(text.size(), item.extents.size());
    std::string bytes(count * kResultRecordSize, '\0');
    for (std::size_t index = 0; index < count; ++index) {
        auto* const record =
            reinterpret_cast<std::uint8_t*>(bytes.data()) + index * kResultRecordSize;
        const auto write = [record](std::size_t offset, const auto& value) {
            put(record, offset, value);
        };
        std::memcpy(record, kResultTag.data(), kResultTag.size());
        write(kVersionAt, kVersion);
        fixedFields(item, write);
        const auto [textBegin, textHere] = partOf(text.size(), kTextRoom, index);
        const auto [extentBegin, extentsHere] = partOf(item.extents.size(), kExtentRoom, index);
        write(kSequenceAt, static_cast<std::uint32_t>(index + 1));
        write(kCountAt, static_cast<std::uint32_t>(count));
        write(kExtentCountAt, static_cast<std::uint32_t>(item.extents.size()));
        write(kExtentsHereAt, static_cast<std::uint16_t>(extentsHere));
        write(kTextHereAt, static_cast<std::uint16_t>(textHere));
        write(kTextLengthAt, static_cast<std::uint32_t>(text.size()));
        std::memcpy(record + kTextAt, text.data() + textBegin, textHere);
        for (std::size_t i = 0; i < extentsHere; ++i) {
            extentFields(item.extents[extentBegin + i], kExtentsAt + i * kExtentSize, write);
        }
        sealRecord(std::span<std::uint8_t, kResultRecordSize>{record, kResultRecordSize});
    }
    return bytes;
}

void takeOverChecksum(RecordedItem& item, const RecordedItem& earlier) {
    const auto contentsOf = [](const RecordedItem& each) {
        return std::tie(each.node, each.volumeId, each.volumeUuid, each.size, each.modified,
                        each.modifiedNanoseconds, each.born, each.extents);
    };
    if ((item.flags & kRecordHasChecksum) != 0 || (earlier.flags & kRecordHasChecksum) == 0 ||
        contentsOf(item) != contentsOf(earlier)) {
        return;
    }
    item.checksum = earlier.checksum;
    item.flags |= kRecordHasChecksum;
}

bool isSameRecording(std::span<const RecordedItem> items, std::span<const RecordedItem> earlier) {
    return std::ranges::equal(items, earlier, [](RecordedItem a, RecordedItem b) {
        // What no record holds is in neither.
        fit(a);
        fit(b);
        b.changed = a.changed;
        return a == b;
    });
}

void sealRecord(std::span<std::uint8_t, kResultRecordSize> bytes) {
    put(bytes.data(), kCheckAt, checkOf(bytes.data()));
}

std::optional<ResultRecord> decodeRecord(std::span<const std::uint8_t, kResultRecordSize> bytes) {
    const std::uint8_t* const at = bytes.data();
    const auto read = [at](std::size_t offset, auto& value) { get(at, offset, value); };
    std::uint16_t version = 0;
    std::uint32_t check = 0;
    read(kVersionAt, version);
    read(kCheckAt, check);
    if (std::memcmp(at, kResultTag.data(), kResultTag.size()) != 0 || version != kVersion ||
        check != checkOf(at)) {
        return std::nullopt;
    }
    ResultRecord record;
    fixedFields(record.item, read);
    std::uint16_t extentsHere = 0;
    std::uint16_t textHere = 0;
    read(kSequenceAt, record.sequence);
    read(kCountAt, record.count);
    read(kExtentCountAt, record.extentCount);
    read(kExtentsHereAt, extentsHere);
    read(kTextHereAt, textHere);
    read(kTextLengthAt, record.textLength);
    read(kResultStampOffset, record.stamp);
    if (record.extentCount > kMostExtents || record.textLength > kMostText ||
        record.count != recordsFor(record.textLength, record.extentCount) || record.sequence == 0 ||
        record.sequence > record.count ||
        textHere != partOf(record.textLength, kTextRoom, record.sequence - 1).second ||
        extentsHere != partOf(record.extentCount, kExtentRoom, record.sequence - 1).second) {
        return std::nullopt;
    }
    record.text.assign(reinterpret_cast<const char*>(at) + kTextAt, textHere);
    record.extents.resize(extentsHere);
    for (std::size_t i = 0; i < extentsHere; ++i) {
        extentFields(record.extents[i], kExtentsAt + i * kExtentSize, read);
    }
    return record;
}

std::optional<ItemAssembly::Collected> ItemAssembly::add(const ResultRecord& record) {
    if (record.sequence == 1) {
        parts_ = Parts{.first = record, .text = {}, .extents = {}};
    } else if (!parts_ || record.sequence != parts_->next || record.count != parts_->first.count ||
               record.item != parts_->first.item ||
               record.extentCount != parts_->first.extentCount ||
               record.textLength != parts_->first.textLength) {
        parts_.reset();
        return std::nullopt;
    } else {
        ++parts_->next;
    }
    parts_->text += record.text;
    parts_->extents.insert(parts_->extents.end(), record.extents.begin(), record.extents.end());
    return record.sequence == record.count ? finish() : std::nullopt;
}

std::optional<ItemAssembly::Collected> ItemAssembly::finish() {
    Parts parts = std::move(*parts_);
    parts_.reset();
    Collected collected{.item = std::move(parts.first.item), .stamp = parts.first.stamp};
    if (!splitText(parts.text, collected.item)) return std::nullopt;
    collected.item.extents = std::move(parts.extents);
    return collected;
}

}  // namespace korvane
