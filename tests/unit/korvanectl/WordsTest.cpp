// Statuses, times and sizes in words.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <limits>

#include "korvanectl/Words.h"

namespace korvane::ctl {
namespace {

using namespace std::chrono_literals;

constexpr Time kNow = Time{1767225600s};  // 2026-01-01 00:00:00 UTC

class InUtc : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};
using LocalWords = InUtc;

TEST(CheckState, IsStuckWhenRecordedAsRunningWithNothingRunning) {
    const auto state = [](Time due, DaemonPresence daemon) {
        return checkState(CheckKind::usage, kStatusRunning, due, kNow, daemon);
    };
    EXPECT_EQ(state(kNow - 2s, DaemonPresence::reachable), CheckState::running);
    EXPECT_EQ(state(kNow - 60s, DaemonPresence::reachable), CheckState::running);
    EXPECT_EQ(state(kNow - 61s, DaemonPresence::reachable), CheckState::stuck);
    EXPECT_EQ(state(kNow + 1h, DaemonPresence::reachable), CheckState::running);
    EXPECT_EQ(state(kNow - 2s, DaemonPresence::unreachable), CheckState::running);
    EXPECT_EQ(state(kNow - 2s, DaemonPresence::absent), CheckState::stuck);
    EXPECT_EQ(state(kNow + 1h, DaemonPresence::absent), CheckState::stuck);
}

TEST(CheckState, GivesABackupHoursAndDyingDrivesMinutes) {
    const auto state = [](CheckKind kind, Time due) {
        return checkState(kind, kStatusRunning, due, kNow, DaemonPresence::reachable);
    };
    EXPECT_EQ(state(CheckKind::directory, kNow - 11h), CheckState::running);
    EXPECT_EQ(state(CheckKind::directory, kNow - 13h), CheckState::stuck);
    EXPECT_EQ(state(CheckKind::smart, kNow - 9min), CheckState::running);
    EXPECT_EQ(state(CheckKind::smart, kNow - 11min), CheckState::stuck);
}

TEST(CheckState, HasWordsAndATokenForEveryStatus) {
    const struct {
        std::int64_t status;
        const char* words;
        const char* token;
    } rows[] = {
        {0, "not yet examined", "notYetExamined"},
        {1, "waiting", "waiting"},
        {2, "running", "running"},
        {3, "ok", "ok"},
        {4, "LOW SPACE", "failing"},
        {5, "not available", "notAvailable"},
        {6, "unknown", "unknown"},
        {-1, "unknown", "unknown"},
    };
    for (const auto& row : rows) {
        const CheckState state = checkState(CheckKind::usage, static_cast<EntryStatus>(row.status),
                                            kNow, kNow, DaemonPresence::reachable);
        EXPECT_EQ(stateWords(CheckKind::usage, state), row.words);
        EXPECT_EQ(stateToken(state), row.token);
    }
    EXPECT_EQ(stateWords(CheckKind::smart, CheckState::failing), "FAILING");
}

TEST_F(LocalWords, NameTheDayOnlyWhenItIsAnother) {
    EXPECT_EQ(timeWords(kNow + 1h, kNow), "01:00:00");
    EXPECT_EQ(timeWords(kNow - 1s, kNow), "2025-12-31 23:59:59");
}

TEST(UntilWords, AreRoughForWhatIsFar) {
    EXPECT_EQ(untilWords(kNow, kNow), "now");
    EXPECT_EQ(untilWords(kNow - 1h, kNow), "now");
    EXPECT_EQ(untilWords(kNow + 30s, kNow), "in 30 s");
    EXPECT_EQ(untilWords(kNow + 4min + 59s, kNow), "in 4 min");
    EXPECT_EQ(untilWords(kNow + 2h, kNow), "in 2 h");
    EXPECT_EQ(untilWords(kNow + 2h + 5min, kNow), "in 2 h 5 min");
    EXPECT_EQ(untilWords(kNow + 72h, kNow), "in 3 days");
}

TEST(SizeWords, UseTheUnitsOfADrivesLabel) {
    EXPECT_EQ(sizeWords(0), "0 bytes");
    EXPECT_EQ(sizeWords(999), "999 bytes");
    EXPECT_EQ(sizeWords(1500), "1.5 kB");
    EXPECT_EQ(sizeWords(999'949), "999.9 kB");
    EXPECT_EQ(sizeWords(999'960), "1.0 MB");
    EXPECT_EQ(sizeWords(5e11), "500.0 GB");
    EXPECT_EQ(sizeWords(2e24), "2000000.0 EB");
    EXPECT_EQ(sizeWords(-1), "-");
    EXPECT_EQ(sizeWords(std::numeric_limits<double>::quiet_NaN()), "-");
}

TEST(PercentWords, NeverRoundUpToTheLevel) {
    EXPECT_EQ(percentWords(14.99), "14.9 %");
    EXPECT_EQ(percentWords(15), "15.0 %");
    EXPECT_EQ(percentWords(std::numeric_limits<double>::infinity()), "-");
}

TEST(ValueWords, SayWhatASettingHolds) {
    EXPECT_EQ(valueWords(true), "yes");
    EXPECT_EQ(valueWords(15), "15");
    EXPECT_EQ(valueWords(0.5), "0.5");
    EXPECT_EQ(valueWords("text"), "text");
    EXPECT_EQ(valueWords(PropertyListArray{"a", "b"}), "a, b");
    EXPECT_EQ(valueWords(PropertyListArray{}), "(none)");
    EXPECT_EQ(valueWords(PropertyListArray{Dictionary{}}), "(1 entry)");
    EXPECT_EQ(valueWords(Dictionary{{"a", 1}, {"b", 2}}), "(2 settings)");
    EXPECT_EQ(valueWords(PropertyListData{std::byte{1}}), "(1 bytes)");
}

TEST(LoggedMoment, ReadsDatesAndDescriptions) {
    const PropertyList date{std::chrono::floor<std::chrono::seconds>(kNow)};
    EXPECT_EQ(loggedMoment(&date), kNow);
    const PropertyList text{"2026-01-01 01:30:00 +0130"};
    EXPECT_EQ(loggedMoment(&text), kNow);
    const PropertyList west{"2025-12-31 19:00:00 -0500"};
    EXPECT_EQ(loggedMoment(&west), kNow);
    EXPECT_EQ(loggedMoment(nullptr), std::nullopt);
}

TEST(LoggedMoment, TakesNothingElse) {
    for (const char* const malformed :
         {"", "2026-01-01", "2026-01-01 01:30:00", "2026-01-01 01:30:00 0130",
          "2026-13-01 01:30:00 +0000", "2026-02-30 01:30:00 +0000", "2026-01-01 24:00:00 +0000",
          "2026-01-01 01:60:00 +0000", "2026-01-01 01:30:61 +0000", "2026-01-01T01:30:00 +0000",
          "2026-01-01 01:30:00 +00000", "x026-01-01 01:30:00 +0000"}) {
        const PropertyList text{malformed};
        EXPECT_EQ(loggedMoment(&text), std::nullopt) << malformed;
    }
    const PropertyList number{5};
    EXPECT_EQ(loggedMoment(&number), std::nullopt);
}

TEST(LoggedMoment, HoldsDatesBeyondTheClocksRange) {
    const PropertyList far{
        PropertyListDate{std::chrono::seconds{std::numeric_limits<std::int64_t>::max()}}};
    EXPECT_TRUE(loggedMoment(&far));
    EXPECT_FALSE(valueWords(far).empty());
}

}  // namespace
}  // namespace korvane::ctl
