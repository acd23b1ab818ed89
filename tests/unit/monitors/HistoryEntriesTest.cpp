#include <gtest/gtest.h>

#include <limits>

#include "monitors/HistoryEntries.h"

namespace korvane {
namespace {

PropertyListArray numbered(int first, int last) {
    PropertyListArray entries;
    for (int number = first; number <= last; ++number) {
        entries.emplace_back(Dictionary{{"number", number}});
    }
    return entries;
}

PropertyListArray after(PropertyListArray entries, int added, std::int64_t limit) {
    appendHistoryEntry(entries, Dictionary{{"number", added}}, limit);
    return entries;
}

TEST(HistoryEntries, DropTheOldestAtTheLimit) {
    EXPECT_EQ(after(numbered(1, 3), 4, 3), numbered(2, 4));
}

TEST(HistoryEntries, StayWhileThereIsRoom) {
    EXPECT_EQ(after(numbered(1, 2), 3, 3), numbered(1, 3));
    EXPECT_EQ(after({}, 1, 15), numbered(1, 1));
}

TEST(HistoryEntries, ShrinkToALoweredLimitAtOnce) {
    EXPECT_EQ(after(numbered(1, 10), 11, 2), numbered(10, 11));
}

TEST(HistoryEntries, LoseTheNewOneTooAtALimitOfNone) {
    EXPECT_EQ(after(numbered(1, 3), 4, 0), PropertyListArray{});
}

TEST(HistoryEntries, AreAllKeptAtANegativeLimit) {
    EXPECT_EQ(after(numbered(1, 3), 4, -1), numbered(1, 4));
    EXPECT_EQ(after(numbered(1, 3), 4, std::numeric_limits<std::int64_t>::min()), numbered(1, 4));
}

TEST(HistoryEntries, OfOtherKindsCountLikeAnyOther) {
    PropertyListArray entries{"a text", 7};
    appendHistoryEntry(entries, Dictionary{}, 2);
    EXPECT_EQ(entries, (PropertyListArray{7, Dictionary{}}));
}

}  // namespace
}  // namespace korvane
