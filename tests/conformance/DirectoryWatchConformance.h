// What every watch over trash folders promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/DirectoryWatch.h"

namespace korvane {

class DirectoryWatchSubject {
  public:
    virtual ~DirectoryWatchSubject() = default;
    virtual DirectoryWatch& watch() = 0;
    // The reference number of a volume that is mounted, and one of a volume that is not.
    virtual std::int16_t volume() = 0;
    virtual std::int16_t missingVolume() = 0;
    // Whose trash that is.
    virtual std::uint32_t user() = 0;
    // An empty trash folder on that volume, and a folder elsewhere on it.
    virtual std::string trash() = 0;
    virtual std::string elsewhere() = 0;

    // What happens to items is told of once the loop turns.
    virtual void make(const std::string& path) = 0;
    virtual void move(const std::string& from, const std::string& to) = 0;
    virtual void remove(const std::string& path) = 0;
    // Removes the item and makes another one there, with its number if the machine gives that.
    virtual void replace(const std::string& path) = 0;
    // The loop runs until `isDone`, or until nothing more is to be expected of it.
    virtual void runUntil(const std::function<bool()>& isDone) = 0;
};

class DirectoryWatchConformance
    : public testing::TestWithParam<Implementation<DirectoryWatchSubject>> {
  protected:
    DirectoryWatchConformance() : subject_(GetParam().make()) {}

    DirectoryWatch& watch() { return subject_->watch(); }
    std::string inTrash(const std::string& name) { return subject_->trash() + '/' + name; }

    // An item of this name in the trash, as it was seen there and remembered.
    CatalogItem see(const std::string& name) {
        subject_->make(inTrash(name));
        const auto items = watch().catalog(subject_->trash(), 100);
        for (const CatalogItem& item : items.value_or(std::vector<CatalogItem>{})) {
            if (item.name != name) continue;
            watch().remember(subject_->volume(), subject_->trash(), std::vector{item});
            return item;
        }
        return {};
    }
    SeenItem seen(const CatalogItem& item) {
        return {subject_->volume(), item.nodeId, subject_->trash(), item.name};
    }
    // The answer, after a search where one is needed.
    Recognized recognize(const CatalogItem& item) {
        return watch().recognize(subject_->volume(), subject_->trash(), std::vector{item}).at(0);
    }
    ResolvedNode resolve(const SeenItem& item) {
        bool hasFoundOut = false;
        watch().setDidFindOut([&] { hasFoundOut = true; });
        ResolvedNode node = watch().resolve(std::vector{item}).at(0);
        if (node.state == NodeState::unknown) {
            subject_->runUntil([&] { return hasFoundOut; });
            node = watch().resolve(std::vector{item}).at(0);
        }
        watch().setDidFindOut(nullptr);
        return node;
    }

    std::unique_ptr<DirectoryWatchSubject> subject_;
};

TEST_P(DirectoryWatchConformance, TellOnceOfAllThatHappenedBeforeTheLoopTurned) {
    int changes = 0;
    const auto subscription = watch().subscribe(subject_->trash(), [&] { ++changes; });
    ASSERT_NE(subscription, nullptr);
    for (const char* name : {"a", "b", "c"}) subject_->make(inTrash(name));
    subject_->remove(inTrash("b"));
    EXPECT_EQ(changes, 0);
    subject_->runUntil([&] { return changes > 0; });
    EXPECT_EQ(changes, 1);
}

TEST_P(DirectoryWatchConformance, KnowWhoseTrashAFolderIs) {
    EXPECT_EQ(watch().userOf(subject_->trash()), subject_->user());
}

TEST_P(DirectoryWatchConformance, AreNotShortOfWatchesOnceAFolderIsWatched) {
    const auto subscription = watch().subscribe(subject_->trash(), [] {});
    ASSERT_NE(subscription, nullptr);
    EXPECT_FALSE(watch().isShortOfWatches());
}

TEST_P(DirectoryWatchConformance, TellNobodyWhoseSubscriptionHasEnded) {
    int first = 0;
    int second = 0;
    auto ended = watch().subscribe(subject_->trash(), [&] { ++first; });
    const auto kept = watch().subscribe(subject_->trash(), [&] { ++second; });
    subject_->make(inTrash("a"));
    ended.reset();
    subject_->runUntil([&] { return second > 0; });
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST_P(DirectoryWatchConformance, LetASubscriptionEndInItsOwnCallback) {
    int changes = 0;
    std::unique_ptr<DirectorySubscription> subscription;
    subscription = watch().subscribe(subject_->trash(), [&] {
        ++changes;
        subscription.reset();
    });
    subject_->make(inTrash("a"));
    subject_->runUntil([&] { return changes > 0; });
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(subscription, nullptr);
}

TEST_P(DirectoryWatchConformance, CatalogueWhatLiesInAFolder) {
    for (const char* name : {"a", "b", "c"}) subject_->make(inTrash(name));
    const auto items = watch().catalog(subject_->trash(), 100);
    ASSERT_TRUE(items);
    std::vector<std::string> names;
    for (const CatalogItem& item : *items) {
        names.push_back(item.name);
        EXPECT_NE(item.nodeId, 0u);
        EXPECT_EQ(item.parentId, items->front().parentId);
        EXPECT_NE(item.nodeId, item.parentId);
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("a", "b", "c"));
    EXPECT_THAT(*watch().catalog(subject_->trash(), 2), testing::SizeIs(2));
    EXPECT_EQ(watch().catalog(inTrash("none"), 100), std::nullopt);
    EXPECT_EQ(watch().catalog(inTrash("a"), 100), std::nullopt);
}

TEST_P(DirectoryWatchConformance, TellNobodyOfStamps) {
    const CatalogItem item = see("a");
    int changes = 0;
    const auto subscription = watch().subscribe(subject_->trash(), [&] { ++changes; });
    const std::vector<CatalogItem> items{item, {"none", 1, 1}};
    EXPECT_LE(watch().setBackupDates(subject_->trash(), items, Time(std::chrono::seconds(1000))),
              1u);
    // What comes after it is told of, so the stamp would have been.
    subject_->make(subject_->elsewhere() + "/x");
    subject_->make(inTrash("b"));
    subject_->runUntil([&] { return changes > 0; });
    EXPECT_EQ(changes, 1);
}

TEST_P(DirectoryWatchConformance, FindAnItemWhereItWasSeen) {
    const ResolvedNode node = resolve(seen(see("a")));
    EXPECT_EQ(node.state, NodeState::found);
    EXPECT_EQ(node.path, inTrash("a"));
}

TEST_P(DirectoryWatchConformance, FindAnItemThatWentElsewhere) {
    const CatalogItem item = see("a");
    subject_->move(inTrash("a"), subject_->elsewhere() + "/b");
    const ResolvedNode node = resolve(seen(item));
    EXPECT_EQ(node.state, NodeState::found);
    EXPECT_EQ(node.path, subject_->elsewhere() + "/b");
}

TEST_P(DirectoryWatchConformance, KnowAnItemThatIsGone) {
    const CatalogItem item = see("a");
    subject_->remove(inTrash("a"));
    EXPECT_EQ(resolve(seen(item)).state, NodeState::gone);
}

TEST_P(DirectoryWatchConformance, AnswerForEachItemInItsOrder) {
    const CatalogItem first = see("a");
    const CatalogItem second = see("b");
    const auto nodes = watch().resolve(std::vector{seen(second), seen(first)});
    ASSERT_THAT(nodes, testing::SizeIs(2));
    EXPECT_EQ(nodes[0].path, inTrash("b"));
    EXPECT_EQ(nodes[1].path, inTrash("a"));
    EXPECT_THAT(watch().resolve({}), testing::IsEmpty());
}

TEST_P(DirectoryWatchConformance, RecognizeWhatTheyRemember) {
    const CatalogItem item = see("a");
    subject_->move(inTrash("a"), inTrash("b"));
    const CatalogItem renamed{"b", item.nodeId, item.parentId};
    Recognized recognized = recognize(renamed);
    EXPECT_EQ(recognized.identity, Identity::same);
    EXPECT_EQ(recognized.name, "a");
    const ItemNumber number{subject_->volume(), item.nodeId};
    watch().keepOnly(std::vector{number});
    EXPECT_EQ(recognize(renamed).identity, Identity::same);
    watch().remember(subject_->volume(), subject_->trash(), std::vector{renamed});
    EXPECT_EQ(recognize(renamed).name, "b");
    watch().keepOnly({});
    recognized = recognize(renamed);
    EXPECT_EQ(recognized.identity, Identity::unknown);
    EXPECT_EQ(recognized.name, "");
    EXPECT_EQ(recognize({"none", item.nodeId, item.parentId}).identity, Identity::unknown);
}

TEST_P(DirectoryWatchConformance, TakeNoItemForTheOneThatHadItsNumber) {
    // Something else on the machine may get the number first.
    for (int attempt = 0; attempt < 2000; ++attempt) {
        const CatalogItem item = see("a");
        subject_->replace(inTrash("a"));
        const auto items = watch().catalog(subject_->trash(), 100);
        ASSERT_TRUE(items && items->size() == 1);
        if (items->front().nodeId != item.nodeId) continue;
        EXPECT_EQ(recognize(item).identity, Identity::another);
        return;
    }
    GTEST_SKIP() << "this file system does not use numbers again";
}

TEST_P(DirectoryWatchConformance, SayNothingOfAVolumeThatIsNotMounted) {
    SeenItem item = seen(see("a"));
    item.volume = subject_->missingVolume();
    EXPECT_EQ(watch().resolve(std::vector{item}).at(0).state, NodeState::unknown);
}

}  // namespace korvane
