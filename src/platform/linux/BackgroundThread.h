// One thread of lowered priority that another hands work to and waits for. It is started at the
// first work and kept, since starting one costs several times what a command does; while it waits
// it costs nothing. What must not inherit its priority, the launching of a program above all, the
// work hands back to the thread that waits for it.
#pragma once

#include <exception>
#include <functional>
#include <semaphore>
#include <thread>

namespace korvane {

class BackgroundThread {
  public:
    BackgroundThread() = default;
    ~BackgroundThread();
    BackgroundThread(const BackgroundThread&) = delete;
    BackgroundThread& operator=(const BackgroundThread&) = delete;

    // Runs the work there and returns when it is done; throws what it throws. Runs it on the
    // calling thread when no other is to be had. One caller at a time, never from within the work.
    void runAndWait(const std::function<void()>& work);

    // Runs the part on the thread that waits in runAndWait() and returns when it is done; outside
    // of such work, at once. The part throws nothing.
    void runOnWaitingThread(const std::function<void()>& part);

  private:
    void serve();

    const std::function<void()>* work_ = nullptr;  // null: the thread ends
    const std::function<void()>* part_ = nullptr;  // of the work, for the thread that waits
    std::exception_ptr failure_;
    std::binary_semaphore handedOver_{0};
    std::binary_semaphore done_{0};
    std::thread thread_;
};

}  // namespace korvane
