// What every file system promises.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>

#include "conformance/Implementation.h"
#include "platform/Clock.h"
#include "platform/FileSystem.h"

namespace korvane {

class FileSystemSubject {
  public:
    virtual ~FileSystemSubject() = default;
    virtual FileSystem& files() = 0;
    // An empty folder in which the daemon may write.
    virtual std::string folder() = 0;
    virtual Time now() = 0;
    // The number of the account the daemon runs as.
    virtual std::uint32_t ownId() = 0;

    // What other programs do; the folder exists.
    virtual void put(const std::string& path, const std::string& bytes) = 0;
    virtual void putLink(const std::string& path, const std::string& target) = 0;
    virtual std::optional<std::string> bytes(const std::string& path) = 0;
    // As root alone may.
    virtual bool setOwner(const std::string& path, std::uint32_t ownerId) = 0;
};

class FileSystemConformance : public testing::TestWithParam<Implementation<FileSystemSubject>> {
  protected:
    FileSystemConformance() : subject_(GetParam().make()), folder_(subject_->folder()) {}

    FileSystem& files() { return subject_->files(); }
    [[nodiscard]] std::string at(const std::string& name) const { return folder_ + "/" + name; }
    void makeFolder(const std::string& name) {
        ASSERT_TRUE(files().createFolders(at(name), files().userName()));
    }
    Result<std::monostate> write(const std::string& name, const PropertyList& value,
                                 mode_t permissions = 0666) {
        return files().writePropertyList(at(name), value, permissions, Durability::process);
    }
    std::optional<mode_t> permissionsOf(const std::string& name) {
        const auto attributes = files().attributes(at(name));
        return attributes ? std::optional(attributes->permissions) : std::nullopt;
    }

    std::unique_ptr<FileSystemSubject> subject_;
    std::string folder_;
};

TEST_P(FileSystemConformance, KnowsWhatIsThereAndFollowsLinksToIt) {
    makeFolder("folder");
    subject_->put(at("file"), "text");
    subject_->putLink(at("toFolder"), at("folder"));
    subject_->putLink(at("toFile"), "file");
    subject_->putLink(at("toNowhere"), at("nothing"));
    EXPECT_TRUE(files().exists(at("folder")));
    EXPECT_TRUE(files().exists(at("file")));
    EXPECT_TRUE(files().exists(at("toFolder")));
    EXPECT_TRUE(files().exists(at("toFile")));
    EXPECT_FALSE(files().exists(at("toNowhere")));
    EXPECT_FALSE(files().exists(at("nothing")));
    EXPECT_FALSE(files().exists(at("file/below")));
    EXPECT_TRUE(files().isFolder(at("folder")));
    EXPECT_TRUE(files().isFolder(at("toFolder")));
    EXPECT_TRUE(files().isFolder("/"));
    EXPECT_FALSE(files().isFolder(at("file")));
    EXPECT_FALSE(files().isFolder(at("toFile")));
    EXPECT_FALSE(files().isFolder(at("nothing")));
}

TEST_P(FileSystemConformance, ListsTheNamesInAFolder) {
    makeFolder("folder/below");
    subject_->put(at("folder/.hidden"), "");
    subject_->put(at("folder/file"), "");
    subject_->putLink(at("folder/link"), "nowhere");
    const auto names = files().list(at("folder"));
    ASSERT_TRUE(names);
    EXPECT_THAT(*names, testing::UnorderedElementsAre("below", ".hidden", "file", "link"));
}

TEST_P(FileSystemConformance, ListsNothingWhereThereIsNoFolder) {
    subject_->put(at("file"), "");
    EXPECT_FALSE(files().list(at("file")));
    EXPECT_FALSE(files().list(at("nothing")));
    makeFolder("empty");
    EXPECT_THAT(files().list(at("empty")), testing::Optional(testing::IsEmpty()));
}

TEST_P(FileSystemConformance, EnumeratesAllBelowAFolderBeforeItsContents) {
    makeFolder("top/a/b");
    makeFolder("aside");
    subject_->put(at("top/a/b/deep"), "");
    subject_->put(at("top/file"), "");
    subject_->put(at("aside/unseen"), "");
    subject_->putLink(at("top/link"), at("aside"));
    const auto paths = files().enumerate(at("top"));
    EXPECT_THAT(paths, testing::UnorderedElementsAre("a", "a/b", "a/b/deep", "file", "link"));
    const auto position = [&](const char* path) {
        return std::find(paths.begin(), paths.end(), path) - paths.begin();
    };
    EXPECT_LT(position("a"), position("a/b"));
    EXPECT_LT(position("a/b"), position("a/b/deep"));
}

TEST_P(FileSystemConformance, BeginsAWalkWhereALinkLeads) {
    makeFolder("top/below");
    subject_->put(at("top/below/file"), "");
    subject_->putLink(at("link"), "top");
    EXPECT_THAT(files().list(at("link")), testing::Optional(testing::ElementsAre("below")));
    EXPECT_THAT(files().enumerate(at("link")), testing::ElementsAre("below", "below/file"));
    subject_->putLink(at("nowhere"), "nothing");
    EXPECT_FALSE(files().list(at("nowhere")));
    EXPECT_FALSE(files().list("relative"));
    EXPECT_FALSE(files().list(""));
    EXPECT_TRUE(files().enumerate("").empty());
}

TEST_P(FileSystemConformance, EnumeratesNothingWhereThereIsNoFolder) {
    subject_->put(at("file"), "");
    EXPECT_TRUE(files().enumerate(at("nothing")).empty());
    EXPECT_TRUE(files().enumerate(at("file")).empty());
}

TEST_P(FileSystemConformance, TellsTheAttributesOfAnItemAndOfALinkItself) {
    makeFolder("folder");
    subject_->put(at("file"), "12345");
    subject_->putLink(at("link"), "file");
    const auto file = files().attributes(at("file"));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->kind, ItemKind::file);
    EXPECT_EQ(file->sizeBytes, 5U);
    EXPECT_EQ(file->ownerId, subject_->ownId());
    // File systems keep dates by a clock that may be some milliseconds late, or to two seconds.
    EXPECT_LE(file->modificationDate, subject_->now());
    EXPECT_GE(file->modificationDate, subject_->now() - std::chrono::seconds{10});
    const auto folder = files().attributes(at("folder"));
    ASSERT_TRUE(folder);
    EXPECT_EQ(folder->kind, ItemKind::folder);
    const auto link = files().attributes(at("link"));
    ASSERT_TRUE(link);
    EXPECT_EQ(link->kind, ItemKind::link);
    EXPECT_FALSE(files().attributes(at("nothing")));
}

