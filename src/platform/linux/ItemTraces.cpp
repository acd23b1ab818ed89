#include "platform/linux/ItemTraces.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"
#include "platform/linux/OpenFolder.h"
#include "platform/linux/TrashInfo.h"

namespace korvane {

namespace {

constexpr char kHandle[] = "handle";
constexpr char kHandleType[] = "handleType";
constexpr char kBirth[] = "birth";
constexpr char kName[] = "name";
constexpr char kOrigin[] = "origin";
// A note is three short lines; a path in it is at most PATH_MAX bytes, each written as three.
constexpr std::size_t kLargestNoteBytes = 3 * PATH_MAX + 1024;

struct Handle {
    alignas(file_handle) std::array<char, sizeof(file_handle) + MAX_HANDLE_SZ> bytes{};
    file_handle* get() { return reinterpret_cast<file_handle*>(bytes.data()); }
};

// As data: a path need not be text.
PropertyListData dataOf(std::string_view bytes) {
    const auto* const first = reinterpret_cast<const std::byte*>(bytes.data());
    return {first, first + bytes.size()};
}

std::string bytesIn(const Dictionary& fields, const char* key) {
    const PropertyList* const value = fields.find(key);
    if (!value || !value->data()) return {};
    const PropertyListData& data = *value->data();
    return {reinterpret_cast<const char*>(data.data()), data.size()};
}

std::string noteOf(int folder, const std::string& name) {
    std::string text(kLargestNoteBytes, '\0');
    const UniqueFd note = openRegularFileAt(folder, "../info/" + name + ".trashinfo");
    const ssize_t length = note ? ::pread(note.get(), text.data(), text.size(), 0) : -1;
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    return text;
}

void takeHandle(int file, ItemTrace& trace) {
    Handle handle;
    handle.get()->handle_bytes = MAX_HANDLE_SZ;
    int mountId = 0;
    if (::name_to_handle_at(file, "", handle.get(), &mountId, AT_EMPTY_PATH) != 0) return;
    trace.handle.assign(reinterpret_cast<const char*>(handle.get()->f_handle),
                        handle.get()->handle_bytes);
    trace.handleType = handle.get()->handle_type;
}

std::int64_t birthOf(int file) {
    constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
    struct statx status {};
    if (::statx(file, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_BTIME, &status) != 0 ||
        (status.stx_mask & STATX_BTIME) == 0) {
        return 0;
    }
    return status.stx_btime.tv_sec * kNanosecondsPerSecond + status.stx_btime.tv_nsec;
}

// "VOLUME_NODE", both in decimal.
std::optional<ItemNumber> numberOf(std::string_view text) {
    ItemNumber number;
    const char* const end = text.data() + text.size();
    const auto volume = std::from_chars(text.data(), end, number.volume);
    if (volume.ec != std::errc{} || volume.ptr == end || *volume.ptr != '_') return std::nullopt;
    const auto node = std::from_chars(volume.ptr + 1, end, number.nodeId);
    if (node.ec != std::errc{} || node.ptr != end) return std::nullopt;
    return number;
}

}  // namespace

std::optional<ItemTrace> traceItem(int folder, const std::string& name, std::uint64_t nodeId,
                                   const std::string& volumeRoot) {
    const UniqueFd item{::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC)};
    struct stat status {};
    if (!item || ::fstat(item.get(), &status) != 0 || status.st_ino != nodeId) return std::nullopt;
    ItemTrace trace;
    takeHandle(item.get(), trace);
    trace.birth = birthOf(item.get());
    trace.name = name;
    if (const auto origin = originInTrashInfo(noteOf(folder, name))) {
        const std::string base = volumeRoot == "/" ? "" : volumeRoot;
        trace.origin = origin->front() == '/' ? *origin : base + '/' + *origin;
    }
    return trace;
}

Identity identityOf(int file, const ItemTrace& trace) {
    ItemTrace found;
    takeHandle(file, found);
    if (!trace.handle.empty() && !found.handle.empty()) {
        const bool isSame = found.handle == trace.handle && found.handleType == trace.handleType;
        return isSame ? Identity::same : Identity::another;
    }
    const std::int64_t birth = trace.birth != 0 ? birthOf(file) : 0;
    if (birth == 0) return Identity::unknown;
    return birth == trace.birth ? Identity::same : Identity::another;
}

