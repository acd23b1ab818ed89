// Trash folders on a machine made of a mount table of the test's own and folders of its own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>

#include "KorvaneProDataRecovery/TrashFolders.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane {
namespace {

namespace fs = std::filesystem;

class TrashFoldersTest : public testing::Test {
  protected:
    TrashFoldersTest() {
        for (const char* const path : {"home", "root", "block/sdx1"}) {
            fs::create_directories(folder / path);
        }
        folder.write("block/sdx1/dev", number() + "\n");
        folder.write("mounts", mounts());
    }
    [[nodiscard]] std::string number() const {
        const struct stat status = statusOf("");
        return std::to_string(::major(status.st_dev)) + ":" +
               std::to_string(::minor(status.st_dev));
    }
    [[nodiscard]] std::string mounts() const {
        return "25 1 " + number() + " / " + folder.path() + " rw - ext4 /dev/mapper/data rw\n";
    }
    [[nodiscard]] struct stat statusOf(std::string_view path) const {
        struct stat status {};
        EXPECT_EQ(::lstat((folder / path).c_str(), &status), 0) << path;
        return status;
    }
    [[nodiscard]] std::uint64_t nodeOf(std::string_view path) const {
        return statusOf(path).st_ino;
    }
    // The path of the item in its trash folder as found; empty when it is not.
    [[nodiscard]] std::string found(const std::string& device, std::string_view parent,
                                    std::string_view item) const {
        const MachinePlaces places{.mountTable = folder / "mounts",
                                   .blockDevices = folder / "block",
                                   .homes = folder / "home",
                                   .homeOfRoot = folder / "root"};
        const auto parentNode = static_cast<std::uint32_t>(nodeOf(parent));
        TrashFolders folders{places, device, {parentNode}};
        // One that shares the low half of its number is another one.
        EXPECT_FALSE(folders.find(nodeOf(item) + (1ULL << 32), parentNode));
        const auto place = folders.find(nodeOf(item), parentNode);
        return place ? place->folder->path + "/" + place->name : "";
    }
    TemporaryFolder folder{"/dev/shm"};  // where thousands of folders are soon made
};

TEST_F(TrashFoldersTest, AreFoundInEveryPlaceThatDesktopsUse) {
    for (const std::string trash :
         {"home/ann/.local/share/Trash/files", "root/.local/share/Trash/files", ".Trash-1000/files",
          ".Trash/1001/files"}) {
        folder.write(trash + "/letter", "text");
        fs::create_directories(folder / (trash + "/box"));
        EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), folder / (trash + "/letter"));
        EXPECT_EQ(found("/dev/sdx1", trash, trash + "/box"), folder / (trash + "/box"));
    }
}

TEST_F(TrashFoldersTest, AreThoseOfTheJobsDeviceAlone) {
    const std::string trash = ".Trash-0/files";
    folder.write(trash + "/letter", "text");
    EXPECT_EQ(found("/dev/mapper/data", trash, trash + "/letter"), folder / (trash + "/letter"));
    for (const char* const device : {"/dev/sdx2", "/dev/", "/dev/../sdx1", "/dev/.", "sdx1",
                                     "/etc/passwd", "/dev/mapper/dat", "/dev/mapper/data2"}) {
        EXPECT_EQ(found(device, trash, trash + "/letter"), "") << device;
    }
}

TEST_F(TrashFoldersTest, HoldAnItemOnlyUnderItsOwnParent) {
    folder.write(".Trash-0/files/letter", "text");
    folder.write(".Trash-1/files/other", "text");
    EXPECT_EQ(found("/dev/sdx1", ".Trash-1/files", ".Trash-0/files/letter"), "");
    EXPECT_EQ(found("/dev/sdx1", ".Trash-0", ".Trash-0/files/letter"), "");
}

// Everybody can make folders at the top of many a volume, before or after the users' own.
TEST_F(TrashFoldersTest, AreFoundAmongAnyNumberThatWerePlanted) {
    constexpr int kPlanted = 1001;
    for (int i = 0; i < kPlanted; ++i) {
        fs::create_directories(folder / (".Trash-" + std::to_string(i) + "/files"));
        fs::create_directories(folder / (".Trash/" + std::to_string(i) + "/files"));
    }
    for (const std::string trash :
         {".Trash-5000/files", ".Trash/5000/files", "home/ann/.local/share/Trash/files"}) {
        folder.write(trash + "/letter", "text");
        EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), folder / (trash + "/letter"));
    }
}

TEST_F(TrashFoldersTest, AreNoLinks) {
    folder.write("secret/files/letter", "text");
    fs::create_directory_symlink(folder / "secret", folder / ".Trash-7");
    fs::create_directories(folder / "home/eve/.local/share");
    fs::create_directory_symlink(folder / "secret", folder / "home/eve/.local/share/Trash");
    fs::create_directory_symlink(folder / "secret", folder / ".Trash");
    EXPECT_EQ(found("/dev/sdx1", "secret/files", "secret/files/letter"), "");
}

