// A search for items by their node numbers through everything below some folders, each as far as
// its own file system reaches. It goes on a thread of its own at the lowest priority and for a
// limited time; a dying disk can keep that thread and nobody else. Follows no link.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/LinuxRunLoop.h"

namespace korvane {

class VolumeSearch {
  public:
    using Node = std::pair<dev_t, std::uint64_t>;  // its file system's number and its own
    struct Root {
        std::string path{};  // in bytes
        dev_t device = 0;    // the number of the file system that is expected there
    };
    struct Order {
        std::vector<Root> roots;
        std::set<Node> nodes;
        // Mount points, in bytes: these are not touched, since a dead server may be behind one.
        std::set<std::string> avoided;
        std::chrono::milliseconds limit{};  // for each root, so that none takes another's
    };
    struct Finding {
        std::map<Node, std::string> paths;  // in bytes
        // By file system, whether every folder was looked at in time: then what was not found is
        // not there. One that no root leads to any more is missing.
        std::map<dev_t, bool> isWhole;
    };
    using Callback = std::function<void(const Finding&)>;

    // Calls back once, on the loop, never from here, and with nothing found when a disk keeps the
    // thread for longer than longestTime(). Destroying the search forgets it; its thread ends at
    // the next folder, and until then other searches leave its file system out. Throws
    // std::system_error where no thread can be had, which is so, too, while kMostThreads are kept
    // by their disks.
    static constexpr int kMostThreads = 4;
    [[nodiscard]] static std::chrono::milliseconds longestTime(const Order& order);
    VolumeSearch(LinuxRunLoop& loop, Order order, Callback callback);
    ~VolumeSearch();
    VolumeSearch(const VolumeSearch&) = delete;
    VolumeSearch& operator=(const VolumeSearch&) = delete;

  private:
    struct Shared;
    static int onFinding(sd_event_source* source, int fd, std::uint32_t events,
                         void* self) noexcept;
    void giveUp();

    LinuxRunLoop& loop_;
    Callback callback_;
    std::shared_ptr<Shared> shared_;  // the thread's, too
    EventSource source_;
    std::unique_ptr<Timer> overdue_;
};

}  // namespace korvane
