#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr auto kProcess = Durability::process;
// Debian's "nobody": an account that owns nothing.
constexpr uid_t kNobody = 65534;

std::vector<std::string> namesIn(const TemporaryFolder& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

std::string document(std::string_view text) { return formatPropertyList(PropertyList(text)); }

// Runs in a child, which may take on other rights or other mounts; its result is the test's.
void inChild(const std::function<bool()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body() ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

class InPlace : public ::testing::Test {
  protected:
    [[nodiscard]] bool write(std::string_view text, mode_t mode = 0666) const {
        return static_cast<bool>(writeInPlace(path_, document(text), mode, kProcess));
    }
    [[nodiscard]] std::string errorOfWriting() const {
        const auto written = writeInPlace(path_, document("new"), 0666, kProcess);
        return written ? "" : written.error().message;
    }
    [[nodiscard]] std::string errorOfReading() const {
        PropertyListFiles files;
        const auto value = files.read(path_);
        return value ? "" : value.error().message;
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_ / "Settings.plist";
    const std::string sibling_ = savingSiblingOf(path_);
    const std::string kept_ = keptCopyOf(path_);
};

TEST_F(InPlace, HidesItsCopiesBesideTheFile) {
    EXPECT_EQ(savingSiblingOf("/a/b/Settings.plist"), "/a/b/.Settings.plist.saving");
    EXPECT_EQ(savingSiblingOf("/Settings.plist"), "/.Settings.plist.saving");
    EXPECT_EQ(savingSiblingOf("Settings.plist"), ".Settings.plist.saving");
    EXPECT_EQ(keptCopyOf("/a/b/Settings.plist"), "/a/b/.Settings.plist.kept");
}

TEST_F(InPlace, CreatesAFileWithThePermissionsWhateverTheUmask) {
    const mode_t former = umask(077);
    EXPECT_TRUE(write("new"));
    EXPECT_TRUE(writeInPlace(folder_ / "private", document("new"), 0600, Durability::powerLoss));
    umask(former);
    EXPECT_EQ(contentsOf(path_), document("new"));
    EXPECT_EQ(statusOf(path_).st_mode & 07777, 0666U);
    EXPECT_EQ(statusOf(folder_ / "private").st_mode & 07777, 0600U);
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist", "private"));
}

TEST_F(InPlace, KeepsTheInodeOfAFileAndSetsItsPermissions) {
    putContents(path_, document(std::string(10'000, 'x')));
    ASSERT_EQ(chmod(path_.c_str(), 0640), 0);
    const ino_t inode = statusOf(path_).st_ino;
    EXPECT_TRUE(write("new"));
    EXPECT_TRUE(writeInPlace(path_, document(std::string(20'000, 'y')), 0666, kProcess));
    EXPECT_EQ(contentsOf(path_), document(std::string(20'000, 'y')));
    EXPECT_EQ(statusOf(path_).st_ino, inode);
    EXPECT_EQ(statusOf(path_).st_mode & 07777, 0666U);
    EXPECT_THAT(namesIn(folder_), ElementsAre(".Settings.plist.kept", "Settings.plist"));
}

TEST_F(InPlace, ReplacesContentsThatAreNoPropertyList) {
    for (const std::string_view before : {"", "x", "bplist00"}) {
        putContents(path_, before);
        EXPECT_TRUE(write("new"));
        EXPECT_EQ(contentsOf(path_), document("new"));
    }
}

TEST_F(InPlace, NeverFollowsALinkAtThePath) {
    const std::string victim = folder_ / "victim";
    putContents(victim, document("victim"));
    ASSERT_EQ(symlink(victim.c_str(), path_.c_str()), 0);
    EXPECT_NE(errorOfWriting(), "");
    EXPECT_NE(errorOfReading(), "");
    EXPECT_EQ(contentsOf(victim), document("victim"));
    EXPECT_TRUE(S_ISLNK(statusOf(path_).st_mode));
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist", "victim"));
}

TEST_F(InPlace, NeverFollowsALinkThatLeadsNowhere) {
    ASSERT_EQ(symlink((folder_ / "nowhere").c_str(), path_.c_str()), 0);
    EXPECT_NE(errorOfWriting(), "");
    EXPECT_FALSE(std::filesystem::exists(folder_ / "nowhere"));
}

TEST_F(InPlace, NeverWritesThroughASecondName) {
    const std::string victim = folder_ / "victim";
    putContents(victim, document("victim"));
    ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);  // so anybody may have put it here
    ASSERT_EQ(link(victim.c_str(), path_.c_str()), 0);
    EXPECT_THAT(errorOfWriting(), HasSubstr("second name"));
    EXPECT_EQ(contentsOf(victim), document("victim"));
}

// Everybody may link a file that everybody may write.
TEST_F(InPlace, LeavesTheSecondNamesOfAFileThatOnlyItCanHavePutThere) {
    putContents(path_, "before");
    ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
    const std::string second = folder_ / "second";
    ASSERT_EQ(link(path_.c_str(), second.c_str()), 0);
    EXPECT_TRUE(writeInPlace(path_, "after", 0666, Durability::process));
    EXPECT_EQ(contentsOf(path_), "after");
    EXPECT_EQ(contentsOf(second), "before");
    struct stat status {};
    ASSERT_EQ(lstat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1u);
    EXPECT_EQ(status.st_mode & 07777, 0666u);
    EXPECT_FALSE(std::filesystem::exists(folder_ / ".Settings.plist.copy"));
}

TEST_F(InPlace, ReadsAFileWithASecondNameAndLeavesThat) {
    putContents(path_, "<plist version=\"1.0\"><dict/></plist>");
    const std::string second = folder_ / "second";
    ASSERT_EQ(link(path_.c_str(), second.c_str()), 0);
    PropertyListFiles files;
    EXPECT_TRUE(files.read(path_));
    struct stat status {};
    ASSERT_EQ(lstat(path_.c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1u);
    EXPECT_TRUE(files.read(path_));
}

TEST_F(InPlace, NeverWritesThroughLinksPlantedAtTheSibling) {
    const std::string victim = folder_ / "victim";
    putContents(victim, document("victim"));
    putContents(path_, document("old"));
    ASSERT_EQ(symlink(victim.c_str(), sibling_.c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), (sibling_ + ".part").c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), kept_.c_str()), 0);
    for (const char* const text : {"new", "newer"}) {
        EXPECT_TRUE(write(text));
        EXPECT_EQ(contentsOf(victim), document("victim"));
        EXPECT_EQ(contentsOf(path_), document(text));
    }
    EXPECT_TRUE(S_ISREG(statusOf(kept_).st_mode));
    EXPECT_THAT(namesIn(folder_), ElementsAre(".Settings.plist.kept", "Settings.plist", "victim"));
}

TEST_F(InPlace, LeavesTheFileAloneWhenTheSiblingCannotBeMade) {
    ASSERT_TRUE(write("first"));
    for (const std::string& planted : {sibling_, sibling_ + ".part", kept_}) {
        putContents(path_, document("old"));
        std::filesystem::remove(kept_);
        if (planted == sibling_) {
            ASSERT_TRUE(write("older"));  // so that the next one needs a sibling, no kept copy
            putContents(path_, document("old"));
        }
        std::filesystem::create_directories(planted + "/inside");
        EXPECT_NE(errorOfWriting(), "");
        EXPECT_EQ(contentsOf(path_), document("old"));
        std::filesystem::remove_all(planted);
    }
}

TEST_F(InPlace, RefusesWhatIsNoRegularFileWithoutWaiting) {
    ASSERT_EQ(mkfifo(path_.c_str(), 0666), 0);
    EXPECT_THAT(errorOfWriting(), HasSubstr("not a regular file"));
    EXPECT_THAT(errorOfReading(), HasSubstr("not a regular file"));
    ASSERT_EQ(unlink(path_.c_str()), 0);
    std::filesystem::create_directory(path_);
    EXPECT_NE(errorOfWriting(), "");
    EXPECT_THAT(errorOfReading(), HasSubstr("not a regular file"));
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist"));
}

TEST_F(InPlace, SaysWhenTheFolderIsMissing) {
    const auto written = writeInPlace(folder_ / "none/Settings.plist", "x", 0666, kProcess);
    ASSERT_FALSE(written);
    EXPECT_THAT(written.error().message, HasSubstr("No such file or directory"));
    putContents(path_, "a file");
    EXPECT_FALSE(writeInPlace(path_ + "/Settings.plist", "x", 0666, kProcess));
    EXPECT_FALSE(writeInPlace(folder_.path() + "/", "x", 0666, kProcess));
    EXPECT_FALSE(writeInPlace("", "x", 0666, kProcess));
}

TEST_F(InPlace, LeavesEverythingAsItIsInAFolderWithoutTheRightToWrite) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    putContents(path_, document("old"));
    ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
    ASSERT_EQ(chmod(folder_.path().c_str(), 0755), 0);
    inChild([&] { return seteuid(kNobody) == 0 && errorOfWriting() != ""; });
    EXPECT_EQ(contentsOf(path_), document("old"));
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist"));
}

TEST_F(InPlace, WritesAFileOfAnotherOwnerAndLeavesItsPermissions) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    putContents(path_, document("old"));
    ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
    ASSERT_EQ(chmod(folder_.path().c_str(), 0777), 0);
    inChild([&] { return seteuid(kNobody) == 0 && write("new", 0600); });
    EXPECT_EQ(contentsOf(path_), document("new"));
    EXPECT_EQ(statusOf(path_).st_mode & 07777, 0666U);
}

// A mount of its own over the folder, seen by the calling process alone.
bool mountPrivately(const std::string& folder, const char* options) {
    return unshare(CLONE_NEWNS) == 0 &&
           mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", folder.c_str(), "tmpfs", 0, options) == 0;
}

TEST_F(InPlace, LeavesTheOldContentsOnAFullDisk) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can mount";
    inChild([&] {
        if (!mountPrivately(folder_.path(), "size=256k")) return false;
        const std::string before = document(std::string(50'000, 'x'));
        putContents(path_, before);
        // Room for the sibling alone, then for neither.
        for (const std::size_t length : {150'000U, 300'000U}) {
            const std::string after = document(std::string(length, 'y'));
            if (writeInPlace(path_, after, 0666, kProcess)) return false;
            if (contentsOf(path_) != before) return false;
            if (std::filesystem::exists(sibling_) || std::filesystem::exists(sibling_ + ".part")) {
                return false;
            }
        }
        return static_cast<bool>(writeInPlace(path_, document("less"), 0666, kProcess));
    });
}

TEST_F(InPlace, LeavesTheOldContentsOnAReadOnlyDisk) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can mount";
    inChild([&] {
        if (!mountPrivately(folder_.path(), "size=256k")) return false;
        putContents(path_, document("old"));
        if (mount("tmpfs", folder_.path().c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            return false;
        }
        PropertyListFiles files;
        const auto value = files.read(path_);
        return errorOfWriting() != "" && value && *value == PropertyList("old");
    });
}

TEST_F(InPlace, LeavesTheOldContentsBeyondTheLimitOnFileSizes) {
    putContents(path_, document("old"));
    inChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{10'000, 10'000};
        const std::string after = document(std::string(50'000, 'y'));
        return setrlimit(RLIMIT_FSIZE, &limit) == 0 && !writeInPlace(path_, after, 0666, kProcess);
    });
    EXPECT_EQ(contentsOf(path_), document("old"));
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist"));
}

TEST_F(InPlace, GoesOnWhenSomebodyHoldsTheLockForEver) {
    putContents(path_, document("old"));
    const int holder = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(holder, LOCK_EX), 0);
    EXPECT_TRUE(write("new"));
    EXPECT_EQ(contentsOf(path_), document("new"));
    close(holder);
}

class Reading : public InPlace {
  protected:
    [[nodiscard]] PropertyList read() {
        auto value = files_.read(path_);
        return value ? *std::move(value) : PropertyList(value.error().message);
    }
    PropertyListFiles files_;
};

TEST_F(Reading, RestoresATornFileFromItsSibling) {
    putContents(path_, std::string("\0", 1) + document("torn").substr(1, 20));
    ASSERT_EQ(chmod(path_.c_str(), 0666), 0);
    putContents(sibling_, document("new"));
    const ino_t inode = statusOf(path_).st_ino;
    EXPECT_EQ(read(), PropertyList("new"));
    EXPECT_EQ(contentsOf(path_), document("new"));
    EXPECT_EQ(statusOf(path_).st_ino, inode);
    EXPECT_EQ(statusOf(path_).st_mode & 07777, 0666U);
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist"));
}

TEST_F(Reading, IgnoresTheSiblingOfAFileThatParses) {
    putContents(path_, document("old"));
    putContents(sibling_, document("stale"));
    EXPECT_EQ(read(), PropertyList("old"));
    EXPECT_TRUE(write("new"));
    EXPECT_THAT(namesIn(folder_), ElementsAre(".Settings.plist.kept", "Settings.plist"));
}

TEST_F(Reading, DoesNotBringBackADeletedFile) {
    putContents(sibling_, document("stale"));
    putContents(kept_, document("stale"));
    EXPECT_THAT(errorOfReading(), HasSubstr("No such file or directory"));
    EXPECT_TRUE(write("new"));
    EXPECT_THAT(namesIn(folder_), ElementsAre("Settings.plist"));
}

TEST_F(Reading, LeavesATornFileAsItIsWithoutASiblingToTrust) {
    const std::string victim = folder_ / "victim";
    putContents(victim, document("victim"));
    const std::function<void()> plants[] = {
        [] {},
        [&] { putContents(sibling_, document("cut").substr(0, 100)); },
        [&] { putContents(sibling_, ""); },
        [&] { ASSERT_EQ(symlink(victim.c_str(), sibling_.c_str()), 0); },
        [&] { ASSERT_EQ(link(victim.c_str(), sibling_.c_str()), 0); },
        [&] { ASSERT_EQ(mkfifo(sibling_.c_str(), 0666), 0); },
        [&] { std::filesystem::create_directory(sibling_); },
        [&] { putContents(sibling_ + ".part", document("part")); },
        [&] {
            putContents(sibling_, document("that anybody may have written"));
            ASSERT_EQ(chmod(sibling_.c_str(), 0646), 0);
        },
        [&] {
            putContents(sibling_, document("that a group may have written"));
            ASSERT_EQ(chmod(sibling_.c_str(), 0664), 0);
        },
        [&] { putContents(kept_, document("of an hour ago")); },
        [&] {
            putContents(sibling_, document("of another"));
            if (geteuid() != 0 || chown(sibling_.c_str(), kNobody, kNobody) != 0) {
                std::filesystem::remove(sibling_);
            }
        },
    };
    for (const auto& plant : plants) {
        putContents(path_, "<plist><string>torn");
        plant();
        EXPECT_NE(errorOfReading(), "");
        EXPECT_EQ(contentsOf(path_), "<plist><string>torn");
        std::filesystem::remove_all(sibling_);
    }
}

TEST_F(Reading, SaysWhatIsWrongAndKeepsTheFileByteForByte) {
    const std::string binary =
        contentsOf(KORVANE_SOURCE_DIR "/tests/fixtures/property-lists/binary.plist");
    ASSERT_FALSE(binary.empty());
    for (const std::string& text : {std::string(), binary, std::string("\xFF\xFE"),
                                    document("x") + "y", std::string(100'000, '<')}) {
        putContents(path_, text);
        EXPECT_THAT(errorOfReading(), HasSubstr("Settings.plist: line "));
        EXPECT_EQ(contentsOf(path_), text);
    }
}

TEST_F(Reading, RefusesAFileThatIsTooLarge) {
    putContents(path_, "");
    ASSERT_EQ(truncate(path_.c_str(), 10'000'000'000), 0);
    EXPECT_THAT(errorOfReading(), HasSubstr("too large"));
    EXPECT_THAT(errorOfWriting(), HasSubstr("too large"));
}

TEST_F(Reading, SeesEveryChangeOfAnotherProgramHoweverSoon) {
    for (int round = 0; round < 100; ++round) {
        ASSERT_TRUE(files_.write(path_, PropertyList("ours"), 0666, kProcess));
        // Of the same length, in place, and mostly within the same tick of the kernel's clock.
        const int fd = open(path_.c_str(), O_WRONLY | O_CLOEXEC);
        const std::string theirs = document("thei");
        ASSERT_EQ(pwrite(fd, theirs.data(), theirs.size(), 0), std::ssize(theirs));
        close(fd);
        ASSERT_EQ(read(), PropertyList("thei")) << "round " << round;
        putContents(path_, document("more"));
        ASSERT_EQ(read(), PropertyList("more")) << "round " << round;
    }
}

TEST_F(Reading, SeesAFileThatTookTheOthersPlace) {
    ASSERT_TRUE(files_.write(path_, PropertyList("ours"), 0666, kProcess));
    putContents(folder_ / "other", document("thei"));
    std::filesystem::rename(folder_ / "other", path_);
    EXPECT_EQ(read(), PropertyList("thei"));
    std::filesystem::remove(path_);
    EXPECT_FALSE(files_.read(path_));
}

TEST_F(Reading, HandsOutCopies) {
    ASSERT_TRUE(files_.write(path_, Dictionary{{"a", 1}}, 0666, kProcess));
    PropertyList value = read();
    value.dictionary()->set("a", 2);
    EXPECT_EQ(read(), PropertyList(Dictionary{{"a", 1}}));
}

TEST_F(Reading, DoesNotRememberWhatCouldNotBeWritten) {
    ASSERT_TRUE(files_.write(path_, PropertyList("old"), 0666, kProcess));
    std::filesystem::create_directories(sibling_ + ".part/inside");
    EXPECT_FALSE(files_.write(path_, PropertyList("new"), 0666, kProcess));
    EXPECT_EQ(read(), PropertyList("old"));
    const auto changed = files_.change(
        path_,
        [](PropertyList& value) {
            value = "new";
            return true;
        },
        0666, kProcess);
    EXPECT_FALSE(changed);
    EXPECT_EQ(read(), PropertyList("old"));
}

TEST_F(Reading, ChangesOneRecordAndKeepsTheOthers) {
    putContents(path_, formatPropertyList(Dictionary{{"a", 1}, {"b", 2}}));
    const auto changed = files_.change(
        path_,
        [](PropertyList& value) {
            value.dictionary()->set("b", 3);
            return true;
        },
        0600, kProcess);
    EXPECT_TRUE(changed);
    EXPECT_EQ(read(), PropertyList(Dictionary{{"a", 1}, {"b", 3}}));
    EXPECT_EQ(contentsOf(path_), formatPropertyList(Dictionary{{"a", 1}, {"b", 3}}));
    EXPECT_EQ(statusOf(path_).st_mode & 07777, 0600U);
}

TEST_F(Reading, ChangesNothingInAFileThatCannotBeRead) {
    putContents(path_, "torn");
    bool wasCalled = false;
    const auto changed = files_.change(
        path_, [&](PropertyList&) { return wasCalled = true; }, 0666, kProcess);
    EXPECT_FALSE(changed);
    EXPECT_FALSE(wasCalled);
    EXPECT_EQ(contentsOf(path_), "torn");
}

}  // namespace
}  // namespace korvane
