// The bar for long work, on a clock of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "korvanectl/Progress.h"

namespace korvane::ctl {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(ProgressLine, ShowsHowMuchIsDone) {
    EXPECT_EQ(progressLine(0, 2'000'000),
              "[------------------------------] 0 bytes of 2.0 MB, 0 %");
    EXPECT_EQ(progressLine(1'000'000, 2'000'000),
              "[###############---------------] 1.0 MB of 2.0 MB, 50 %");
    EXPECT_EQ(progressLine(3'000'000, 2'000'000),
              "[##############################] 3.0 MB of 2.0 MB, 100 %");
    EXPECT_EQ(progressLine(1'000'000, 0), "1.0 MB");
}

class ProgressTest : public testing::Test {
  protected:
    std::vector<std::string> lines;
    Progress::Moment now{};
    std::function<void(std::string_view)> show = [this](std::string_view line) {
        lines.emplace_back(line);
    };
    std::function<Progress::Moment()> clock = [this] { return now; };
};

TEST_F(ProgressTest, SaysNothingOfWhatTakesAMoment) {
    {
        Progress progress{show, 100, clock};
        progress(50);
        now += 900ms;
        progress(100);
    }
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ProgressTest, ShowsLongWorkNotTooOftenAndTakesTheLineAway) {
    {
        Progress progress{show, 0, clock};
        now += 1s;
        progress(10);
        now += 100ms;
        progress(20);
        now += 100ms;
        progress(30);
    }
    EXPECT_THAT(lines, ElementsAre("10 bytes", "30 bytes", ""));
}

}  // namespace
}  // namespace korvane::ctl
