// The records that say what an item in the trash is and where on its device its contents lie, as
// bytes of docs/trash-records.md. Pure, and made for bytes from anywhere: the files that hold such
// records can be written by everybody. Whoever acts on a record checks what it asks for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "KorvaneProDataRecovery/VolumeIdentity.h"
#include "trash/TrashFormats.h"

namespace korvane {

// The daemon copies whole records and sets the stamp in them when it collects them.
inline constexpr std::size_t kResultRecordSize = kTrashRecordBytes;
inline constexpr std::size_t kResultStampOffset = kTrashStampOffset;

using Sha256 = std::array<std::uint8_t, 32>;

// Why an extent's bytes cannot be read from the device at its place; 0 when they can.
enum ExtentFlag : std::uint32_t {
    kExtentUnwritten = 1,     // allocated but never written: it reads as zeros
    kExtentInline = 2,        // kept within the file system's own structures
    kExtentEncoded = 4,       // compressed or encrypted
    kExtentPlaceUnknown = 8,  // the place is not one on the device
};

// A run of the file's bytes and its place on the device, all in bytes.
struct FileExtent {
    std::uint64_t logical = 0;
    std::uint64_t physical = 0;
    std::uint64_t length = 0;
    std::uint32_t flags = 0;
    friend bool operator==(const FileExtent&, const FileExtent&) = default;
};

[[nodiscard]] constexpr bool isOnDevice(const FileExtent& extent) { return extent.flags == 0; }
// Whether the extent's bytes are known after the file is gone: on the device, or zeros.
[[nodiscard]] constexpr bool isRecoverable(const FileExtent& extent) {
    return (extent.flags & ~static_cast<std::uint32_t>(kExtentUnwritten)) == 0;
}

enum RecordFlag : std::uint16_t {
    kRecordHasChecksum = 1,
    kRecordExtentsCut = 2,  // there are more extents than were recorded, or none could be had
    kRecordFolderCut = 4,   // the folder holds more than was recorded
    kRecordPathCut = 8,     // the path was too long and is empty
    kRecordTextCut = 16,    // the link's target or the origin was too long and is empty
};

// One file, folder, link or other thing. A moment is in seconds since 1970.
struct RecordedItem {
    std::uint16_t flags = 0;
    std::uint64_t node = 0;
    std::uint64_t parent = 0;  // the node of the folder it lies in
    // The item of the trash that it belongs to: itself, or a folder above.
    std::uint64_t trashNode = 0;
    std::uint64_t volumeId = 0;  // both as in VolumeIdentity
    VolumeUuid volumeUuid{};
    std::uint32_t mode = 0;  // as in stat(2), with the kind of file
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
    std::uint32_t linkCount = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;
    std::int64_t changed = 0;
    std::int64_t born = 0;  // 0 when unknown
    std::uint32_t modifiedNanoseconds = 0;
    Sha256 checksum{};  // of the contents, with kRecordHasChecksum
    std::string name{};
    std::string path{};        // absolute, when it was recorded
    std::string linkTarget{};  // of a symbolic link
    std::string origin{};      // of an item of the trash: the path that it came from, if noted
    std::vector<FileExtent> extents{};
    friend bool operator==(const RecordedItem&, const RecordedItem&) = default;
};

// What one record holds beside the item's own fields, which every record of an item repeats.
struct ResultRecord {
    RecordedItem item;           // without the four texts and the extents
    std::uint32_t sequence = 0;  // from 1
    std::uint32_t count = 0;     // of records of the item
    std::uint32_t extentCount = 0;
    std::uint32_t textLength = 0;
    std::string text{};                 // this record's part
    std::vector<FileExtent> extents{};  // this record's part
    std::uint32_t stamp = 0;            // seconds since 1 January 1904, 0 before it is collected
};

// More extents than a record's count can hold in reasonable space: a file in so many pieces is
// recorded to here.
inline constexpr std::size_t kMostExtents = 4096;

// The item as whole records, one behind the other, their stamps 0. Extents past kMostExtents are
// left out and the flag is set; so are texts that no file system has.
[[nodiscard]] std::string encodeItem(RecordedItem item);

// The item's checksum as it was recorded earlier, if the contents are the same by all that is known
// of them: file, volume, size, time of the last change and place. Nothing else tells of a file that
// was written to and given its old time back.
void takeOverChecksum(RecordedItem& item, const RecordedItem& earlier);

// Whether the two lists say the same, but for the time of the last change of an item's attributes:
// the daemon's own stamp is one.
[[nodiscard]] bool isSameRecording(std::span<const RecordedItem> items,
                                   std::span<const RecordedItem> earlier);

// One record; nothing for a header, for other bytes, and for a record that is not whole.
[[nodiscard]] std::optional<ResultRecord> decodeRecord(
    std::span<const std::uint8_t, kResultRecordSize> bytes);

// Sets the record's own check, which says that it is whole, to what its bytes ask for.
void sealRecord(std::span<std::uint8_t, kResultRecordSize> bytes);

// Puts items together again from records in the order of a file. Records whose item is not there
// whole are passed over.
class ItemAssembly {
  public:
    struct Collected {
        RecordedItem item;
        std::uint32_t stamp = 0;
    };
    // The item that this record completes.
    [[nodiscard]] std::optional<Collected> add(const ResultRecord& record);
    // Forgets a half item: what comes next does not follow it.
    void interrupt() { parts_.reset(); }

  private:
    struct Parts {
        ResultRecord first;
        std::uint32_t next = 2;
        std::string text{};
        std::vector<FileExtent> extents{};
    };
    [[nodiscard]] std::optional<Collected> finish();
    std::optional<Parts> parts_;
};

}  // namespace korvane
