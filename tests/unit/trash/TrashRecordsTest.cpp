#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "trash/TrashRecords.h"

namespace korvane {
namespace {

using std::chrono::hours;
using testing::ElementsAre;

const Time kNow = timeFromSecondsSince1970(1'772'438'400);  // 2026-03-02 08:00:00 UTC
const Time kEarlier = kNow - hours(1);
constexpr char kFolder[] = "/home/ada/.local/share/Trash/files";

TrashItem item(const std::string& name, std::uint64_t nodeId) {
    return {.itemName = name,
            .nodeId = nodeId,
            .volRefNum = 3,
            .dirPath = kFolder,
            .volumeName = "System"};
}

std::vector<ResolvedNode> nowhere(std::span<const SeenItem> items) {
    return std::vector<ResolvedNode>(items.size(), {NodeState::gone, ""});
}

class TrashRecords : public testing::Test {
  protected:
    const Dictionary& put(const std::string& name, std::uint64_t nodeId, Time now = kEarlier) {
        storeTrashRecords(usage, std::vector{FoundItem{item(name, nodeId)}}, nowhere, now);
        return record(nodeId);
    }
    // The item is put in again, and what is known of the one that was remembered under its number.
    void putAgain(const std::string& name, Recognized before) {
        storeTrashRecords(usage, std::vector{FoundItem{item(name, 1), std::move(before)}}, nowhere,
                          kNow);
    }
    Dictionary& record(std::uint64_t nodeId) {
        return *usage.find("System_" + std::to_string(nodeId))->dictionary();
    }
    bool update(const ResolvedNode& answer, std::int64_t saveDays = 5, Time now = kNow) {
        return updateTrashRecords(
            usage,
            [&](std::span<const SeenItem> items) {
                asked.clear();
                for (const SeenItem& each : items) asked.push_back(each.name);
                return std::vector<ResolvedNode>(items.size(), answer);
            },
            now, saveDays);
    }

    Dictionary usage;
    std::vector<std::string> asked;
};

TEST_F(TrashRecords, AreMarkedByWhereTheItemIs) {
    struct Row {
        const char* what;
        ResolvedNode node;
        TrashState state;
    };
    const std::string folder = kFolder;
    const Row rows[] = {
        {"in its place", {NodeState::found, folder + "/a"}, TrashState::inTrash},
        {"deeper in the trash", {NodeState::found, folder + "/b/c/a"}, TrashState::inTrash},
        {"in a folder whose name begins alike",
         {NodeState::found, folder + " 2/a"},
         TrashState::inTrash},
        {"put back", {NodeState::found, "/home/ada/a"}, TrashState::removed},
        {"at the top", {NodeState::found, "/a"}, TrashState::removed},
        {"with another name", {NodeState::found, folder + "/b"}, TrashState::deleted},
        {"put back under another name", {NodeState::found, "/home/ada/b"}, TrashState::deleted},
        {"with a name that ends alike", {NodeState::found, "/home/ada/xa"}, TrashState::deleted},
        {"gone", {NodeState::gone, ""}, TrashState::deleted},
        {"found without a path", {NodeState::found, ""}, TrashState::deleted},
        {"unknown", {NodeState::unknown, ""}, TrashState::inTrash},
        {"on a path that is as long as any",
         {NodeState::found, "/" + std::string(1020, 'd') + "/a"},
         TrashState::removed},
        {"on a path that is too long",
         {NodeState::found, "/" + std::string(1021, 'd') + "/a"},
         TrashState::deleted},
    };
    for (const Row& row : rows) {
        usage = {};
        put("a", 1);
        EXPECT_EQ(update(row.node), row.state != TrashState::inTrash) << row.what;
        const ConstTrashEntry entry(record(1));
        EXPECT_EQ(entry.state(), row.state) << row.what;
        const auto marked =
            row.state == TrashState::removed ? entry.removedDate() : entry.deletedDate();
        const bool isMarked = row.state != TrashState::inTrash;
        EXPECT_EQ(marked, isMarked ? std::optional(kNow) : std::nullopt) << row.what;
    }
}

TEST_F(TrashRecords, AreMarkedOnce) {
    put("a", 1);
    ASSERT_TRUE(update({NodeState::found, "/home/ada/a"}));
    EXPECT_FALSE(update({NodeState::gone, ""}, 5, kNow + hours(1)));
    EXPECT_THAT(asked, testing::IsEmpty());
    EXPECT_EQ(ConstTrashEntry(record(1)).removedDate(), kNow);
    EXPECT_FALSE(ConstTrashEntry(record(1)).deletedDate());
    usage = {};
    put("b", 2);
    ASSERT_TRUE(update({NodeState::gone, ""}));
    EXPECT_FALSE(update({NodeState::found, "/home/ada/b"}, 5, kNow + hours(1)));
    EXPECT_EQ(ConstTrashEntry(record(2)).deletedDate(), kNow);
    EXPECT_FALSE(ConstTrashEntry(record(2)).removedDate());
}

TEST_F(TrashRecords, AreAskedForFromTheLastKeyToTheFirst) {
    put("a", 1);
    put("b", 2);
    put("c", 3);
    usage.set("System_9", "no record");
    usage.set(std::string(kTrashTotalSize), 5.0);
    update({NodeState::unknown, ""});
    EXPECT_THAT(asked, ElementsAre("c", "b", "a"));
}

TEST_F(TrashRecords, ExpireOnlyWhenMarkedAndByTheDayOfTheirComing) {
    struct Row {
        const char* what;
        bool isMarked;
        std::chrono::seconds age;
        std::int64_t saveDays;
        bool isKept;
    };
    constexpr std::chrono::seconds kDay = hours(24);
    constexpr std::chrono::seconds kSecond{1};
    constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
    const Row rows[] = {
        {"young", true, hours(1), 5, true},
        {"just as old", true, 5 * kDay, 5, true},
        {"older", true, 5 * kDay + kSecond, 5, false},
        {"older and still in the trash", false, 50 * kDay, 5, true},
        {"no days, come now", true, std::chrono::seconds(0), 0, true},
        {"no days", true, kSecond, 0, false},
        {"less than no days", true, std::chrono::seconds(0), -1, false},
        {"less than no days, in the trash", false, kDay, -1, true},
        {"of the future", true, -30 * kDay, 5, true},
        {"for ever", true, 5000 * kDay, kMost, true},
        {"never", true, -30 * kDay, -kMost - 1, false},
    };
    for (const Row& row : rows) {
        usage = {};
        put("a", 1, kNow - row.age);
        if (row.isMarked) TrashEntry(record(1)).setDeleted(kNow - hours(1));
        EXPECT_EQ(update({NodeState::unknown, ""}, row.saveDays), !row.isKept) << row.what;
        EXPECT_EQ(usage.contains("System_1"), row.isKept) << row.what;
    }
}

// A day of the calendar may have 23 hours.
TEST_F(TrashRecords, ExpireByDaysOfTheCalendar) {
    ::setenv("TZ", "Europe/Berlin", 1);
    ::tzset();
    const Time after = timeFromSecondsSince1970(1'774'857'600);  // 2026-03-30 10:00 in Berlin
    // Put in at 10:00 on the 28th, which is 47 hours ago.
    for (const auto& [minutes, isKept] : {std::pair{0, true}, {1, false}}) {
        usage = {};
        put("a", 1, after - hours(47));
        TrashEntry(record(1)).setDeleted(after);
        update({NodeState::unknown, ""}, 2, after + std::chrono::minutes(minutes));
        EXPECT_EQ(usage.contains("System_1"), isKept) << minutes;
    }
    ::unsetenv("TZ");
    ::tzset();
}

TEST_F(TrashRecords, WithoutTheirDateStay) {
    put("a", 1);
    TrashEntry(record(1)).setDeleted(kEarlier);
    record(1).remove("addDate");
    EXPECT_FALSE(update({NodeState::unknown, ""}, 0));
    EXPECT_TRUE(usage.contains("System_1"));
}

TEST_F(TrashRecords, KeepTheDateOfTheirComingUntilTheyLeft) {
    put("a", 1);
    put("a", 1, kNow);
    EXPECT_EQ(ConstTrashEntry(record(1)).addDate(), kEarlier);
    for (const bool wasPutBack : {true, false}) {
        usage = {};
        put("a", 1);
        if (wasPutBack) {
            TrashEntry(record(1)).setRemoved(kEarlier);
        } else {
            TrashEntry(record(1)).setDeleted(kEarlier);
        }
        putAgain("a", {Identity::same, "a"});
        EXPECT_EQ(usage.size(), 1u);
        EXPECT_EQ(ConstTrashEntry(record(1)).addDate(), kNow);
        EXPECT_EQ(ConstTrashEntry(record(1)).state(), TrashState::inTrash);
    }
    record(1).remove("addDate");
    put("a", 1, kNow);
    EXPECT_EQ(ConstTrashEntry(record(1)).addDate(), kNow);
    // What stands under the key of a record and is none.
    usage.set("System_1", "no record");
    put("a", 1, kNow);
    EXPECT_EQ(ConstTrashEntry(record(1)).addDate(), kNow);
}

// File systems give the number of an item that is gone to the next one.
TEST_F(TrashRecords, StayWhenAnotherItemHasTheirNumber) {
    struct Row {
        const char* what;
        TrashState state;  // of the record of the item "a"
        const char* name;  // of the item that has its number now
        Recognized before;
        bool isKept;
    };
    using enum TrashState;
    const Recognized same{Identity::same, "a"};
    const Recognized another{Identity::another, "a"};
    const Row rows[] = {
        {"seen again", inTrash, "a", same, false},
        {"given another name", inTrash, "b", same, false},
        {"emptied since, and its number used again", inTrash, "b", another, true},
        {"the same under its own name", inTrash, "a", another, true},
        {"seen again, by its name", inTrash, "a", {}, false},
        {"another by its name", inTrash, "b", {}, true},
        {"put back, and here again", removed, "a", same, false},
        {"put back, and here by its name", removed, "a", {}, false},
        {"put back, and here under another name", removed, "b", same, true},
        {"put back and emptied", removed, "a", another, true},
        {"emptied", deleted, "a", another, true},
        {"emptied, and a new one of its name", deleted, "a", {}, true},
        {"emptied, and one of another name", deleted, "b", {}, true},
        {"taken for emptied, and here again", deleted, "a", same, false},
        {"recorded by a daemon that was killed then",
         inTrash,
         "a",
         {Identity::another, "z"},
         false},
        {"remembered by it, and recorded never", inTrash, "b", {Identity::same, "b"}, true},
    };
    for (const Row& row : rows) {
        usage = {};
        put("a", 1);
        if (row.state == removed) TrashEntry(record(1)).setRemoved(kEarlier);
        if (row.state == deleted) TrashEntry(record(1)).setDeleted(kEarlier);
        putAgain(row.name, row.before);
        EXPECT_EQ(ConstTrashEntry(record(1)).itemName(), row.name) << row.what;
        EXPECT_EQ(ConstTrashEntry(record(1)).state(), inTrash) << row.what;
        const PropertyList* const kept = usage.find("System_1_2026-03-02T07:00:00Z");
        ASSERT_EQ(kept != nullptr, row.isKept) << row.what;
        EXPECT_EQ(usage.size(), row.isKept ? 2u : 1u) << row.what;
        const bool keepsDate = row.state == inTrash && !row.isKept;
        EXPECT_EQ(ConstTrashEntry(record(1)).addDate(), keepsDate ? kEarlier : kNow) << row.what;
        if (!row.isKept) continue;
        const ConstTrashEntry entry(*kept->dictionary());
        EXPECT_EQ(entry.itemName(), "a") << row.what;
        EXPECT_EQ(entry.addDate(), kEarlier) << row.what;
        EXPECT_EQ(entry.state(), row.state == removed ? removed : deleted) << row.what;
        EXPECT_EQ(entry.deletedDate(), row.state == inTrash   ? std::optional(kNow)
                                       : row.state == deleted ? std::optional(kEarlier)
                                                              : std::nullopt)
            << row.what;
    }
}

TEST_F(TrashRecords, StayBesideEachOtherWhenSeveralItemsHadOneNumberInOneSecond) {
    for (const char* name : {"a", "b", "c", "d"}) {
        storeTrashRecords(usage, std::vector{FoundItem{item(name, 1)}}, nowhere, kEarlier);
    }
    std::vector<std::string> names;
    for (const Dictionary::Entry& entry : usage) {
        names.push_back(ConstTrashEntry(*entry.value.dictionary()).itemName());
    }
    EXPECT_THAT(names, ElementsAre("d", "a", "b", "c"));
}

TEST_F(TrashRecords, OfAnotherVolumeOfTheSameNameStayAsTheyAre) {
    put("a", 1);
    FoundItem found{item("a", 1)};
    found.item.volRefNum = 4;
    storeTrashRecords(usage, std::vector{found}, nowhere, kNow);
    EXPECT_EQ(ConstTrashEntry(record(1)).volRefNum(), 4);
    const PropertyList* const kept = usage.find("System_1_2026-03-02T07:00:00Z");
    ASSERT_TRUE(kept);
    EXPECT_EQ(ConstTrashEntry(*kept->dictionary()).state(), TrashState::inTrash);
}

// Subvolumes number their items alike.
TEST_F(TrashRecords, OfAnItemThatStillIsInAnotherTrashMakeRoomForTheLater) {
    for (const bool isStillThere : {true, false}) {
        usage = {};
        put("a", 1);
        FoundItem found{item("a", 1), {Identity::another, "a"}};
        found.item.dirPath = "/data/.Trash-1000/files";
        const ResolvedNode node{isStillThere ? NodeState::found : NodeState::gone,
                                std::string(kFolder) + "/a"};
        const auto resolve = [&](std::span<const SeenItem> items) {
            EXPECT_EQ(items.front().folder, kFolder);
            return std::vector<ResolvedNode>(items.size(), node);
        };
        storeTrashRecords(usage, std::vector{found}, resolve, kNow);
        EXPECT_EQ(usage.size(), isStillThere ? 1u : 2u);
        EXPECT_EQ(ConstTrashEntry(record(1)).dirPath(), found.item.dirPath);
    }
}

TEST_F(TrashRecords, OfOneItemWithTwoNamesAreOne) {
    const std::vector<FoundItem> both{{item("a", 1)}, {item("b", 1)}};
    for (int scan = 0; scan < 3; ++scan) storeTrashRecords(usage, both, nowhere, kEarlier);
    EXPECT_EQ(usage.size(), 1u);
}

TEST_F(TrashRecords, AreRememberedByTheirNumbersUntilTheirItemsAreDeleted) {
    for (std::uint64_t number = 1; number <= 3; ++number) put("a", number);
    TrashEntry(record(2)).setRemoved(kEarlier);
    TrashEntry(record(3)).setDeleted(kEarlier);
    usage.set(std::string(kTrashTotalSize), 5.0);
    EXPECT_THAT(numbersToRemember(usage), ElementsAre(ItemNumber{3, 1}, ItemNumber{3, 2}));
}

TEST_F(TrashRecords, CopyATotalThatIsOne) {
    struct Row {
        PropertyList total;
        double copied;
    };
    const Row rows[] = {{PropertyList(12.5), 12.5},  {PropertyList(7), 7},
                        {PropertyList(0), 0},        {PropertyList(-3.0), 0},
                        {PropertyList("a text"), 0}, {PropertyList(PropertyListArray{}), 0}};
    for (const Row& row : rows) {
        usage = Dictionary{{kTrashTotalSize, row.total}};
        put("a", 1);
        EXPECT_EQ(ConstTrashEntry(record(1)).totalSize(), row.copied);
        update({NodeState::gone, ""}, -1);
        ASSERT_TRUE(usage.find(kTrashTotalSize));
        EXPECT_EQ(*usage.find(kTrashTotalSize), row.total);
    }
    usage = {};
    EXPECT_EQ(ConstTrashEntry(put("a", 1)).totalSize(), 0);
}

TEST_F(TrashRecords, LeaveADictionaryAtTheTopThatStandsForTheTotalAlone) {
    usage = Dictionary{{kTrashTotalSize, Dictionary{{"of another program", true}}}};
    update({NodeState::unknown, ""});
    EXPECT_TRUE(usage.find(kTrashTotalSize)->dictionary()->contains("of another program"));
}

TEST(TrashFiles, ExpireByTheSecond) {
    struct Row {
        std::chrono::seconds age;
        std::int64_t saveDays;
        bool isExpired;
    };
    constexpr std::chrono::seconds kDay = hours(24);
    const Row rows[] = {{5 * kDay, 5, true},
                        {5 * kDay - std::chrono::seconds(1), 5, false},
                        {std::chrono::seconds(0), 0, true},
                        {std::chrono::seconds(-1), 0, false},
                        {std::chrono::seconds(0), -1, true},
                        {-kDay, -1, true},
                        {-2 * kDay, -1, false},
                        {5000 * kDay, std::numeric_limits<std::int64_t>::max(), false}};
    for (const Row& row : rows) {
        EXPECT_EQ(isTrashFileExpired(kNow - row.age, kNow, row.saveDays), row.isExpired)
            << row.age.count() << " s, " << row.saveDays << " days";
    }
}

}  // namespace
}  // namespace korvane
