// What every folder that is held open promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "conformance/FileSystemConformance.h"
#include "platform/Folder.h"

namespace korvane {

class FolderConformance : public FileSystemConformance {
  protected:
    // The folder at the path, opened step by step.
    std::unique_ptr<Folder> open(const std::string& path) {
        std::unique_ptr<Folder> folder = files().openRoot();
        for (std::size_t start = 1; folder && start < path.size();) {
            const std::size_t end = std::min(path.find('/', start), path.size());
            folder = folder->open(path.substr(start, end - start), Mounts::crossed);
            start = end + 1;
        }
        return folder;
    }
};

TEST_P(FolderConformance, AreOpenedByASingleNameAndNeverThroughALink) {
    makeFolder("folder/below");
    subject_->put(at("file"), "text");
    subject_->putLink(at("link"), at("folder"));
    const auto folder = open(folder_);
    ASSERT_TRUE(folder);
    EXPECT_TRUE(folder->open("folder", Mounts::refused));
    for (const char* const name : {"", ".", "..", "folder/below", "/", "file", "link", "nothing"}) {
        EXPECT_FALSE(folder->open(name, Mounts::crossed)) << name;
    }
    EXPECT_EQ(folder->path(), folder_);
}

TEST_P(FolderConformance, TellWhatIsInThem) {
    makeFolder("folder/below");
    subject_->put(at("folder/file"), "text");
    subject_->putLink(at("folder/link"), "file");
    const auto folder = open(at("folder"));
    ASSERT_TRUE(folder);
    EXPECT_THAT(folder->list(100).value(), testing::UnorderedElementsAre("below", "file", "link"));
    EXPECT_THAT(folder->list(2).value(), testing::SizeIs(2));
    EXPECT_EQ(folder->attributes()->kind, ItemKind::folder);
    EXPECT_EQ(folder->attributes()->ownerId, subject_->ownId());
    EXPECT_EQ(folder->attributesOf("file")->kind, ItemKind::file);
    EXPECT_EQ(folder->attributesOf("file")->sizeBytes, 4U);
    EXPECT_EQ(folder->attributesOf("below")->kind, ItemKind::folder);
    EXPECT_EQ(folder->attributesOf("link")->kind, ItemKind::link);
    EXPECT_FALSE(folder->attributesOf("nothing"));
    EXPECT_EQ(folder->linkTarget("link"), "file");
    EXPECT_FALSE(folder->linkTarget("file"));
    EXPECT_FALSE(folder->linkTarget("nothing"));
}

TEST_P(FolderConformance, StayTheSameWhenAnotherTakesTheirPlace) {
    makeFolder("folder");
    makeFolder("other");
    const auto folder = open(at("folder"));
    ASSERT_TRUE(folder);
    ASSERT_TRUE(files().rename(at("folder"), at("away")));
    subject_->putLink(at("folder"), at("other"));
    EXPECT_TRUE(folder->createFile("file", "text", 0600));
    EXPECT_EQ(subject_->bytes(at("away/file")), "text");
    EXPECT_FALSE(files().exists(at("other/file")));
}

TEST_P(FolderConformance, MakeWhatIsNotThereAndReplaceNothing) {
    makeFolder("folder");
    subject_->put(at("folder/file"), "text");
    subject_->putLink(at("folder/link"), at("elsewhere"));
    const auto folder = open(at("folder"));
    ASSERT_TRUE(folder);
    for (const char* const name : {"file", "link"}) {
        EXPECT_FALSE(folder->make(name)) << name;
        EXPECT_FALSE(folder->createFile(name, "new", 0666)) << name;
    }
    EXPECT_EQ(subject_->bytes(at("folder/file")), "text");
    EXPECT_FALSE(files().exists(at("elsewhere")));
    EXPECT_TRUE(folder->make("below"));
    EXPECT_FALSE(folder->make("below"));
    EXPECT_TRUE(files().isFolder(at("folder/below")));
    EXPECT_TRUE(folder->createFile("new", "contents", 0666));
    EXPECT_EQ(subject_->bytes(at("folder/new")), "contents");
    EXPECT_EQ(permissionsOf("folder/new"), 0666U);
}

TEST_P(FolderConformance, RemoveAnItemWithItsContents) {
    makeFolder("folder/below/deep");
    subject_->put(at("folder/below/file"), "");
    subject_->put(at("kept"), "");
    subject_->putLink(at("folder/link"), at("kept"));
    const auto folder = open(at("folder"));
    ASSERT_TRUE(folder);
    EXPECT_TRUE(folder->remove("below"));
    EXPECT_TRUE(folder->remove("link"));
    EXPECT_FALSE(folder->remove("nothing"));
    EXPECT_FALSE(files().exists(at("folder/below")));
    EXPECT_TRUE(files().exists(at("kept")));
}

TEST_P(FolderConformance, SetThePermissionsOfFilesAndFolders) {
    makeFolder("folder/below");
    subject_->put(at("folder/file"), "");
    subject_->put(at("kept"), "");
    ASSERT_TRUE(files().setPermissions(at("kept"), 0600));
    subject_->putLink(at("folder/link"), at("kept"));
    const auto folder = open(at("folder"));
    ASSERT_TRUE(folder);
    EXPECT_TRUE(folder->setPermissions("below", 0700));
    EXPECT_TRUE(folder->setPermissions("file", 0666));
    EXPECT_FALSE(folder->setPermissions("link", 0666));
    EXPECT_FALSE(folder->setPermissions("nothing", 0666));
    EXPECT_EQ(permissionsOf("folder/below"), 0700U);
    EXPECT_EQ(permissionsOf("folder/file"), 0666U);
    EXPECT_EQ(permissionsOf("kept"), 0600U);
}

// Only a daemon of root's has another account's rights to take on.
TEST_P(FolderConformance, WorkWithTheRightsOfAnotherAccountAndNoOthers) {
    constexpr std::uint32_t kAccount = 4711;
    makeFolder("theirs");
    makeFolder("theirs/roots");
    makeFolder("theirs/full/below");
    const auto folder = open(at("theirs"));
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->account().userId, subject_->ownId());
    if (subject_->ownId() != 0) {
        EXPECT_FALSE(folder->takeRightsOf(kAccount));
        EXPECT_FALSE(folder->make("made"));
        return;
    }
    ASSERT_TRUE(subject_->setOwner(at("theirs"), kAccount));
    ASSERT_TRUE(folder->takeRightsOf(kAccount));
    EXPECT_EQ(folder->account().userId, kAccount);
    EXPECT_TRUE(folder->make("made"));
    EXPECT_TRUE(folder->createFile("file", "text", 0600));
    EXPECT_EQ(folder->attributesOf("made")->ownerId, kAccount);
    EXPECT_EQ(folder->attributesOf("file")->ownerId, kAccount);
    // What is root's in there is not this account's to change.
    const auto roots = folder->open("roots", Mounts::refused);
    ASSERT_TRUE(roots);
    EXPECT_FALSE(roots->make("made"));
    EXPECT_FALSE(roots->createFile("file", "text", 0600));
    EXPECT_FALSE(folder->setPermissions("roots", 0777));
    EXPECT_FALSE(folder->remove("full"));
    EXPECT_TRUE(folder->remove("made"));
    EXPECT_TRUE(folder->remove("file"));
    // Each folder's rights are its own: elsewhere root goes on.
    EXPECT_TRUE(open(at("theirs/roots"))->make("made by root"));
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FolderConformance);

}  // namespace korvane
