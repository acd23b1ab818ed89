#include "platform/linux/VolumeSearch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <unordered_set>
#include <utility>

#include "platform/linux/FolderDescent.h"
#include "platform/linux/OpenFolder.h"
#include "platform/linux/ThreadPriority.h"
#include "platform/linux/UniqueFd.h"

namespace korvane {

namespace {

using Moment = std::chrono::steady_clock::time_point;

// One walk through the folders below a root.
class Walk {
  public:
    Walk(const VolumeSearch::Order& order, VolumeSearch::Finding& finding,
         const std::atomic<bool>& isForgotten, Moment end)
        : order_(order), finding_(finding), isForgotten_(isForgotten), end_(end) {}

    void through(const std::string& root) {
        struct stat status {};
        if (!descent_.begin(AT_FDCWD, root) || ::fstat(descent_.folder(), &status) != 0) return;
        device_ = status.st_dev;
        for (const auto& [device, node] : order_.nodes) {
            if (device == device_) nodes_.insert(node);
        }
        // The volume that was mounted there has gone, or its items are those of another mount.
        if (nodes_.empty()) return;
        path_ = root == "/" ? "" : root;
        const bool isWhole = throughFolders();
        const auto [known, isNew] = finding_.isWhole.try_emplace(device_, isWhole);
        if (!isNew) known->second = known->second && isWhole;
    }

  private:
    struct Level {
        std::vector<std::string> folders;  // those still to be entered
        std::size_t pathLength = 0;
    };

    // False when it ended before everything was looked at.
    bool throughFolders() {
        std::vector<Level> levels;
        levels.push_back({look(), path_.size()});
        while (!levels.empty() && !isOver()) {
            Level& level = levels.back();
            path_.resize(level.pathLength);
            if (level.folders.empty()) {
                levels.pop_back();
                if (!levels.empty() && !descent_.leave()) return false;
                continue;
            }
            const std::string name = std::move(level.folders.back());
            level.folders.pop_back();
            path_.append("/").append(name);
            if (order_.avoided.contains(path_)) continue;
            const FolderDescent::Step step = descent_.enter(name);
            // Gone since, or no folder after all. A folder that cannot be opened hides what is in
            // it.
            if (step == FolderDescent::Step::failed && errno != ENOENT) isWhole_ = false;
            if (step == FolderDescent::Step::entered) levels.push_back({look(), path_.size()});
        }
        return levels.empty() && isWhole_;
    }

    [[nodiscard]] bool isOver() const {
        return isForgotten_ || finding_.paths.size() == order_.nodes.size() ||
               std::chrono::steady_clock::now() >= end_;
    }

    // Looks at every name in the current folder; answers those that may be folders.
    std::vector<std::string> look() {
        std::vector<std::string> folders;
        const FolderStream stream = streamOf(openFolderAt(descent_.folder(), "."));
        if (!stream) {
            isWhole_ = false;
            return folders;
        }
        constexpr unsigned kNamesBetweenGlances = 1024;
        unsigned names = 0;
        for (errno = 0; const dirent* const entry = ::readdir(stream.get()); errno = 0) {
            if (++names % kNamesBetweenGlances == 0 && isOver()) break;
            const std::string_view name = entry->d_name;
            if (name == "." || name == "..") continue;
            if (nodes_.contains(entry->d_ino)) note(entry->d_name);
            if (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN) folders.emplace_back(name);
        }
        if (errno != 0) isWhole_ = false;
        return folders;
    }

