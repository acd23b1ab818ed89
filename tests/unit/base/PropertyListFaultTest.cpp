// Writes that fail, or end with the process, at every single call that changes a file.
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "FaultyCalls.h"
#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"

namespace korvane {
namespace {

using ::testing::AnyOf;
using ::testing::Eq;

PropertyList records(const char* text, int count) {
    PropertyListArray items;
    for (int i = 0; i < count; ++i) items.push_back(Dictionary{{"number", i}, {"text", text}});
    return Dictionary{{"records", std::move(items)}};
}

// Old and new contents of every relation of their lengths.
struct Rewrite {
    std::string before;
    std::string after;
};

std::vector<Rewrite> rewrites() {
    const std::string shorter = formatPropertyList(records("short", 20));
    const std::string longer = formatPropertyList(records("some more", 90));
    const std::string same = formatPropertyList(records("trohs", 20));
    return {{shorter, longer}, {longer, shorter}, {shorter, same}, {shorter, shorter}};
}

// A file that any program may look at in between: what it holds is old, new or no property list.
void expectNoMixture(const std::string& path, const Rewrite& rewrite) {
    const std::string raw = contentsOf(path);
    if (parsePropertyList(raw)) {
        EXPECT_THAT(raw, AnyOf(Eq(rewrite.before), Eq(rewrite.after)));
    }
}

void expectOldOrNewToBeRead(const std::string& path, const Rewrite& rewrite) {
    PropertyListFiles files;
    const auto value = files.read(path);
    ASSERT_TRUE(value) << value.error().message;
    EXPECT_THAT(formatPropertyList(*value), AnyOf(Eq(rewrite.before), Eq(rewrite.after)));
    // Whatever was restored is now in the file itself.
    EXPECT_EQ(contentsOf(path), formatPropertyList(*value));
}

// Runs the write in a child that ends at the given call; false when it got through all of them.
bool diesWriting(const std::string& path, const std::string& text, Durability durability,
                 int atCall) {
    const pid_t child = fork();
    if (child == 0) {
        planFault({.atCall = atCall, .dies = true});
        _exit(writeInPlace(path, text, 0666, durability) ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_THAT(WEXITSTATUS(status), AnyOf(0, kDied));
    return WEXITSTATUS(status) == kDied;
}

class Faults : public ::testing::TestWithParam<Durability> {
  protected:
    void TearDown() override { planFault({}); }

    const TemporaryFolder folder_;
    const std::string path_ = folder_ / "Settings.plist";
};

INSTANTIATE_TEST_SUITE_P(Durabilities, Faults,
                         ::testing::Values(Durability::process, Durability::powerLoss),
                         [](const auto& given) {
                             return given.param == Durability::process ? "process" : "powerLoss";
                         });

TEST_P(Faults, DyingAtAnyCallLeavesTheOldOrTheNewContents) {
    for (const auto& rewrite : rewrites()) {
        int call = 0;
        bool died = true;
        while (died) {
            putContents(path_, rewrite.before);
            died = diesWriting(path_, rewrite.after, GetParam(), ++call);
            expectNoMixture(path_, rewrite);
            expectOldOrNewToBeRead(path_, rewrite);
        }
        EXPECT_GT(call, 6);
    }
}

TEST_P(Faults, DyingTwiceLosesNothingEither) {
    const Rewrite rewrite = rewrites().front();
    // The calls in which the file is torn, and those around them.
    for (int first = 4; first <= 9; ++first) {
        for (int second = 1; second <= 10; ++second) {
            putContents(path_, rewrite.before);
            (void)diesWriting(path_, rewrite.after, GetParam(), first);
            (void)diesWriting(path_, rewrite.before, GetParam(), second);
            expectNoMixture(path_, rewrite);
            expectOldOrNewToBeRead(path_, rewrite);
        }
    }
}

TEST_P(Faults, DyingWhileAFileIsCreatedShowsAllOrNothing) {
    const std::string text = rewrites().front().after;
    int call = 0;
    bool died = true;
    while (died) {
        std::filesystem::remove(path_);
        died = diesWriting(path_, text, GetParam(), ++call);
        if (std::filesystem::exists(path_)) {
            EXPECT_EQ(contentsOf(path_), text);
        }
    }
    EXPECT_EQ(contentsOf(path_), text);
}

TEST_P(Faults, AnErrorAtAnyCallLeavesTheOldOrTheNewContents) {
    for (const bool persists : {false, true}) {
        for (const int error : {EIO, ENOSPC}) {
            for (const auto& rewrite : rewrites()) {
                int call = 0;
                bool reached = true;
                while (reached) {
                    putContents(path_, rewrite.before);
                    planFault({.atCall = ++call, .error = error, .persists = persists});
                    const auto written = writeInPlace(path_, rewrite.after, 0666, GetParam());
                    reached = changingCalls() >= call;
                    planFault({});
                    if (written) {
                        EXPECT_EQ(contentsOf(path_), rewrite.after);
                    }
                    expectNoMixture(path_, rewrite);
                    expectOldOrNewToBeRead(path_, rewrite);
                }
            }
        }
    }
}

TEST_P(Faults, AnErrorWhileRestoringStillGivesTheContents) {
    const Rewrite rewrite = rewrites().front();
    int call = 0;
    bool reached = true;
    while (reached) {
        putContents(path_, std::string("\0torn", 5));
        putContents(savingSiblingOf(path_), rewrite.after);
        planFault({.atCall = ++call, .error = EIO, .persists = true});
        PropertyListFiles files;
        const auto value = files.read(path_);
        reached = changingCalls() >= call;
        planFault({});
        ASSERT_TRUE(value) << value.error().message;
        EXPECT_EQ(formatPropertyList(*value), rewrite.after);
        expectOldOrNewToBeRead(path_, {rewrite.after, rewrite.after});
    }
}

TEST_P(Faults, AnInterruptedCallIsRepeated) {
    const Rewrite rewrite = rewrites().front();
    // The writes themselves; the other calls are not interrupted on local file systems.
    putContents(path_, rewrite.before);
    planFault({.atCall = 1, .error = EINTR});
    EXPECT_TRUE(writeInPlace(path_, rewrite.after, 0666, GetParam()));
    EXPECT_EQ(contentsOf(path_), rewrite.after);
}

TEST(FullDisk, LeavesTheOldContentsToEveryReader) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    const Rewrite rewrite = rewrites().front();
    for (int write = 0; write < 2; ++write) {  // The file and its copy are there.
        ASSERT_TRUE(writeInPlace(path, rewrite.before, 0666, Durability::process));
    }
    for (int call = 1; call <= 3; ++call) {
        putContents(path, rewrite.before);
        planFault({.atCall = call, .error = ENOSPC});
        const auto written = writeInPlace(path, rewrite.after, 0666, Durability::process);
        planFault({});
        ASSERT_FALSE(written) << "call " << call;
        EXPECT_EQ(contentsOf(path), rewrite.before) << "call " << call;
        EXPECT_FALSE(std::filesystem::exists(savingSiblingOf(path)));
    }
}

// The kept copy is on the disk, so the file need not be.
TEST(Flushes, AreNotNeededWhileTheKeptCopyIsYoung) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    const auto syncsOf = [&](Durability durability, const std::string& text) {
        planFault({});
        EXPECT_TRUE(writeInPlace(path, text, 0666, durability));
        return syncCalls();
    };
    EXPECT_EQ(syncsOf(Durability::process, "<1>"), 2);  // the new file and its folder
    EXPECT_EQ(syncsOf(Durability::process, "<2>"), 2);  // the copy and its folder
    EXPECT_EQ(syncsOf(Durability::process, "<3>"), 0);
    EXPECT_EQ(contentsOf(keptCopyOf(path)), "<2>");
    EXPECT_EQ(syncsOf(Durability::powerLoss, "<4>"), 2);
    EXPECT_EQ(contentsOf(keptCopyOf(path)), "<4>");
}

TEST(Flushes, ComeWithEachStepWhereNoMarkCanBeLeft) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    ASSERT_TRUE(writeInPlace(path, "<1>", 0666, Durability::process));
    ASSERT_TRUE(writeInPlace(path, "<2>", 0666, Durability::process));
    // Part, permissions and sibling come before the mark.
    planFault({.atCall = 4, .error = ENOTSUP});
    ASSERT_TRUE(writeInPlace(path, "<3>", 0666, Durability::process));
    EXPECT_EQ(syncCalls(), 5);
    EXPECT_EQ(contentsOf(keptCopyOf(path)), "<3>");
    EXPECT_EQ(contentsOf(path), "<3>");
}

TEST(PropertyListFiles, DoesNotReadAgainWhatItWrote) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    PropertyListFiles files;
    ASSERT_TRUE(files.write(path, records("a", 5), 0666, Durability::process));
    planFault({});
    for (int i = 0; i < 10; ++i) EXPECT_EQ(*files.read(path), records("a", 5));
    ASSERT_TRUE(files.change(
        path, [](PropertyList& value) { return value.dictionary()->remove("nothing"); }, 0666,
        Durability::process));
    EXPECT_EQ(changingCalls(), 0);
    ASSERT_TRUE(files.change(
        path,
        [](PropertyList& value) {
            value.dictionary()->set("b", 1);
            return true;
        },
        0666, Durability::process));
    planFault({});
    EXPECT_EQ(*files.read(path)->dictionary()->find("b"), PropertyList(1));
    EXPECT_EQ(readingCalls(), 0);
}

