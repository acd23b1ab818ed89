// The history log of the usage check as a file: made, appended to, trimmed, and shared.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "base/PropertyListCodec.h"
#include "scenarios/DaemonFiles.h"
#include "storage/SupportFolder.h"
#include "support/Scenario.h"

namespace korvane {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::SizeIs;

Dictionary logOf(int count) {
    PropertyListArray entries;
    for (int number = 1; number <= count; ++number) {
        entries.emplace_back(Dictionary{{"number", number}, {"result", "passed"}});
    }
    return Dictionary{{"logEntries", std::move(entries)}};
}

// Settings that keep so many entries; a null limit is not stored at all.
void putLimit(Scenario& scenario, const PropertyList* limit) {
    Dictionary preferences = completePreferences();
    preferences.remove("usageEntryLimit");
    if (limit) preferences.set("usageEntryLimit", *limit);
    preferences.set("volumeArray",
                    PropertyListArray{Dictionary{{"volumeMountToName", "/Volumes/Data"},
                                                 {"executionIntervalUsage_minutes", 5}}});
    putPreferences(scenario, preferences);
}

void putLog(Scenario& scenario, const std::string& bytes) {
    ASSERT_TRUE(scenario.machine().fileSystem.put(usageLogPath("Data"), bytes, 0644));
}

// The "number" of each entry; 0 where there is none, as in what the daemon writes.
std::vector<std::int64_t> numbersIn(Scenario& scenario) {
    std::vector<std::int64_t> numbers;
    for (const Dictionary& entry : scenario.historyLog("Data")) {
        numbers.push_back(integerValue(entry.find("number")));
    }
    return numbers;
}

TEST(HistoryLog, IsMadeWithItsFoldersWhenThereIsNone) {
    Scenario s("one-volume");
    const PropertyList limit(15);
    putLimit(s, &limit);
    s.run(seconds(1));
    EXPECT_THAT(s.historyLog("Data"), SizeIs(1));
    const auto file = s.machine().fileSystem.attributes(usageLogPath("Data"));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->permissions, 0666u);
}

TEST(HistoryLog, MakesTheSupportFolderToo) {
    MachineDescription description = Scenario::describe("one-volume");
    description.userName = "ada";
    Scenario s(description);
    const PropertyList limit(15);
    putLimit(s, &limit);
    s.run(std::chrono::milliseconds(999));
    s.machine().runLoop.runOnce();  // the tick
    s.removeSupportFolder();
    s.run(seconds(0));  // the check: it writes its log, and its save finds the folder
    EXPECT_THAT(s.historyLog("Data"), SizeIs(1));
    EXPECT_EQ(s.machine().fileSystem.attributes(kSupportFolder)->ownerId, 1000u);
    EXPECT_EQ(s.machine().fileSystem.attributes(volumeFolder("Data"))->ownerId, 1000u);
    EXPECT_EQ(s.terminateSends(), 0);
}

TEST(HistoryLog, DropsTheOldestEntryAtTheLimit) {
    Scenario s("one-volume");
    const PropertyList limit(3);
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(3)));
    s.run(seconds(1));
    EXPECT_THAT(numbersIn(s), ElementsAre(2, 3, 0));
}

TEST(HistoryLog, ShrinksToALoweredLimitInOneGo) {
    Scenario s("one-volume");
    const PropertyList limit(2);
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(10)));
    s.run(seconds(1));
    EXPECT_THAT(numbersIn(s), ElementsAre(10, 0));
}

TEST(HistoryLog, TakesALimitThatIsStoredAsText) {
    Scenario s("one-volume");
    const PropertyList limit("2");
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(10)));
    s.run(seconds(1));
    EXPECT_THAT(numbersIn(s), ElementsAre(10, 0));
}

TEST(HistoryLog, KeepsItsFirstEntryWithoutALimit) {
    Scenario s("one-volume");
    putLimit(s, nullptr);
    s.run(seconds(1));
    EXPECT_THAT(s.historyLog("Data"), SizeIs(1));
    // From then on there is a log, and no limit is a limit of none.
    s.run(minutes(5));
    EXPECT_THAT(s.historyLog("Data"), SizeIs(0));
}

TEST(HistoryLog, IsNotTrimmedAtANegativeLimit) {
    Scenario s("one-volume");
    const PropertyList limit(-1);
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(30)));
    s.run(seconds(1));
    EXPECT_THAT(s.historyLog("Data"), SizeIs(31));
}

TEST(HistoryLog, StartsAgainFromOneEntryWhenItCannotBeRead) {
    for (const std::string& bytes :
         {std::string(), std::string("no property list"), std::string("bplist00\0\x01", 10),
          formatPropertyList(PropertyListArray{1, 2}),
          formatPropertyList(logOf(3)).substr(0, 200)}) {
        Scenario s("one-volume");
        const PropertyList none(0);
        putLimit(s, &none);
        putLog(s, bytes);
        s.run(seconds(1));
        EXPECT_THAT(s.historyLog("Data"), SizeIs(1)) << bytes.substr(0, 20);
    }
}

