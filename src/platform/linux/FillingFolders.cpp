#include "platform/linux/FillingFolders.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "platform/linux/FolderDescent.h"
#include "platform/linux/MountTable.h"
#include "platform/linux/OpenFolder.h"

namespace korvane {

namespace {

// 5 seconds, doubled so often, come to ten minutes: who copies for longer has the rest recorded
// when the trash next changes.
constexpr int kMostLooks = 7;
// Of one trash folder, so that no user takes another's place. Programs copy one after the other:
// what was made before so many others is whole.
constexpr std::size_t kMostOfAFolder = 10;
// Some milliseconds of the loop for all that are looked at together.
constexpr std::size_t kMostNamesOfALook = 1000;
// Nothing deeper is recorded.
constexpr std::size_t kMostDepth = 16;

// The clock of the file system's own stamps.
timespec momentNow() {
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME_COARSE, &now);  // cannot fail for this clock
    return now;
}

bool isAfter(const timespec& time, const timespec& moment) {
    return std::tie(time.tv_sec, time.tv_nsec) > std::tie(moment.tv_sec, moment.tv_nsec);
}

enum class State { atRest, changed, tooLarge };

// One look at an item and what is below it, as far as there are names left.
class Look {
  public:
    Look(Volumes& volumes, const timespec& moment, std::size_t& namesLeft)
        : volumes_(volumes), moment_(moment), namesLeft_(namesLeft) {}

    State at(const std::string& folder, const std::string& name) {
        if (namesLeft_ == 0) return State::tooLarge;
        --namesLeft_;
        path_ = folder + '/' + name;
        const UniqueFd place = openPlaceAt(AT_FDCWD, folder);
        struct stat status {};
        if (!place || isMountPoint() || !descent_.begin(place.get(), name) ||
            ::fstat(descent_.folder(), &status) != 0) {
            return State::atRest;  // gone, or no folder any more
        }
        // Its own status changes when the daemon stamps it.
        return isAfter(status.st_mtim, moment_) ? State::changed : throughFolders();
    }

  private:
    struct Level {
        std::vector<std::string> folders;  // those still to be entered
        std::size_t pathLength = 0;
    };

    State throughFolders() {
        State state = readFolder();
        while (state == State::atRest && !levels_.empty()) {
            Level& level = levels_.back();
            path_.resize(level.pathLength);
            if (level.folders.empty()) {
                levels_.pop_back();
                // Moved meanwhile, and so changed.
                if (!levels_.empty() && !descent_.leave()) return State::changed;
                continue;
            }
            const std::string name = std::move(level.folders.back());
            level.folders.pop_back();
            path_.append("/").append(name);
            if (descent_.enter(name) == FolderDescent::Step::entered) state = readFolder();
        }
        return state;
    }

    // Looks at every name in the current folder, and notes its folders as a level.
    State readFolder() {
        std::vector<FolderDescent::Name> names;
        (void)descent_.read(names, namesLeft_ + 1);  // one that cannot be read has none
        Level level{{}, path_.size()};
        for (FolderDescent::Name& name : names) {
            if (namesLeft_ == 0) return State::tooLarge;
            --namesLeft_;
            path_.resize(level.pathLength);
            path_.append("/").append(name.text);
            struct stat status {};
            if ((name.mayBeFolder && isMountPoint()) ||
                ::fstatat(descent_.folder(), name.text.c_str(), &status, AT_SYMLINK_NOFOLLOW) !=
                    0) {
                continue;
            }
            if (isAfter(status.st_ctim, moment_)) return State::changed;
            if (S_ISDIR(status.st_mode) && levels_.size() < kMostDepth) {
                level.folders.push_back(std::move(name.text));
            }
        }
        levels_.push_back(std::move(level));
        return State::atRest;
    }

    // What is mounted there may be a dead server's.
    [[nodiscard]] bool isMountPoint() const {
        return volumes_.mountAt(textOfBytes(path_)) != nullptr;
    }

    Volumes& volumes_;
    const timespec& moment_;
    std::size_t& namesLeft_;
    FolderDescent descent_;
    std::string path_;
    std::vector<Level> levels_;
};

}  // namespace

FillingFolders::FillingFolders(RunLoop& loop, Volumes& volumes, std::chrono::milliseconds pause,
                               Callback didFill)
    : loop_(loop), volumes_(volumes), pause_(pause), didFill_(std::move(didFill)) {}

void FillingFolders::add(const std::string& folder, const std::string& name) {
    entries_.erase({folder, name});
    makeRoom(folder);
    const Moment now = std::chrono::steady_clock::now();
    entries_.emplace(Key{folder, name}, Entry{now, now + pause_, momentNow(), 0});
    if (!timer_) arm();
}

// The oldest makes way.
void FillingFolders::makeRoom(const std::string& folder) {
    const auto first = entries_.lower_bound({folder, ""});
    auto oldest = first;
    std::size_t count = 0;
    for (auto each = first; each != entries_.end() && each->first.first == folder; ++each) {
        ++count;
        if (each->second.added < oldest->second.added) oldest = each;
    }
    if (count >= kMostOfAFolder) entries_.erase(oldest);
}

// No two looks follow each other sooner than a pause: what is due meanwhile is looked at together.
void FillingFolders::arm() {
    const auto first = std::ranges::min_element(
        entries_, {}, [](const auto& each) { return each.second.nextLook; });
    if (first == entries_.end()) return;
    const Moment now = std::chrono::steady_clock::now();
    const Moment next = std::max(first->second.nextLook, now + pause_);
    timer_ = loop_.startTimer(std::chrono::ceil<std::chrono::microseconds>(next - now),
                              Repeat::once, [this] { look(); });
}

void FillingFolders::look() {
    const std::unique_ptr<Timer> fired = std::move(timer_);
    std::set<std::string> filled;
    const timespec stamp = momentNow();
    const Moment now = std::chrono::steady_clock::now();
    std::size_t namesLeft = kMostNamesOfALook;
    for (auto each = entries_.begin(); each != entries_.end();) {
        auto& [key, entry] = *each;
        State state = State::changed;
        if (entry.nextLook <= now) {
            const bool isLast = ++entry.looks >= kMostLooks;
            state = isLast ? State::atRest
                           : Look(volumes_, entry.lastLook, namesLeft).at(key.first, key.second);
            entry.lastLook = stamp;
            entry.nextLook = now + pause_ * (1 << entry.looks);
        }
        if (state != State::changed) filled.insert(key.first);
        each = state == State::atRest ? entries_.erase(each) : std::next(each);
    }
    arm();
    for (const std::string& folder : filled) didFill_(folder);
}

}  // namespace korvane
