#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>

#include "core/ScanPace.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Moment = ScanPace::Moment;

constexpr std::uint32_t kAda = 1000;
constexpr std::uint32_t kEve = 1001;

class Pace : public testing::Test {
  protected:
    // Scans whatever may be scanned until then, each scan taking so long; how often the folder was.
    int scans(const std::string& folder, Moment until, Moment duration) {
        int count = 0;
        while (now < until) {
            const auto due = pace.takeNext(now);
            if (!due) {
                const auto next = pace.nextMoment();
                if (!next || *next > until) break;
                EXPECT_GT(*next, now);
                now = *next;
                continue;
            }
            if (due->folder == folder) ++count;
            pace.didScan(due->user, now, now + duration);
            now += duration;
            // Whoever keeps a trash changing has changed it again by then.
            if (due->user == kEve) pace.didChange(due->folder, kEve);
        }
        now = until;
        return count;
    }

    ScanPace pace;
    Moment now = seconds(1000);
};

TEST_F(Pace, TakesAFolderOnceForEachChange) {
    EXPECT_EQ(pace.nextMoment(), std::nullopt);
    EXPECT_FALSE(pace.takeNext(now));
    pace.didChange("/a", kAda);
    pace.didChange("/a", kAda);
    const auto due = pace.takeNext(now);
    ASSERT_TRUE(due);
    EXPECT_EQ(due->folder, "/a");
    EXPECT_EQ(due->user, kAda);
    EXPECT_FALSE(pace.takeNext(now));
}

TEST_F(Pace, LetsAHandfulOfShortScansThroughAtOnce) {
    for (int scan = 0; scan < 90; ++scan) {
        pace.didChange("/a", kAda);
        ASSERT_TRUE(pace.takeNext(now)) << scan;
        pace.didScan(kAda, now, now + milliseconds(2));
        now += milliseconds(100);
    }
}

TEST_F(Pace, GivesAUserNoMoreThanAShare) {
    pace.didChange("/e", kEve);
    // A second was saved up.
    EXPECT_NEAR(scans("/e", now + seconds(60), milliseconds(100)), 10 + 60.0 / 5, 2);
    EXPECT_NEAR(scans("/e", now + seconds(600), milliseconds(100)), 600.0 / 5, 2);
    // The more a scan costs, the longer the pause.
    EXPECT_NEAR(scans("/e", now + seconds(600), seconds(1)), 600.0 / 50, 2);
}

TEST_F(Pace, CountsTheFoldersOfAUserTogether) {
    for (const char* folder : {"/e", "/f", "/g"}) pace.didChange(folder, kEve);
    (void)scans("/e", now + seconds(120), milliseconds(100));
    EXPECT_LE(scans("/e", now + seconds(600), milliseconds(100)), 600 / 5);
    EXPECT_LE(scans("/f", now + seconds(600), milliseconds(100)), 600 / 5);
}

TEST_F(Pace, ChargesAShortScanForTheProgramThatItLaunches) {
    pace.didChange("/e", kEve);
    (void)scans("/e", now + seconds(120), milliseconds(0));
    EXPECT_LE(scans("/e", now + seconds(60), milliseconds(0)), 60 * 2 + 1);
}

TEST_F(Pace, ServesOthersBesideAUserWhoKeepsATrashChanging) {
    pace.didChange("/e", kEve);
    (void)scans("/e", now + seconds(60), milliseconds(100));
    for (int turn = 0; turn < 20; ++turn) {
        pace.didChange("/a", kAda);
        EXPECT_EQ(scans("/a", now + seconds(1), milliseconds(100)), 1) << turn;
        (void)scans("/e", now + seconds(60), milliseconds(100));
    }
}

TEST_F(Pace, LeavesTheLoopMostOfItsTimeWhoeverIsDue) {
    for (std::uint32_t user = 0; user < 50; ++user) {
        pace.didChange("/" + std::to_string(user), user);
    }
    int count = 0;
    for (const Moment end = now + seconds(4); now < end; now += milliseconds(1)) {
        const auto due = pace.takeNext(now);
        if (!due) continue;
        ++count;
        pace.didScan(due->user, now, now + milliseconds(100));
        now += milliseconds(100);
    }
    EXPECT_NEAR(count, 10, 1);
}

TEST_F(Pace, ForgetsAUserWhoRests) {
    pace.didChange("/e", kEve);
    (void)scans("/e", now + seconds(600), milliseconds(100));
    (void)pace.takeNext(now);
    now += seconds(120);
    pace.didChange("/e", kEve);
    EXPECT_NEAR(scans("/e", now + seconds(8), milliseconds(100)), 11, 2);
}

// The machine may sleep in the middle of a scan.
TEST_F(Pace, TakesNoScanForLongerThanADiskMayMakeItWait) {
    pace.didChange("/a", kAda);
    ASSERT_TRUE(pace.takeNext(now));
    pace.didScan(kAda, now, now + std::chrono::hours(8));
    now += std::chrono::hours(8);
    pace.didChange("/a", kAda);
    EXPECT_LE(*pace.nextMoment() - now, seconds(60));
}

}  // namespace
}  // namespace korvane
