// A thousand mounts in a row, and how often the mount table is read because of them. Run in a mount
// namespace of its own.   mount_burst FOLDER MOUNTS
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/linux/LinuxRunLoop.h"
#include "platform/linux/LinuxSystemLog.h"
#include "platform/linux/LinuxVolumes.h"

int main(int argumentCount, char** arguments) {
    using namespace korvane;
    if (argumentCount != 3) {
        std::fprintf(stderr, "usage: mount_burst FOLDER MOUNTS\n");
        return 2;
    }
    const std::string folder = arguments[1];
    const int mounts = std::atoi(arguments[2]);

    LinuxSystemLog log;
    LinuxRunLoop loop{log};
    LinuxVolumes volumes{loop, {}};
    (void)volumes.mountedLocalVolumePaths();
    const std::size_t before = volumes.readings();
    int done = 0;
    std::unique_ptr<Timer> last;
    std::jthread mounter{[&] {
        for (int i = 0; i < mounts; ++i) {
            const std::string path = folder + "/burst" + std::to_string(i);
            done += ::mkdir(path.c_str(), 0700) == 0 &&
                    ::mount("burst", path.c_str(), "tmpfs", 0, nullptr) == 0;
        }
        loop.post([&] {
            // Long enough for every pause that still runs.
            last =
                loop.startTimer(std::chrono::seconds(2), Repeat::once, [&] { loop.terminate(); });
        });
    }};
    loop.run();
    const std::size_t table = volumes.mountTable().size();
    std::printf("%zu %d %zu\n", volumes.readings() - before, done, table);
    return done == mounts && table >= static_cast<std::size_t>(mounts) ? 0 : 1;
}
