// The same machine, seed and events give the same run, byte for byte: a failure can be had again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::days;
using std::chrono::hours;
using std::chrono::minutes;

struct Outcome {
    std::vector<std::string> log;
    std::string settings;
    std::vector<std::string> files;
    std::uint64_t journalLines = 0;
    std::uint64_t journalDigest = 0;

    friend bool operator==(const Outcome&, const Outcome&) = default;
};

// A week in which something happens on every day.
Outcome weekOn(const std::string& machineName, std::uint64_t seed) {
    Scenario s{machineName, seed};
    s.run(days{1});
    s.fill("/Volumes/Data", 95_percent).run(days{1});
    s.plug("stick").run(hours{5});
    s.pull("stick").run(hours{19});
    s.onBattery().run(hours{6}).onMains().becomeActive().run(hours{18});
    s.suspend(hours{10}).run(hours{14});
    s.stepClock(-hours{2}).fill("/Volumes/Data", 20_percent).run(days{1});
    s.failNextWrites(3).run(minutes{30}).restart().run(days{1} - minutes{30});

    Outcome outcome;
    outcome.log = s.log();
    outcome.settings =
        s.machine()
            .fileSystem
            .bytes("/Library/Application Support/Korvane Protection/KorvaneProtection.plist")
            .value_or("");
    outcome.files = s.machine().fileSystem.paths();
    outcome.journalLines = s.machine().journal.lineCount();
    outcome.journalDigest = s.machine().journal.digest();
    return outcome;
}

TEST(Repeatability, AWeekWithThreeVolumesGivesTheSameLogTwice) {
    const Outcome first = weekOn("three-volumes", 7);
    const Outcome second = weekOn("three-volumes", 7);
    EXPECT_EQ(first.log, second.log);
    EXPECT_EQ(first.settings, second.settings);
    EXPECT_EQ(first.files, second.files);
    EXPECT_EQ(first.journalLines, second.journalLines);
    EXPECT_EQ(first.journalDigest, second.journalDigest);
    // Two internal volumes, each every five minutes of nearly seven days: the week was lived.
    EXPECT_GT(first.journalLines, 10000U);
    EXPECT_THAT(first.log, testing::Contains(testing::HasSubstr("WARNING! \"Data\"")));
}

TEST(Repeatability, TheOrderOfFoldersDoesNotShow) {
    // Another seed is another order of names in every folder, and nothing else.
    const Outcome first = weekOn("three-volumes", 1);
    const Outcome second = weekOn("three-volumes", 2);
    EXPECT_EQ(first.log, second.log);
    EXPECT_EQ(first.settings, second.settings);
    EXPECT_EQ(first.files, second.files);
}

}  // namespace
}  // namespace korvane
