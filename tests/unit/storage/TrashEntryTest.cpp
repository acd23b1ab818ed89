// What is stored of an item in the trash, and how it is read back.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <string>

#include "base/PropertyListCodec.h"
#include "storage/TrashEntry.h"

namespace korvane {
namespace {

using std::chrono::seconds;

const TrashItem kLetter{.itemName = "letter",
                        .nodeId = std::numeric_limits<std::uint64_t>::max(),
                        .volRefNum = -7,
                        .dirPath = "/Volumes/Data/.Trashes/501",
                        .volumeName = "Data"};

TEST(TrashEntry, KeepsWhatIsKnownOfAnItem) {
    const Dictionary fields = newTrashEntry(kLetter, 12.5F, Time(seconds(1000)));
    EXPECT_EQ(fields, (Dictionary{{"itemName", "letter"},
                                  {"nodeID", "18446744073709551615"},
                                  {"volRefNum", "-7"},
                                  {"dirPath", "/Volumes/Data/.Trashes/501"},
                                  {"volumeName", "Data"},
                                  {"totalSize", 12.5},
                                  {"addDate", PropertyListDate(seconds(1000))}}));
    const ConstTrashEntry entry(fields);
    EXPECT_EQ(entry.itemName(), "letter");
    EXPECT_EQ(entry.nodeId(), kLetter.nodeId);
    EXPECT_EQ(entry.volRefNum(), -7);
    EXPECT_EQ(entry.dirPath(), "/Volumes/Data/.Trashes/501");
    EXPECT_EQ(entry.volumeName(), "Data");
    EXPECT_EQ(entry.totalSize(), 12.5);
    EXPECT_EQ(entry.addDate(), Time(seconds(1000)));
    EXPECT_EQ(entry.state(), TrashState::inTrash);
}

TEST(TrashEntry, IsKeyedByVolumeAndNodeElseByName) {
    TrashItem item;
    item.itemName = "a";
    item.nodeId = 5;
    EXPECT_EQ(trashEntryKey(item), "a_5");
    EXPECT_FALSE(newTrashEntry(item, 0, Time{}).contains("volumeName"));
    item.volumeName = "Data";
    EXPECT_EQ(trashEntryKey(item), "Data_5");
}

TEST(TrashEntry, TellsWhenAnItemLeft) {
    Dictionary fields = newTrashEntry(kLetter, 0, Time{});
    TrashEntry entry(fields);
    entry.setRemoved(Time(seconds(5)));
    EXPECT_EQ(entry.state(), TrashState::removed);
    EXPECT_EQ(entry.removedDate(), Time(seconds(5)));
    entry.setDeleted(Time(seconds(6)));
    EXPECT_EQ(entry.state(), TrashState::deleted);
    EXPECT_EQ(entry.deletedDate(), Time(seconds(6)));
}

TEST(TrashEntry, ReadsWhatIsOfAnotherTypeAsNothing) {
    const Dictionary fields{{"itemName", 5},       {"nodeID", "12x"}, {"volRefNum", "a"},
                            {"dirPath", true},     {"addDate", "x"},  {"totalSize", "y"},
                            {"volumeName", false}, {"Deleted", "z"}};
    const ConstTrashEntry entry(fields);
    EXPECT_EQ(entry.itemName(), "");
    EXPECT_EQ(entry.nodeId(), 12u);
    EXPECT_EQ(entry.volRefNum(), 0);
    EXPECT_EQ(entry.dirPath(), "");
    EXPECT_EQ(entry.addDate(), std::nullopt);
    EXPECT_EQ(entry.volumeName(), "");
    EXPECT_EQ(entry.totalSize(), 0);
    EXPECT_EQ(entry.state(), TrashState::deleted);
    EXPECT_FALSE(ConstTrashEntry::over(PropertyList(12.5)));
}

}  // namespace
}  // namespace korvane
