#include "trash/TrashFormats.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace korvane {

namespace {

constexpr std::size_t kTagOffset = 0;
constexpr std::size_t kNodeIdOffset = 4;
constexpr std::size_t kParentIdOffset = 8;
constexpr std::size_t kDeviceNameOffset = 12;
constexpr std::size_t kResultPathOffset = 44;
constexpr std::size_t kTextBytes = 32;
constexpr std::string_view kTag("id\0\0", 4);

constexpr std::string_view kResultBegin = "/tmp/.";
constexpr std::string_view kInputBegin = "/tmp/.KVDataRec_";
constexpr std::string_view kSearchFileEnd = ".dat";

constexpr std::string_view kSignature("quorlen\0\0", 9);
constexpr std::string_view kIntel = "Intel";
constexpr std::string_view kApple = "Apple";
constexpr std::string_view kTrashDeletes = "trashDeletes";

// From the beginning of 1904 to that of 1970: 66 years, 17 of them leap years.
constexpr std::int64_t kSecondsFrom1904To1970 = (66LL * 365 + 17) * 86'400;

void putNumber(SearchJobBytes& bytes, std::size_t offset, std::uint32_t number) {
    std::memcpy(bytes.data() + offset, &number, sizeof number);
}

void putText(SearchJobBytes& bytes, std::size_t offset, std::string_view text) {
    text = text.substr(0, kTextBytes - 1);
    std::copy(text.begin(), text.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

std::uint32_t numberAt(std::string_view bytes, std::size_t offset) {
    std::uint32_t number = 0;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

std::optional<std::string> textAt(std::string_view bytes, std::size_t offset) {
    const std::string_view field = bytes.substr(offset, kTextBytes);
    const std::size_t end = field.find('\0');
    if (end == std::string_view::npos) return std::nullopt;
    return std::string(field.substr(0, end));
}

// The text up to the next zero byte, which is passed.
std::optional<std::string_view> takeText(std::string_view& bytes) {
    const std::size_t end = bytes.find('\0');
    if (end == std::string_view::npos) return std::nullopt;
    const std::string_view text = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    return text;
}

// East of Greenwich is positive.
std::int64_t secondsFromGmt(Time now) {
    const std::string zone = formatLocalTime(now, "%z");  // "+hhmm"
    if (zone.size() != 5) return 0;
    const auto pair = [&](std::size_t at) { return (zone[at] - '0') * 10 + (zone[at + 1] - '0'); };
    const std::int64_t seconds = pair(1) * 3600 + pair(3) * 60;
    return zone[0] == '-' ? -seconds : seconds;
}

}  // namespace

SearchJobBytes encodeSearchJob(const SearchJob& job) {
    SearchJobBytes bytes{};
    std::copy(kTag.begin(), kTag.end(), bytes.begin() + kTagOffset);
    putNumber(bytes, kNodeIdOffset, job.nodeId);
    putNumber(bytes, kParentIdOffset, job.parentId);
    putText(bytes, kDeviceNameOffset, job.deviceName);
    putText(bytes, kResultPathOffset, job.searchResultPath);
    return bytes;
}

std::optional<SearchJob> decodeSearchJob(std::string_view bytes) {
    if (bytes.size() != kSearchJobBytes || bytes.substr(kTagOffset, kTag.size()) != kTag) {
        return std::nullopt;
    }
    std::optional<std::string> deviceName = textAt(bytes, kDeviceNameOffset);
    std::optional<std::string> resultPath = textAt(bytes, kResultPathOffset);
    if (!deviceName || !resultPath) return std::nullopt;
    return SearchJob{.nodeId = numberAt(bytes, kNodeIdOffset),
                     .parentId = numberAt(bytes, kParentIdOffset),
                     .deviceName = std::move(*deviceName),
                     .searchResultPath = std::move(*resultPath)};
}

std::string searchResultPathOf(std::uint64_t nodeId) {
    return std::string(kResultBegin) + std::to_string(nodeId) + std::string(kSearchFileEnd);
}

std::optional<std::uint64_t> nodeOfSearchResult(std::string_view path) {
    if (!path.starts_with(kResultBegin)) return std::nullopt;
    path.remove_prefix(kResultBegin.size());
    std::uint64_t nodeId = 0;
    const auto [rest, error] = std::from_chars(path.data(), path.data() + path.size(), nodeId);
    const std::string_view end(rest, static_cast<std::size_t>(path.data() + path.size() - rest));
    // One node has one path.
    const bool isPlain = !path.starts_with('0') || path.starts_with("0.");
    if (error != std::errc() || end != kSearchFileEnd || !isPlain) return std::nullopt;
    return nodeId;
}

std::string searchInputPathOf(std::string_view volumeName) {
    std::string path(kInputBegin);
    for (const char character : volumeName) {
        if (character == '/') {
            path += "%2F";
        } else {
            path += character;
        }
    }
    return path.append(kSearchFileEnd);
}

bool isSearchInputPath(std::string_view path) {
    return path.starts_with(kInputBegin) && path.ends_with(kSearchFileEnd) &&
           path.size() >= kInputBegin.size() + kSearchFileEnd.size() &&
           path.find('/', kInputBegin.size()) == std::string_view::npos;
}

TrashRecord encodeTrashDeletesHeader(const TrashDeletesHeader& header) {
    TrashRecord record{};
    std::copy(kSignature.begin(), kSignature.end(), record.begin());
    const std::string_view texts[] = {header.deviceName, header.volumePath, header.deviceValue,
                                      header.schemeOfPartition ? kIntel : kApple, kTrashDeletes};
    // What the texts behind need: the fixed ones whole, the others their zero bytes.
    std::size_t needed = 3 + kIntel.size() + 1 + kTrashDeletes.size() + 1;
    std::size_t at = kSignature.size();
    for (std::size_t index = 0; index < std::size(texts); ++index) {
        const bool isFixed = index >= 3;
        needed -= isFixed ? texts[index].size() + 1 : 1;
        const std::string_view text = texts[index].substr(0, record.size() - at - needed - 1);
        std::copy(text.begin(), text.end(), record.begin() + static_cast<std::ptrdiff_t>(at));
        at += text.size() + 1;
    }
    return record;
}

std::optional<TrashDeletesHeader> decodeTrashDeletesHeader(std::string_view bytes) {
    if (bytes.size() != kTrashRecordBytes || !bytes.starts_with(kSignature)) return std::nullopt;
    bytes.remove_prefix(kSignature.size());
    const auto deviceName = takeText(bytes);
    const auto volumePath = takeText(bytes);
    const auto deviceValue = takeText(bytes);
    const auto scheme = takeText(bytes);
    const auto kind = takeText(bytes);
    if (!kind || *kind != kTrashDeletes || (*scheme != kIntel && *scheme != kApple)) {
        return std::nullopt;
    }
    return TrashDeletesHeader{.deviceName = std::string(*deviceName),
                              .volumePath = std::string(*volumePath),
                              .deviceValue = std::string(*deviceValue),
                              .schemeOfPartition = *scheme == kIntel};
}

void stampTrashRecord(TrashRecord& record, std::uint32_t secondsSince1904) {
    std::memcpy(record.data() + kTrashStampOffset, &secondsSince1904, sizeof secondsSince1904);
}

std::uint32_t trashRecordStamp(std::span<const char, kTrashRecordBytes> record) {
    return numberAt({record.data(), record.size()}, kTrashStampOffset);
}

std::uint32_t secondsSince1904(Time now) {
    const std::int64_t seconds =
        std::chrono::floor<std::chrono::seconds>(now.time_since_epoch()).count() +
        kSecondsFrom1904To1970 - secondsFromGmt(now);
    return static_cast<std::uint32_t>(seconds);
}

std::string trashDeletesFileName(Time now) {
    return formatLocalTime(now, "Trash Deletes %Y-%m-%d-%H");
}

}  // namespace korvane
