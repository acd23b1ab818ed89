// What every view of the mounted volumes promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "conformance/Implementation.h"
#include "platform/Volumes.h"

namespace korvane {

class VolumesSubject {
  public:
    virtual ~VolumesSubject() = default;
    virtual Volumes& volumes() = 0;

    // Mounts a volume of a local block device at a path that ends so, and says where. The same name
    // is the same volume, each time. An empty path: not possible on this machine, and
    // the test is skipped.
    virtual std::string mount(const std::string& name) = 0;
    virtual void unmount(const std::string& path) = 0;
    // The file system mounted there is mounted a second time; where, or empty.
    virtual std::string mountAgain(const std::string&) { return {}; }
    // Mounts what is no volume of a local block device; where, or empty.
    virtual std::string mountPseudo() { return {}; }
    // Something is in use on the volume for as long as the result lives; null: not possible.
    virtual std::shared_ptr<void> use(const std::string&) { return nullptr; }

    // The loop runs until `isDone`, or until nothing more is to be expected of it.
    virtual void runUntil(const std::function<bool()>& isDone) = 0;
    // The loop runs long enough for every event that is under way to come.
    virtual void settle() = 0;
};

class VolumesConformance : public testing::TestWithParam<Implementation<VolumesSubject>> {
  protected:
    VolumesConformance() : subject_(GetParam().make()) {}

    void SetUp() override {
        one_ = subject_->mount("One");
        if (one_.empty()) GTEST_SKIP() << "no volumes can be mounted here";
        subject_->settle();
    }
    void TearDown() override {
        for (const std::string& path : {two_, one_}) {
            if (!path.empty() && volumes().mountAt(path)) subject_->unmount(path);
        }
    }

    Volumes& volumes() { return subject_->volumes(); }
    void mountTwo() {
        two_ = subject_->mount("Two");
        ASSERT_FALSE(two_.empty());
        subject_->settle();
    }
    bool isLocal(const std::string& path) {
        const auto& paths = volumes().mountedLocalVolumePaths();
        return std::find(paths.begin(), paths.end(), path) != paths.end();
    }
    std::string bsdNameAt(const std::string& path) {
        const MountEntry* entry = volumes().mountAt(path);
        return entry ? entry->mountFromName.substr(entry->mountFromName.rfind('/') + 1) : "";
    }
    // The volume at the path, found by walking the indexes.
    std::optional<VolumeInfo> infoAt(const std::string& path) {
        for (std::size_t index = 1;; ++index) {
            const auto info = volumes().volumeInfoByIndex(index);
            if (info.status == nsvErr) return std::nullopt;
            if (info.status == 0 && info.value.root.rootPath == path) return info.value;
        }
    }

    std::unique_ptr<VolumesSubject> subject_;
    std::string one_;
    std::string two_;
};

TEST_P(VolumesConformance, HaveTheirLineInTheMountTable) {
    const MountEntry* entry = volumes().mountAt(one_);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->mountOnName, one_);
    EXPECT_TRUE(entry->mountFromName.starts_with("/dev/")) << entry->mountFromName;
    EXPECT_FALSE(entry->fileSystemTypeName.empty());
    const auto& table = volumes().mountTable();
    EXPECT_TRUE(std::any_of(table.begin(), table.end(),
                            [&](const MountEntry& each) { return each.mountOnName == one_; }));
}

TEST_P(VolumesConformance, AreFoundByTheirExactPathAlone) {
    EXPECT_EQ(volumes().mountAt(one_ + "/"), nullptr);
    EXPECT_EQ(volumes().mountAt(one_ + "/below"), nullptr);
    EXPECT_EQ(volumes().mountAt("One"), nullptr);
    EXPECT_EQ(volumes().mountAt(""), nullptr);
}

TEST_P(VolumesConformance, AreListedInTheOrderOfMounting) {
    mountTwo();
    const auto& paths = volumes().mountedLocalVolumePaths();
    const auto one = std::find(paths.begin(), paths.end(), one_);
    const auto two = std::find(paths.begin(), paths.end(), two_);
    ASSERT_NE(one, paths.end());
    ASSERT_NE(two, paths.end());
    EXPECT_LT(one, two);
}

TEST_P(VolumesConformance, HaveIndexesFromOneToTheLast) {
    EXPECT_EQ(volumes().volumeInfoByIndex(0).status, nsvErr);
    std::size_t count = 0;
    while (volumes().volumeInfoByIndex(count + 1).status != nsvErr) ++count;
    EXPECT_GE(count, volumes().mountedLocalVolumePaths().size());
    EXPECT_EQ(volumes().volumeInfoByIndex(count + 2).status, nsvErr);
    for (const std::string& path : volumes().mountedLocalVolumePaths()) {
        EXPECT_TRUE(infoAt(path)) << path;
    }
}

