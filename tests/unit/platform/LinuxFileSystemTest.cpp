#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include "TemporaryFolder.h"
#include "platform/linux/LinuxFileSystem.h"

namespace korvane {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

struct LinuxFileSystemTest : testing::Test {
    [[nodiscard]] std::string contentsOf(std::string_view name) const {
        std::ifstream file(root / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    void link(std::string_view target, std::string_view name) const {
        std::filesystem::create_symlink(target, root / name);
    }
    void folder(std::string_view name) const { std::filesystem::create_directories(root / name); }
    [[nodiscard]] mode_t modeOf(std::string_view name) const {
        struct stat status {};
        return ::lstat((root / name).c_str(), &status) == 0 ? status.st_mode & 07777U : 0U;
    }

    TemporaryFolder root;
    LinuxFileSystem files{root.path()};
};

TEST_F(LinuxFileSystemTest, TellsWhatIsThereFollowingLinks) {
    root.write("folder/file", "x");
    link("folder", "to folder");
    link("nowhere", "to nothing");
    EXPECT_TRUE(files.exists("/folder/file"));
    EXPECT_FALSE(files.isFolder("/folder/file"));
    EXPECT_TRUE(files.exists("/to folder"));
    EXPECT_TRUE(files.isFolder("/to folder"));
    EXPECT_FALSE(files.exists("/to nothing"));
    EXPECT_FALSE(files.isFolder("/to nothing"));
    EXPECT_FALSE(files.exists("/folder/file/x"));
}

TEST_F(LinuxFileSystemTest, ARelativePathNamesNothing) {
    root.write("file", "x");
    LinuxFileSystem here;
    EXPECT_FALSE(here.exists("."));
    EXPECT_FALSE(here.isFolder(""));
    EXPECT_FALSE(files.createFolders("folder", "root"));
    EXPECT_FALSE(files.createEmptyFile("file", 0666));
    EXPECT_FALSE(files.remove("file"));
    EXPECT_FALSE(files.readPropertyList("file"));
    EXPECT_FALSE(files.writePropertyList("file", PropertyList{1}, 0666, Durability::process));
    EXPECT_EQ(contentsOf("file"), "x");
}

TEST_F(LinuxFileSystemTest, ListsNamesOfEveryKind) {
    root.write("a", "");
    root.write(".hidden", "");
    root.write("line\nfeed \xFF", "");
    folder("folder");
    link("folder", "link");
    const auto names = files.list("/");
    ASSERT_TRUE(names);
    EXPECT_THAT(*names, UnorderedElementsAre("a", ".hidden", "line\nfeed \xFF", "folder", "link"));
    EXPECT_THAT(files.list("/folder"), testing::Optional(IsEmpty()));
    EXPECT_EQ(files.list("/a"), std::nullopt);
    EXPECT_EQ(files.list("/missing"), std::nullopt);
    EXPECT_THAT(files.list("/link"), testing::Optional(IsEmpty()));
}

TEST_F(LinuxFileSystemTest, EnumeratesAFolderBeforeItsContentsAndFollowsNoLinkInIt) {
    root.write("top/one/two/deep", "");
    root.write("elsewhere/secret", "");
    link("../elsewhere", "top/link");
    const std::vector<std::string> paths = files.enumerate("/top");
    EXPECT_THAT(paths, UnorderedElementsAre("link", "one", "one/two", "one/two/deep"));
    const auto at = [&paths](std::string_view path) {
        return std::find(paths.begin(), paths.end(), path) - paths.begin();
    };
    EXPECT_LT(at("one"), at("one/two"));
    EXPECT_LT(at("one/two"), at("one/two/deep"));
    EXPECT_THAT(files.enumerate("/missing"), IsEmpty());
    EXPECT_THAT(files.enumerate("/top/link"), UnorderedElementsAre("secret"));
}

TEST_F(LinuxFileSystemTest, GivesTheAttributesOfTheItemItself) {
    root.write("file", "12345");
    ::chmod((root / "file").c_str(), 0640);
    link("file", "link");
    folder("folder");
    const std::optional<ItemAttributes> file = files.attributes("/file");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->kind, ItemKind::file);
    EXPECT_EQ(file->sizeBytes, 5U);
    EXPECT_EQ(file->ownerId, ::geteuid());
    EXPECT_EQ(file->permissions, 0640U);
    EXPECT_GT(secondsSince1970(file->modificationDate), 1.6e9);
    EXPECT_EQ(files.attributes("/link")->kind, ItemKind::link);
    EXPECT_EQ(files.attributes("/folder/")->kind, ItemKind::folder);
    EXPECT_EQ(files.attributes("/missing"), std::nullopt);
}

TEST_F(LinuxFileSystemTest, CreatesTheFoldersAbove) {
    EXPECT_TRUE(files.createFolders("/Library/Application Support/One", files.userName()));
    EXPECT_TRUE(files.isFolder("/Library/Application Support/One"));
    EXPECT_TRUE(files.createFolders("/Library/Application Support/One", files.userName()));
    EXPECT_TRUE(files.createFolders("/Library/Two//", files.userName()));
    root.write("file", "");
    EXPECT_FALSE(files.createFolders("/file", files.userName()));
    EXPECT_FALSE(files.createFolders("/file/below", files.userName()));
}

TEST_F(LinuxFileSystemTest, GivesNewFoldersToTheNamedAccount) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give files away";
    folder("mine");
    ASSERT_NE(::getpwnam("nobody"), nullptr);
    const uid_t nobody = ::getpwnam("nobody")->pw_uid;
    EXPECT_TRUE(files.createFolders("/mine/theirs/too", "nobody"));
    EXPECT_EQ(files.attributes("/mine")->ownerId, 0U);
    EXPECT_EQ(files.attributes("/mine/theirs")->ownerId, nobody);
    EXPECT_EQ(files.attributes("/mine/theirs/too")->ownerId, nobody);
    EXPECT_TRUE(files.createFolders("/mine/unknown", "no such account"));
}

TEST_F(LinuxFileSystemTest, CreatesEmptyFilesWithTheirPermissionsWhateverTheUmask) {
    const mode_t umaskBefore = ::umask(0077);
    EXPECT_TRUE(files.createEmptyFile("/new", 0666));
    ::umask(umaskBefore);
    EXPECT_EQ(modeOf("new"), 0666U);
    root.write("old", "contents");
    EXPECT_TRUE(files.createEmptyFile("/old", 0600));
    EXPECT_EQ(contentsOf("old"), "");
    EXPECT_EQ(modeOf("old"), 0600U);
}

TEST_F(LinuxFileSystemTest, CreatesNoFileThroughALinkOrOverSomethingElse) {
    root.write("target", "contents");
    link("target", "link");
    link("not yet there", "dangling");
    folder("folder");
    ASSERT_EQ(::mkfifo((root / "fifo").c_str(), 0600), 0);
    for (const char* const path : {"/link", "/dangling", "/folder", "/fifo", "/missing/file"}) {
        EXPECT_FALSE(files.createEmptyFile(path, 0666)) << path;
    }
    EXPECT_EQ(contentsOf("target"), "contents");
    EXPECT_FALSE(files.exists("/not yet there"));
    EXPECT_EQ(modeOf("fifo"), 0600U);
}

TEST_F(LinuxFileSystemTest, RemovesAFolderWithItsContentsAndLinksWithoutWhatTheyName) {
    root.write("kept/file", "contents");
    root.write("tree/a/b/c", "");
    root.write("tree/a/.hidden", "");
    folder("tree/empty");
    link("../kept", "tree/link");
    EXPECT_TRUE(files.remove("/tree"));
    EXPECT_FALSE(files.exists("/tree"));
    link("kept", "link");
    EXPECT_TRUE(files.remove("/link/"));
    EXPECT_EQ(contentsOf("kept/file"), "contents");
    EXPECT_TRUE(files.remove("/kept/file"));
    EXPECT_THAT(files.list("/kept"), testing::Optional(IsEmpty()));
}

TEST_F(LinuxFileSystemTest, SaysWhyNothingWasRemoved) {
    root.write("file", "");
    const auto message = [this](const char* path) {
        const auto result = files.remove(path);
        return result ? std::string("removed") : result.error().message;
    };
    EXPECT_EQ(message("/missing"), "No such file or directory");
    EXPECT_EQ(message("/missing/file"), "No such file or directory");
    EXPECT_EQ(message("/file/below"), "Not a directory");
    EXPECT_EQ(message("/"), "Invalid argument");
    EXPECT_EQ(message("/."), "Invalid argument");
    EXPECT_EQ(message("/folder/.."), "Invalid argument");
    EXPECT_TRUE(files.exists("/file"));
}

TEST_F(LinuxFileSystemTest, RemovesATreeDeeperThanThereAreDescriptors) {
    constexpr int kLevels = 200;
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit few{.rlim_cur = 64, .rlim_max = limit.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
    const std::string path = root / "deep";
    ASSERT_EQ(::mkdir(path.c_str(), 0700), 0);
    int folder = ::open(path.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    for (int level = 0; level < kLevels; ++level) {
        ASSERT_EQ(::mkdirat(folder, "below", 0700), 0);
        const int next = ::openat(folder, "below", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
        ::close(folder);
        folder = next;
    }
    ::close(folder);
    EXPECT_EQ(files.enumerate("/deep").size(), std::size_t{kLevels});
    EXPECT_TRUE(files.remove("/deep"));
    EXPECT_FALSE(files.exists("/deep"));
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
}

TEST_F(LinuxFileSystemTest, RemovesNothingOutsideWhileFoldersAreSwappedForLinks) {
    constexpr int kRounds = 40;
    root.write("outside/precious", "contents");
    std::atomic<bool> stop = false;
    const std::string inside = root / "tree/inside";
    const std::string aside = root / "aside";
    const std::string outside = root / "outside";
    std::thread attacker([&] {
        while (!stop) {
            (void)::rename(inside.c_str(), aside.c_str());
            (void)::symlink(outside.c_str(), inside.c_str());
            (void)::unlink(inside.c_str());
            (void)::rename(aside.c_str(), inside.c_str());
        }
    });
    for (int round = 0; round < kRounds; ++round) {
        std::error_code ignored;
        std::filesystem::create_directories(root / "tree/inside/deeper", ignored);
        (void)files.remove("/tree");
    }
    stop = true;
    attacker.join();
    EXPECT_EQ(contentsOf("outside/precious"), "contents");
}

TEST_F(LinuxFileSystemTest, SetsPermissionsOfTheItemAndNotOfALinksTarget) {
    root.write("file", "");
    ::chmod((root / "file").c_str(), 0600);
    link("file", "link");
    EXPECT_FALSE(files.setPermissions("/link", 0666));
    EXPECT_EQ(modeOf("file"), 0600U);
    EXPECT_TRUE(files.setPermissions("/file", 0666));
    EXPECT_EQ(modeOf("file"), 0666U);
    EXPECT_FALSE(files.setPermissions("/missing", 0666));
}

TEST_F(LinuxFileSystemTest, DoesNotTouchAFileThatHasThePermissions) {
    root.write("file", "");
    ::chmod((root / "file").c_str(), 0666);
    const auto changed = [&] {
        struct stat status {};
        EXPECT_EQ(::stat((root / "file").c_str(), &status), 0);
        return std::pair(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    };
    const auto before = changed();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // several ticks of that clock
    EXPECT_TRUE(files.setPermissions("/file", 0666));
    EXPECT_EQ(changed(), before);
}

TEST_F(LinuxFileSystemTest, WritesAPropertyListBelowItsRootAndReadsItBack) {
    const PropertyList value{Dictionary{{"key", PropertyList{7}}}};
    ASSERT_TRUE(files.writePropertyList("/list.plist", value, 0666, Durability::powerLoss));
    EXPECT_EQ(modeOf("list.plist"), 0666U);
    const auto read = files.readPropertyList("/list.plist");
    ASSERT_TRUE(read);
    EXPECT_EQ(*read, value);
    EXPECT_FALSE(files.readPropertyList("/missing.plist"));
}

TEST_F(LinuxFileSystemTest, AddsRecordsBehindWholeOnes) {
    ASSERT_TRUE(files.appendRecords("/records", "abc", 3, 0640));
    EXPECT_EQ(contentsOf("records"), "abc");
    EXPECT_EQ(modeOf("records"), 0640u);
    for (const char* torn : {"abc", "abcd", "abcde"}) {
        root.write("records", torn);
        ASSERT_TRUE(files.appendRecords("/records", "ABCDEF", 3, 0640));
        EXPECT_EQ(contentsOf("records"), "abcABCDEF") << torn;
    }
    root.write("records", "ab");
    ASSERT_TRUE(files.appendRecords("/records", "ABC", 3, 0640));
    EXPECT_EQ(contentsOf("records"), "ABC");
    link("records", "link");
    EXPECT_FALSE(files.appendRecords("/link", "abc", 3, 0640));
    EXPECT_EQ(contentsOf("records"), "ABC");
}

TEST_F(LinuxFileSystemTest, KnowsTheAccountItRunsAs) {
    ASSERT_NE(::getpwuid(::geteuid()), nullptr);
    EXPECT_EQ(files.userName(), ::getpwuid(::geteuid())->pw_name);
}

}  // namespace
}  // namespace korvane
