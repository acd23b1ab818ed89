// A disk image whose writes and flushes are recorded: a file system of one file in user space, over
// which a loop device lies. A process of its own serves it. From the record the contents that a
// power cut may have left can be put together for any moment.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace korvane {

class RecordedDisk {
  public:
    // `image` is what the disk holds at first. Serves it as "disk" in the folder `mountPoint`.
    RecordedDisk(std::string image, std::string mountPoint, std::string recordFile);
    ~RecordedDisk();
    RecordedDisk(const RecordedDisk&) = delete;
    RecordedDisk& operator=(const RecordedDisk&) = delete;

    [[nodiscard]] bool start();
    void stop();
    [[nodiscard]] std::string diskFile() const { return mountPoint_ + "/disk"; }
    // How many writes and flushes were recorded by now.
    [[nodiscard]] std::uint64_t events() const;

  private:
    std::string image_;
    std::string mountPoint_;
    std::string recordFile_;
    std::atomic<std::uint64_t>* events_ = nullptr;  // shared with the serving process
    pid_t server_ = -1;
};

// What the disk may hold after a power cut.
class DiskReplay {
  public:
    DiskReplay(const std::string& image, const std::string& recordFile);
    [[nodiscard]] std::uint64_t events() const { return events_.size(); }
    // All that was flushed by the event, and of the pages written after that flush a choice. Ask
    // for one moment after the other.
    [[nodiscard]] std::string imageAfter(std::uint64_t event, std::mt19937& random);

  private:
    struct Event {
        std::uint64_t offset = 0;
        std::string bytes;  // empty for a flush
    };
    std::vector<Event> events_;
    std::string flushed_;  // the image with all that is on the disk for certain
    std::uint64_t flushedUntil_ = 0;
    std::uint64_t seen_ = 0;
};

}  // namespace korvane
