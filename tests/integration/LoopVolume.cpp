#include "LoopVolume.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>

#include "platform/linux/UniqueFd.h"

namespace korvane {
namespace {

// Enough for a journal-less ext4.
constexpr off_t kImageBytes = 4 * 1024 * 1024;

bool makeFileSystem(const std::string& image) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::execlp("mkfs.ext4", "mkfs.ext4", "-q", "-F", "-O", "^has_journal", image.c_str(),
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Another test may take the free device first; then the next one is asked for.
std::string attach(const std::string& image) {
    const UniqueFd control{::open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
    const UniqueFd file{::open(image.c_str(), O_RDWR | O_CLOEXEC)};
    for (int attempt = 0; attempt < 100 && control && file; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) return {};
        const std::string device = "/dev/loop" + std::to_string(number);
        const UniqueFd loop{::open(device.c_str(), O_RDWR | O_CLOEXEC)};
        loop_config configuration{};
        configuration.fd = static_cast<std::uint32_t>(file.get());
        if (loop && ::ioctl(loop.get(), LOOP_CONFIGURE, &configuration) == 0) return device;
    }
    return {};
}

}  // namespace

bool enterPrivateMounts() {
    static const bool isPrivate = ::unshare(CLONE_NEWNS) == 0 &&
                                  ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return isPrivate;
}

LoopVolume::LoopVolume(const std::string& folder, const std::string& name)
    : image_(folder + "/" + name + ".img") {
    const UniqueFd file{::open(image_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600)};
    if (file && ::ftruncate(file.get(), kImageBytes) == 0 && makeFileSystem(image_)) {
        device_ = attach(image_);
    }
}

LoopVolume::~LoopVolume() {
    const UniqueFd loop{::open(device_.c_str(), O_RDWR | O_CLOEXEC)};
    // While it is still mounted the kernel detaches it at the last unmount.
    if (loop) (void)::ioctl(loop.get(), LOOP_CLR_FD);
}

PulledLoop::PulledLoop() {
    const UniqueFd control{::open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
    const UniqueFd file{::memfd_create("loop", MFD_CLOEXEC)};
    if (!control || !file || ::ftruncate(file.get(), 1 << 16) != 0) return;
    number_ = ::ioctl(control.get(), LOOP_CTL_ADD, -1);
    if (number_ < 0) return;
    name_ = "loop" + std::to_string(number_);
    // Taken, or another test would be given it as a free one.
    const UniqueFd loop{::open(("/dev/" + name_).c_str(), O_RDWR | O_CLOEXEC)};
    loop_config configuration{};
    configuration.fd = static_cast<std::uint32_t>(file.get());
    if (!loop || ::ioctl(loop.get(), LOOP_CONFIGURE, &configuration) != 0) name_.clear();
}

bool PulledLoop::pull() {
    if (number_ < 0) return true;
    const UniqueFd control{::open("/dev/loop-control", O_RDWR | O_CLOEXEC)};
    {
        const UniqueFd loop{::open(("/dev/" + name_).c_str(), O_RDWR | O_CLOEXEC)};
        if (loop) (void)::ioctl(loop.get(), LOOP_CLR_FD);
    }
    if (::ioctl(control.get(), LOOP_CTL_REMOVE, number_) < 0) return false;
    number_ = -1;
    return true;
}

bool LoopVolume::mountAt(const std::string& path, unsigned long flags) const {
    std::filesystem::create_directories(path);
    return !device_.empty() && ::mount(device_.c_str(), path.c_str(), "ext4", flags, nullptr) == 0;
}

}  // namespace korvane