TEST_P(FileSystemConformance, CreatesAFolderAndThoseAboveIt) {
    EXPECT_TRUE(files().createFolders(at("a/b/c"), files().userName()));
    EXPECT_TRUE(files().isFolder(at("a/b/c")));
    const auto made = files().attributes(at("a/b"));
    ASSERT_TRUE(made);
    EXPECT_EQ(made->ownerId, subject_->ownId());
    EXPECT_TRUE(files().createFolders(at("a/b/c"), files().userName()));
}

TEST_P(FileSystemConformance, CreatesNoFolderWhereSomethingElseIs) {
    subject_->put(at("file"), "text");
    subject_->putLink(at("toNowhere"), at("nothing"));
    EXPECT_FALSE(files().createFolders(at("file"), files().userName()));
    EXPECT_FALSE(files().createFolders(at("file/below"), files().userName()));
    EXPECT_FALSE(files().createFolders(at("toNowhere"), files().userName()));
    EXPECT_FALSE(files().exists(at("nothing")));
    EXPECT_EQ(subject_->bytes(at("file")), "text");
}

TEST_P(FileSystemConformance, CreatesAnEmptyFileWithThePermissionsNamed) {
    EXPECT_TRUE(files().createEmptyFile(at("file"), 0666));
    EXPECT_EQ(subject_->bytes(at("file")), "");
    EXPECT_EQ(permissionsOf("file"), 0666U);
}

TEST_P(FileSystemConformance, EmptiesAFileThatIsThere) {
    subject_->put(at("file"), "text");
    EXPECT_TRUE(files().createEmptyFile(at("file"), 0640));
    EXPECT_EQ(subject_->bytes(at("file")), "");
    EXPECT_EQ(permissionsOf("file"), 0640U);
}

TEST_P(FileSystemConformance, CreatesNoFileThroughALinkInAFoldersPlaceOrWithoutAFolder) {
    makeFolder("folder");
    subject_->put(at("target"), "text");
    subject_->putLink(at("link"), at("target"));
    subject_->putLink(at("toNowhere"), at("nothing"));
    EXPECT_FALSE(files().createEmptyFile(at("folder"), 0666));
    EXPECT_FALSE(files().createEmptyFile(at("link"), 0666));
    EXPECT_FALSE(files().createEmptyFile(at("toNowhere"), 0666));
    EXPECT_FALSE(files().createEmptyFile(at("missing/file"), 0666));
    EXPECT_EQ(subject_->bytes(at("target")), "text");
    EXPECT_FALSE(files().exists(at("nothing")));
    EXPECT_FALSE(files().exists(at("missing")));
}

TEST_P(FileSystemConformance, RemovesAFolderWithItsContentsAndNothingThatALinkLeadsTo) {
    makeFolder("folder/deep/deeper");
    makeFolder("kept");
    subject_->put(at("folder/deep/deeper/file"), "");
    subject_->put(at("kept/file"), "text");
    subject_->putLink(at("folder/link"), at("kept"));
    EXPECT_TRUE(files().remove(at("folder")));
    EXPECT_FALSE(files().exists(at("folder")));
    EXPECT_EQ(subject_->bytes(at("kept/file")), "text");
}