// What can never be read gives way to a log; what cannot be read now does not.
TEST(HistoryLog, StartsAgainWhereALinkLies) {
    Scenario s("one-volume");
    const PropertyList limit(15);
    putLimit(s, &limit);
    const std::string theirs = formatPropertyList(logOf(2));
    ASSERT_TRUE(s.machine().fileSystem.put("/home/somebody.plist", theirs));
    ASSERT_TRUE(s.machine().fileSystem.putLink(usageLogPath("Data"), "/home/somebody.plist"));
    s.run(minutes(6));
    EXPECT_THAT(s.historyLog("Data"), SizeIs(2));
    EXPECT_EQ(s.machine().fileSystem.attributes(usageLogPath("Data"))->kind, ItemKind::file);
    EXPECT_EQ(s.machine().fileSystem.bytes("/home/somebody.plist"), theirs);
}

TEST(HistoryLog, WaitsForDescriptorsRatherThanStartAgain) {
    Scenario s("one-volume");
    const PropertyList limit(15);
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(3)));
    s.machine().fileSystem.setUnreadableFile(usageLogPath("Data"));
    s.run(minutes(1));
    EXPECT_THAT(numbersIn(s), ElementsAre(1, 2, 3));
    s.machine().fileSystem.setUnreadableFile("");
    s.run(minutes(5));
    EXPECT_THAT(numbersIn(s), ElementsAre(1, 2, 3, 0));
}

TEST(HistoryLog, LeavesAFolderInItsPlace) {
    Scenario s("one-volume");
    const PropertyList limit(15);
    putLimit(s, &limit);
    ASSERT_TRUE(s.machine().fileSystem.put(usageLogPath("Data") + "/inside", "kept"));
    s.run(minutes(1));
    EXPECT_EQ(s.machine().fileSystem.bytes(usageLogPath("Data") + "/inside"), "kept");
}

TEST(HistoryLog, WithoutAListCountsAsEmptyAndKeepsItsOtherKeys) {
    for (const Dictionary& document :
         {Dictionary{{"note", "kept"}}, Dictionary{{"logEntries", "a text"}, {"note", "kept"}}}) {
        Scenario s("one-volume");
        const PropertyList limit(3);
        putLimit(s, &limit);
        putLog(s, formatPropertyList(document));
        s.run(seconds(1));
        EXPECT_THAT(s.historyLog("Data"), SizeIs(1));
        const auto stored = s.machine().fileSystem.bytes(usageLogPath("Data"));
        ASSERT_TRUE(stored);
        EXPECT_EQ(*parsePropertyList(*stored)->dictionary()->find("note"), PropertyList("kept"));
    }
}

TEST(HistoryLog, IsLeftRewritableForEverybody) {
    Scenario s("one-volume");
    const PropertyList limit(3);
    putLimit(s, &limit);
    putLog(s, formatPropertyList(logOf(1)));
    s.run(seconds(1));
    EXPECT_EQ(s.machine().fileSystem.attributes(usageLogPath("Data"))->permissions, 0666u);
}

TEST(HistoryLog, ThatCannotBeWrittenCostsOnlyItself) {
    Scenario s("one-volume");
    const PropertyList limit(3);
    putLimit(s, &limit);
    // A folder stands where the log's folder is to be, but cannot be written to.
    putLog(s, formatPropertyList(logOf(1)));
    s.machine().fileSystem.setFolderImmutable(volumeFolder("Data"), true);
    s.run(seconds(1));
    EXPECT_EQ(usageStatusIn(s, "/Volumes/Data"), "3");
    EXPECT_DOUBLE_EQ(executionTimeUsageIn(s, "/Volumes/Data"), s.secondsNow() + 300);
}

TEST(HistoryLog, LiesInANestedFolderWhereTheNameHasASlash) {
    MachineDescription description = Scenario::describe("one-volume");
    for (MountDescription& mount : description.mounts) {
        if (mount.path == "/Volumes/Data") mount.displayName = "Work/Data";
    }
    Scenario s(description);
    s.run(seconds(10));
    EXPECT_TRUE(s.machine().fileSystem.exists(std::string(kSupportFolder) +
                                              "/Work/Data/Volume Usage.plist"));
    EXPECT_THAT(usageResultsIn(s, "Work/Data"), ElementsAre("passed"));
}

TEST(HistoryLog, NeverLiesOutsideTheSupportFolder) {
    MachineDescription description = Scenario::describe("one-volume");
    for (MountDescription& mount : description.mounts) {
        if (mount.path == "/Volumes/Data") mount.displayName = "../../outside";
    }
    Scenario s(description);
    s.run(seconds(10));
    EXPECT_THAT(usageResultsIn(s, "../../outside"), ElementsAre("passed"));
    for (const std::string& path : s.machine().fileSystem.paths()) {
        if (path.ends_with("Volume Usage.plist")) {
            EXPECT_TRUE(path.starts_with(std::string(kSupportFolder) + "/")) << path;
        }
    }
}

TEST(HistoryLog, OfEachOfTwoVolumesOfOneNameIsItsOwn) {
    Scenario s("one-volume");
    s.mount("/media/Data").fill("/media/Data", 99_percent).run(minutes(1));
    EXPECT_THAT(usageResultsIn(s, "Data"), ElementsAre("passed"));
    EXPECT_THAT(usageResultsIn(s, "Data 1"), ElementsAre("failed"));
    EXPECT_THAT(s.dialogs(), ElementsAre(testing::HasSubstr("“Data 1”")));
    EXPECT_THAT(s.supportFiles(), testing::IsSupersetOf({"Data/DirectoryBackup (ON)",
                                                         "Data 1/DirectoryBackup (ON)"}));
}

}  // namespace
}  // namespace korvane