HandleAnswer followHandle(int mount, const ItemTrace& trace, std::uint64_t nodeId) {
    if (trace.handle.empty() || trace.handle.size() > MAX_HANDLE_SZ) return {};
    Handle handle;
    handle.get()->handle_bytes = static_cast<unsigned>(trace.handle.size());
    handle.get()->handle_type = trace.handleType;
    std::memcpy(handle.get()->f_handle, trace.handle.data(), trace.handle.size());
    const UniqueFd file{::open_by_handle_at(mount, handle.get(), O_PATH | O_CLOEXEC)};
    // open_by_handle_at(2): the handle's node exists no longer.
    if (!file) return {errno == ESTALE ? HandleState::gone : HandleState::unknown, ""};
    struct stat status {};
    if (::fstat(file.get(), &status) != 0 || status.st_ino != nodeId) return {};
    if (status.st_nlink == 0) return {HandleState::gone, ""};
    // Right for a file while its name is cached, which the check tells.
    std::array<char, PATH_MAX> path{};
    const std::string link = "/proc/self/fd/" + std::to_string(file.get());
    const ssize_t length = ::readlink(link.c_str(), path.data(), path.size());
    struct stat there {};
    const std::string text(path.data(), static_cast<std::size_t>(std::max<ssize_t>(length, 0)));
    const bool isRight = ::lstat(text.c_str(), &there) == 0 && there.st_ino == status.st_ino &&
                         there.st_dev == status.st_dev;
    return {HandleState::exists, isRight ? text : ""};
}

ItemTraces::ItemTraces(std::string file) : file_(std::move(file)) {}

void ItemTraces::load() {
    if (std::exchange(isLoaded_, true) || file_.empty()) return;
    PropertyListFiles files;
    const Result<PropertyList> stored = files.read(file_);
    if (!stored || !stored->dictionary()) return;
    for (const auto& [name, value] : *stored->dictionary()) {
        const auto number = numberOf(name);
        const Dictionary* const fields = value.dictionary();
        if (!number || !fields) continue;
        traces_.emplace(
            *number,
            ItemTrace{.handle = bytesIn(*fields, kHandle),
                      .handleType = static_cast<int>(integerValue(fields->find(kHandleType))),
                      .birth = integerValue(fields->find(kBirth)),
                      .name = bytesIn(*fields, kName),
                      .origin = bytesIn(*fields, kOrigin)});
    }
}

const ItemTrace* ItemTraces::find(const ItemNumber& number) {
    load();
    const auto known = traces_.find(number);
    return known == traces_.end() ? nullptr : &known->second;
}

void ItemTraces::set(const ItemNumber& number, ItemTrace trace) {
    load();
    const auto [known, isNew] = traces_.try_emplace(number);
    if (!isNew && known->second == trace) return;
    known->second = std::move(trace);
    isChanged_ = true;
}

void ItemTraces::keepOnly(const std::set<ItemNumber>& numbers) {
    load();
    const std::size_t forgotten =
        std::erase_if(traces_, [&](const auto& each) { return !numbers.contains(each.first); });
    isChanged_ = isChanged_ || forgotten > 0;
}

void ItemTraces::save() {
    if (!isChanged_ || file_.empty()) return;
    std::vector<Dictionary::Entry> entries;
    entries.reserve(traces_.size());
    for (const auto& [number, trace] : traces_) {
        Dictionary fields{
            {kHandleType, trace.handleType}, {kBirth, trace.birth}, {kName, dataOf(trace.name)}};
        if (!trace.handle.empty()) fields.set(kHandle, dataOf(trace.handle));
        if (!trace.origin.empty()) fields.set(kOrigin, dataOf(trace.origin));
        entries.push_back({std::to_string(number.volume) + '_' + std::to_string(number.nodeId),
                           PropertyList(std::move(fields))});
    }
    const std::string text = formatPropertyList(PropertyList(Dictionary(std::move(entries))));
    isChanged_ = !writeInPlace(file_, text, S_IRUSR | S_IWUSR, Durability::process);
}

}  // namespace korvane