// A home on a server that is away keeps whoever looks at it waiting: the mount table is enough.
TEST_F(TrashFoldersTest, AreNotLookedForInHomesOfOtherVolumes) {
    const std::string table = mounts();
    const std::string home = folder / "home";
    const std::string trash = "home/ann/.local/share/Trash/files";
    folder.write(trash + "/letter", "text");
    for (const std::string& at : {home, home + "/ann", home + "/ann/.local/share"}) {
        folder.write("mounts", table + "26 25 0:77 / " + at + " rw - nfs server:/homes rw\n");
        EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), "") << at;
    }
    // The server has other homes.
    folder.write("mounts", table + "26 25 0:77 / " + home + "/bob rw - nfs server:/bob rw\n");
    EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), folder / (trash + "/letter"));
    // A home of its own below a server's.
    folder.write("mounts", table + "26 25 0:77 / " + home + " rw - nfs server:/homes rw\n27 26 " +
                               number() + " / " + home + "/ann rw - ext4 /dev/mapper/data rw\n");
    EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), folder / (trash + "/letter"));
}

TEST_F(TrashFoldersTest, AreFoundWhereTheHomesAreALink) {
    fs::remove(folder / "home");
    fs::create_directory_symlink("var/home", folder / "home");
    const std::string trash = "var/home/ann/.local/share/Trash/files";
    folder.write(trash + "/letter", "text");
    EXPECT_EQ(found("/dev/sdx1", trash, trash + "/letter"), folder / (trash + "/letter"));
}

// The table of mounts has the whole name of a source; a job has room for 31 bytes of it.
TEST_F(TrashFoldersTest, AreFoundByTheBeginningOfALongDeviceName) {
    const std::string source = "/dev/mapper/a-name-that-is-longer-than-a-job";
    folder.write("mounts", "25 1 0:99 / " + folder.path() + " rw - ext4 " + source + " rw\n");
    const std::string trash = ".Trash-0/files";
    folder.write(trash + "/letter", "text");
    EXPECT_EQ(found(source.substr(0, 31), trash, trash + "/letter"), folder / (trash + "/letter"));
    EXPECT_EQ(found(source.substr(0, 30), trash, trash + "/letter"), "");
}

TEST_F(TrashFoldersTest, HoldLinksAsTheItemsThatTheyAre) {
    const std::string trash = ".Trash-0/files";
    fs::create_directories(folder / trash);
    fs::create_symlink("/etc/passwd", folder / (trash + "/link"));
    EXPECT_EQ(found("/dev/sdx1", trash, trash + "/link"), folder / (trash + "/link"));
}

TEST_F(TrashFoldersTest, AreNoneWhereNothingIsMounted) {
    folder.write(".Trash-0/files/letter", "text");
    for (const char* const table : {"", "rubbish\n", "25 1 0:0 / /missing rw - ext4 /dev/x rw\n"}) {
        folder.write("mounts", table);
        EXPECT_EQ(found("/dev/sdx1", ".Trash-0/files", ".Trash-0/files/letter"), "") << table;
    }
}

TEST_F(TrashFoldersTest, HaveNotesOfWhereItemsCameFrom) {
    folder.write(".Trash-0/files/letter", "text");
    const auto originIn = [this](const std::string& trash, const std::string& top) {
        const TrashFolder place{
            .folder = UniqueFd{::open((folder / (trash + "/files")).c_str(), O_PATH | O_CLOEXEC)},
            .path = {},
            .top = top,
            .items = {}};
        return originOf(place, "letter");
    };
    EXPECT_EQ(originIn(".Trash-0", "/mnt/Data"), "");
    const std::string note = ".Trash-0/info/letter.trashinfo";
    folder.write(note, "[Trash Info]\nPath=a%20b/letter\n");
    EXPECT_EQ(originIn(".Trash-0", "/mnt/Data"), "/mnt/Data/a b/letter");
    EXPECT_EQ(originIn(".Trash-0", "/"), "/a b/letter");
    folder.write(note, "[Trash Info]\nPath=/home/ann/letter\n");
    EXPECT_EQ(originIn(".Trash-0", ""), "/home/ann/letter");
    folder.write(note, std::string(100'000, 'x') + "\nPath=/far/behind\n");
    EXPECT_EQ(originIn(".Trash-0", ""), "");
    // Not through a link, and not from a pipe, which would keep the program waiting.
    folder.write("secret", "Path=/secret\n");
    fs::remove(folder / note);
    fs::create_symlink(folder / "secret", folder / note);
    EXPECT_EQ(originIn(".Trash-0", ""), "");
    fs::remove(folder / note);
    ASSERT_EQ(::mkfifo((folder / note).c_str(), 0600), 0);
    EXPECT_EQ(originIn(".Trash-0", ""), "");
}

}  // namespace
}  // namespace korvane
