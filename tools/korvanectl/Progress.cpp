#include "korvanectl/Progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "korvanectl/Words.h"

namespace korvane::ctl {

namespace {

using namespace std::chrono_literals;

// What is done within this is not worth a bar.
constexpr auto kMoment = 1s;
// Often enough to be seen to move.
constexpr auto kInterval = 200ms;
constexpr std::size_t kWidth = 30;

}  // namespace

std::string progressLine(std::uint64_t done, std::uint64_t whole) {
    std::string doneWords = sizeWords(static_cast<double>(done));
    if (whole == 0) return doneWords;
    const double part = std::min(static_cast<double>(done) / static_cast<double>(whole), 1.0);
    const std::string full(static_cast<std::size_t>(part * kWidth), '#');
    return fmt::format("[{:-<{}}] {} of {}, {:.0f} %", full, kWidth, doneWords,
                       sizeWords(static_cast<double>(whole)), part * 100);
}

Progress::Progress(std::function<void(std::string_view)> show, std::uint64_t whole,
                   std::function<Moment()> now)
    : show_(std::move(show)), whole_(whole), now_(std::move(now)), next_(now_() + kMoment) {}

Progress::~Progress() {
    if (isShown_) show_("");
}

void Progress::operator()(std::uint64_t done) {
    const Moment now = now_();
    if (now < next_) return;
    next_ = now + kInterval;
    isShown_ = true;
    show_(progressLine(done, whole_));
}

}  // namespace korvane::ctl
