// Result records: what goes in comes out, and nothing else is taken for a record.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"

namespace korvane {
namespace {

using Bytes = std::array<std::uint8_t, kResultRecordSize>;

RecordedItem anItem() {
    RecordedItem item{.flags = kRecordHasChecksum,
                      .node = 0x1'2345'6789,
                      .parent = 2,
                      .trashNode = 0x1'2345'6789,
                      .volumeId = 77,
                      .mode = 0100644,
                      .userId = 1000,
                      .groupId = 1001,
                      .linkCount = 1,
                      .size = 10'000'000'000,
                      .modified = 1'767'225'600,
                      .changed = 1'767'225'601,
                      .born = -5,
                      .modifiedNanoseconds = 999'999'999,
                      .name = "letter.txt",
                      .path = "/home/a/.local/share/Trash/files/letter.txt",
                      .extents = {{0, 4096, 8192, 0}, {8192, 1 << 20, 4096, kExtentUnwritten}}};
    item.checksum.fill(0xAB);
    item.volumeUuid.fill(0xCD);
    return item;
}

std::vector<Bytes> recordsOf(const RecordedItem& item) {
    const std::string bytes = encodeItem(item);
    EXPECT_EQ(bytes.size() % kResultRecordSize, 0U);
    std::vector<Bytes> records(bytes.size() / kResultRecordSize);
    std::memcpy(records.data(), bytes.data(), bytes.size());
    return records;
}

std::optional<ItemAssembly::Collected> assembled(const std::vector<Bytes>& records) {
    ItemAssembly assembly;
    std::optional<ItemAssembly::Collected> last;
    for (const Bytes& bytes : records) {
        const auto record = decodeRecord(bytes);
        last = record ? assembly.add(*record) : std::nullopt;
        if (!record) assembly.interrupt();
    }
    return last;
}

TEST(ResultRecords, OneHoldsAUsualItem) {
    const auto records = recordsOf(anItem());
    ASSERT_EQ(records.size(), 1U);
    const auto collected = assembled(records);
    ASSERT_TRUE(collected);
    EXPECT_EQ(collected->item, anItem());
}

TEST(ResultRecords, OfBeforeThereWereUuidsHaveNone) {
    RecordedItem item = anItem();
    item.volumeUuid = {};
    const auto records = recordsOf(item);
    EXPECT_TRUE(std::all_of(records[0].begin() + 744, records[0].end(),
                            [](std::uint8_t byte) { return byte == 0; }));
    EXPECT_EQ(assembled(records)->item, item);
}

TEST(ResultRecords, HandAChecksumOnWhileTheContentsAreTheSame) {
    const RecordedItem earlier = anItem();
    RecordedItem later = anItem();
    later.checksum = {};
    later.flags = 0;
    later.name = "another name";
    later.changed += 100;  // the daemon's own stamp
    const std::vector<std::function<void(RecordedItem&)>> changes = {
        [](RecordedItem& item) { ++item.node; },
        [](RecordedItem& item) { ++item.volumeId; },
        [](RecordedItem& item) { item.volumeUuid[3] = 0; },
        [](RecordedItem& item) { ++item.size; },
        [](RecordedItem& item) { ++item.modified; },
        [](RecordedItem& item) { --item.modifiedNanoseconds; },
        [](RecordedItem& item) { ++item.born; },
        [](RecordedItem& item) { item.extents[0].physical += 4096; },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        RecordedItem changed = later;
        changes[i](changed);
        takeOverChecksum(changed, earlier);
        EXPECT_EQ(changed.flags, 0) << i;
    }
    takeOverChecksum(later, earlier);
    EXPECT_EQ(later.flags, kRecordHasChecksum);
    EXPECT_EQ(later.checksum, earlier.checksum);
    RecordedItem own = anItem();
    own.checksum.fill(1);
    takeOverChecksum(own, earlier);
    EXPECT_NE(own.checksum, earlier.checksum);
}

TEST(ResultRecords, AreTheSameButForTheTimeOfTheLastStamp) {
    const std::vector<RecordedItem> items = {anItem(), anItem()};
    std::vector<RecordedItem> later = items;
    later[1].changed += 5;
    EXPECT_TRUE(isSameRecording(later, items));
    later[1].name += "x";
    EXPECT_FALSE(isSameRecording(later, items));
    later.pop_back();
    EXPECT_FALSE(isSameRecording(later, items));
}

TEST(ResultRecords, SeveralHoldLongNamesAndManyExtents) {
    RecordedItem item = anItem();
    item.name = std::string(765, '\n');
    item.path = "/" + std::string(4095, '\xFF');
    item.linkTarget = std::string(4096, ' ');
    item.origin = std::string(4096, 'o');
    for (std::uint64_t i = 0; i < 1000; ++i) item.extents.push_back({i, i * 2, 1, 0});
    const auto records = recordsOf(item);
    EXPECT_GT(records.size(), 100U);
    const auto collected = assembled(records);
    ASSERT_TRUE(collected);
    EXPECT_EQ(collected->item, item);
}

TEST(ResultRecords, HoldAnItemWithoutAnything) {
    const auto collected = assembled(recordsOf(RecordedItem{}));
    ASSERT_TRUE(collected);
    EXPECT_EQ(collected->item, RecordedItem{});
}

TEST(ResultRecords, LeaveTheStampToTheDaemon) {
    auto records = recordsOf(anItem());
    std::uint32_t stamp = 1;
    std::memcpy(&stamp, records[0].data() + kResultStampOffset, sizeof stamp);
    EXPECT_EQ(stamp, 0U);
    stamp = 3'900'000'000;
    std::memcpy(records[0].data() + kResultStampOffset, &stamp, sizeof stamp);
    const auto collected = assembled(records);
    ASSERT_TRUE(collected);
    EXPECT_EQ(collected->stamp, 3'900'000'000U);
    EXPECT_EQ(collected->item, anItem());
}

TEST(ResultRecords, SayWhenExtentsOrTextsWereLeftOut) {
    RecordedItem item = anItem();
    item.extents.resize(kMostExtents + 1);
    item.path = std::string(5000, 'p');
    item.linkTarget = std::string("a\0b", 3);
    const auto collected = assembled(recordsOf(item));
    ASSERT_TRUE(collected);
    EXPECT_EQ(collected->item.extents.size(), kMostExtents);
    EXPECT_EQ(collected->item.path, "");
    EXPECT_EQ(collected->item.flags,
              kRecordHasChecksum | kRecordExtentsCut | kRecordPathCut | kRecordTextCut);
}

TEST(ResultRecords, RefuseEveryChangedByteButTheStamps) {
    const auto records = recordsOf(anItem());
    for (std::size_t at = 0; at < kResultRecordSize; ++at) {
        Bytes changed = records[0];
        changed[at] ^= 0x20U;
        const bool isStamp = at >= kResultStampOffset && at < kResultStampOffset + 4;
        EXPECT_EQ(decodeRecord(changed).has_value(), isStamp) << at;
    }
}

TEST(ResultRecords, RefuseAHeaderAndZeros) {
    Bytes bytes{};
    EXPECT_FALSE(decodeRecord(bytes));
    std::memcpy(bytes.data(), "quorlen", 7);
    EXPECT_FALSE(decodeRecord(bytes));
}

TEST(ItemAssembly, PassesOverItemsThatAreNotThereWhole) {
    RecordedItem item = anItem();
    item.extents.resize(20, FileExtent{1, 2, 3, 0});
    const auto parts = recordsOf(item);
    ASSERT_EQ(parts.size(), 4U - 1U);
    RecordedItem other = item;
    other.node = 5;
    const auto others = recordsOf(other);
    const struct {
        const char* what;
        std::vector<Bytes> records;
    } rows[] = {
        {"the first is missing", {parts[1], parts[2]}},
        {"one is missing", {parts[0], parts[2]}},
        {"one comes twice", {parts[0], parts[1], parts[1], parts[2]}},
        {"another item comes between", {parts[0], others[1], parts[2]}},
        {"the last is missing", {parts[0], parts[1]}},
        {"something else comes between", {parts[0], Bytes{}, parts[1], parts[2]}},
    };
    for (const auto& row : rows) EXPECT_FALSE(assembled(row.records)) << row.what;
    EXPECT_TRUE(assembled({parts[0], parts[1], parts[0], parts[1], parts[2]}));
}

}  // namespace
}  // namespace korvane
