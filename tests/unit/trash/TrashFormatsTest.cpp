#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "trash/TrashFormats.h"

namespace korvane {
namespace {

std::string_view view(const SearchJobBytes& bytes) { return {bytes.data(), bytes.size()}; }
std::string_view view(const TrashRecord& bytes) { return {bytes.data(), bytes.size()}; }

const SearchJob kJob{.nodeId = 0x01020304,
                     .parentId = 77,
                     .deviceName = "/dev/sda2",
                     .searchResultPath = "/tmp/.16909060.dat"};

TEST(SearchJobRecord, HasItsFieldsInTheirPlaces) {
    const SearchJobBytes bytes = encodeSearchJob(kJob);
    EXPECT_EQ(view(bytes).substr(0, 4), std::string_view("id\0\0", 4));
    EXPECT_EQ(view(bytes).substr(12, 10), std::string_view("/dev/sda2\0", 10));
    EXPECT_EQ(view(bytes).substr(44, 19), std::string_view("/tmp/.16909060.dat\0", 19));
    EXPECT_TRUE(std::all_of(bytes.begin() + 63, bytes.end(), [](char byte) { return byte == 0; }));
    EXPECT_EQ(decodeSearchJob(view(bytes)), kJob);
}

TEST(SearchJobRecord, CutsATextThatDoesNotFitAndEndsIt) {
    SearchJob job = kJob;
    job.deviceName = std::string(40, 'd');
    const auto decoded = decodeSearchJob(view(encodeSearchJob(job)));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->deviceName, std::string(31, 'd'));
    EXPECT_EQ(decoded->searchResultPath, kJob.searchResultPath);
}

TEST(SearchJobRecord, IsRefusedWhenItIsMalformed) {
    const SearchJobBytes good = encodeSearchJob(kJob);
    const std::string text(view(good));
    struct Row {
        const char* what;
        std::string bytes;
    };
    const auto with = [&](std::size_t at, std::string_view part) {
        std::string changed = text;
        return changed.replace(at, part.size(), part);
    };
    const Row rows[] = {
        {"nothing", ""},
        {"a byte short", text.substr(0, 75)},
        {"a byte long", text + '\0'},
        {"another tag", with(0, "xd")},
        {"a tag that goes on", with(2, "x")},
        {"a device name without an end", with(12, std::string(32, 'd'))},
        {"a result path without an end", with(44, std::string(32, 'p'))},
    };
    for (const Row& row : rows) EXPECT_FALSE(decodeSearchJob(row.bytes)) << row.what;
}

TEST(SearchPaths, ComeFromTheNodeAndFromTheVolume) {
    EXPECT_EQ(searchResultPathOf(18'446'744'073'709'551'615U), "/tmp/.18446744073709551615.dat");
    EXPECT_EQ(searchInputPathOf("Data"), "/tmp/.KVDataRec_Data.dat");
    EXPECT_EQ(searchInputPathOf("a/../b"), "/tmp/.KVDataRec_a%2F..%2Fb.dat");
}

TEST(SearchPaths, AreToldFromOthers) {
    for (const std::uint64_t node : {std::uint64_t{0}, std::uint64_t{12}, ~std::uint64_t{0}}) {
        EXPECT_EQ(nodeOfSearchResult(searchResultPathOf(node)), node);
    }
    for (const char* other :
         {"", "/tmp/.dat", "/tmp/..dat", "/tmp/.7", "/tmp/.7.da", "/tmp/.7.dat ", "/tmp/.07.dat",
          "/tmp/.00.dat", "/tmp/.-7.dat", "/tmp/.+7.dat", "/tmp/. 7.dat", "/tmp/.7x.dat",
          "/tmp/.18446744073709551616.dat", "/tmp/7.dat", "/var/tmp/.7.dat",
          "/tmp/.KVDataRec_7.dat"}) {
        EXPECT_FALSE(nodeOfSearchResult(other)) << other;
    }
    for (const char* name : {"Data", "", "a/b", "Data 1"}) {
        EXPECT_TRUE(isSearchInputPath(searchInputPathOf(name))) << name;
    }
    for (const char* other : {"", "/tmp/.KVDataRec_", "/tmp/.KVDataRec_.da", "/tmp/.7.dat",
                              "/tmp/.KVDataRec_a/b.dat", "/tmp/KVDataRec_a.dat"}) {
        EXPECT_FALSE(isSearchInputPath(other)) << other;
    }
}

const TrashDeletesHeader kHeader{.deviceName = "/dev/sda2",
                                 .volumePath = "/Volumes/Data",
                                 .deviceValue = "CST00A1",
                                 .schemeOfPartition = true};

TEST(TrashDeletesHeaderRecord, HoldsItsTextsOneAfterTheOther) {
    const TrashRecord record = encodeTrashDeletesHeader(kHeader);
    constexpr std::string_view kExpected(
        "quorlen\0\0/dev/sda2\0/Volumes/Data\0CST00A1\0Intel\0trashDeletes\0", 60);
    EXPECT_EQ(view(record).substr(0, kExpected.size()), kExpected);
    EXPECT_EQ(view(record).find_first_not_of('\0', kExpected.size()), std::string_view::npos);
    EXPECT_EQ(decodeTrashDeletesHeader(view(record)), kHeader);
}

TEST(TrashDeletesHeaderRecord, CutsWhatDoesNotFit) {
    TrashDeletesHeader header = kHeader;
    header.schemeOfPartition = false;
    header.volumePath = std::string(4000, 'v');
    const auto decoded = decodeTrashDeletesHeader(view(encodeTrashDeletesHeader(header)));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->deviceName, "/dev/sda2");
    EXPECT_EQ(decoded->volumePath, std::string(764 - 9 - 10 - 1 - 1 - 19, 'v'));
    EXPECT_EQ(decoded->deviceValue, "");
    EXPECT_FALSE(decoded->schemeOfPartition);
}

