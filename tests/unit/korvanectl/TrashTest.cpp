// The trash history as the commands show it, copies of what is still in a trash, and the switches.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstring>
#include <sstream>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "korvanectl/TrashHistory.h"
#include "trash/TrashFormats.h"
#include "unit/korvanectl/TrashFixture.h"

namespace korvane::ctl {
namespace {

using std::chrono::hours;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

using Trash = TrashFixture;

TEST_F(Trash, IsListedOldestFirstWithWhatBecameOfEachItem) {
    keepNode("younger", 11, now - hours{2}, "Removed");
    keepNode("older", 12, now - hours{30}, "Deleted");
    keepNode("youngest", 13, now - hours{1});
    EXPECT_EQ(run({"trash"}), 0);
    const std::string bare = out;
    EXPECT_EQ(run({"trash", "list"}), 0);
    EXPECT_EQ(out, bare);
    EXPECT_LT(out.find("older"), out.find("younger"));
    EXPECT_LT(out.find("younger"), out.find("youngest"));
    EXPECT_THAT(lineOf("older"), AllOf(HasSubstr("System"), HasSubstr("2025-12-30 18:00:00"),
                                       HasSubstr("emptied, 2025-12-30 19:00:00")));
    EXPECT_THAT(lineOf("younger "), HasSubstr("put back, "));
    EXPECT_THAT(lineOf("youngest"), HasSubstr("in the trash"));
    EXPECT_THAT(out, Not(HasSubstr("totalSize")));
}

TEST_F(Trash, IsListedForProgramsToo) {
    keepNode("two\nlines", 11, now - hours{2}, "Removed");
    EXPECT_EQ(run({"trash", "list", "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr(R"("name": "two\nlines")"), HasSubstr(R"("node": 11)"),
                           HasSubstr(R"("state": "putBack")"),
                           HasSubstr(R"("putIn": "2025-12-31T22:00:00Z")"),
                           HasSubstr(R"("left": "2025-12-31T23:00:00Z")")));
}

TEST_F(Trash, IsEmptyWithoutAHistory) {
    EXPECT_EQ(run({"trash", "list"}), 0);
    EXPECT_THAT(out, HasSubstr("Nothing"));
    EXPECT_EQ(run({"trash", "show", "letter"}), 1);
    EXPECT_THAT(err, HasSubstr("no \"letter\""));
}

TEST_F(Trash, PassesOverWhatIsNoRecord) {
    usage.set("rubbish", "text");
    usage.set("empty", Dictionary{});
    keepNode("letter", 11, now);
    EXPECT_EQ(run({"trash", "list"}), 0);
    EXPECT_THAT(out, HasSubstr("letter"));
    folder.write(kTrashUsageFile, "no property list");
    EXPECT_EQ(run({"trash", "list"}), 5);
}

TEST_F(Trash, ShowsWhereTheContentsOfAnItemLay) {
    keepNode("letter", 11, now - hours{2}, "Deleted");
    EXPECT_EQ(run({"trash", "show", "letter"}), 0);
    EXPECT_THAT(lineOf("contents"), HasSubstr("not recorded"));
    RecordedItem letter = recorded("letter", 11);
    letter.origin = "/home/ann/letter";
    keepRecords({letter});
    EXPECT_EQ(run({"trash", "list"}), 0);
    EXPECT_THAT(lineOf("letter"), HasSubstr("/home/ann/letter"));
    for (const char* const name : {"letter", "11", "System_11"}) {
        EXPECT_EQ(run({"trash", "show", name}), 0);
        EXPECT_THAT(lineOf("contents"), HasSubstr("2 pieces on the device"));
        EXPECT_THAT(lineOf("SHA-256"), HasSubstr(std::string(64, '0')));
        EXPECT_THAT(lineOf("size"), HasSubstr("8.2 kB"));
        EXPECT_THAT(lineOf("came from"), HasSubstr("/home/ann/letter"));
    }
    EXPECT_EQ(run({"trash", "show", "letter", "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr(R"("pieces": 2)"), HasSubstr(R"("sizeBytes": 8192)"),
                           HasSubstr(R"("sha256": "0000)"), HasSubstr(R"("kind": "file")")));
}

TEST_F(Trash, SaysWhyContentsCannotBeHad) {
    const struct {
        std::uint32_t flags;
        const char* why;
    } rows[] = {{kExtentEncoded, "compressed or encrypted"},
                {kExtentInline, "own structures"},
                {kExtentPlaceUnknown, "does not say where"}};
    std::uint64_t node = 20;
    for (const auto& row : rows) {
        const std::string name = "letter" + std::to_string(++node);
        keepNode(name, node, now);
        RecordedItem item = recorded(name, node);
        item.extents[1].flags = row.flags;
        keepRecords({item});
        EXPECT_EQ(run({"trash", "show", name.c_str()}), 0);
        EXPECT_THAT(lineOf("contents"), HasSubstr(row.why));
    }
}

TEST_F(Trash, ShowsTheNewestRecordsOfThatVeryItem) {
    keepNode("letter", 11, now);
    RecordedItem first = recorded("letter", 11);
    first.size = 1000;
    RecordedItem second = recorded("letter", 11);
    second.size = 2000;
    // The same node number, used again for something else.
    RecordedItem other = recorded("other", 11);
    other.size = 3000;
    keepRecords({first}, "2025-12-31-01");
    keepRecords({second, other}, "2025-12-31-02");
    EXPECT_EQ(run({"trash", "show", "letter"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("2.0 kB"));
}

TEST_F(Trash, KeepsAChecksumThatALaterRunHadNoTimeFor) {
    keepNode("letter", 11, now);
    RecordedItem first = recorded("letter", 11);
    first.checksum.fill(0xAB);
    RecordedItem second = first;
    second.flags = 0;
    second.checksum = {};
    second.origin = "/home/ann/letter";
    keepRecords({first}, "2025-12-31-01");
    keepRecords({second, second}, "2025-12-31-02");
    EXPECT_EQ(run({"trash", "show", "letter"}), 0);
    EXPECT_THAT(lineOf("SHA-256"), HasSubstr("abababab"));
    EXPECT_THAT(lineOf("came from"), HasSubstr("/home/ann/letter"));
    // It was written to since.
    second.modified += 1;
    keepRecords({second}, "2025-12-31-03");
    EXPECT_EQ(run({"trash", "show", "letter"}), 0);
    EXPECT_EQ(lineOf("SHA-256"), "");
}

// A file system hands the number of an emptied item out to the next file: its place in the history
// goes to that one once it is thrown away, too.
TEST_F(Trash, HasItemsThatTheRecordsAloneHave) {
    RecordedItem thesis = recorded("thesis", 12);
    thesis.born = 100;
    thesis.path = "/home/ann/.local/share/Trash/files/thesis";
    thesis.origin = "/home/ann/thesis";
    RecordedItem list = recorded("list", 12);
    list.born = 200;
    list.size = 4000;
    // Another name within the trash is no other item.
    RecordedItem draft = list;
    draft.name = "draft";
    keepRecords({thesis, draft, list});
    keepNode("list", 12, now);
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("thesis"),
                AllOf(HasSubstr("/home/ann/thesis"), HasSubstr("not in the history, last")));
    EXPECT_THAT(lineOf("list"), HasSubstr("in the trash"));
    EXPECT_THAT(out, AllOf(Not(HasSubstr("draft")), Not(HasSubstr("KEY"))));
    for (const char* const name : {"thesis", "System_12@100", "/home/ann/thesis",
                                   "/home/ann/.local/share/Trash/files/thesis"}) {
        EXPECT_EQ(run({"trash", "show", name}), 0) << name;
        EXPECT_THAT(lineOf("size"), HasSubstr("8.2 kB"));
        EXPECT_THAT(lineOf("trash folder"), HasSubstr("Trash/files"));
    }
    EXPECT_EQ(run({"trash", "show", "thesis", "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr(R"("state": "notInHistory")"), HasSubstr(R"("lastSeen": ")")));
    EXPECT_EQ(run({"trash", "show", "list"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("4.0 kB"));
    // The number alone leads to neither.
    EXPECT_EQ(run({"trash", "show", "12"}), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("System_12@100"), HasSubstr("2 items")));
}

TEST_F(Trash, HasBothItemsOfOneNumberAndNameThatTheHistoryHas) {
    const auto secondsOf = [](Time time) {
        return static_cast<std::int64_t>(secondsSince1970(time));
    };
    RecordedItem first = recorded("list", 12);
    first.born = secondsOf(now - hours{6});
    first.size = 1000;
    RecordedItem second = recorded("list", 12);
    second.born = secondsOf(now - hours{3});
    second.size = 2000;
    const auto encoded = [](RecordedItem item, Time when) {
        std::string bytes = encodeItem(std::move(item));
        const std::uint32_t stamp = secondsSince1904(when);
        std::memcpy(bytes.data() + kTrashStampOffset, &stamp, sizeof stamp);
        return bytes;
    };
    folder.write("System/Trash Deletes 2025-12-31-23",
                 encoded(first, now - hours{4}) + encoded(second, now - hours{1}));
    keepNode("list", 12, now - hours{5}, "Deleted");
    usage.set("System_12_2025-12-31T19:00:00Z", *usage.find("System_12"));
    keepNode("list", 12, now - hours{2});
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("System_12_"), HasSubstr("emptied"));
    EXPECT_THAT(lineOf("System_12 "), HasSubstr("in the trash"));
    EXPECT_THAT(out, Not(HasSubstr("not in the history")));
    EXPECT_EQ(run({"trash", "show", "System_12_2025-12-31T19:00:00Z"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("1.0 kB"));
    EXPECT_EQ(run({"trash", "show", "System_12"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("2.0 kB"));
    EXPECT_EQ(run({"trash", "show", "list"}), 1);
    EXPECT_THAT(err, HasSubstr("2 items"));
}

TEST_F(Trash, SaysThatAVolumeIsAway) {
    keepNode("there", 12, now);
    usage.set("Stick_13", *usage.find("System_12"));
    for (const auto& [key, value] : {std::pair{"itemName", "away"}, {"volumeName", "Stick"}}) {
        usage.find("Stick_13")->dictionary()->set(key, value);
    }
    usage.set("Stick_14", *usage.find("Stick_13"));
    usage.find("Stick_14")->dictionary()->set("itemName", "gone");
    usage.find("Stick_14")->dictionary()->set("Deleted", PropertyListDate{});
    folder.write(kTrashUsageFile, formatPropertyList(usage));
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("there"), HasSubstr("in the trash"));
    EXPECT_THAT(lineOf("away"), HasSubstr("on a volume that is away"));
    EXPECT_THAT(lineOf("gone"), HasSubstr("emptied"));
    EXPECT_EQ(run({"trash", "show", "away", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"("volumeIsAway": true)"));
    EXPECT_EQ(run({"trash", "show", "there", "--json"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("volumeIsAway")));
}

TEST_F(Trash, TellsItemsOfOneNumberAndNameApart) {
    RecordedItem first = recorded("list", 12);
    first.born = 100;
    first.size = 1000;
    RecordedItem second = recorded("list", 12);
    second.born = 200;
    second.size = 2000;
    keepRecords({first, second});
    keepNode("list", 12, now);
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("KEY"), HasSubstr("CAME FROM"));
    EXPECT_THAT(lineOf("System_12@100"), HasSubstr("not in the history"));
    EXPECT_EQ(run({"trash", "show", "System_12@100"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("1.0 kB"));
    EXPECT_EQ(run({"trash", "show", "System_12"}), 0);
    EXPECT_THAT(lineOf("size"), HasSubstr("2.0 kB"));
}

TEST_F(Trash, KnowsVolumesByTheirRecordsToo) {
    keepRecords({recorded("letter", 11)});
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("letter"), HasSubstr("System"));
    fs::create_directories(folder / "Data");
    folder.write("Data/Trash Deletes 2025-12-31-01", "rubbish");
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("Data")));
}

// As the daemon stamps a record when it collects it: in local time.
TEST_F(Trash, SaysWhenAnItemWasSeenLast) {
    std::string bytes = encodeItem(recorded("letter", 11));
    TrashRecord record;
    std::copy(bytes.begin(), bytes.end(), record.begin());
    stampTrashRecord(record, secondsSince1904(now - hours{2}));
    folder.write("System/Trash Deletes 2025-12-31-22",
                 std::string_view{record.data(), record.size()});
    EXPECT_EQ(run({"trash", "list", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"("lastSeen": "2025-12-31T22:00:00Z")"));
}

TEST_F(Trash, SumsUpAFolder) {
    keepNode("box", 30, now);
    RecordedItem box = recorded("box", 30);
    box.mode = S_IFDIR | 0755;
    box.extents.clear();
    box.flags = kRecordFolderCut;
    RecordedItem letter = recorded("letter", 31);
    letter.trashNode = box.node;
    RecordedItem packed = letter;
    packed.extents[0].flags = kExtentEncoded;
    keepRecords({box, letter, packed});
    EXPECT_EQ(run({"trash", "show", "box"}), 0);
    EXPECT_THAT(lineOf("contents"), AllOf(HasSubstr("1 of its 2 files"), HasSubstr("held more")));
    EXPECT_THAT(lineOf("kind"), HasSubstr("folder"));
}

TEST_F(Trash, MakesALinkThatWasEmptiedAgain) {
    keepNode("link", 40, now, "Deleted");
    RecordedItem link = recorded("link", 40);
    link.flags = 0;
    link.mode = S_IFLNK | 0777;
    link.extents.clear();
    link.linkTarget = "/etc/passwd";
    keepRecords({link});
    const std::string target = folder / "again";
    EXPECT_EQ(run({"trash", "recover", "link", target.c_str()}), 0);
    EXPECT_THAT(out, HasSubstr("/etc/passwd"));
    EXPECT_EQ(fs::read_symlink(target), "/etc/passwd");
    EXPECT_EQ(run({"trash", "recover", "link", target.c_str()}), 5);
    const std::string other = folder / "other";
    EXPECT_EQ(run({"trash", "recover", "link", other.c_str(), "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"("linkTarget": "/etc/passwd")"));
}

TEST(VolumeId, IsKnownForADeviceNumber) {
    const struct {
        unsigned major;
        unsigned minor;
        std::uint32_t number;
    } rows[] = {{8, 1, 0x801}, {259, 300, 0x11032CU}, {7, 0, 0x700}};
    for (const auto& row : rows) {
        const std::uint32_t parts[] = {row.number, 0};
        std::uint64_t id = 0;
        std::memcpy(&id, parts, sizeof id);
        EXPECT_TRUE(isDeviceNumber(id, gnu_dev_makedev(row.major, row.minor))) << row.number;
        EXPECT_FALSE(isDeviceNumber(id, gnu_dev_makedev(row.major, row.minor + 1)));
        EXPECT_FALSE(isDeviceNumber(id | 1ULL << 40U, gnu_dev_makedev(row.major, row.minor)));
    }
}

TEST_F(Trash, AsksForTheKeyWhereANameIsNotEnough) {
    keepNode("letter", 11, now);
    keepNode("letter", 12, now);
    EXPECT_EQ(run({"trash", "show", "letter"}), 1);
    EXPECT_THAT(err, AllOf(HasSubstr("2 items"), HasSubstr("System_11"), HasSubstr("System_12")));
    EXPECT_EQ(run({"trash", "show", "System_12"}), 0);
}

TEST_F(Trash, GivesACopyOfAFileThatIsStillInIt) {
    folder.write("Trash/files/letter", "contents");
    fs::permissions(trash() + "/letter", fs::perms{0640});
    const auto modified = fs::last_write_time(trash() + "/letter") - hours{5};
    fs::last_write_time(trash() + "/letter", modified);
    keep("letter", now);
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 0);
    EXPECT_THAT(out, HasSubstr("still is"));
    EXPECT_EQ(read(target), "contents");
    EXPECT_EQ(fs::status(target).permissions(), fs::perms{0640});
    EXPECT_EQ(fs::last_write_time(target), modified);
    EXPECT_EQ(read(trash() + "/letter"), "contents");
    // Nothing is written over.
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 5);
    // Into a folder, under its own name.
    fs::create_directory(folder / "desk");
    EXPECT_EQ(run({"trash", "recover", "letter", (folder / "desk").c_str(), "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr(R"("from": "trash")"), HasSubstr(R"("bytes": 8)")));
    EXPECT_EQ(read(folder / "desk/letter"), "contents");
}

// A file system gives the number of an emptied item to the next file, which may get its name, too.
TEST_F(Trash, CopiesNothingThatGotTheNumberAndTheNameOfAnItem) {
    folder.write("Trash/files/letter", "another one");
    struct statx status {};
    ASSERT_EQ(::statx(AT_FDCWD, (trash() + "/letter").c_str(), 0, STATX_ALL, &status), 0);
    if ((status.stx_mask & STATX_BTIME) == 0) GTEST_SKIP() << "no births on this file system";
    RecordedItem letter = recorded("letter", status.stx_ino);
    letter.path = trash() + "/letter";
    const std::string target = folder / "copy";
    for (const std::int64_t born : {std::int64_t{0}, std::int64_t{100}}) {
        letter.born = born;
        keepRecords({letter});
        const std::string key =
            "System_" + std::to_string(status.stx_ino) + (born == 0 ? "@letter" : "@100");
        EXPECT_EQ(run({"trash", "recover", key.c_str(), target.c_str()}), 1);
        EXPECT_THAT(err, HasSubstr("not mounted"));
        EXPECT_FALSE(fs::exists(target));
    }
    // Nor for one that the history has emptied.
    keep("letter", now, "Deleted");
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 1);
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(Trash, GivesACopyOfWhatTheRecordsAloneHaveByItsBirth) {
    folder.write("Trash/files/letter", "contents");
    struct statx status {};
    ASSERT_EQ(::statx(AT_FDCWD, (trash() + "/letter").c_str(), 0, STATX_ALL, &status), 0);
    if ((status.stx_mask & STATX_BTIME) == 0) GTEST_SKIP() << "no births on this file system";
    RecordedItem letter = recorded("letter", status.stx_ino);
    letter.path = trash() + "/letter";
    letter.born = status.stx_btime.tv_sec;
    keepRecords({letter});
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("letter"), HasSubstr("in the trash"));
    EXPECT_EQ(run({"trash", "show", "letter", "--json"}), 0);
    EXPECT_THAT(out, HasSubstr(R"("state": "inTrash")"));
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 0);
    EXPECT_EQ(read(target), "contents");
}

TEST_F(Trash, SaysWhereACopyIsAndWhatCannotBeCopied) {
    folder.write("Trash/files/letter", "contents");
    keep("letter", now);
    ASSERT_EQ(::mkfifo((trash() + "/pipe").c_str(), 0600), 0);
    keep("pipe", now);
    fs::create_directory(folder / "desk");
    EXPECT_EQ(run({"trash", "recover", "letter", (folder / "desk").c_str()}), 0);
    EXPECT_THAT(out, HasSubstr("8 bytes to " + (folder / "desk/letter")));
    EXPECT_EQ(run({"trash", "recover", "pipe", (folder / "desk").c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("holds nothing"));
}

TEST_F(Trash, GivesACopyOfAFolderWithItsLinksButNotWhatTheyLeadTo) {
    folder.write("Trash/files/box/inner/letter", "contents");
    folder.write("Trash/files/box/\xFF\n", "odd");
    folder.write("secret/text", "secret");
    fs::create_directory_symlink(folder / "secret", trash() + "/box/link");
    ASSERT_EQ(::mkfifo((trash() + "/box/pipe").c_str(), 0600), 0);
    fs::permissions(trash() + "/box/inner", fs::perms{0750});
    keep("box", now);
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "box", target.c_str()}), 5);
    EXPECT_THAT(err, HasSubstr("pipe"));
    EXPECT_THAT(out, HasSubstr("2 files in 2 folders"));
    EXPECT_EQ(read(target + "/inner/letter"), "contents");
    EXPECT_EQ(read(target + "/\xFF\n"), "odd");
    EXPECT_TRUE(fs::is_symlink(target + "/link"));
    EXPECT_EQ(fs::status(target + "/inner").permissions(), fs::perms{0750});
    EXPECT_FALSE(fs::exists(target + "/pipe"));
}

TEST_F(Trash, GivesNoCopyIntoTheItemItself) {
    folder.write("Trash/files/box/letter", "contents");
    keep("box", now);
    for (const std::string& target : {trash() + "/box", trash() + "/box/new"}) {
        EXPECT_EQ(run({"trash", "recover", "box", target.c_str()}), 1);
        EXPECT_THAT(err, HasSubstr("within the item"));
    }
    EXPECT_EQ(std::distance(fs::directory_iterator{trash() + "/box"}, {}), 1);
}

TEST_F(Trash, GoesThroughNoLinkToAnItem) {
    folder.write("secret/letter", "secret");
    struct stat status {};
    ASSERT_EQ(::stat((folder / "secret/letter").c_str(), &status), 0);
    fs::create_directories(folder / "Trash");
    fs::create_directory_symlink(folder / "secret", trash());
    keepNode("letter", status.st_ino, now);
    keepNode("../secret/letter", status.st_ino + 1, now);
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 1);
    EXPECT_EQ(run({"trash", "recover", "../secret/letter", target.c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("not recorded"));
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(Trash, RefusesWhatIsGoneAndWasOnAVolumeThatIsNotMounted) {
    keepNode("letter", 11, now, "Deleted");
    keepRecords({recorded("letter", 11)});
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "letter", target.c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("not mounted"));
    EXPECT_FALSE(fs::exists(target));
}

TEST_F(Trash, IsWatchedAsTheSwitchesSay) {
    EXPECT_EQ(run({"trash", "off"}), 0);
    EXPECT_EQ(*stored().find("trashHistoryOnOff"), PropertyList{false});
    EXPECT_THAT(daemon.words, ElementsAre(kReloadWord));
    EXPECT_EQ(run({"trash", "on"}), 0);
    EXPECT_EQ(*stored().find("trashHistoryOnOff"), PropertyList{true});
    EXPECT_THAT(err, HasSubstr("korvanectl trash on VOLUME"));
    EXPECT_EQ(run({"trash", "on", "/mnt/a/Data"}), 0);
    EXPECT_EQ(*entry(1).find("trashOnOff"), PropertyList{true});
    EXPECT_EQ(*entry(2).find("trashOnOff"), PropertyList{false});
    EXPECT_THAT(err, IsEmpty());
    EXPECT_THAT(daemon.words, Each(std::string(kReloadWord)));
    EXPECT_EQ(run({"trash", "off"}), 0);
    EXPECT_EQ(run({"trash", "on", "System"}), 0);
    EXPECT_THAT(err, HasSubstr("off as a whole"));
    EXPECT_EQ(run({"trash", "off", "/mnt/a/Data"}), 0);
    EXPECT_EQ(*entry(1).find("trashOnOff"), PropertyList{false});
    EXPECT_EQ(run({"trash", "on", "Data"}), 1);
    EXPECT_EQ(run({"trash", "on", "Nowhere"}), 1);
}

TEST_F(Trash, IsNotWatchedOnAnEncryptedVolume) {
    changeEntry(1, [](Dictionary& entry) { entry.set("isCoreStorageEncrypted", true); });
    EXPECT_EQ(run({"trash", "on", "/mnt/a/Data"}), 1);
    EXPECT_THAT(err, HasSubstr("encrypted"));
    EXPECT_EQ(run({"trash", "off", "/mnt/a/Data"}), 0);
}

}  // namespace
}  // namespace korvane::ctl
