// Trash folders on a real file system: where they are, changes, catalogues and stamps.

#include <dlfcn.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <system_error>
#include <utility>

#include "unit/trash/DirectoryWatchBed.h"

namespace {
// Whether the kernel has no more watches for what comes into folders.
bool isWithoutWatches = false;
// Called once, before the folder at that path is watched.
std::string interruptedAt;
std::function<void()> interruption;
}  // namespace

// In the place of the C library's, for the whole of this program.
extern "C" int inotify_add_watch(int inotify, const char* path, std::uint32_t events) noexcept {
    if (isWithoutWatches && (events & IN_CREATE) != 0) {
        errno = ENOSPC;
        return -1;
    }
    std::error_code ignored;
    if (interruption && std::filesystem::read_symlink(path, ignored) == interruptedAt) {
        std::exchange(interruption, nullptr)();
    }
    static const auto next = reinterpret_cast<int (*)(int, const char*, std::uint32_t)>(
        ::dlsym(RTLD_NEXT, "inotify_add_watch"));
    return next(inotify, path, events);
}

namespace korvane {
namespace {

using testing::SizeIs;

using LinuxDirectoryWatchTest = DirectoryWatchBed;

TEST_F(LinuxDirectoryWatchTest, TellsOfABurstOnce) {
    EXPECT_EQ(changesWithin(trash_, seconds(10),
                            [&] {
                                for (int i = 0; i < 500; ++i) {
                                    write(trash_ + "/" + std::to_string(i));
                                }
                            }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, TellsWhenAnItemThatCameInIsWholeToo) {
    int changes = 0;
    const auto subscription = watch_.subscribe(trash_, [&] { ++changes; });
    std::ofstream item(trash_ + "/a");
    turnUntil([&] { return changes > 0; }, seconds(10));
    ASSERT_EQ(changes, 1);
    item << "what takes its time";
    item.close();
    turnUntil([&] { return changes > 1; }, seconds(10));
    EXPECT_EQ(changes, 2);
}

TEST_F(LinuxDirectoryWatchTest, TellsOfAnOverflow) {
    write(trash_ + "/a");
    EXPECT_EQ(changesWithin(trash_, seconds(20),
                            [&] {
                                // Two events each, and /proc/sys/fs/inotify/max_queued_events is
                                // 16384.
                                for (int i = 0; i < 5000; ++i) {
                                    fs::rename(trash_ + "/a", trash_ + "/b");
                                    fs::rename(trash_ + "/b", trash_ + "/a");
                                }
                            }),
              1);
}

// What happened in other folders after the queue was full is lost.
TEST_F(LinuxDirectoryWatchTest, TellsOfEveryFolderAfterAnOverflow) {
    fs::create_directories(folder_ / "quiet");
    int crowded = 0;
    int quiet = 0;
    const auto first = watch_.subscribe(trash_, [&] { ++crowded; });
    const auto second = watch_.subscribe(folder_ / "quiet", [&] { ++quiet; });
    write(trash_ + "/a");
    for (int i = 0; i < 5000; ++i) {
        fs::rename(trash_ + "/a", trash_ + "/b");
        fs::rename(trash_ + "/b", trash_ + "/a");
    }
    write(folder_ / "quiet/late");
    turnUntil([&] { return quiet > 0; }, seconds(10));
    EXPECT_EQ(quiet, 1);
    EXPECT_EQ(crowded, 1);
    quiet = 0;
    write(folder_ / "quiet/later");
    turnUntil([&] { return quiet > 0; }, seconds(10));
    EXPECT_EQ(quiet, 1);
}

std::size_t watches() {
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream in(entry.path());
        for (std::string line; std::getline(in, line);) count += line.starts_with("inotify ");
    }
    return count;
}

TEST_F(LinuxDirectoryWatchTest, LeavesNoWatchOfTheKernelBehind) {
    const std::size_t before = watches();
    auto there = watch_.subscribe(trash_, [] {});
    auto awaited = watch_.subscribe(folder_ / "a/b", [] {});
    EXPECT_GT(watches(), before);
    there.reset();
    awaited.reset();
    turn();
    EXPECT_EQ(watches(), before);
}

TEST_F(LinuxDirectoryWatchTest, LeavesNoWatchBehindWhenTheKernelHasNoMore) {
    const std::size_t before = watches();
    isWithoutWatches = true;
    EXPECT_FALSE(watch_.subscribe(trash_, [] {}));
    isWithoutWatches = false;
    turn();
    EXPECT_EQ(watches(), before);
}

TEST_F(LinuxDirectoryWatchTest, IsNotToldOfFilesThatHaveLeft) {
    std::ofstream item(trash_ + "/a");
    int changes = 0;
    const auto subscription = watch_.subscribe(trash_, [&] { ++changes; });
    fs::remove(trash_ + "/a");
    turnUntil([&] { return changes > 0; }, seconds(10));
    item << "more";
    item.close();
    turn();
    EXPECT_EQ(changes, 1);
}

// Whoever empties a trash by removing the folder has emptied it as well.
TEST_F(LinuxDirectoryWatchTest, FindsNothingInAFolderThatWentWhileItIsWatched) {
    EXPECT_FALSE(watch_.catalog(folder_ / "none", 100));
    const auto subscription = watch_.subscribe(trash_, [] {});
    fs::remove_all(trash_);
    turn();
    EXPECT_THAT(watch_.catalog(trash_, 100), testing::Optional(testing::IsEmpty()));
    folder_.write(".Trash-0/files", "no folder");
    EXPECT_FALSE(watch_.catalog(trash_, 100));
}

TEST_F(LinuxDirectoryWatchTest, WaitsForAFolderThatIsNotThere) {
    EXPECT_EQ(changesWithin(std::string(folder_.path()) + "/a/b/c", seconds(10),
                            [&] { fs::create_directories(folder_.path() + "/a/b/c"); }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, FindsAFolderAgainThatWasMadeAnew) {
    EXPECT_EQ(changesWithin(trash_, seconds(10),
                            [&] {
                                fs::remove_all(trash_);
                                fs::create_directories(trash_);
                                write(trash_ + "/a");
                            }),
              1);
}

TEST_F(LinuxDirectoryWatchTest, FindsAFolderAgainAsOftenAsItIsMadeAnew) {
    int changes = 0;
    const auto subscription = watch_.subscribe(trash_, [&] { ++changes; });
    for (int turn = 0; turn < 3; ++turn) {
        fs::remove_all(folder_ / ".Trash-0");
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        fs::create_directories(trash_);
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        write(trash_ + "/a");
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_GT(changes, 0);
    }
}

// Its own number stays, so its own watch says nothing.
TEST_F(LinuxDirectoryWatchTest, NoticesThatAFolderAboveWasMovedAway) {
    const std::string trash = folder_ / "home/ada/.local/share/Trash/files";
    for (const char* const moved : {"home/ada/.local/share/Trash", "home/ada/.local", "home"}) {
        fs::create_directories(trash);
        int changes = 0;
        const auto subscription = watch_.subscribe(trash, [&] { ++changes; });
        fs::rename(folder_ / moved, folder_ / "away");
        turnUntil([&] { return changes > 0; }, seconds(10));
        fs::create_directories(trash);
        changes = 0;
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_EQ(changes, 1) << moved;
        changes = 0;
        write(trash + "/a");
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_EQ(changes, 1) << moved;
        fs::remove_all(folder_ / "away");
    }
}

TEST_F(LinuxDirectoryWatchTest, NoticesThatAFolderAboveWasMovedAwayWhileItSubscribed) {
    for (const char* const home : {"home/ada", "home/bob"}) {
        fs::create_directories(folder_ / "home/ada/Trash/files");
        fs::create_directories(folder_ / "home/bob");
        const std::string trash = (folder_ / home) + "/Trash/files";
        interruptedAt = folder_ / home;
        interruption = [&] {
            fs::rename(folder_ / home, folder_ / "away");
            fs::create_directories(trash);
        };
        int changes = 0;
        const auto subscription = watch_.subscribe(trash, [&] { ++changes; });
        write(trash + "/a");
        turnUntil([&] { return changes > 0; }, seconds(10));
        EXPECT_EQ(changes, 1) << home;
        fs::remove_all(folder_ / "away");
    }
}

// Much is made in a home where a trash is waited for.
TEST_F(LinuxDirectoryWatchTest, WaitsForAFolderByItsName) {
    int changes = 0;
    const auto subscription = watch_.subscribe(folder_ / "a/b", [&] { ++changes; });
    for (int i = 0; i < 1000; ++i) write(folder_ / std::to_string(i));
    turn();
    EXPECT_EQ(changes, 0);
    fs::create_directories(folder_ / "a");
    for (int i = 0; i < 1000; ++i) write(folder_ / ("a/" + std::to_string(i)));
    fs::create_directories(folder_ / "a/b");
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_EQ(changes, 1);
    for (const char* const name : {"c", "a/c"}) write(folder_ / name);
    turn();
    EXPECT_EQ(changes, 1);
}

TEST_F(LinuxDirectoryWatchTest, TellsOnceMoreWhenAFolderThatWasMadeInTheTrashIsFilled) {
    LinuxDirectoryWatch watch(loop_, machine_.volumes,
                              LinuxTrashPlaces{.fillingPause = std::chrono::milliseconds(200)});
    int changes = 0;
    const auto subscription = watch.subscribe(trash_, [&] { ++changes; });
    fs::create_directories(trash_ + "/box/deep");
    turnUntil([&] { return changes > 0; }, seconds(10));
    ASSERT_EQ(changes, 1);
    write(trash_ + "/box/deep/late");
    turnUntil([&] { return changes > 1; }, seconds(10));
    EXPECT_EQ(changes, 2);
    for (int i = 0; i < 10; ++i) turn();  // as long as two more pauses
    EXPECT_EQ(changes, 2);
    // What is moved there is whole.
    fs::create_directories(folder_ / "other");
    fs::rename(folder_ / "other", trash_ + "/other");
    turnUntil([&] { return changes > 2; }, seconds(10));
    for (int i = 0; i < 4; ++i) turn();
    EXPECT_EQ(changes, 3);
}

TEST_F(LinuxDirectoryWatchTest, CataloguesNoMountPoint) {
    fs::create_directories(trash_ + "/far");
    write(trash_ + "/near");
    mountFromNetwork(trash_ + "/far");
    const auto items = watch_.catalog(trash_, 100);
    ASSERT_THAT(*items, SizeIs(1));
    EXPECT_EQ(items->front().name, "near");
}

TEST_F(LinuxDirectoryWatchTest, IsNotToldOfItsOwnStamps) {
    write(trash_ + "/a");
    const std::vector<CatalogItem> items{seen("a")};
    EXPECT_EQ(changesWithin(trash_, seconds(1),
                            [&] { (void)watch_.setBackupDates(trash_, items, Time(seconds(7))); }),
              0);
}

TEST_F(LinuxDirectoryWatchTest, CataloguesNoMoreThanWasAskedForAndFollowsNoLink) {
    for (const char* name : {"a", "b", "c", "line\nfeed", "\xff"}) write(trash_ + "/" + name);
    EXPECT_THAT(*watch_.catalog(trash_, 100), SizeIs(5));
    EXPECT_THAT(*watch_.catalog(trash_, 2), SizeIs(2));
    fs::create_directory_symlink(trash_, folder_.path() + "/link");
    EXPECT_FALSE(watch_.catalog(folder_.path() + "/link", 100));
    EXPECT_FALSE(watch_.catalog(folder_.path() + "/none", 100));
}

TEST_F(LinuxDirectoryWatchTest, StampsTheItemAndNoOther) {
    write(trash_ + "/a");
    const CatalogItem item = seen("a");
    write(trash_ + "/b");
    fs::create_symlink("b", trash_ + "/link");
    // What keeps no such attribute, as a link, goes without, and so does what it leads to.
    const std::vector<CatalogItem> items{{"b", item.nodeId, 0}, seen("link"), item};
    const std::size_t stamped = watch_.setBackupDates(trash_, items, Time(seconds(1234)));
    if (stamped == 0) GTEST_SKIP() << "the file system keeps no attributes";
    EXPECT_EQ(stamped, 1u);
    char value[32] = {};
    EXPECT_EQ(::getxattr((trash_ + "/a").c_str(), "user.korvane.backup-date", value, 32), 4);
    EXPECT_STREQ(value, "1234");
    EXPECT_EQ(::getxattr((trash_ + "/b").c_str(), "user.korvane.backup-date", value, 32), -1);
}

TEST_F(LinuxDirectoryWatchTest, MissesNothingWhileItSubscribesAnew) {
    int changes = 0;
    auto subscription = watch_.subscribe(trash_, [] {});
    write(trash_ + "/a");
    subscription.reset();
    subscription = watch_.subscribe(trash_, [&] { ++changes; });
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_EQ(changes, 1);
}

TEST_F(LinuxDirectoryWatchTest, FollowsNoLinkToATrashFolder) {
    fs::create_directories(folder_ / "secrets/files");
    write(folder_ / "secrets/files/secret");
    fs::create_directory_symlink(folder_ / "secrets", folder_ / "planted");
    EXPECT_FALSE(watch_.catalog(folder_ / "planted/files", 100));
    const std::vector<CatalogItem> secrets{{"secret", 1, 1}};
    EXPECT_EQ(watch_.setBackupDates(folder_ / "planted/files", secrets, Time{}), 0u);
    int changes = 0;
    const auto subscription = watch_.subscribe(folder_ / "planted/files", [&] { ++changes; });
    write(folder_ / "secrets/files/another");
    turn();
    EXPECT_EQ(changes, 0);
    // Once there is a folder in its place that one counts.
    fs::remove(folder_ / "planted");
    fs::create_directories(folder_ / "planted/files");
    turnUntil([&] { return changes > 0; }, seconds(10));
    EXPECT_GT(changes, 0);
}

TEST_F(LinuxDirectoryWatchTest, KnowsWhereTrashFoldersAre) {
    for (const char* home : {"home/ada", "home/bob", "home/Shared", "home/.hidden"}) {
        fs::create_directories(folder_ / home);
    }
    fs::create_directory_symlink("/", folder_ / "home/link");
    folder_.write("home/a file", "");
    const LinuxTrashPlaces places{.homes = folder_ / "home", .rootHome = folder_ / "root"};
    LinuxDirectoryWatch watch(loop_, machine_.volumes, places);
    const std::string below = "/.local/share/Trash/files";
    EXPECT_THAT(watch.trashFolders("/"),
                testing::ElementsAre(folder_ / ("home/ada" + below), folder_ / ("home/bob" + below),
                                     folder_ / ("root" + below)));
}

TEST_F(LinuxDirectoryWatchTest, KnowsTheTrashFoldersOfAVolume) {
    fs::create_directories(folder_ / "home/ada");
    const auto owner = std::to_string(::geteuid());
    fs::remove_all(folder_ / ".Trash-0");
    // One that is waited for, since its user has a home.
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / (".Trash-" + owner + "/files")));
    for (const char* const name : {"a", "1x", "-1", "", "007", "4294967296"}) {
        fs::create_directories(folder_ / (std::string(".Trash-") + name));
        fs::create_directories(folder_ / (std::string(".Trash/") + name));
    }
    folder_.write(".Trash-1234", "no folder");
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / (".Trash-" + owner + "/files"),
                                     folder_ / (".Trash/" + owner + "/files")));
}

TEST_F(LinuxDirectoryWatchTest, FollowsLinksThatTheMachineItselfHasForItsHomes) {
    fs::create_directories(folder_ / "var/home/ada");
    fs::create_directories(folder_ / "var/roothome");
    fs::create_directory_symlink("var/home", folder_ / "home");
    fs::create_directory_symlink("var/roothome", folder_ / "root");
    LinuxDirectoryWatch watch(
        loop_, machine_.volumes,
        LinuxTrashPlaces{.homes = folder_ / "home", .rootHome = folder_ / "root"});
    const std::string below = "/.local/share/Trash/files";
    EXPECT_THAT(watch.trashFolders("/"), testing::ElementsAre(folder_ / ("var/home/ada" + below),
                                                              folder_ / ("var/roothome" + below)));
}

// Everybody may make folders at the top of many a volume, and so take the place of others'.
TEST_F(LinuxDirectoryWatchTest, LeavesOutTrashFoldersThatAreNotTheirUsers) {
    for (const char* trash : {".Trash-1234", ".Trash-1235", ".Trash/77", ".Trash/78"}) {
        fs::create_directories(folder_ / trash);
    }
    const auto give = [&](const char* trash, uid_t user) {
        return ::chown((folder_ / trash).c_str(), user, static_cast<gid_t>(-1)) == 0;
    };
    if (!give(".Trash-1234", 1234) || !give(".Trash-1235", 4321) || !give(".Trash/77", 77) ||
        !give(".Trash/78", 4321)) {
        GTEST_SKIP() << "may not give folders away";
    }
    fs::create_directories(folder_ / "home");
    const auto folders = watch_.trashFolders(folder_.path());
    EXPECT_THAT(folders, testing::ElementsAre(trash_, folder_ / ".Trash-1234/files",
                                              folder_ / ".Trash/77/files"));
}

// Where everything has one owner, that of the mount, users are known by their homes.
TEST_F(LinuxDirectoryWatchTest, TakesOnAVolumeWithoutOwnersOnlyTheUsersOfThisMachine) {
    mountAs("vfat");
    fs::create_directories(folder_ / "home/ada");
    if (::chown((folder_ / "home/ada").c_str(), 1234, static_cast<gid_t>(-1)) != 0) {
        GTEST_SKIP() << "may not give folders away";
    }
    for (const char* trash : {".Trash-1234", ".Trash-1235"})
        fs::create_directories(folder_ / trash);
    EXPECT_THAT(watch_.trashFolders(folder_.path()),
                testing::ElementsAre(folder_ / ".Trash-0/files", folder_ / ".Trash-1234/files"));
}

TEST_F(LinuxDirectoryWatchTest, TouchesNoHomeOnANetwork) {
    fs::create_directories(folder_ / "home/ada");
    fs::create_directories(folder_ / "home/far");
    mountFromNetwork(folder_ / "home/far");
    LinuxDirectoryWatch watch(
        loop_, machine_.volumes,
        LinuxTrashPlaces{.homes = folder_ / "home", .rootHome = folder_ / "home/far/root"});
    EXPECT_THAT(watch.trashFolders("/"),
                testing::ElementsAre(folder_ / "home/ada/.local/share/Trash/files"));
}

TEST_F(LinuxDirectoryWatchTest, KnowsWhoseTrashAFolderIs) {
    const std::string home = folder_ / "home/ada";
    fs::create_directories(home);
    struct stat status {};
    ASSERT_EQ(::stat(home.c_str(), &status), 0);
    EXPECT_EQ(watch_.userOf(home + "/.local/share/Trash/files"), status.st_uid);
    EXPECT_EQ(watch_.userOf("/Volumes/Data/.Trash-1000/files"), 1000u);
    EXPECT_EQ(watch_.userOf("/Volumes/My-Data/.Trash/1002/files"), 1002u);
    for (const char* none : {"", "/", "files", "/files", "//", "/Volumes/x/.Trash-/files"}) {
        EXPECT_EQ(watch_.userOf(none), 0u) << none;
    }
}

// In a user namespace of its own, where limits are its own, too.
TEST_F(LinuxDirectoryWatchTest, WatchesAgainWhenTheMachineHasWatchesAgain) {
    const auto setLimit = [](const char* name, const char* limit) {
        const std::string path = std::string("/proc/sys/user/") + name;
        std::ofstream file(path);
        file << limit << std::flush;
        return file.good();
    };
    for (const char* name : {"max_inotify_instances", "max_inotify_watches"}) {
        const pid_t child = ::fork();
        if (child == 0) {
            if (::unshare(CLONE_NEWUSER) != 0 || !setLimit(name, "0")) ::_exit(2);
            LinuxRunLoop loop(log_);  // one that was made before the fork serves nobody here
            LinuxDirectoryWatch watch(loop, machine_.volumes, LinuxTrashPlaces{});
            if (watch.subscribe(trash_, [] {}) || !watch.isShortOfWatches()) ::_exit(1);
            if (!setLimit(name, "100")) ::_exit(2);
            const auto subscription = watch.subscribe(trash_, [] {});
            ::_exit(subscription && !watch.isShortOfWatches() ? 0 : 1);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == 2) GTEST_SKIP() << "no user namespaces here";
        EXPECT_EQ(WEXITSTATUS(status), 0) << name;
    }
}

}  // namespace
}  // namespace korvane