TEST(PropertyListFiles, DoesNotReadAgainWhatNobodyTouchedForLong) {
    // Checked out with the sources, so long settled.
    const std::string path = KORVANE_SOURCE_DIR "/tests/fixtures/property-lists/every-kind.plist";
    PropertyListFiles files;
    planFault({});
    const auto first = files.read(path);
    ASSERT_TRUE(first);
    EXPECT_GT(readingCalls(), 0);
    planFault({});
    EXPECT_EQ(*files.read(path), *first);
    EXPECT_EQ(readingCalls(), 0);
}

TEST(PropertyListFiles, FollowsTheFileWhenItsStampFails) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    PropertyListFiles files;
    for (const char* const each : {"a", "a", "b"}) {  // The first two make the file and its copy.
        planFault({});
        ASSERT_TRUE(files.write(path, records(each, 5), 0666, Durability::process));
    }
    // The last changing calls of a write are the stamp and its mark.
    planFault({.atCall = changingCalls() - 1, .error = EPERM});
    ASSERT_TRUE(files.write(path, records("c", 5), 0666, Durability::process));
    planFault({});
    EXPECT_EQ(*files.read(path), records("c", 5));
    EXPECT_GT(readingCalls(), 0);
}

// Another program may write as soon as the sibling is gone, which is before the stamp.
TEST(PropertyListFiles, SeesWhatAnotherProgramWroteRightAfterAWrite) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    const std::string theirs = formatPropertyList(records("theirs", 5));
    const auto theyWrite = [&] { putContents(path, theirs); };
    PropertyListFiles files;
    for (int write = 0; write < 2;
         ++write) {  // The second one makes the copy, which is stamped too.
        ASSERT_TRUE(files.write(path, records("before", 5), 0666, Durability::process));
    }
    interveneBeforeStamp(theyWrite);
    ASSERT_TRUE(files.write(path, records("ours", 5), 0666, Durability::process));
    EXPECT_EQ(*files.read(path), records("theirs", 5));
    interveneBeforeStamp(theyWrite);
    ASSERT_TRUE(files.change(
        path,
        [](PropertyList& value) {
            value = records("ours", 6);
            return true;
        },
        0666, Durability::process));
    EXPECT_EQ(*files.read(path), records("theirs", 5));
}

}  // namespace
}  // namespace korvane
