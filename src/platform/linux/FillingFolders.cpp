#include "platform/linux/FillingFolders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <set>
#include <string_view>
#include <tuple>
#include <vector>

#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {

namespace {

// 5 seconds, doubled so often, come to ten minutes: who copies for longer has the rest recorded
// when the trash next changes.
constexpr int kMostLooks = 7;
// A scan names no more items either.
constexpr std::size_t kMostFolders = 100;
// Some milliseconds of the loop. A larger folder counts as changed at each look.
constexpr std::size_t kMostNamesOfALook = 1000;

// The clock of the file system's own stamps.
timespec momentNow() {
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &now);  // cannot fail for this clock
    return now;
}

bool isAfter(const timespec& time, const timespec& moment) {
    return std::tie(time.tv_sec, time.tv_nsec) > std::tie(moment.tv_sec, moment.tv_nsec);
}

}  // namespace

FillingFolders::FillingFolders(RunLoop& loop, Volumes& volumes, std::chrono::milliseconds pause,
                               Callback didFill)
    : loop_(loop), volumes_(volumes), pause_(pause), didFill_(std::move(didFill)) {}

void FillingFolders::add(const std::string& folder, const std::string& name) {
    if (lastLooks_.size() >= kMostFolders) return;
    lastLooks_.insert_or_assign({folder, name}, momentNow());
    looks_ = 0;
    arm();
}

void FillingFolders::arm() {
    timer_ = loop_.startTimer(pause_ * (1 << looks_), Repeat::once, [this] { look(); });
}

void FillingFolders::look() {
    const std::unique_ptr<Timer> fired = std::move(timer_);
    ++looks_;
    std::set<std::string> filled;
    const timespec now = momentNow();
    for (auto each = lastLooks_.begin(); each != lastLooks_.end();) {
        auto& [key, lastLook] = *each;
        if (looks_ < kMostLooks && hasChangedSince(key, lastLook)) {
            lastLook = now;
            ++each;
        } else {
            filled.insert(key.first);
            each = lastLooks_.erase(each);
        }
    }
    if (!lastLooks_.empty()) arm();
    for (const std::string& folder : filled) didFill_(folder);
}

bool FillingFolders::hasChangedSince(const Key& key, const timespec& moment) const {
    const auto& [folder, name] = key;
    const UniqueFd place = openPlaceAt(AT_FDCWD, folder);
    std::size_t namesLeft = kMostNamesOfALook;
    std::vector<std::string> folders{name};
    while (place && !folders.empty()) {
        const std::string below = std::move(folders.back());
        folders.pop_back();
        // What is mounted there may be a dead server's.
        if (volumes_.mountAt(textOfBytes(folder + '/' + below))) continue;
        const FolderStream stream = streamOf(openFolderAt(place.get(), below));
        struct stat status {};
        if (!stream || ::fstat(::dirfd(stream.get()), &status) != 0) continue;
        // The item's own status changes when the daemon stamps it.
        const bool isItem = below.size() == name.size();
        if (isAfter(isItem ? status.st_mtim : status.st_ctim, moment)) return true;
        while (const dirent* const entry = ::readdir(stream.get())) {
            const std::string_view found = entry->d_name;
            if (found == "." || found == "..") continue;
            if (namesLeft-- == 0) return true;
            if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) {
                folders.push_back(below + '/' + entry->d_name);
            }
            if (entry->d_type != DT_DIR &&
                ::fstatat(::dirfd(stream.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) ==
                    0 &&
                isAfter(status.st_ctim, moment)) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace korvane
