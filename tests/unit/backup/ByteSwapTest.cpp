#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

#include "backup/ByteSwap.h"

namespace korvane {
namespace {

using Bytes = std::vector<unsigned char>;

// Where each code swaps what, one value a row: {offset, width in bytes}.
using Layout = std::vector<std::pair<std::size_t, std::size_t>>;

Layout& add(Layout& layout, std::size_t width, std::initializer_list<std::size_t> offsets) {
    for (const std::size_t offset : offsets) layout.emplace_back(offset, width);
    return layout;
}

void addEvery(Layout& layout, std::size_t width, std::size_t first, std::size_t last) {
    for (std::size_t offset = first; offset <= last; offset += width) {
        layout.emplace_back(offset, width);
    }
}

void addFork(Layout& layout, std::size_t start) {
    add(layout, 8, {start});
    add(layout, 4, {start + 8, start + 12});
    addEvery(layout, 4, start + 16, start + 16 + 15 * 4);
}

struct FixedRecord {
    std::size_t size;
    Layout layout;
};

std::map<std::uint32_t, FixedRecord> fixedRecords() {
    std::map<std::uint32_t, FixedRecord> records;
    records[101] = {2, {{0, 2}}};
    records[102] = {4, {{0, 4}}};
    records[103] = {8, {{0, 8}}};
    records[104] = {120, {{0, 2}}};
    add(records[104].layout, 4, {4, 8, 12, 80, 84, 88});
    addEvery(records[104].layout, 4, 92, 116);
    records[107] = {14, {{0, 4}, {4, 4}, {10, 2}}};
    records[108] = {106,
                    {{0, 2},
                     {2, 4},
                     {6, 4},
                     {10, 4},
                     {14, 4},
                     {18, 2},
                     {20, 2},
                     {22, 4},
                     {26, 4},
                     {32, 4},
                     {38, 4}}};
    records[109] = {52, {{0, 4}, {36, 8}, {44, 8}}};
    addEvery(records[109].layout, 4, 4, 32);
    records[110] = {40, {{0, 4}, {8, 8}, {16, 8}, {24, 8}, {32, 4}, {36, 4}}};
    records[111] = {162, {{0, 2}, {28, 2}, {30, 4}, {34, 2}, {64, 4}, {68, 2}, {82, 2}}};
    add(records[111].layout, 4, {2, 6, 20, 24, 70, 74, 78, 84, 88});
    add(records[111].layout, 2, {10, 12, 14, 16, 18, 124, 126, 128});
    records[112] = {8, {{2, 4}, {6, 2}}};
    records[114] = {6, {{2, 4}}};
    records[117] = {512, {{0, 2}, {2, 2}, {72, 8}}};
    addEvery(records[117].layout, 4, 4, 68);
    for (const std::size_t fork : {112U, 192U, 272U, 352U, 432U}) {
        addFork(records[117].layout, fork);
    }
    records[118] = {12, {{0, 2}, {4, 4}, {8, 4}}};
    records[119] = {64, {}};
    addEvery(records[119].layout, 4, 0, 60);
    return records;
}

Bytes randomBytes(std::size_t size, std::uint32_t seed) {
    std::mt19937 random{seed};
    Bytes bytes(size);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
    return bytes;
}

Bytes swappedByHand(Bytes bytes, const Layout& layout) {
    for (const auto& [offset, width] : layout) {
        std::reverse(bytes.begin() + static_cast<std::ptrdiff_t>(offset),
                     bytes.begin() + static_cast<std::ptrdiff_t>(offset + width));
    }
    return bytes;
}

Bytes converted(std::uint32_t code, Bytes bytes) {
    DoByteSwap(code, bytes.data());
    return bytes;
}

// A disk record whose big-endian words are put by offset.
class DiskRecord {
  public:
    explicit DiskRecord(std::size_t size, std::uint32_t seed = 1)
        : bytes(randomBytes(size, seed)) {}
    DiskRecord& put16(std::size_t offset, unsigned value) {
        bytes[offset] = static_cast<unsigned char>(value >> 8);
        bytes[offset + 1] = static_cast<unsigned char>(value);
        return *this;
    }
    Bytes bytes;
};

TEST(ByteSwap, ReversesValuesAtAnyAddress) {
    Bytes bytes{0, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(SetEndian16_Swap(&bytes[1]), 0x0102);
    EXPECT_EQ(bytes, (Bytes{0, 2, 1, 3, 4, 5, 6, 7, 8}));
    bytes = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(SetEndian32_Swap(&bytes[1]), 0x01020304U);
    EXPECT_EQ(bytes, (Bytes{0, 4, 3, 2, 1, 5, 6, 7, 8}));
    bytes = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(SetEndian64_Swap(&bytes[1]), 0x0102030405060708U);
    EXPECT_EQ(bytes, (Bytes{0, 8, 7, 6, 5, 4, 3, 2, 1}));
}

TEST(ByteSwap, SwapsExactlyTheFieldsOfEachFixedRecord) {
    for (const auto& [code, record] : fixedRecords()) {
        const Bytes before = randomBytes(record.size, code);
        EXPECT_EQ(converted(code, before), swappedByHand(before, record.layout)) << code;
    }
}

TEST(ByteSwap, TwiceGivesBackTheFirstBytes) {
    for (const auto& [code, record] : fixedRecords()) {
        for (std::uint32_t seed = 0; seed < 50; ++seed) {
            const Bytes before = randomBytes(record.size, seed);
            EXPECT_EQ(converted(code, converted(code, before)), before) << code;
        }
    }
}

TEST(ByteSwap, NoneLeavesEverything) {
    const Bytes before = randomBytes(16, 1);
    EXPECT_EQ(converted(100, before), before);
}

TEST(ByteSwap, AnUnknownCodeIsToldAndLeavesTheRecord) {
    const Bytes before = randomBytes(16, 1);
    for (const std::uint32_t code : {0U, 99U, 105U, 106U, 113U, 124U, 0xFFFFFFFFU}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(converted(code, before), before) << code;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "DoByteSwap: recordType = UNKNOWN\n");
    }
}

TEST(ByteSwap, HFSCatalogRecordsSwapByTheirType) {
    Layout folder{{0, 2}, {2, 2}, {4, 2}};
    addEvery(folder, 4, 6, 18);
    Layout file{{0, 2},  {4, 4},  {8, 4},  {12, 2}, {14, 2}, {16, 2},
                {20, 4}, {24, 2}, {26, 4}, {30, 4}, {34, 2}, {72, 2}};
    addEvery(file, 4, 36, 52);
    addEvery(file, 2, 74, 84);
    addEvery(file, 2, 86, 96);
    const Layout thread{{0, 2}, {10, 4}};
    // Sizes of the structures: a folder 70, a file 102, a thread 46 bytes.
    struct Row {
        unsigned type;
        std::size_t size;
        Layout layout;
    };
    for (const Row& row : {Row{0x0100, 70, folder}, Row{0x0200, 102, file}, Row{0x0300, 46, thread},
                           Row{0x0400, 46, thread}, Row{0x01FF, 70, folder}}) {
        const Bytes disk = DiskRecord{row.size}.put16(0, row.type).bytes;
        const Bytes host = converted(115, disk);
        EXPECT_EQ(host, swappedByHand(disk, row.layout)) << row.type;
        EXPECT_EQ(converted(116, host), disk) << row.type;
    }
}

TEST(ByteSwap, AnUnknownHFSCatalogRecordIsToldAndOnlyItsTypeIsSwapped) {
    const Bytes disk = DiskRecord{16}.put16(0, 0x0500).bytes;
    for (const std::uint32_t code : {115U, 116U}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(converted(code, disk), swappedByHand(disk, {{0, 2}}));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "\n\nDoByteSwap: HFSCatalogRecord_Swap ERROR\n");
    }
}

TEST(ByteSwap, CatalogKeysSwapAsManyCharactersAsTheyHave) {
    for (const unsigned characters : {0U, 1U, 3U, 255U}) {
        const Bytes disk = DiskRecord{8 + 2 * characters}.put16(6, characters).bytes;
        Layout layout{{0, 2}, {2, 4}, {6, 2}};
        for (unsigned index = 0; index < characters; ++index) layout.emplace_back(8 + 2 * index, 2);
        const Bytes host = converted(120, disk);
        EXPECT_EQ(host, swappedByHand(disk, layout)) << characters;
        EXPECT_EQ(converted(121, host), disk) << characters;
    }
}

TEST(ByteSwap, ACatalogKeyWithAnImpossibleNameIsEmptiedAtItsHead) {
    for (const unsigned characters : {256U, 300U, 65535U}) {
        const Bytes disk = DiskRecord{8 + 2 * 255}.put16(6, characters).bytes;
        const Bytes host = converted(120, disk);
        EXPECT_EQ(Bytes(host.begin(), host.begin() + 6), Bytes(6, 0));
        EXPECT_EQ(Bytes(host.begin() + 8, host.end()), Bytes(disk.begin() + 8, disk.end()));
    }
}

TEST(ByteSwap, AnImpossibleNameOnItsWayOutStaysWithinTheRecord) {
    Bytes host = randomBytes(8 + 2 * 255, 3);
    const std::uint16_t length = 60000;
    std::memcpy(&host[6], &length, sizeof length);
    const Bytes disk = converted(121, host);
    EXPECT_EQ(disk[6], 60000 >> 8);
    EXPECT_EQ(disk[7], 60000 & 0xFF);
}

Layout folderLayout() {
    Layout layout{{0, 2}, {2, 2}, {32, 4}, {36, 4}, {42, 2}, {44, 4}, {68, 4}, {76, 4}};
    addEvery(layout, 4, 4, 28);
    addEvery(layout, 2, 48, 62);
    add(layout, 2, {64, 66, 72, 74});
    add(layout, 4, {80, 84});
    return layout;
}

Layout fileLayout() {
    Layout layout{{0, 2}, {2, 2}, {32, 4}, {36, 4}, {42, 2}, {44, 4}, {48, 4}, {52, 4}, {76, 4}};
    addEvery(layout, 4, 4, 28);
    addEvery(layout, 2, 56, 62);
    addEvery(layout, 2, 64, 74);
    add(layout, 4, {80, 84});
    addFork(layout, 88);
    addFork(layout, 168);
    return layout;
}

TEST(ByteSwap, HFSPlusFoldersAndFilesFollowTheirPublishedLayout) {
    struct Row {
        unsigned type;
        std::size_t size;
        Layout layout;
    };
    for (const Row& row :
         {Row{1, 88, folderLayout()}, Row{2, 248, fileLayout()}, Row{0xFFF2, 248, fileLayout()}}) {
        const Bytes disk = DiskRecord{row.size}.put16(0, row.type).bytes;
        const Bytes host = converted(122, disk);
        EXPECT_EQ(host, swappedByHand(disk, row.layout)) << row.type;
        EXPECT_EQ(converted(123, host), disk) << row.type;
    }
}

TEST(ByteSwap, HFSPlusThreadsSwapParentAndName) {
    for (const unsigned type : {3U, 4U}) {
        const Bytes disk = DiskRecord{10 + 2 * 5}.put16(0, type).put16(8, 5).bytes;
        Layout layout{{0, 2}, {4, 4}, {8, 2}};
        addEvery(layout, 2, 10, 18);
        const Bytes host = converted(122, disk);
        EXPECT_EQ(host, swappedByHand(disk, layout));
        EXPECT_EQ(converted(123, host), disk);
    }
}

TEST(ByteSwap, AThreadWithAnImpossibleNameLosesItsParentAndKeepsTheRest) {
    const Bytes disk = DiskRecord{10 + 2 * 255}.put16(0, 3).put16(8, 256).bytes;
    const Bytes host = converted(122, disk);
    EXPECT_EQ(Bytes(host.begin() + 2, host.begin() + 6), Bytes(4, 0));
    EXPECT_EQ(Bytes(host.begin() + 6, host.begin() + 8), Bytes(disk.begin() + 6, disk.begin() + 8));
    EXPECT_EQ(Bytes(host.begin() + 10, host.end()), Bytes(disk.begin() + 10, disk.end()));
}

TEST(ByteSwap, AnUnknownHFSPlusCatalogRecordIsToldWithItsType) {
    const Bytes disk = DiskRecord{16}.put16(0, 0x00AB).bytes;
    testing::internal::CaptureStderr();
    const Bytes host = converted(122, disk);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\n\nDoByteSwap: HFSPlusCatalogRecord_In_Swap ERROR recordType: 0x00AB \n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(converted(123, host), disk);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "\n\nDoByteSwap: HFSPlusCatalogRecord_Out_Swap ERROR recordType: 0x00AB \n");
}

