// One thread of lowered priority that another hands work to and waits for. It is started at the
// first work and kept, since starting one costs several times what a command does; while it waits
// it costs nothing.
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

  private:
    void serve();

    const std::function<void()>* work_ = nullptr;  // null: the thread ends
    std::exception_ptr failure_;
    std::binary_semaphore handedOver_{0};
    std::binary_semaphore done_{0};
    std::thread thread_;
};

}  // namespace korvane