TEST_P(FileSystemConformance, RemovesALinkAndNotWhatItLeadsTo) {
    makeFolder("kept");
    subject_->put(at("kept/file"), "text");
    subject_->putLink(at("link"), at("kept"));
    EXPECT_TRUE(files().remove(at("link")));
    EXPECT_FALSE(files().attributes(at("link")));
    EXPECT_EQ(subject_->bytes(at("kept/file")), "text");
}

TEST_P(FileSystemConformance, SaysWhyWhatIsNotThereCannotBeRemoved) {
    const auto removed = files().remove(at("nothing"));
    ASSERT_FALSE(removed);
    EXPECT_FALSE(removed.error().message.empty());
    EXPECT_FALSE(removed.error().message.ends_with('.'));
}

TEST_P(FileSystemConformance, SetsPermissions) {
    subject_->put(at("file"), "text");
    EXPECT_TRUE(files().setPermissions(at("file"), 0600));
    EXPECT_EQ(permissionsOf("file"), 0600U);
    EXPECT_FALSE(files().setPermissions(at("nothing"), 0600));
}

TEST_P(FileSystemConformance, ReadsThePropertyListThatItWrote) {
    const PropertyList value(Dictionary{
        {"bool", true},
        {"text", "a <b> & \"c\"\n\xC3\xBC"},
        {"integer", std::int64_t{-5}},
        {"large", std::uint64_t{18446744073709551615U}},
        {"real", 0.1},
        {"date", PropertyListDate{std::chrono::seconds{1700000000}}},
        {"data", PropertyListData{std::byte{0}, std::byte{255}}},
        {"array", PropertyListArray{PropertyList(Dictionary{}), PropertyList("")}},
    });
    ASSERT_TRUE(write("list.plist", value));
    const auto read = files().readPropertyList(at("list.plist"));
    ASSERT_TRUE(read) << read.error().message;
    EXPECT_TRUE(*read == value);
    EXPECT_EQ(permissionsOf("list.plist"), 0666U);
    EXPECT_THAT(files().list(folder_), testing::Optional(testing::ElementsAre("list.plist")));
}

TEST_P(FileSystemConformance, RewritesAPropertyListLongerAndShorter) {
    for (const std::size_t length : {10U, 100000U, 10U}) {
        ASSERT_TRUE(write("list.plist", std::string(length, 'x')));
        const auto read = files().readPropertyList(at("list.plist"));
        ASSERT_TRUE(read) << read.error().message;
        EXPECT_TRUE(*read == PropertyList(std::string(length, 'x')));
    }
    EXPECT_THAT(files().list(folder_),
                testing::Optional(testing::UnorderedElementsAre("list.plist", ".list.plist.kept")));
}

TEST_P(FileSystemConformance, ReadsWhatAnotherProgramWrote) {
    ASSERT_TRUE(write("list.plist", "ours"));
    ASSERT_TRUE(files().readPropertyList(at("list.plist")));
    subject_->put(at("list.plist"),
                  "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                  "<plist version=\"1.0\"><integer>7</integer></plist>\n");
    const auto read = files().readPropertyList(at("list.plist"));
    ASSERT_TRUE(read) << read.error().message;
    EXPECT_TRUE(*read == PropertyList(7));
}

TEST_P(FileSystemConformance, LeavesAFileThatDoesNotParseAsItIs) {
    const std::string junk("<plist><dict>\0\xFF", 15);
    subject_->put(at("list.plist"), junk);
    const auto read = files().readPropertyList(at("list.plist"));
    ASSERT_FALSE(read);
    EXPECT_FALSE(read.error().message.empty());
    EXPECT_EQ(subject_->bytes(at("list.plist")), junk);
}

TEST_P(FileSystemConformance, RestoresATornFileFromItsWholeSibling) {
    const std::string whole =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<plist version=\"1.0\"><string>whole</string></plist>\n";
    subject_->put(at("list.plist"), std::string("\0?xml", 5));
    subject_->put(savingSiblingOf(at("list.plist")), whole);
    for (int reading = 0; reading < 2; ++reading) {
        const auto read = files().readPropertyList(at("list.plist"));
        ASSERT_TRUE(read) << read.error().message;
        EXPECT_TRUE(*read == PropertyList("whole"));
    }
    EXPECT_THAT(files().list(folder_), testing::Optional(testing::ElementsAre("list.plist")));
}

