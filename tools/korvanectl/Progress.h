// A bar for work that takes longer than a moment, told how many bytes are done.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace korvane::ctl {

// "[######----] 1.2 GB of 2.0 GB, 60 %"; without the whole, which is 0 then, "1.2 GB".
[[nodiscard]] std::string progressLine(std::uint64_t done, std::uint64_t whole);

class Progress {
  public:
    using Moment = std::chrono::steady_clock::time_point;

    // `show` has a line in place of the last one; an empty one takes it away.
    Progress(std::function<void(std::string_view)> show, std::uint64_t whole,
             std::function<Moment()> now = std::chrono::steady_clock::now);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void operator()(std::uint64_t done);

  private:
    std::function<void(std::string_view)> show_;
    std::uint64_t whole_;
    std::function<Moment()> now_;
    Moment next_;
    bool isShown_ = false;
};

}  // namespace korvane::ctl
