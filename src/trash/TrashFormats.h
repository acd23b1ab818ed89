// The binary records of the trash history: the jobs that the recovery program is given, and the
// files in which its results are kept. Pure functions on bytes, shared with the recovery program;
// nothing here touches a disk. Numbers are in host byte order, texts end with a zero byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "base/Calendar.h"

namespace korvane {

// ---- The recovery program's input: one record for each item, back to back -----------------------
//
//   offset  size  field
//        0     4  tag "id", zero-padded
//        4     4  node ID, unsigned: the low 32 bits of the item's node number
//        8     4  parent directory ID, unsigned, likewise
//       12    32  device path of the volume, zero-terminated, zero-padded
//       44    32  path of the result file, zero-terminated, zero-padded

inline constexpr std::size_t kSearchJobBytes = 76;
using SearchJobBytes = std::array<char, kSearchJobBytes>;

struct SearchJob {
    std::uint32_t nodeId = 0;
    std::uint32_t parentId = 0;
    std::string deviceName;
    std::string searchResultPath;
    friend bool operator==(const SearchJob&, const SearchJob&) = default;
};

// A text of more than 31 bytes is cut there.
[[nodiscard]] SearchJobBytes encodeSearchJob(const SearchJob& job);
// Nothing when it is no such record: of another length or tag, or with a text that does not end.
[[nodiscard]] std::optional<SearchJob> decodeSearchJob(std::string_view bytes);

// The arguments of the recovery program: this word and the path of its input.
inline constexpr char kRecoveryProgram[] = "KorvaneProDataRecovery";
inline constexpr char kInFileArgument[] = "inFile";
// Where the program is to leave what it finds of a node: "/tmp/.NODE.dat".
[[nodiscard]] std::string searchResultPathOf(std::uint64_t nodeId);
// The node of such a path; nothing when it is none.
[[nodiscard]] std::optional<std::uint64_t> nodeOfSearchResult(std::string_view path);
// The program's input, by the name of the volume of its last item. The name comes from outside: a
// "/" in it is escaped, so that the file is always one directly in /tmp.
[[nodiscard]] std::string searchInputPathOf(std::string_view volumeName);
[[nodiscard]] bool isSearchInputPath(std::string_view path);
// The folder that all of these are in.
inline constexpr char kSearchFolder[] = "/tmp";

// ---- "Trash Deletes" files: a header record, then result records --------------------------------

// Header and result records have one length, so that a file is a plain sequence.
inline constexpr std::size_t kTrashRecordBytes = 764;
using TrashRecord = std::array<char, kTrashRecordBytes>;
// What each result record begins with.
inline constexpr std::string_view kResultTag = "item";
// The recovery program leaves this word of a result record to the daemon, which sets it to the
// moment at which it collected the record: an unsigned number of 32 bits.
inline constexpr std::size_t kTrashStampOffset = 544;

struct TrashDeletesHeader {
    std::string deviceName;
    std::string volumePath;
    std::string deviceValue;         // what the drive is known by
    bool schemeOfPartition = false;  // told as "Intel", else as "Apple"
    friend bool operator==(const TrashDeletesHeader&, const TrashDeletesHeader&) = default;
};

// Zero bytes but for the signature "quorlen", zero-padded to 9 bytes, and from there five texts one
// after the other: the three above, the scheme and "trashDeletes". Texts that do not fit are cut,
// each so that those after it keep their room at their shortest.
[[nodiscard]] TrashRecord encodeTrashDeletesHeader(const TrashDeletesHeader& header);
// Nothing when it is no such record.
[[nodiscard]] std::optional<TrashDeletesHeader> decodeTrashDeletesHeader(std::string_view bytes);

void stampTrashRecord(TrashRecord& record, std::uint32_t secondsSince1904);
[[nodiscard]] std::uint32_t trashRecordStamp(std::span<const char, kTrashRecordBytes> record);

// What the stamp counts: seconds since the beginning of 1904, less the local zone's offset from
// Greenwich. As 32 bits it begins again in the year 2040.
[[nodiscard]] std::uint32_t secondsSince1904(Time now);

// The name of the file for results that are collected now: one for each hour of local time.
[[nodiscard]] std::string trashDeletesFileName(Time now);

}  // namespace korvane