TEST(TrashDeletesHeaderRecord, IsRefusedWhenItIsMalformed) {
    const TrashRecord record = encodeTrashDeletesHeader(kHeader);
    const std::string text(view(record));
    const auto with = [&](std::size_t at, std::string_view part) {
        std::string changed = text;
        return changed.replace(at, part.size(), part);
    };
    EXPECT_FALSE(decodeTrashDeletesHeader(""));
    EXPECT_FALSE(decodeTrashDeletesHeader(text.substr(1)));
    EXPECT_FALSE(decodeTrashDeletesHeader(with(0, "Q")));
    EXPECT_FALSE(decodeTrashDeletesHeader(with(8, "x")));
    EXPECT_FALSE(decodeTrashDeletesHeader(with(41, "Other")));
    EXPECT_FALSE(decodeTrashDeletesHeader(with(47, "x")));
    EXPECT_FALSE(decodeTrashDeletesHeader(with(9, std::string(755, 'x'))));
}

TEST(TrashRecordStamp, StandsAtItsOffsetAndNowhereElse) {
    TrashRecord record{};
    record.fill('r');
    stampTrashRecord(record, 0xCAFEF00DU);
    EXPECT_EQ(trashRecordStamp(record), 0xCAFEF00DU);
    EXPECT_EQ(record[543], 'r');
    EXPECT_EQ(record[548], 'r');
    EXPECT_EQ(std::count(record.begin(), record.end(), 'r'), 760);
}

class TrashZone : public testing::Test {
  protected:
    void SetUp() override { ::setenv("TZ", "Asia/Kolkata", 1); }
    void TearDown() override {
        ::unsetenv("TZ");
        ::tzset();
    }
};

TEST_F(TrashZone, StampsTheTimeLessTheOffset) {
    const Time moment = timeFromSecondsSince1970(1'772'438'400.9);  // 2026-03-02 08:00:00 UTC
    EXPECT_EQ(secondsSince1904(moment), 1'772'438'400U + 2'082'844'800U - 19'800U);
}

TEST_F(TrashZone, NamesFilesByTheLocalHour) {
    EXPECT_EQ(trashDeletesFileName(timeFromSecondsSince1970(1'772'438'400)),
              "Trash Deletes 2026-03-02-13");
}

}  // namespace
}  // namespace korvane
