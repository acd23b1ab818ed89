#include "platform/linux/VolumeMemory.h"

#include <algorithm>
#include <limits>

#include "platform/linux/MountTable.h"

namespace korvane {
namespace {

constexpr char kNumbers[] = "numbers";
constexpr char kFileSystem[] = "fileSystem";
constexpr char kNumber[] = "number";
constexpr char kLinks[] = "links";

constexpr std::int16_t kLargestNumber = std::numeric_limits<std::int16_t>::max();
// Years of sticks, snapshots and container images; the file stays below 200 kB.
constexpr std::size_t kRememberedFileSystems = 2048;
// The daemon's own: nobody else has business with it.
constexpr mode_t kMemoryMode = 0600;

// FNV-1a: the standard library's hash may differ from one build to the next.
std::uint32_t stableHash(const std::string& text) {
    std::uint32_t hash = 2166136261U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 16777619U;
    }
    return hash;
}

}  // namespace

VolumeMemory::VolumeMemory(std::string path) : path_(std::move(path)) { load(); }

void VolumeMemory::load() {
    if (path_.empty()) {
        return;
    }
    const Result<PropertyList> file = files_.read(path_);
    const Dictionary* const memory = file ? (*file).dictionary() : nullptr;
    if (memory == nullptr) {
        return;
    }
    const PropertyList* const numbers = memory->find(kNumbers);
    if (numbers != nullptr && numbers->array() != nullptr) {
        for (const PropertyList& each : *numbers->array()) {
            const Dictionary* const record = each.dictionary();
            const std::string identity =
                record != nullptr ? stringValue(record->find(kFileSystem)) : std::string{};
            const std::int64_t number = record != nullptr ? integerValue(record->find(kNumber)) : 0;
            if (identity.empty() || number < 1 || number > kLargestNumber ||
                taken_.contains(static_cast<std::int16_t>(number)) ||
                !numbers_.emplace(identity, static_cast<std::int16_t>(number)).second) {
                continue;
            }
            taken_.insert(static_cast<std::int16_t>(number));
            seen_.push_back(identity);
        }
    }
    const PropertyList* const links = memory->find(kLinks);
    if (links != nullptr && links->dictionary() != nullptr) {
        for (const auto& [name, target] : *links->dictionary()) {
            const std::string bytes = bytesOfText(name);
            // Names out of a damaged file must not lead out of the folder.
            if (!bytes.empty() && bytes != "." && bytes != ".." &&
                bytes.find('/') == std::string::npos && bytes.find('\0') == std::string::npos) {
                links_.emplace(bytes, bytesOfText(stringValue(&target)));
            }
        }
    }
}

std::optional<std::int16_t> VolumeMemory::numberFor(const std::string& identity) {
    if (const auto known = numbers_.find(identity); known != numbers_.end()) {
        return known->second;
    }
    if (taken_.size() >= static_cast<std::size_t>(kLargestNumber)) {
        return std::nullopt;
    }
    auto number = static_cast<std::int16_t>(stableHash(identity) % kLargestNumber + 1);
    while (taken_.contains(number)) {
        number = static_cast<std::int16_t>(number % kLargestNumber + 1);
    }
    numbers_.emplace(identity, number);
    taken_.insert(number);
    seen_.push_back(identity);
    isChanged_ = true;
    return number;
}

void VolumeMemory::keepOnly(const std::set<std::string>& mountedIdentities) {
    const auto firstMounted = std::stable_partition(
        seen_.begin(), seen_.end(),
        [&](const std::string& identity) { return !mountedIdentities.contains(identity); });
    const auto unmounted = static_cast<std::size_t>(firstMounted - seen_.begin());
    const std::size_t surplus =
        seen_.size() > kRememberedFileSystems ? seen_.size() - kRememberedFileSystems : 0;
    const auto lastForgotten =
        seen_.begin() + static_cast<std::ptrdiff_t>(std::min(unmounted, surplus));
    for (auto each = seen_.begin(); each != lastForgotten; ++each) {
        const auto number = numbers_.find(*each);
        taken_.erase(number->second);
        numbers_.erase(number);
        isChanged_ = true;
    }
    seen_.erase(seen_.begin(), lastForgotten);
}

void VolumeMemory::setLinks(std::map<std::string, std::string> links) {
    isChanged_ = isChanged_ || links != links_;
    links_ = std::move(links);
}

bool VolumeMemory::save() {
    if (!isChanged_ || path_.empty()) {
        return true;
    }
    PropertyListArray numbers;
    for (const std::string& identity : seen_) {
        numbers.emplace_back(
            Dictionary{{kFileSystem, identity}, {kNumber, int{numbers_.at(identity)}}});
    }
    Dictionary links;
    for (const auto& [name, target] : links_) {
        links.set(textOfBytes(name), textOfBytes(target));
    }
    const Dictionary memory{{kLinks, std::move(links)}, {kNumbers, std::move(numbers)}};
    // A folder that is not there is not made: the write fails.
    if (!files_.write(path_, memory, kMemoryMode, Durability::process)) {
        return false;
    }
    isChanged_ = false;
    return true;
}

}  // namespace korvane
