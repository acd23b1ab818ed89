// The one owner of a file descriptor: destroying it closes the descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace korvane {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        // What close says cannot be acted on here: the descriptor is gone either way.
        if (fd_ >= 0) (void)::close(fd_);
    }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }
    [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  private:
    int fd_ = -1;
};

}  // namespace korvane
