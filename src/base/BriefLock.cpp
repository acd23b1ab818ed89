#include "base/BriefLock.h"

#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace korvane {

void lockBriefly(int fd) {
    using namespace std::chrono_literals;
    for (int attempt = 0; attempt < 20; ++attempt) {
        if (flock(fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
        std::this_thread::sleep_for(5ms);
    }
}

}  // namespace korvane
