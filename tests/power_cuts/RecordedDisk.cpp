#define FUSE_USE_VERSION 35
#include "power_cuts/RecordedDisk.h"

#include <fcntl.h>
#include <fuse3/fuse.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

namespace korvane {

namespace {

constexpr char kName[] = "/disk";
constexpr std::size_t kPageBytes = 4096;

// Of the serving process.
int imageFile = -1;
int recordFile = -1;
std::atomic<std::uint64_t>* recorded = nullptr;

struct RecordHead {
    std::uint64_t offset;
    std::uint64_t length;  // 0 for a flush
};

int giveAttributes(const char* path, struct stat* status, fuse_file_info* /*file*/) {
    *status = {};
    if (std::strcmp(path, "/") == 0) {
        status->st_mode = S_IFDIR | 0700;
        status->st_nlink = 2;
        return 0;
    }
    if (std::strcmp(path, kName) != 0 || fstat(imageFile, status) != 0) return -ENOENT;
    return 0;
}

int readDisk(const char* /*path*/, char* bytes, size_t size, off_t offset,
             fuse_file_info* /*file*/) {
    const ssize_t count = pread(imageFile, bytes, size, offset);
    return count < 0 ? -errno : static_cast<int>(count);
}

bool record(const RecordHead& head, const char* bytes) {
    const bool isWritten =
        write(recordFile, &head, sizeof head) == ssize_t{sizeof head} &&
        write(recordFile, bytes, head.length) == static_cast<ssize_t>(head.length);
    ++*recorded;
    return isWritten;
}

int writeDisk(const char* /*path*/, const char* bytes, size_t size, off_t offset,
              fuse_file_info* /*file*/) {
    const ssize_t count = pwrite(imageFile, bytes, size, offset);
    if (count < 0) return -errno;
    const RecordHead head{static_cast<std::uint64_t>(offset), static_cast<std::uint64_t>(count)};
    return record(head, bytes) ? static_cast<int>(count) : -EIO;
}

int flushDisk(const char* /*path*/, int /*dataOnly*/, fuse_file_info* /*file*/) {
    return record({0, 0}, nullptr) ? 0 : -EIO;
}

int serve(const std::string& mountPoint) {
    fuse_operations operations{};
    operations.getattr = giveAttributes;
    operations.read = readDisk;
    operations.write = writeDisk;
    operations.fsync = flushDisk;
    std::string program = "recorded_disk";
    std::string foreground = "-f";
    std::string singleThread = "-s";
    std::string folder = mountPoint;
    char* arguments[] = {program.data(), foreground.data(), singleThread.data(), folder.data()};
    return fuse_main(4, arguments, &operations, nullptr);
}

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

RecordedDisk::RecordedDisk(std::string image, std::string mountPoint, std::string record)
    : image_(std::move(image)),
      mountPoint_(std::move(mountPoint)),
      recordFile_(std::move(record)) {}

RecordedDisk::~RecordedDisk() { stop(); }

bool RecordedDisk::start() {
    void* memory =
        mmap(nullptr, sizeof *events_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return false;
    events_ = new (memory) std::atomic<std::uint64_t>(0);
    server_ = fork();
    if (server_ == 0) {
        imageFile = open(image_.c_str(), O_RDWR | O_CLOEXEC);
        recordFile = open(recordFile_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        recorded = events_;
        _exit(imageFile >= 0 && recordFile >= 0 ? serve(mountPoint_) : 1);
    }
    struct stat status {};
    for (int attempt = 0; attempt < 1000; ++attempt) {
        if (stat(diskFile().c_str(), &status) == 0) return true;
        if (waitpid(server_, nullptr, WNOHANG) == server_) break;
        (void)usleep(10'000);
    }
    return false;
}

void RecordedDisk::stop() {
    if (server_ <= 0) return;
    (void)kill(server_, SIGTERM);  // unmounts and ends
    (void)waitpid(server_, nullptr, 0);
    server_ = -1;
}

std::uint64_t RecordedDisk::events() const { return *events_; }

DiskReplay::DiskReplay(const std::string& image, const std::string& record)
    : flushed_(contents(image)) {
    std::ifstream file(record, std::ios::binary);
    RecordHead head{};
    while (file.read(reinterpret_cast<char*>(&head), sizeof head)) {
        Event event{head.offset, std::string(head.length, '\0')};
        file.read(event.bytes.data(), static_cast<std::streamsize>(head.length));
        events_.push_back(std::move(event));
    }
}

std::string DiskReplay::imageAfter(std::uint64_t until, std::mt19937& random) {
    for (; seen_ < until; ++seen_) {
        if (!events_[seen_].bytes.empty()) continue;
        for (; flushedUntil_ <= seen_; ++flushedUntil_) {
            const Event& event = events_[flushedUntil_];
            flushed_.replace(event.offset, event.bytes.size(), event.bytes);
        }
    }
    std::string image = flushed_;
    // All of them, none, or something in between.
    const unsigned chance = std::uniform_int_distribution<unsigned>(0, 4)(random) * 25;
    std::uniform_int_distribution<unsigned> percent(0, 99);
    for (std::uint64_t event = flushedUntil_; event < until; ++event) {
        const std::string& bytes = events_[event].bytes;
        for (std::size_t at = 0; at < bytes.size(); at += kPageBytes) {
            if (percent(random) >= chance) continue;
            const std::string_view page = std::string_view(bytes).substr(at, kPageBytes);
            image.replace(events_[event].offset + at, page.size(), page);
        }
    }
    return image;
}

}  // namespace korvane
