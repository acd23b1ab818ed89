#include "backup/BackupRotation.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "storage/SupportFolder.h"

namespace korvane {

namespace {

// A backup older than this shows the volume as it was before the latest day's changes.
constexpr std::chrono::seconds kYoung{86'400};
// The owner of a location may have filled the folder, and the loop waits for the look at each.
constexpr std::size_t kMostNames = 100'000;

}  // namespace

bool isBackupName(std::string_view name) { return name.starts_with(kBackupFilePrefix); }

std::strong_ordering arrayDateSort(const BackupFile& first, const BackupFile& second) {
    return first.modificationDate.time_since_epoch().count() <=>
           second.modificationDate.time_since_epoch().count();
}

std::optional<std::size_t> rotationVictim(std::span<const BackupFile> oldestFirst,
                                          std::int64_t filesToSave, Time now) {
    if (filesToSave <= 0) return std::nullopt;
    std::int64_t count = 0;
    std::optional<std::size_t> first;
    std::optional<std::size_t> second;
    for (std::size_t position = 0; position < oldestFirst.size(); ++position) {
        if (!isBackupName(oldestFirst[position].name)) continue;
        ++count;
        if (count == 1 && now - oldestFirst[position].modificationDate > kYoung) first = position;
        if (count == 2) second = position;
        // The rest would only be counted.
        if (count >= 2 && count >= filesToSave) break;
    }
    if (count < filesToSave) return std::nullopt;
    return first ? first : second;
}

void rotateBackups(Folder& folder, std::int64_t filesToSave, Time now) {
    if (filesToSave <= 0) return;
    std::vector<std::string> names =
        folder.list(kMostNames + 1).value_or(std::vector<std::string>{});
    if (names.size() > kMostNames) return;
    std::erase_if(names, [](const std::string& name) { return !isBackupName(name); });
    // Then no date decides anything.
    if (std::cmp_less(names.size(), filesToSave)) return;
    std::vector<BackupFile> files;
    for (std::string& name : names) {
        // One that has just vanished takes no part.
        const auto attributes = folder.attributesOf(name);
        if (attributes) files.push_back({std::move(name), attributes->modificationDate});
    }
    std::sort(files.begin(), files.end(), [](const BackupFile& first, const BackupFile& second) {
        return arrayDateSort(first, second) < 0;
    });
    // The victim is one of the first two, so what is gone is skipped rather than moved out.
    std::span<BackupFile> left(files);
    while (const auto victim = rotationVictim(left, filesToSave, now)) {
        if (!folder.remove(left[*victim].name)) return;
        std::move_backward(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(*victim),
                           left.begin() + static_cast<std::ptrdiff_t>(*victim) + 1);
        left = left.subspan(1);
    }
}

}  // namespace korvane
