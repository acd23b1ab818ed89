#include "platform/linux/DriveCommands.h"

#include <fcntl.h>
#include <sys/ioctl.h>

#include <cerrno>

namespace korvane {
namespace {

class KernelDriveCommands final : public DriveCommands {
  public:
    int open(const std::string& path, UniqueFd& descriptor) override {
        descriptor = UniqueFd{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
        return descriptor ? 0 : errno;
    }
    int control(int descriptor, unsigned long request, void* argument) override {
        const int answer = ::ioctl(descriptor, request, argument);
        return answer < 0 ? -errno : answer;
    }
};

}  // namespace

DriveCommands& kernelDriveCommands() {
    static KernelDriveCommands commands;
    return commands;
}

}  // namespace korvane