TEST(ByteSwap, MovesAndSwapsOverlappingBytes) {
    Bytes bytes{1, 2, 3, 4, 5, 6};
    BlockMoveByteSwap(&bytes[0], &bytes[1], 4, 102);
    EXPECT_EQ(bytes, (Bytes{1, 4, 3, 2, 1, 6}));
    bytes = {1, 2, 3, 4, 5, 6};
    BlockMoveByteSwap(&bytes[2], &bytes[0], 4, 100);
    EXPECT_EQ(bytes, (Bytes{3, 4, 5, 6, 5, 6}));
}

TEST(ByteSwap, MovesARecordOfAnUnknownCodeAsItIs) {
    const Bytes source{1, 2, 3, 4};
    Bytes before = source;
    for (const std::uint32_t code : {0U, 99U, 105U, 106U, 113U, 124U}) {
        Bytes target(6, 9);
        testing::internal::CaptureStderr();
        BlockMoveByteSwap(before.data(), target.data(), before.size(), code);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "DoByteSwap: recordType = UNKNOWN\n");
        EXPECT_EQ(before, source) << code;
        EXPECT_EQ(target, (Bytes{1, 2, 3, 4, 9, 9})) << code;
    }
}

TEST(ByteSwap, IntelPartitionsAreInHostOrderAlready) {
    Bytes bytes{1, 2, 3, 4};
    DoByteSwapIntelPartition(102, bytes.data());
    EXPECT_EQ(bytes, (Bytes{1, 2, 3, 4}));
    BlockMoveByteSwapIntelPartition(&bytes[0], &bytes[1], 3, 101);
    EXPECT_EQ(bytes, (Bytes{1, 1, 2, 3}));
}

}  // namespace
}  // namespace korvane
