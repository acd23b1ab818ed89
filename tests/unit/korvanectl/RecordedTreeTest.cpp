// Items brought back from a file that stands for a device, by records that anybody may have
// written.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/sha.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "KorvaneProDataRecovery/ContentChecksum.h"
#include "korvanectl/RecordedTree.h"
#include "platform/linux/UniqueFd.h"
#include "unit/platform/TemporaryFolder.h"

namespace korvane::ctl {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;
namespace fs = std::filesystem;

constexpr std::size_t kBlock = 4096;

// The device's blocks: block n is filled with the letter 'a' + n.
std::string block(char letter) { return std::string(kBlock, letter); }

class RecordedTree : public testing::Test {
  protected:
    RecordedTree() {
        std::string bytes;
        for (char letter = 'a'; letter <= 'h'; ++letter) bytes += block(letter);
        folder.write("device", bytes);
        device = UniqueFd{::open((folder / "device").c_str(), O_RDONLY | O_CLOEXEC)};
    }
    static RecordedItem file(std::uint64_t node, std::uint64_t parent, const std::string& name,
                             std::vector<char> letters, std::uint64_t size) {
        RecordedItem item{.node = node,
                          .parent = parent,
                          .trashNode = 1,
                          .mode = S_IFREG | 0644,
                          .size = size,
                          .modified = 1'700'000'000,
                          .name = name};
        for (std::size_t i = 0; i < letters.size(); ++i) {
            item.extents.push_back(
                {i * kBlock, static_cast<std::uint64_t>(letters[i] - 'a') * kBlock, kBlock, 0});
        }
        return item;
    }
    static RecordedItem box(std::uint64_t node, std::uint64_t parent, const std::string& name) {
        return {
            .node = node, .parent = parent, .trashNode = 1, .mode = S_IFDIR | 0755, .name = name};
    }
    static RecordedItem withChecksum(RecordedItem item, const std::string& contents) {
        ::SHA256(reinterpret_cast<const unsigned char*>(contents.data()), contents.size(),
                 item.checksum.data());
        item.flags |= kRecordHasChecksum;
        return item;
    }
    Outcome<std::vector<RecoveredFile>> recover(const std::vector<RecordedItem>& items) {
        return recoverTree(items, device.get(), folder / "out", [](std::uint64_t) {});
    }
    [[nodiscard]] std::string read(const std::string& path) const {
        std::ifstream in{folder / path, std::ios::binary};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
    TemporaryFolder folder;
    UniqueFd device;
};

TEST_F(RecordedTree, BringsAFileBackFromItsPieces) {
    const std::string contents = block('c') + block('a') + std::string(10, 'h');
    const auto files =
        recover({withChecksum(file(1, 9, "x", {'c', 'a', 'h'}, contents.size()), contents)});
    ASSERT_TRUE(files);
    ASSERT_THAT(*files, SizeIs(1));
    EXPECT_EQ((*files)[0].proof, ContentProof::checksumMatches);
    EXPECT_EQ(read("out"), contents);
    struct stat status {};
    ASSERT_EQ(::stat((folder / "out").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(status.st_mtim.tv_sec, 1'700'000'000);
}

TEST_F(RecordedTree, SaysWhatWasVerified) {
    const auto bySize = recover({file(1, 9, "x", {'c'}, 100)});
    ASSERT_TRUE(bySize);
    EXPECT_EQ((*bySize)[0].proof, ContentProof::sizeAlone);
    fs::remove(folder / "out");
    const auto used = recover({withChecksum(file(1, 9, "x", {'c'}, kBlock), block('d'))});
    ASSERT_TRUE(used);
    EXPECT_EQ((*used)[0].proof, ContentProof::checksumDiffers);
}

TEST_F(RecordedTree, ReadsHolesAndWhatWasNeverWrittenAsZeros) {
    RecordedItem item = file(1, 9, "x", {'c'}, 4 * kBlock);
    item.extents[0].logical = kBlock;
    item.extents.push_back({2 * kBlock, 0, kBlock, kExtentUnwritten});
    const std::string contents =
        std::string(kBlock, '\0') + block('c') + std::string(2 * kBlock, '\0');
    const auto files = recover({withChecksum(item, contents)});
    ASSERT_TRUE(files);
    EXPECT_EQ((*files)[0].proof, ContentProof::checksumMatches);
    EXPECT_EQ(read("out"), contents);
}

TEST_F(RecordedTree, BringsAFolderBackWithWhatItHeld) {
    RecordedItem link = box(5, 1, "link");
    link.mode = S_IFLNK | 0777;
    link.linkTarget = "elsewhere";
    RecordedItem packed = file(6, 1, "packed", {'a'}, 10);
    packed.extents[0].flags = kExtentEncoded;
    const auto files = recover({box(1, 9, "x"), file(2, 1, "letter", {'b'}, 5), box(3, 1, "inner"),
                                file(4, 3, "letter", {'d'}, 6), link, packed});
    ASSERT_TRUE(files);
    ASSERT_THAT(*files, SizeIs(3));
    EXPECT_EQ((*files)[1].path, "inner/letter");
    EXPECT_EQ((*files)[1].bytes, 6U);
    EXPECT_FALSE((*files)[2].proof);
    EXPECT_THAT((*files)[2].reason, HasSubstr("compressed"));
    EXPECT_EQ(read("out/letter"), "bbbbb");
    EXPECT_EQ(read("out/inner/letter"), "dddddd");
    EXPECT_EQ(fs::read_symlink(folder / "out/link"), "elsewhere");
    EXPECT_FALSE(fs::exists(folder / "out/packed"));
}

TEST_F(RecordedTree, MakesNothingOutsideTheTarget) {
    fs::create_directory(folder / "secret");
    RecordedItem link = box(5, 1, "link");
    link.mode = S_IFLNK | 0777;
    link.linkTarget = folder / "secret";
    const auto files = recover({box(1, 9, "x"), file(2, 1, "../escaped", {'b'}, 5),
                                file(3, 1, "..", {'b'}, 5), file(4, 1, "/etc/escaped", {'b'}, 5),
                                link, box(6, 1, "link"), file(7, 5, "through-the-link", {'b'}, 5),
                                file(8, 6, "through-the-link", {'b'}, 5), box(1, 1, "itself"),
                                box(10, 11, "in its own child"), box(11, 10, "and the other way"),
                                file(12, 77, "of nobody", {'b'}, 5), file(13, 1, "", {'b'}, 5)});
    ASSERT_TRUE(files);
    EXPECT_TRUE(fs::is_empty(folder / "secret"));
    EXPECT_FALSE(fs::exists(folder / "escaped"));
    std::vector<std::string> made;
    for (const auto& entry : fs::recursive_directory_iterator{folder / "out"}) {
        made.push_back(entry.path().filename());
    }
    EXPECT_THAT(made, testing::ElementsAre("link"));
}

TEST_F(RecordedTree, RefusesRecordsThatMakeNoSense) {
    const struct {
        const char* what;
        FileExtent extent;
    } rows[] = {
        {"no length", {0, 0, 0, 0}},
        {"past the end of numbers", {UINT64_MAX - 10, 0, 100, 0}},
        {"past the end of offsets", {0, INT64_MAX, 4096, 0}},
        {"two for one place", {100, 0, 4096, 0}},
    };
    for (const auto& row : rows) {
        RecordedItem item = file(1, 9, "x", {'a'}, 10);
        item.extents.push_back(row.extent);
        const auto files = recover({item});
        ASSERT_FALSE(files) << row.what;
        EXPECT_THAT(files.failure().message, HasSubstr("makes no sense"));
        EXPECT_FALSE(fs::exists(folder / "out")) << row.what;
    }
}

TEST_F(RecordedTree, KeepsWhatCanBeReadOfAFileWhoseDeviceEndsEarly) {
    RecordedItem pastTheDevice = file(1, 9, "x", {'a', 'z', 'b'}, 2 * kBlock + 10);
    for (const char* const name : {"out.incomplete", "out.incomplete.2"}) {
        const auto alone = recover({pastTheDevice});
        ASSERT_TRUE(alone);
        EXPECT_EQ((*alone)[0].proof, ContentProof::incomplete);
        EXPECT_EQ((*alone)[0].name, name);
        EXPECT_THAT((*alone)[0].missing, ElementsAre(ByteRange{kBlock, kBlock}));
        EXPECT_THAT((*alone)[0].reason, HasSubstr("bytes 4096 to 8191"));
        EXPECT_EQ(read(name), block('a') + std::string(kBlock, '\0') + std::string(10, 'b'));
        EXPECT_FALSE(fs::exists(folder / "out"));
    }
    pastTheDevice.parent = 2;
    const auto within = recover({box(2, 9, "x"), pastTheDevice});
    ASSERT_TRUE(within);
    ASSERT_THAT(*within, SizeIs(1));
    EXPECT_EQ((*within)[0].proof, ContentProof::incomplete);
    EXPECT_TRUE(fs::exists(folder / "out/x.incomplete"));
    EXPECT_FALSE(fs::exists(folder / "out/x"));
}

TEST_F(RecordedTree, LeavesNothingOfAFileOfWhichNothingCanBeRead) {
    const RecordedItem pastTheDevice = file(1, 9, "x", {'y', 'z'}, 2 * kBlock);
    const auto alone = recover({pastTheDevice});
    ASSERT_FALSE(alone);
    EXPECT_THAT(alone.failure().message, HasSubstr("nothing of it can be read"));
    EXPECT_EQ(std::distance(fs::directory_iterator{folder.path()}, {}), 1);  // the device
}

TEST(RangesWords, NameTheFirstOnes) {
    EXPECT_EQ(rangesWords({{4096, 4096}}), "4.1 kB: bytes 4096 to 8191");
    std::vector<ByteRange> many;
    for (std::uint64_t i = 0; i < 8; ++i) many.push_back({i * 100, 1});
    EXPECT_THAT(rangesWords(many), HasSubstr("400 to 400 and 3 more ranges"));
}

TEST_F(RecordedTree, HashesNoMoreThanIsEverHashed) {
    RecordedItem item = file(1, 9, "x", {}, 1ULL << 62U);
    item.flags |= kRecordHasChecksum;
    const auto files = recover({item});
    ASSERT_FALSE(files);
    EXPECT_THAT(files.failure().message, HasSubstr("makes no sense"));
    item.size = kMostChecksummed + 1;
    EXPECT_FALSE(recover({item}));
    item.size = kMostChecksummed;
    EXPECT_TRUE(recover({item}));
}

TEST_F(RecordedTree, MakesALinkAgain) {
    RecordedItem link = box(1, 9, "x");
    link.mode = S_IFLNK | 0777;
    EXPECT_FALSE(recover({link}));
    link.linkTarget = "else/where";
    ASSERT_TRUE(recover({link}));
    EXPECT_EQ(fs::read_symlink(folder / "out"), "else/where");
    EXPECT_FALSE(recover({link}));
}

TEST_F(RecordedTree, WritesOverNothing) {
    folder.write("out", "kept");
    EXPECT_FALSE(recover({file(1, 9, "x", {'a'}, 10)}));
    EXPECT_FALSE(recover({box(1, 9, "x")}));
    EXPECT_EQ(read("out"), "kept");
}

}  // namespace
}  // namespace korvane::ctl
