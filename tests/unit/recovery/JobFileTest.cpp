// Job files byte by byte, the malformed ones above all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <string_view>

#include "KorvaneProDataRecovery/JobFile.h"
#include "trash/TrashFormats.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using namespace std::string_view_literals;

std::string padded(std::string_view text, std::size_t size) {
    std::string field{text};
    field.resize(size);
    return field;
}

std::string job(std::string_view device, std::string_view path, std::string_view tag = "id") {
    const std::uint32_t node = 4'000'000'001;
    const std::uint32_t parent = 12;
    std::string record = padded(tag, 4) + std::string(8, '\0');
    std::memcpy(record.data() + 4, &node, 4);
    std::memcpy(record.data() + 8, &parent, 4);
    return record + padded(device, 32) + padded(path, 32);
}

TEST(JobFile, ReadsEveryFieldOfAJob) {
    const JobFile file = parseJobFile(job("/dev/sda1", "/tmp/.12884901889.dat"));
    EXPECT_THAT(file.jobs,
                ElementsAre(RecoveryJob{4'000'000'001, 12, "/dev/sda1", ".12884901889.dat"}));
    EXPECT_EQ(file.refused, 0U);
}

TEST(JobFile, TakesTheWholeNumberFromTheNameOfTheResult) {
    constexpr std::uint64_t kUpper = 7ULL << 32;
    std::string bytes;
    for (const std::uint64_t number : {kUpper + 4'000'000'001, std::uint64_t{4'000'000'001}}) {
        bytes += job("/dev/sda1", "/tmp/." + std::to_string(number) + ".dat");
    }
    const JobFile file = parseJobFile(bytes);
    ASSERT_THAT(file.jobs, SizeIs(2));
    EXPECT_EQ(file.jobs[0].node, kUpper + 4'000'000'001);
    EXPECT_EQ(file.jobs[1].node, 4'000'000'001);
}

TEST(JobFile, KeepsTheOrderAndGoesOnBehindARecordThatIsNoJob) {
    const JobFile file = parseJobFile(job("/dev/a", "/tmp/.1.dat") + std::string(76, 'x') +
                                      job("/dev/b", "/tmp/.2.dat"));
    ASSERT_THAT(file.jobs, SizeIs(2));
    EXPECT_EQ(file.jobs[1].device, "/dev/b");
    EXPECT_EQ(file.refused, 1U);
}

TEST(JobFile, RefusesWhatIsMalformed) {
    struct {
        const char* what;
        std::string bytes;
    } const rows[] = {
        {"short record", job("/dev/a", "/tmp/.1.dat").substr(0, 75)},
        {"one byte", "i"},
        {"other tag", job("/dev/a", "/tmp/.1.dat", "ID")},
        {"tag with rubbish behind it", job("/dev/a", "/tmp/.1.dat", "id\0x"sv)},
        {"no device", job("", "/tmp/.1.dat")},
        {"unterminated device", job(std::string(32, 'd'), "/tmp/.1.dat")},
        {"rubbish behind the device", job("/dev/a\0b"sv, "/tmp/.1.dat")},
        {"no result path", job("/dev/a", "")},
        {"unterminated result path", job("/dev/a", "/tmp/.1111111111111111111111.dat")},
        {"rubbish behind the result path", job("/dev/a", "/tmp/.1.dat\0x"sv)},
        {"no number", job("/dev/a", "/tmp/..dat")},
        {"more than a number can be", job("/dev/a", "/tmp/.18446744073709551616.dat")},
        {"zeros before the number", job("/dev/a", "/tmp/.01.dat")},
        {"no digits", job("/dev/a", "/tmp/.x.dat")},
        {"sign", job("/dev/a", "/tmp/.-1.dat")},
        {"blank", job("/dev/a", "/tmp/. 1.dat")},
        {"more digits than a number has", job("/dev/a", "/tmp/.111111111111111111111.dat")},
        {"other folder", job("/dev/a", "/etc/.1.dat")},
        {"way out of the folder", job("/dev/a", "/tmp/../etc/.1.dat")},
        {"folder below", job("/dev/a", "/tmp/.1/.2.dat")},
        {"doubled slash", job("/dev/a", "/tmp//.1.dat")},
        {"other ending", job("/dev/a", "/tmp/.1.dat2")},
        {"no dot", job("/dev/a", "/tmp/1.dat")},
    };
    for (const auto& row : rows) {
        const JobFile file = parseJobFile(row.bytes);
        EXPECT_THAT(file.jobs, IsEmpty()) << row.what;
        EXPECT_EQ(file.refused, 1U) << row.what;
    }
}

TEST(JobFile, HasNoJobsInAnEmptyFile) {
    const JobFile file = parseJobFile("");
    EXPECT_THAT(file.jobs, IsEmpty());
    EXPECT_EQ(file.refused, 0U);
}

TEST(JobFile, TakesAResultFileOnce) {
    const JobFile file = parseJobFile(job("/dev/a", "/tmp/.1.dat") + job("/dev/b", "/tmp/.1.dat"));
    EXPECT_THAT(file.jobs, SizeIs(1));
    EXPECT_EQ(file.refused, 1U);
}

TEST(JobFile, ReadsNoMoreThanTheMostJobs) {
    std::string bytes;
    for (std::size_t i = 0; i < 2 * kMostJobs; ++i) {
        bytes += job("/dev/a", "/tmp/." + std::to_string(i) + ".dat");
    }
    const JobFile file = parseJobFile(bytes);
    EXPECT_THAT(file.jobs, SizeIs(kMostJobs));
    EXPECT_EQ(file.refused, 1U);
}

TEST(JobFile, HasTheVolumesNameInItsOwn) {
    for (const char* const name : {"System", "a/b", "two words", " ", "..", "x.dat"}) {
        EXPECT_EQ(volumeNameOfInput(searchInputPathOf(name)), name);
    }
    for (const char* const path : {"", "/tmp/.KVDataRec_.dat", "/tmp/.KVDataRec_x", "/tmp/jobs",
                                   "/etc/.KVDataRec_x.dat", "KVDataRec_x.dat"}) {
        EXPECT_EQ(volumeNameOfInput(path), "") << path;
    }
}

}  // namespace
}  // namespace korvane
