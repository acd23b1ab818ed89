// Changes of one file that are written one by one, with one sibling for all of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"

namespace korvane {
namespace {

using ::testing::ElementsAre;

class Steps : public ::testing::Test {
  protected:
    Steps() {
        const Dictionary first{{"kept", true}};
        EXPECT_TRUE(files_.write(path_, PropertyList(first), 0666, Durability::process));
    }
    // Adds the keys "0", "1" and so on; `sees` is called before each one that is written.
    [[nodiscard]] bool addKeys(std::size_t count, const std::function<void(std::size_t)>& sees) {
        std::size_t called = 0;
        return bool{files_.changeInSteps(
            path_, count,
            [&](PropertyList& value, std::size_t step) {
                if (called++ >= count) sees(step);
                value.dictionary()->set(std::to_string(step), true);
                return true;
            },
            0600, Durability::process)};
    }
    static std::vector<std::string> keysIn(const std::string& path) {
        std::vector<std::string> keys;
        const auto value = parsePropertyList(contentsOf(path));
        if (!value || !value->dictionary()) return {"no dictionary"};
        for (const auto& [key, each] : *value->dictionary()) keys.push_back(key);
        return keys;
    }

    const TemporaryFolder folder_;
    const std::string path_ = folder_ / "Records.plist";
    PropertyListFiles files_;
};

TEST_F(Steps, WriteTheFileAfterEachOfThem) {
    std::vector<std::vector<std::string>> seen;
    ASSERT_TRUE(addKeys(3, [&](std::size_t) { seen.push_back(keysIn(path_)); }));
    EXPECT_THAT(seen, ElementsAre(ElementsAre("kept"), ElementsAre("0", "kept"),
                                  ElementsAre("0", "1", "kept")));
    EXPECT_THAT(keysIn(path_), ElementsAre("0", "1", "2", "kept"));
    EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms{0600});
    const auto read = files_.read(path_);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->dictionary()->size(), 4u);
}

TEST_F(Steps, KeepWhatTheLastOneLeavesInASiblingMeanwhile) {
    const std::string sibling = savingSiblingOf(path_);
    int steps = 0;
    ASSERT_TRUE(addKeys(3, [&](std::size_t) {
        ++steps;
        EXPECT_THAT(keysIn(sibling), ElementsAre("0", "1", "2", "kept"));
    }));
    EXPECT_EQ(steps, 3);
    EXPECT_FALSE(std::filesystem::exists(sibling));
}

TEST_F(Steps, KeepWhatAnotherProgramWritesInBetween) {
    bool hasWritten = false;
    ASSERT_TRUE(addKeys(3, [&](std::size_t step) {
        if (step != 1 || std::exchange(hasWritten, true)) return;
        putContents(path_, formatPropertyList(Dictionary{{"of another program", true}}));
    }));
    EXPECT_TRUE(hasWritten);
    EXPECT_THAT(keysIn(path_), ElementsAre("1", "2", "of another program"));
}

TEST_F(Steps, AreGivenUpWhereTheEditSaysSo) {
    const std::string before = contentsOf(path_);
    const auto done = files_.changeInSteps(
        path_, 3,
        [](PropertyList& value, std::size_t step) {
            value.dictionary()->set(std::to_string(step), true);
            return step < 2;
        },
        0600, Durability::process);
    EXPECT_TRUE(done);
    EXPECT_EQ(contentsOf(path_), before);
}

TEST_F(Steps, TouchNothingInAFileThatCannotBeRead) {
    const std::string torn = folder_ / "Torn.plist";
    putContents(torn, "torn");
    bool wasCalled = false;
    const auto edit = [&](PropertyList&, std::size_t) { return wasCalled = true; };
    EXPECT_FALSE(files_.changeInSteps(torn, 3, edit, 0600, Durability::process));
    EXPECT_FALSE(files_.changeInSteps(folder_ / "none", 3, edit, 0600, Durability::process));
    EXPECT_FALSE(wasCalled);
    EXPECT_EQ(contentsOf(torn), "torn");
    EXPECT_TRUE(files_.changeInSteps(path_, 0, edit, 0600, Durability::process));
}

}  // namespace
}  // namespace korvane
