// What the commands say of items that left the trash and stand where they came from, and what they
// make of places that anybody may have written into the records. The switch of homes, too.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "korvanectl/TrashHistory.h"
#include "unit/korvanectl/TrashFixture.h"

namespace korvane::ctl {
namespace {

using std::chrono::hours;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
namespace fs = std::filesystem;

constexpr char kBack[] = "put back where it came from";

class TrashOrigin : public TrashFixture {
  protected:
    void SetUp() override {
        folder.write("docs/notes.txt", "second");
        struct statx status {};
        ASSERT_EQ(::statx(AT_FDCWD, origin.c_str(), 0, STATX_ALL, &status), 0);
        if ((status.stx_mask & STATX_BTIME) == 0) GTEST_SKIP() << "no births on this file system";
        notes = recorded("notes.2.txt", status.stx_ino);
        notes.path = trash() + "/notes.2.txt";
        notes.origin = origin;
        notes.born = status.stx_btime.tv_sec;
    }
    // The line of the item in the list once it is recorded.
    std::string listed(const RecordedItem& item, const char* left = "Deleted") {
        keepRecords({item});
        keepNode(item.name, item.node, now - hours{2}, left);
        EXPECT_EQ(run({"trash"}), 0);
        return lineOf(item.name + " ");
    }
    const std::string origin = folder / "docs/notes.txt";
    RecordedItem notes;
};

TEST_F(TrashOrigin, ShowsAnItemPutBackUnderItsOwnName) {
    EXPECT_THAT(listed(notes), HasSubstr(std::string(kBack) + ", 2025-12-31 23:00:00"));
    EXPECT_EQ(run({"trash", "show", "notes.2.txt"}), 0);
    EXPECT_THAT(lineOf("state"), HasSubstr(kBack));
    EXPECT_THAT(lineOf("came from  "), HasSubstr(origin));
    EXPECT_EQ(run({"trash", "list", "--json"}), 0);
    EXPECT_THAT(out, AllOf(HasSubstr(R"("state": "emptied")"),
                           HasSubstr(R"("putBackAs": ")" + origin + '"')));
}

TEST_F(TrashOrigin, ShowsNothingElseForTheItem) {
    RecordedItem younger = notes;
    younger.born += 1;
    RecordedItem ofUnknownBirth = notes;
    ofUnknownBirth.born = 0;
    RecordedItem ofOtherNode = notes;
    ofOtherNode.node = ofOtherNode.trashNode = notes.node + 1;
    for (const RecordedItem& other : {younger, ofUnknownBirth, ofOtherNode}) {
        EXPECT_THAT(listed(other), HasSubstr(origin));
        EXPECT_THAT(out, AllOf(HasSubstr("emptied, "), Not(HasSubstr(kBack))));
    }
    EXPECT_EQ(run({"trash", "list", "--json"}), 0);
    EXPECT_THAT(out, Not(HasSubstr("putBackAs")));
    EXPECT_THAT(listed(notes), HasSubstr(origin));
    EXPECT_THAT(out, HasSubstr(kBack));
    fs::remove(origin);
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(out, Not(HasSubstr(kBack)));
}

TEST_F(TrashOrigin, LooksForWhatTheHistoryHasAsPutBackOrNoLonger) {
    keepRecords({notes});
    EXPECT_EQ(run({"trash", "list", "--json"}), 0);
    EXPECT_THAT(out,
                AllOf(HasSubstr(R"("state": "notInHistory")"), HasSubstr(R"("putBackAs": ")")));
    EXPECT_EQ(run({"trash"}), 0);
    EXPECT_THAT(lineOf("notes.2.txt"), HasSubstr(kBack));
    EXPECT_THAT(listed(notes, "Removed"), HasSubstr(kBack));
    // By the daemon's last look it is in the trash.
    EXPECT_THAT(listed(notes, nullptr), HasSubstr("in the trash"));
    EXPECT_EQ(run({"trash", "recover", "notes.2.txt", (folder / "copy").c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("put back as " + origin));
}

TEST_F(TrashOrigin, SaysWhereAnItemStandsBeforeItIsRecovered) {
    EXPECT_THAT(listed(notes), HasSubstr(kBack));
    const std::string target = folder / "copy";
    EXPECT_EQ(run({"trash", "recover", "notes.2.txt", target.c_str()}), 1);
    EXPECT_THAT(err, HasSubstr("the item was put back as " + origin + ", where it stands now\n"));
    EXPECT_FALSE(fs::exists(target));
    fs::rename(origin, folder / "docs/else.txt");
    EXPECT_EQ(run({"trash", "recover", "notes.2.txt", target.c_str()}), 1);
    EXPECT_THAT(err, Not(HasSubstr("put back")));
}

TEST_F(TrashOrigin, GoesNoOtherWayThanThePathSays) {
    fs::create_directory_symlink(folder / "docs", folder / "link");
    fs::create_symlink(origin, folder / "docs/link.txt");
    fs::create_directory(folder / "docs/inner");
    const std::string roundabout[] = {
        folder / "link/notes.txt",
        folder / "docs/link.txt",
        folder / "docs/inner/../notes.txt",
        folder / "docs/./notes.txt",
        folder / "docs//notes.txt",
        origin + '/',
        origin + '\0' + "/x",
        origin.substr(1),
        "/",
        "",
    };
    HistoryItem item;
    item.node = notes.node;
    item.born = notes.born;
    item.origin = origin;
    EXPECT_TRUE(standsAtOrigin(item));
    for (const std::string& path : roundabout) {
        item.origin = path;
        EXPECT_FALSE(standsAtOrigin(item)) << path;
    }
}

TEST_F(TrashOrigin, TakesALinkThatWasPutBackForItselfAndNotForItsTarget) {
    fs::create_symlink("/nowhere", folder / "docs/link");
    struct statx status {};
    ASSERT_EQ(
        ::statx(AT_FDCWD, (folder / "docs/link").c_str(), AT_SYMLINK_NOFOLLOW, STATX_ALL, &status),
        0);
    notes.node = notes.trashNode = status.stx_ino;
    notes.born = status.stx_btime.tv_sec;
    notes.origin = folder / "docs/link";
    EXPECT_THAT(listed(notes), HasSubstr(kBack));
}

// By the mount table alone: a server may be dead, and the records may name any path.
TEST_F(TrashOrigin, AsksNoMountButThatOfTheTrash) {
    for (const char* const type : {"nfs4", "ext4"}) {
        volumes.table = {{"/", "/dev/sda1", "ext4"}, {folder / "docs", "/dev/sdb1", type}};
        if (std::string(type) == "ext4") volumes.sizes[folder / "docs"] = {};
        EXPECT_THAT(listed(notes), HasSubstr("emptied, ")) << type;
    }
    volumes.table.pop_back();
    EXPECT_THAT(listed(notes), HasSubstr(kBack));
}

class TrashOfHomes : public TrashFixture {};

TEST_F(TrashOfHomes, BelongsToTheSwitchOfTheSystemsVolume) {
    EXPECT_EQ(run({"trash", "on"}), 0);
    const struct {
        const char* mountPoint;
        bool holdsHomes;
    } rows[] = {{"/home", true},      {"/home/ada", true},
                {"/root", true},      {"/home/ada/films", false},
                {"/mnt/home", false}, {"/homes", false}};
    for (const auto& row : rows) {
        changeEntry(1, [&row](Dictionary& entry) {
            entry.set("volumeMountToName", std::string(row.mountPoint));
        });
        for (const char* const word : {"on", "off"}) {
            EXPECT_EQ(run({"trash", word, row.mountPoint}), 0) << row.mountPoint;
            const std::string command = std::string("korvanectl trash ") + word + " / ";
            EXPECT_EQ(err.find(command) != std::string::npos, row.holdsHomes) << row.mountPoint;
        }
    }
    EXPECT_EQ(run({"trash", "off", "/"}), 0);
    EXPECT_THAT(err, IsEmpty());
}

}  // namespace
}  // namespace korvane::ctl
