#include "base/BriefLock.h"

#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace korvane {

void lockBriefly(int fd, Sharing sharing) {
    using namespace std::chrono_literals;
    const int kind = sharing == Sharing::none ? LOCK_EX : LOCK_SH;
    for (int attempt = 0; attempt < 50; ++attempt) {
        if (flock(fd, kind | LOCK_NB) == 0 || errno != EWOULDBLOCK) return;
        std::this_thread::sleep_for(5ms);
    }
}

}  // namespace korvane