// The copy is younger than an hour, so only what must be on the disk renews it.
TEST_P(FileSystemConformance, KeepsACopyOfAPropertyListThatItRewrites) {
    const auto copy = [this] { return subject_->bytes(keptCopyOf(at("list.plist"))); };
    ASSERT_TRUE(write("list.plist", "first"));
    ASSERT_TRUE(write("list.plist", "second"));
    ASSERT_TRUE(copy());
    EXPECT_THAT(*copy(), testing::HasSubstr("second"));
    ASSERT_TRUE(write("list.plist", "third"));
    EXPECT_THAT(*copy(), testing::HasSubstr("second"));
    ASSERT_TRUE(files().writePropertyList(at("list.plist"), "fourth", 0666, Durability::powerLoss));
    EXPECT_THAT(*copy(), testing::HasSubstr("fourth"));
    const auto attributes = files().attributes(keptCopyOf(at("list.plist")));
    ASSERT_TRUE(attributes);
    EXPECT_EQ(attributes->permissions, 0600U);
}

TEST_P(FileSystemConformance, LeavesAFileThatIsNotTornByAKillToItsWriter) {
    ASSERT_TRUE(write("list.plist", "first"));
    ASSERT_TRUE(write("list.plist", "second"));
    for (const std::string& theirs :
         {std::string("what a person got wrong"), std::string(), std::string(4096, '\0')}) {
        subject_->put(at("list.plist"), theirs);
        EXPECT_FALSE(files().readPropertyList(at("list.plist")));
        EXPECT_EQ(subject_->bytes(at("list.plist")), theirs);
    }
}

TEST_P(FileSystemConformance, RestoresAFileThatAKillLeftTornFromTheCopyItKeeps) {
    ASSERT_TRUE(write("list.plist", "first"));
    ASSERT_TRUE(write("list.plist", "second"));
    subject_->put(at("list.plist"), std::string("\0?xml", 5));
    const auto read = files().readPropertyList(at("list.plist"));
    ASSERT_TRUE(read) << read.error().message;
    EXPECT_TRUE(*read == PropertyList("second"));
}

TEST_P(FileSystemConformance, KeepsATornFileWhoseSiblingIsTornToo) {
    const std::string torn("\0?xml", 5);
    subject_->put(at("list.plist"), torn);
    subject_->put(savingSiblingOf(at("list.plist")), "<?xml version=\"1.0\"");
    EXPECT_FALSE(files().readPropertyList(at("list.plist")));
    EXPECT_EQ(subject_->bytes(at("list.plist")), torn);
}

TEST_P(FileSystemConformance, NeitherReadsNorWritesAPropertyListThroughALink) {
    ASSERT_TRUE(write("target.plist", "kept"));
    subject_->putLink(at("link.plist"), at("target.plist"));
    EXPECT_FALSE(files().readPropertyList(at("link.plist")));
    EXPECT_FALSE(write("link.plist", "changed"));
    const auto read = files().readPropertyList(at("target.plist"));
    ASSERT_TRUE(read);
    EXPECT_TRUE(*read == PropertyList("kept"));
}

TEST_P(FileSystemConformance, HasNoPropertyListWhereThereIsNoFile) {
    makeFolder("folder");
    EXPECT_FALSE(files().readPropertyList(at("nothing")));
    EXPECT_FALSE(files().readPropertyList(at("folder")));
    EXPECT_FALSE(write("folder", "text"));
    EXPECT_FALSE(write("missing/list.plist", "text"));
    EXPECT_FALSE(files().exists(at("missing")));
}

// In a folder that everybody may write, a file of this user's that others may write is one that
// somebody else gave a name there.
TEST_P(FileSystemConformance, TakesNoFileThatOthersMayWriteForItsOwn) {
    ASSERT_TRUE(files().writeFile(at("jobs"), "jobs", 0640));
    for (const mode_t permissions : {0660U, 0606U, 0666U}) {
        ASSERT_TRUE(files().setPermissions(at("jobs"), permissions));
        EXPECT_FALSE(files().readFile(at("jobs"), Writers::owner)) << permissions;
        EXPECT_FALSE(files().writeFile(at("jobs"), "other jobs", 0640)) << permissions;
        const auto shared = files().readFile(at("jobs"), Writers::anybody);
        ASSERT_TRUE(shared) << permissions;
        EXPECT_EQ(*shared, "jobs");
    }
    ASSERT_TRUE(files().setPermissions(at("jobs"), 0640));
    EXPECT_TRUE(files().writeFile(at("jobs"), "other jobs", 0640));
    const auto own = files().readFile(at("jobs"), Writers::owner);
    ASSERT_TRUE(own);
    EXPECT_EQ(*own, "other jobs");
}

TEST_P(FileSystemConformance, KnowsWhoItRunsAs) {
    EXPECT_FALSE(files().userName().empty());
    ASSERT_TRUE(files().createFolders(at("mine"), files().userName()));
    EXPECT_EQ(files().attributes(at("mine"))->ownerId, files().userId());
}

}  // namespace korvane
