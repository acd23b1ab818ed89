#include "platform/linux/BackgroundThread.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace korvane {

namespace {

// Half of the range of nice values: behind interactive work, yet not starved by every other batch
// job while the main thread waits.
constexpr int kBackgroundNiceIncrease = 10;
constexpr int kLowestNice = 19;

void lowerThisThread() {
    const auto thread = static_cast<id_t>(::gettid());
    errno = 0;
    const int nice = ::getpriority(PRIO_PROCESS, thread);
    if (nice == -1 && errno != 0) return;
    // A refusal leaves the work at its ordinary priority, which is no reason not to do it.
    (void)::setpriority(PRIO_PROCESS, thread,
                        std::min(nice + kBackgroundNiceIncrease, kLowestNice));
}

}  // namespace

BackgroundThread::~BackgroundThread() {
    if (!thread_.joinable()) return;
    handedOver_.release();
    thread_.join();
}

void BackgroundThread::runAndWait(const std::function<void()>& work) {
    if (!thread_.joinable()) {
        try {
            thread_ = std::thread([this] { serve(); });
        } catch (const std::system_error&) {
            // The work matters more than its priority.
            work();
            return;
        }
    }
    work_ = &work;
    handedOver_.release();
    done_.acquire();
    while (part_ != nullptr) {
        (*std::exchange(part_, nullptr))();
        handedOver_.release();
        done_.acquire();
    }
    if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
}

void BackgroundThread::runOnWaitingThread(const std::function<void()>& part) {
    if (std::this_thread::get_id() != thread_.get_id()) {
        part();
        return;
    }
    part_ = &part;
    done_.release();
    handedOver_.acquire();
}

void BackgroundThread::serve() {
    lowerThisThread();
    while (true) {
        handedOver_.acquire();
        if (work_ == nullptr) return;
        try {
            (*std::exchange(work_, nullptr))();
        } catch (...) {
            failure_ = std::current_exception();
        }
        done_.release();
    }
}

}  // namespace korvane