TEST_P(VolumesConformance, AreTheSameBelongingToAnIndexANumberARootOrADevice) {
    const auto info = infoAt(one_);
    ASSERT_TRUE(info);
    EXPECT_NE(info->referenceNumber, 0);
    EXPECT_EQ(info->serverAddress, 0U);
    EXPECT_EQ(info->bsdName, bsdNameAt(one_));
    const auto byNumber = volumes().volumeInfoByReferenceNumber(info->referenceNumber);
    const auto byRoot = volumes().volumeInfoOfRoot(info->root);
    const auto byDevice = volumes().volumeInfoByDevice(info->bsdName);
    for (const auto& found : {byNumber, byRoot, byDevice}) {
        EXPECT_EQ(found.status, 0);
        EXPECT_EQ(found.value.referenceNumber, info->referenceNumber);
        EXPECT_EQ(found.value.root, info->root);
    }
}

TEST_P(VolumesConformance, DifferInNumbersAndDevices) {
    mountTwo();
    const auto one = infoAt(one_);
    const auto two = infoAt(two_);
    ASSERT_TRUE(one && two);
    EXPECT_NE(one->referenceNumber, two->referenceNumber);
    EXPECT_NE(one->bsdName, two->bsdName);
    const auto oneAttributes = volumes().fileSystemAttributes(one_);
    const auto twoAttributes = volumes().fileSystemAttributes(two_);
    ASSERT_TRUE(oneAttributes && twoAttributes);
    EXPECT_NE(oneAttributes->number, twoAttributes->number);
}

TEST_P(VolumesConformance, ThatAreNotThereAreNoSuchVolume) {
    EXPECT_EQ(volumes().volumeInfoByReferenceNumber(0).status, nsvErr);
    EXPECT_EQ(volumes().volumeInfoOfRoot({"/nowhere"}).status, nsvErr);
    EXPECT_EQ(volumes().volumeInfoByDevice("nodevice9").status, nsvErr);
    EXPECT_EQ(volumes().volumeInfoByDevice("").status, nsvErr);
    EXPECT_FALSE(volumes().fileSystemFlags("/nowhere"));
    EXPECT_FALSE(volumes().fileSystemAttributes("/nowhere"));
    EXPECT_FALSE(volumes().fileSystemFlags(one_ + "/"));
}

TEST_P(VolumesConformance, KeepTheirNumberFromMountToMount) {
    const auto before = infoAt(one_);
    ASSERT_TRUE(before);
    subject_->unmount(one_);
    subject_->settle();
    mountTwo();
    one_ = subject_->mount("One");
    subject_->settle();
    const auto after = infoAt(one_);
    ASSERT_TRUE(after);
    EXPECT_EQ(after->referenceNumber, before->referenceNumber);
}

TEST_P(VolumesConformance, HaveANameOfTheirOwnForAsLongAsTheyAreMounted) {
    two_ = subject_->mount("Other/One");
    ASSERT_FALSE(two_.empty());
    subject_->settle();
    EXPECT_EQ(volumes().displayName(one_), "One");
    EXPECT_EQ(volumes().displayName(two_), "One 1");
    EXPECT_EQ(infoAt(one_)->name, "One");
    EXPECT_EQ(infoAt(two_)->name, "One 1");
    subject_->unmount(one_);
    subject_->settle();
    EXPECT_EQ(volumes().displayName(two_), "One 1");
}

TEST_P(VolumesConformance, AreKnownByTheLastComponentWhereNothingIsMounted) {
    EXPECT_EQ(volumes().displayName("/nowhere/My Disk"), "My Disk");
    EXPECT_EQ(volumes().displayName("/nowhere/My Disk/"), "My Disk");
    EXPECT_EQ(volumes().displayName("name"), "name");
    EXPECT_EQ(volumes().displayName(""), "");
    EXPECT_EQ(volumes().displayName("/"), "System");
    EXPECT_EQ(volumes().displayName("//"), "System");
}

TEST_P(VolumesConformance, TellTheirSizesAndFlags) {
    const auto attributes = volumes().fileSystemAttributes(one_);
    ASSERT_TRUE(attributes);
    EXPECT_GT(attributes->sizeBytes, 0U);
    EXPECT_LE(attributes->freeBytes, attributes->sizeBytes);
    const auto flags = volumes().fileSystemFlags(one_);
    ASSERT_TRUE(flags);
    EXPECT_TRUE(flags->isWritable);
}