    void note(const char* name) {
        if (order_.avoided.contains(path_ + '/' + name)) return;
        struct stat status {};
        if (::fstatat(descent_.folder(), name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_dev == device_ && nodes_.contains(status.st_ino)) {
            finding_.paths.emplace(VolumeSearch::Node{device_, status.st_ino}, path_ + '/' + name);
        }
    }

    const VolumeSearch::Order& order_;
    VolumeSearch::Finding& finding_;
    const std::atomic<bool>& isForgotten_;
    Moment end_;
    FolderDescent descent_;
    std::string path_;
    dev_t device_ = 0;
    std::unordered_set<std::uint64_t> nodes_;  // those of the order that are on this file system
    bool isWhole_ = true;
};

}  // namespace

namespace {

std::atomic<int> runningThreads = 0;

// One of those that may run at a time.
class ThreadTicket {
  public:
    ThreadTicket() {
        if (runningThreads.fetch_add(1) < VolumeSearch::kMostThreads) return;
        --runningThreads;
        throw std::system_error(EAGAIN, std::generic_category(), "search thread");
    }
    ~ThreadTicket() { --runningThreads; }
    ThreadTicket(const ThreadTicket&) = delete;
    ThreadTicket& operator=(const ThreadTicket&) = delete;
};

// A walk looks at its watch between folders.
constexpr std::chrono::milliseconds kLongestFolder{1000};

// The file systems that threads are in, which may be kept there.
class FileSystemsInUse {
  public:
    [[nodiscard]] bool take(dev_t device) {
        const std::lock_guard lock(mutex_);
        return devices_.insert(device).second;
    }
    void giveBack(dev_t device) {
        const std::lock_guard lock(mutex_);
        devices_.erase(device);
    }

  private:
    std::mutex mutex_;
    std::set<dev_t> devices_;
};

// Shared with the threads, which may outlive it.
const std::shared_ptr<FileSystemsInUse>& fileSystemsInUse() {
    static const auto inUse = std::make_shared<FileSystemsInUse>();
    return inUse;
}

}  // namespace

// The thread has the lowest priority: on a machine at work it is late as a rule, and a disk that
// hangs needs no hurry.
std::chrono::milliseconds VolumeSearch::longestTime(const Order& order) {
    return order.limit * order.roots.size() + std::max(order.limit, kLongestFolder);
}

// Written by the thread before it signals, read by the loop after that.
struct VolumeSearch::Shared {
    Order order;
    Finding finding;
    std::atomic<bool> isForgotten = false;
    UniqueFd signal{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
    std::shared_ptr<FileSystemsInUse> inUse = fileSystemsInUse();

    void search() {
        for (const auto& [root, device] : order.roots) {
            if (isForgotten) break;
            // Another thread is kept there, and this one would be, too.
            if (!inUse->take(device)) {
                finding.isWhole[device] = false;
                continue;
            }
            const Moment end = std::chrono::steady_clock::now() + order.limit;
            Walk(order, finding, isForgotten, end).through(root);
            inUse->giveBack(device);
        }
        (void)eventfd_write(signal.get(), 1);  // 0 to 1: cannot fail
    }
};

VolumeSearch::VolumeSearch(LinuxRunLoop& loop, Order order, Callback callback)
    : loop_(loop), callback_(std::move(callback)), shared_(std::make_shared<Shared>()) {
    if (!shared_->signal) throw std::system_error(errno, std::generic_category(), "eventfd");
    sd_event_source* source = nullptr;
    const int result =
        sd_event_add_io(loop.event(), &source, shared_->signal.get(), EPOLLIN, onFinding, this);
    if (result < 0) throw std::system_error(-result, std::generic_category(), "search source");
    source_.reset(source);
    shared_->order = std::move(order);
    // Not waited for, ever: a dying disk may keep it, the end of the process does not. All it
    // touches is shared.
    auto ticket = std::make_unique<ThreadTicket>();
    overdue_ = loop.startTimer(longestTime(shared_->order), Repeat::once, [this] { giveUp(); });
    std::thread([shared = shared_, held = std::move(ticket)] {
        yieldToEverything();  // this thread alone
        shared->search();
    }).detach();
}

VolumeSearch::~VolumeSearch() { shared_->isForgotten = true; }

void VolumeSearch::giveUp() {
    source_.reset();
    shared_->isForgotten = true;
    // The callback may destroy the search.
    const Callback callback = callback_;
    const std::unique_ptr<Timer> fired = std::move(overdue_);
    callback(Finding{});
}

int VolumeSearch::onFinding(sd_event_source* /*source*/, int /*fd*/, std::uint32_t /*events*/,
                            void* self) noexcept {
    auto* const search = static_cast<VolumeSearch*>(self);
    search->source_.reset();
    search->overdue_.reset();
    // The callback may destroy the search.
    search->loop_.callBack(
        "a search of a volume",
        [callback = search->callback_, shared = search->shared_] { callback(shared->finding); });
    return 0;
}

}  // namespace korvane
