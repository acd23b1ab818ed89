// What the daemon writes and the recovery program reads, and the other way round.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "KorvaneProDataRecovery/JobFile.h"
#include "KorvaneProDataRecovery/ResultRecords.h"
#include "trash/TrashFormats.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;

std::string jobOf(const SearchJob& job) {
    const SearchJobBytes bytes = encodeSearchJob(job);
    return {bytes.data(), bytes.size()};
}

TEST(SharedFormats, TheProgramTakesEveryJobThatTheDaemonWrites) {
    constexpr std::uint64_t kLargest = UINT64_MAX;
    const std::string bytes = jobOf({1, 2, "/dev/sda1", searchResultPathOf(1)}) +
                              jobOf({0xFFFFFFFF, 0xFFFFFFFE, "/dev/mapper/" + std::string(40, 'x'),
                                     searchResultPathOf(kLargest)});
    const JobFile file = parseJobFile(bytes);
    EXPECT_EQ(file.refused, 0U);
    EXPECT_THAT(file.jobs,
                ElementsAre(RecoveryJob{1, 2, "/dev/sda1", ".1.dat"},
                            RecoveryJob{kLargest, 0xFFFFFFFE, "/dev/mapper/" + std::string(19, 'x'),
                                        ".18446744073709551615.dat"}));
}

TEST(SharedFormats, TheProgramsRecordsKeepTheirWorthUnderTheDaemonsStamp) {
    const RecordedItem item{.node = 7, .trashNode = 7, .name = "letter", .path = "/t/letter"};
    const std::string bytes = encodeItem(item);
    TrashRecord record{};
    ASSERT_EQ(bytes.size(), record.size());
    std::memcpy(record.data(), bytes.data(), record.size());
    EXPECT_EQ(trashRecordStamp(record), 0U);
    stampTrashRecord(record, 3'900'000'000);
    std::array<std::uint8_t, kResultRecordSize> stamped;
    std::memcpy(stamped.data(), record.data(), stamped.size());
    const auto decoded = decodeRecord(stamped);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->stamp, 3'900'000'000U);
    ItemAssembly assembly;
    const auto whole = assembly.add(*decoded);
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->item, item);
}

TEST(SharedFormats, AHeaderIsNoRecordOfAnItem) {
    const TrashRecord header = encodeTrashDeletesHeader({"/dev/sda1", "/", "Disk - 1", true});
    std::array<std::uint8_t, kResultRecordSize> bytes;
    std::memcpy(bytes.data(), header.data(), bytes.size());
    EXPECT_FALSE(decodeRecord(bytes));
    EXPECT_TRUE(decodeTrashDeletesHeader({header.data(), header.size()}));
}

}  // namespace
}  // namespace korvane
