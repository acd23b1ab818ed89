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

class TrashRecords : public testing::Test {
  protected:
    const Dictionary& put(const std::string& name, std::uint64_t nodeId, Time now = kEarlier) {
        storeTrashRecord(usage, item(name, nodeId), now);
        return record(nodeId);
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
        put("a", 1, kNow);
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
