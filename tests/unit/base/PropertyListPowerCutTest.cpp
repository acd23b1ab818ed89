// What a power cut leaves, put together by hand: some pages of the last writes are on the disk and
// others not, and the machine has been started anew.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <string>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"

namespace korvane {
namespace {

constexpr auto kProcess = Durability::process;
constexpr char kMark[] = "user.korvane";

std::string document(std::string_view text) { return formatPropertyList(PropertyList(text)); }

class PowerCut : public ::testing::Test {
  protected:
    void write(std::string_view text, Durability durability = kProcess) {
        ASSERT_TRUE(writeInPlace(path_, document(text), 0666, durability));
    }
    [[nodiscard]] std::string read() const {
        PropertyListFiles files;
        const auto value = files.read(path_);
        return value ? stringValue(&*value) : "error: " + value.error().message;
    }
    // Other bytes in the file, which has the times of the last write.
    void losePages(std::string_view contents) const {
        struct stat before {};
        ASSERT_EQ(stat(path_.c_str(), &before), 0);
        std::array<std::byte, 32> mark{};
        ASSERT_EQ(getxattr(path_.c_str(), kMark, mark.data(), mark.size()), 32);
        putContents(path_, contents);
        const timespec times[2] = {before.st_atim, before.st_mtim};
        ASSERT_EQ(utimensat(AT_FDCWD, path_.c_str(), times, 0), 0);
    }
    // The mark says that it was made before the machine was last started.
    void startMachineAnew() const {
        std::array<std::byte, 32> mark{};
        ASSERT_EQ(getxattr(path_.c_str(), kMark, mark.data(), mark.size()), 32);
        mark[0] ^= std::byte{1};
        ASSERT_EQ(setxattr(path_.c_str(), kMark, mark.data(), mark.size(), 0), 0);
    }
    void setAgeOfCopy(std::chrono::seconds age) const {
        timespec times[2] = {};
        ASSERT_EQ(clock_gettime(CLOCK_REALTIME, &times[0]), 0);
        times[0].tv_sec -= age.count();
        times[1] = times[0];
        ASSERT_EQ(utimensat(AT_FDCWD, kept_.c_str(), times, 0), 0);
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_ / "Settings.plist";
    const std::string kept_ = keptCopyOf(path_);
};

TEST_F(PowerCut, LeavesAWholeFileAsItIs) {
    write("first");
    write("second");
    write("third");
    startMachineAnew();
    EXPECT_EQ(read(), "third");
    EXPECT_EQ(contentsOf(path_), document("third"));
}

TEST_F(PowerCut, IsMendedFromTheKeptCopy) {
    write("first");
    write("second");
    write("third");
    for (const std::string& left :
         {std::string(), std::string(200, '\0'), document("third").substr(0, 100),
          document("a mixture that parses")}) {
        losePages(left);
        startMachineAnew();
        EXPECT_EQ(read(), "second");
        EXPECT_EQ(contentsOf(path_), document("second"));
        write("third");
    }
}

// The copy got to the disk, and then nothing of the file's own new contents.
TEST_F(PowerCut, LosesNoSettingThatIsInTheCopyAlone) {
    write("first");
    write("second");
    write("a setting", Durability::powerLoss);
    write("second");
    setAgeOfCopy(std::chrono::seconds{-10});  // so the copy is the newer one of the two
    startMachineAnew();
    EXPECT_EQ(read(), "a setting");
    // The copy is older again, and what the file holds counts.
    write("third");
    startMachineAnew();
    EXPECT_EQ(read(), "third");
}

TEST_F(PowerCut, InTheMiddleOfAWriteIsMendedToo) {
    write("first");
    write("second");
    write("third");
    std::array<std::int64_t, 4> mark{};
    ASSERT_EQ(getxattr(path_.c_str(), kMark, mark.data(), sizeof mark), 32);
    mark[3] = -1;  // being written
    putContents(path_, document("a mixture that parses"));
    ASSERT_EQ(setxattr(path_.c_str(), kMark, mark.data(), sizeof mark, 0), 0);
    EXPECT_EQ(read(), "a mixture that parses");  // no power was cut: this is somebody's
    startMachineAnew();
    EXPECT_EQ(read(), "second");
}

TEST_F(PowerCut, DoesNotUndoWhatAnotherProgramWroteSince) {
    write("first");
    write("second");
    startMachineAnew();
    putContents(path_, document("theirs"));
    EXPECT_EQ(read(), "theirs");
    putContents(path_, "what a person got wrong");
    EXPECT_THAT(read(), testing::StartsWith("error"));
    EXPECT_EQ(contentsOf(path_), "what a person got wrong");
}

TEST_F(PowerCut, LeavesWhatCannotBeMended) {
    write("first");
    write("second");
    ASSERT_EQ(chmod(kept_.c_str(), 0666), 0);  // so anybody may have written it
    losePages(document("a mixture that parses"));
    startMachineAnew();
    EXPECT_EQ(read(), "a mixture that parses");
}

TEST_F(PowerCut, FindsACopyThatIsNoOlderThanAnHour) {
    write("first");
    write("second");
    for (const auto& [age, contents] : {std::pair{std::chrono::seconds{3500}, "second"},
                                        {std::chrono::seconds{3600}, "now"},
                                        {std::chrono::seconds{-3600}, "now"}}) {
        write("second", Durability::powerLoss);
        setAgeOfCopy(age);
        write("now");
        EXPECT_EQ(contentsOf(kept_), document(contents)) << age.count();
    }
    write("a setting", Durability::powerLoss);
    EXPECT_EQ(contentsOf(kept_), document("a setting"));
    struct stat status {};
    ASSERT_EQ(stat(kept_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
}

// A kill in a write that made the kept copy leaves no sibling.
TEST_F(PowerCut, AndAKillAreMendedFromTheSameCopy) {
    write("first");
    write("second", Durability::powerLoss);
    std::string torn = document("third");
    torn.front() = '\0';
    putContents(path_, torn);
    EXPECT_EQ(read(), "second");
}

// Each adds records of its own to one file; the lock covers reading and writing together.
TEST(Writers, OfOneFileLoseNoRecordsOfEachOther) {
    constexpr int kWriters = 3;
    constexpr int kRecords = 60;
    const TemporaryFolder folder;
    const std::string path = folder / "Records.plist";
    ASSERT_TRUE(writeInPlace(path, formatPropertyList(Dictionary{}), 0666, kProcess));
    std::array<pid_t, kWriters> writers{};
    for (int writer = 0; writer < kWriters; ++writer) {
        writers.at(static_cast<std::size_t>(writer)) = fork();
        if (writers.at(static_cast<std::size_t>(writer)) != 0) continue;
        PropertyListFiles files;
        for (int record = 0; record < kRecords; ++record) {
            const auto changed = files.change(
                path,
                [&](PropertyList& value) {
                    value.dictionary()->set(std::to_string(writer) + "-" + std::to_string(record),
                                            true);
                    return true;
                },
                0666, kProcess);
            if (!changed) _exit(1);
        }
        _exit(0);
    }
    for (const pid_t writer : writers) {
        int status = 0;
        ASSERT_EQ(waitpid(writer, &status, 0), writer);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    PropertyListFiles files;
    const auto value = files.read(path);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->dictionary()->size(), std::size_t{kWriters * kRecords});
}

}  // namespace
}  // namespace korvane
