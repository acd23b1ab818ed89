// Which of the trash folders that have changed is scanned next, and when. A scan holds up the loop,
// writes the records and launches a program, and any user can have as many as they like by keeping
// a trash changing. So each user has a small share of the loop's time, and all of them together a
// larger one. What a user has not used is saved up to a limit: what a person does by hand is seen
// at once. Values only.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace korvane {

class ScanPace {
  public:
    using Moment = std::chrono::microseconds;  // since the machine started

    // A folder with what belongs to this user has changed, and is due until it is taken.
    void didChange(const std::string& folder, std::uint32_t user);

    struct Due {
        std::string folder;
        std::uint32_t user = 0;
    };
    // The folder to scan now: of those whose users may, that of the user who has used the least.
    [[nodiscard]] std::optional<Due> takeNext(Moment now);
    // When the next one may be taken; nothing when none is due.
    [[nodiscard]] std::optional<Moment> nextMoment() const;
    // What a scan has cost its user.
    void didScan(std::uint32_t user, Moment began, Moment ended);

  private:
    [[nodiscard]] Moment paidOff(std::uint32_t user) const;
    [[nodiscard]] Moment allowedFrom(std::uint32_t user) const;

    std::map<std::string, std::uint32_t> due_;
    // When the user's share will have made up for the user's scans.
    std::map<std::uint32_t, Moment> paidOff_;
    Moment nextOfAny_{0};
};

}  // namespace korvane
