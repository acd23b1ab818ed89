// A search that a slow disk did not let end in time, on a real file system.

#include <chrono>
#include <vector>

#include "unit/trash/DirectoryWatchBed.h"
#include "unit/trash/HeldReader.h"

namespace korvane {
namespace {

using std::chrono::milliseconds;

// What a search finds out holds until the loop turns, so that it is asked for as the daemon does:
// when it is told of it.
class SearchOutOfTime : public DirectoryWatchBed {
  protected:
    SearchOutOfTime() {
        write(trash_ + "/kept");
        write(trash_ + "/emptied");
        items_ = {{volume_, seen("kept").nodeId, trash_, "kept"},
                  {volume_, seen("emptied").nodeId, trash_, "emptied"}};
        fs::create_directories(folder_ / "away");
        fs::rename(trash_ + "/kept", folder_ / "away/kept");
        fs::remove(trash_ + "/emptied");
        limited_.setDidFindOut([this] { found_ = limited_.resolve(items_); });
    }
    bool isUnknown() {
        for (const ResolvedNode& node : limited_.resolve(items_)) {
            if (node.state != NodeState::unknown) return false;
        }
        return true;
    }

    static constexpr milliseconds kLimit{300};
    LinuxDirectoryWatch limited_{loop_, machine_.volumes, LinuxTrashPlaces{.searchLimit = kLimit}};
    std::vector<SeenItem> items_;
    std::vector<ResolvedNode> found_;
};

TEST_F(SearchOutOfTime, IsBegunAgainAtTheNextQuestionAndDecidesWhenItHasTheTime) {
    {
        HeldReader slow;
        // Its thread has the lowest priority, and is given up on a machine that is too busy for it.
        turnUntil([&] { return !isUnknown() || slow.hasOne(); }, seconds(20));
        ASSERT_TRUE(slow.hasOne());
        const auto end = std::chrono::steady_clock::now() + kLimit;
        turnUntil([&] { return std::chrono::steady_clock::now() > end; }, seconds(20));
    }
    // Longer than until it would have been given up.
    for (int i = 0; i < 15; ++i) turn();
    EXPECT_TRUE(found_.empty());
    turnUntil([&] { return !isUnknown() || !found_.empty(); }, seconds(20));
    ASSERT_EQ(found_.size(), 2U);
    EXPECT_EQ(found_.at(0).path, folder_ / "away/kept");
    EXPECT_EQ(found_.at(1).state, NodeState::gone);
}

}  // namespace
}  // namespace korvane