TEST_P(VolumesConformance, CountOnceHoweverOftenTheyAreMounted) {
    const std::string again = subject_->mountAgain(one_);
    if (again.empty()) GTEST_SKIP() << "no second mount can be made here";
    subject_->settle();
    EXPECT_NE(volumes().mountAt(again), nullptr);
    EXPECT_TRUE(isLocal(one_));
    EXPECT_FALSE(isLocal(again));
    EXPECT_TRUE(infoAt(one_));
    EXPECT_FALSE(infoAt(again));
    subject_->unmount(again);
}

TEST_P(VolumesConformance, AreNotWhatIsMountedFromNoDevice) {
    const std::string pseudo = subject_->mountPseudo();
    if (pseudo.empty()) GTEST_SKIP() << "no pseudo file system can be mounted here";
    subject_->settle();
    EXPECT_NE(volumes().mountAt(pseudo), nullptr);
    EXPECT_FALSE(isLocal(pseudo));
    subject_->unmount(pseudo);
}

TEST_P(VolumesConformance, AreToldOfWhenTheTableAlreadyShowsThem) {
    int mounts = 0;
    bool isShown = false;
    volumes().setDidMount([&] {
        ++mounts;
        isShown = isLocal(two_);
    });
    two_ = subject_->mount("Two");
    subject_->runUntil([&] { return mounts > 0; });
    EXPECT_EQ(mounts, 1);
    EXPECT_TRUE(isShown);
    volumes().setDidMount(nullptr);
}

TEST_P(VolumesConformance, ThatAreGoneAreToldOfWhenTheTableNoLongerShowsThem) {
    mountTwo();
    int unmounts = 0;
    bool isShown = true;
    volumes().setDidUnmount([&] {
        ++unmounts;
        isShown = isLocal(two_);
    });
    subject_->unmount(two_);
    subject_->runUntil([&] { return unmounts > 0; });
    EXPECT_EQ(unmounts, 1);
    EXPECT_FALSE(isShown);
    volumes().setDidUnmount(nullptr);
}

TEST_P(VolumesConformance, AreNoEventWhenTheyAreNotLocalOrMountedAgain) {
    int events = 0;
    volumes().setDidMount([&] { ++events; });
    volumes().setDidUnmount([&] { ++events; });
    for (const std::string& path : {subject_->mountPseudo(), subject_->mountAgain(one_)}) {
        subject_->settle();
        if (!path.empty()) subject_->unmount(path);
        subject_->settle();
    }
    EXPECT_EQ(events, 0);
    volumes().setDidMount(nullptr);
    volumes().setDidUnmount(nullptr);
}

TEST_P(VolumesConformance, AreUnmountedByTheirNumber) {
    mountTwo();
    int unmounts = 0;
    volumes().setDidUnmount([&] { ++unmounts; });
    const auto info = infoAt(two_);
    ASSERT_TRUE(info);
    EXPECT_TRUE(volumes().unmount(info->referenceNumber));
    EXPECT_EQ(volumes().mountAt(two_), nullptr);
    EXPECT_FALSE(isLocal(two_));
    EXPECT_EQ(volumes().volumeInfoByReferenceNumber(info->referenceNumber).status, nsvErr);
    EXPECT_FALSE(volumes().fileSystemAttributes(two_));
    subject_->runUntil([&] { return unmounts > 0; });
    EXPECT_EQ(unmounts, 1);
    volumes().setDidUnmount(nullptr);
}

TEST_P(VolumesConformance, StayWhenTheyAreBusyOrUnknown) {
    EXPECT_FALSE(volumes().unmount(0));
    EXPECT_FALSE(volumes().unmount(32000));
    const auto info = infoAt(one_);
    ASSERT_TRUE(info);
    const std::shared_ptr<void> use = subject_->use(one_);
    if (!use) GTEST_SKIP() << "no volume can be kept busy here";
    EXPECT_FALSE(volumes().unmount(info->referenceNumber));
    EXPECT_NE(volumes().mountAt(one_), nullptr);
}

TEST_P(VolumesConformance, LeaveWhatWasHandedOutValidUntilTheLoopTurns) {
    mountTwo();
    const auto& table = volumes().mountTable();
    const auto& paths = volumes().mountedLocalVolumePaths();
    const MountEntry* entry = volumes().mountAt(two_);
    const std::size_t tableSize = table.size();
    const std::size_t pathCount = paths.size();
    const auto info = infoAt(two_);
    ASSERT_TRUE(info);
    ASSERT_TRUE(volumes().unmount(info->referenceNumber));
    EXPECT_EQ(volumes().mountAt(two_), nullptr);
    EXPECT_EQ(table.size(), tableSize);
    EXPECT_EQ(paths.size(), pathCount);
    EXPECT_EQ(entry->mountOnName, two_);
}

}  // namespace korvane
