#include "core/ScanPace.h"

#include <algorithm>

namespace korvane {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

// A user has the fiftieth part of the loop's time, all users the fourth.
constexpr int kUserShare = 50;
constexpr int kShareOfAll = 4;
// Beside what a scan takes on the loop, the program that it launches takes at least as much.
constexpr milliseconds kLeastCost{10};
// A scan that lasts longer waits for a disk, or the machine slept meanwhile.
constexpr seconds kMostCost{2};
// A hundred short scans: what somebody throws away one by one.
constexpr seconds kSavedUp{1};

}  // namespace

void ScanPace::didChange(const std::string& folder, std::uint32_t user) {
    due_.insert_or_assign(folder, user);
}

ScanPace::Moment ScanPace::paidOff(std::uint32_t user) const {
    const auto known = paidOff_.find(user);
    return known == paidOff_.end() ? Moment(0) : known->second;
}

ScanPace::Moment ScanPace::allowedFrom(std::uint32_t user) const {
    return paidOff(user) - kUserShare * kSavedUp;
}

std::optional<ScanPace::Due> ScanPace::takeNext(Moment now) {
    const auto next = std::ranges::min_element(
        due_, {}, [this](const auto& each) { return paidOff(each.second); });
    if (next == due_.end() || now < nextOfAny_ || now < allowedFrom(next->second)) {
        return std::nullopt;
    }
    Due due{next->first, next->second};
    due_.erase(next);
    return due;
}

std::optional<ScanPace::Moment> ScanPace::nextMoment() const {
    if (due_.empty()) return std::nullopt;
    Moment first = Moment::max();
    for (const auto& [folder, user] : due_) first = std::min(first, allowedFrom(user));
    return std::max(first, nextOfAny_);
}

void ScanPace::didScan(std::uint32_t user, Moment began, Moment ended) {
    const Moment lasted = std::min<Moment>(ended - began, kMostCost);
    nextOfAny_ = ended + (kShareOfAll - 1) * lasted;
    std::erase_if(paidOff_, [&](const auto& each) { return each.second <= began; });
    const auto known = paidOff_.try_emplace(user, began).first;
    known->second += kUserShare * std::max<Moment>(lasted, kLeastCost);
}

}  // namespace korvane
