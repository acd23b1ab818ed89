// Records that the kernel wrote on an HFS+ volume, converted and held against what the kernel says
// of the same items. Runs inside the emulated machine hfs.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Guest.h"
#include "backup/ByteSwap.h"

namespace korvane::guest {
namespace {

namespace fs = std::filesystem;

using Bytes = std::vector<unsigned char>;

constexpr char kVolume[] = "/mnt/HFS";
// Apple Technical Note TN1150: dates count from 1904-01-01, 66 years before the kernel's.
constexpr std::int64_t kSecondsTo1970 = 2'082'844'800;
// TN1150: where the volume header lies, and in it the forks of two B-trees.
constexpr std::size_t kHeaderOffset = 1024;
constexpr std::size_t kHeaderSize = 512;
constexpr std::size_t kExtentsFork = 192;
constexpr std::size_t kCatalogFork = 272;
constexpr std::uint32_t kRootFolder = 2;
constexpr std::size_t kExtentsInFork = 8;

template <typename Value>
Value valueAt(const Bytes& record, std::size_t offset) {
    Value value = 0;
    std::memcpy(&value, record.data() + offset, sizeof value);
    return value;
}
std::uint16_t at16(const Bytes& record, std::size_t offset) {
    return valueAt<std::uint16_t>(record, offset);
}
std::uint32_t at32(const Bytes& record, std::size_t offset) {
    return valueAt<std::uint32_t>(record, offset);
}
std::uint64_t at64(const Bytes& record, std::size_t offset) {
    return valueAt<std::uint64_t>(record, offset);
}

// The whole device as it stands on the disk, past what is remembered of it.
Bytes contentsOf(const std::string& device) {
    const int file = open(device.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    EXPECT_GE(file, 0) << device;
    constexpr std::size_t kPiece = 1 << 20;
    const std::unique_ptr<void, decltype(&std::free)> piece{std::aligned_alloc(4096, kPiece),
                                                            &std::free};
    Bytes bytes;
    for (ssize_t size = 0; (size = read(file, piece.get(), kPiece)) > 0;) {
        const auto* const begin = static_cast<const unsigned char*>(piece.get());
        bytes.insert(bytes.end(), begin, begin + size);
    }
    close(file);
    return bytes;
}

// A record on its way in; on its way out it must be what it was.
Bytes converted(const Bytes& source, std::size_t offset, std::size_t size, std::uint32_t in,
                std::uint32_t out) {
    const auto begin = source.begin() + static_cast<std::ptrdiff_t>(offset);
    const Bytes disk(begin, begin + static_cast<std::ptrdiff_t>(size));
    Bytes host(size);
    BlockMoveByteSwap(disk.data(), host.data(), size, in);
    Bytes again(size);
    BlockMoveByteSwap(host.data(), again.data(), size, out);
    EXPECT_EQ(again, disk) << "code " << out;
    return host;
}
Bytes converted(const Bytes& source, std::size_t offset, std::size_t size, std::uint32_t code) {
    return converted(source, offset, size, code, code);
}

struct Extent {
    std::uint32_t start;
    std::uint32_t blocks;
};

// Eight extents as a converted record has them; those without blocks are none.
void appendExtents(std::vector<Extent>& extents, const Bytes& record, std::size_t offset) {
    for (std::size_t index = 0; index < kExtentsInFork; ++index) {
        const Extent extent{at32(record, offset + 8 * index), at32(record, offset + 8 * index + 4)};
        if (extent.blocks > 0) extents.push_back(extent);
    }
}

// A volume that is not mounted, read through the converters alone.
class HfsVolume {
  public:
    using Key = std::pair<std::uint32_t, std::u16string>;  // parent and name

    explicit HfsVolume(const std::string& device)
        : bytes_(contentsOf(device)),
          header_(converted(bytes_, kHeaderOffset, kHeaderSize, kByteSwapHFSPlusVolumeHeader)) {
        readCatalog();
        readExtents();
    }

    [[nodiscard]] const Bytes& header() const { return header_; }
    // The record of an item, or of a folder's or file's thread: by its own number and no name.
    [[nodiscard]] Bytes record(std::uint32_t parent, const std::u16string& name) const {
        const auto found = catalog_.find({parent, name});
        return found == catalog_.end() ? Bytes{} : found->second;
    }
    // What a file of this record holds.
    [[nodiscard]] std::string contents(const Bytes& record) const {
        std::vector<Extent> extents;
        appendExtents(extents, record, 88 + 16);
        const auto more = overflow_.find(at32(record, 8));
        if (more != overflow_.end()) {
            extents.insert(extents.end(), more->second.begin(), more->second.end());
        }
        const Bytes bytes = bytesOf(extents);
        return {reinterpret_cast<const char*>(bytes.data()),
                static_cast<std::size_t>(at64(record, 88))};
    }
    [[nodiscard]] std::size_t extentsBeyondTheCatalog(std::uint32_t file) const {
        const auto found = overflow_.find(file);
        return found == overflow_.end() ? 0 : found->second.size();
    }
    [[nodiscard]] std::size_t catalogSize() const { return catalog_.size(); }
    [[nodiscard]] std::uint32_t leafRecords() const { return leafRecords_; }

  private:
    [[nodiscard]] Bytes bytesOf(const std::vector<Extent>& extents) const {
        Bytes bytes;
        const std::size_t blockSize = at32(header_, 40);
        for (const Extent& extent : extents) {
            const auto begin =
                bytes_.begin() + static_cast<std::ptrdiff_t>(extent.start * blockSize);
            bytes.insert(bytes.end(), begin,
                         begin + static_cast<std::ptrdiff_t>(extent.blocks * blockSize));
        }
        return bytes;
    }

    // Calls visit(tree, offset, size) for the key and data of each leaf record of a B-tree.
    template <typename Visit>
    std::uint32_t forEachLeafRecord(std::size_t fork, const Visit& visit) {
        std::vector<Extent> extents;
        appendExtents(extents, header_, fork + 16);
        const Bytes tree = bytesOf(extents);
        const Bytes head = converted(tree, 14, 42, kByteSwapHeaderRecord);
        const std::size_t nodeSize = at16(head, 18);
        for (std::size_t node = at32(head, 10); node != 0;) {
            const std::size_t base = node * nodeSize;
            const Bytes descriptor = converted(tree, base, 14, kByteSwapNodeDescriptor);
            EXPECT_EQ(descriptor[8], 0xFF) << "a leaf";
            const auto offsetOf = [&](std::size_t index) {
                const std::size_t place = base + nodeSize - 2 * (index + 1);
                return std::size_t{at16(converted(tree, place, 2, kByteSwap16), 0)};
            };
            for (std::size_t index = 0; index < at16(descriptor, 10); ++index) {
                visit(tree, base + offsetOf(index), offsetOf(index + 1) - offsetOf(index));
            }
            node = at32(descriptor, 0);
        }
        return at32(head, 6);
    }

    void readCatalog() {
        leafRecords_ = forEachLeafRecord(
            kCatalogFork, [this](const Bytes& tree, std::size_t offset, std::size_t size) {
                const std::size_t keySize = 2U + at16(converted(tree, offset, 2, kByteSwap16), 0);
                const Bytes key = converted(tree, offset, keySize, kByteSwapHFSPlusCatalogKeyIn,
                                            kByteSwapHFSPlusCatalogKeyOut);
                std::u16string name;
                for (std::size_t index = 0; index < at16(key, 6); ++index) {
                    name += static_cast<char16_t>(at16(key, 8 + 2 * index));
                }
                catalog_[{at32(key, 2), name}] =
                    converted(tree, offset + keySize, size - keySize,
                              kByteSwapHFSPlusCatalogRecordIn, kByteSwapHFSPlusCatalogRecordOut);
            });
    }

    void readExtents() {
        (void)forEachLeafRecord(
            kExtentsFork, [this](const Bytes& tree, std::size_t offset, std::size_t) {
                const Bytes key = converted(tree, offset, 12, kByteSwapHFSPlusExtentKey);
                const Bytes record = converted(tree, offset + 12, 64, kByteSwapHFSPlusExtentRecord);
                appendExtents(overflow_[at32(key, 4)], record, 0);
            });
    }

    const Bytes bytes_;
    const Bytes header_;
    std::map<Key, Bytes> catalog_;
    std::map<std::uint32_t, std::vector<Extent>> overflow_;  // by file number, in their order
    std::uint32_t leafRecords_ = 0;
};

struct stat statusOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

void write(const std::string& path, const std::string& contents) {
    std::ofstream{path, std::ios::binary} << contents;
}

// What a record says is what the kernel says.
void expectSame(const Bytes& record, const struct stat& status) {
    ASSERT_GE(record.size(), 88U);
    EXPECT_EQ(at32(record, 8), status.st_ino);
    EXPECT_EQ(at32(record, 32), status.st_uid);
    EXPECT_EQ(at32(record, 36), status.st_gid);
    EXPECT_EQ(at16(record, 42), status.st_mode);
    EXPECT_EQ(at32(record, 16) - kSecondsTo1970, status.st_mtim.tv_sec);
    EXPECT_EQ(at32(record, 20) - kSecondsTo1970, status.st_ctim.tv_sec);
    if (S_ISDIR(status.st_mode)) return;
    EXPECT_EQ(at64(record, 88), static_cast<std::uint64_t>(status.st_size));
    EXPECT_EQ(at32(record, 88 + 12) * 4096ULL, static_cast<std::uint64_t>(status.st_blocks) * 512);
}

class Hfs : public ::testing::Test {
  protected:
    void SetUp() override {
        device_ = diskOf("HFS-1");
        mountDevice(device_, "hfsplus", kVolume);
    }

    std::string device_;
};

TEST_F(Hfs, CatalogRecordsSayWhatTheKernelSays) {
    const std::string folder = std::string(kVolume) + "/A Folder";
    fs::create_directories(folder + "/below");
    const std::string text(10'000, 'k');
    write(folder + "/a file.txt", text);
    write(folder + "/\xC3\xA9", "accented");
    ASSERT_EQ(symlink("a file.txt", (folder + "/link").c_str()), 0);
    ASSERT_EQ(chmod((folder + "/a file.txt").c_str(), 0640), 0);
    ASSERT_EQ(chown((folder + "/a file.txt").c_str(), 1234, 65'000), 0);
    ASSERT_EQ(chmod((folder + "/below").c_str(), 02751), 0);
    const struct timeval times[] = {{1'000'000'000, 0}, {1'700'000'001, 0}};
    ASSERT_EQ(utimes((folder + "/a file.txt").c_str(), times), 0);

    std::map<std::string, struct stat> known;
    for (const char* const name : {"", "/a file.txt", "/\xC3\xA9", "/link", "/below"}) {
        known[name] = statusOf(folder + name);
    }
    struct statvfs space {};
    ASSERT_EQ(statvfs(kVolume, &space), 0);
    unmount(kVolume);
    const HfsVolume volume(device_);

    EXPECT_EQ(at16(volume.header(), 0), 0x482B) << "\"H+\"";
    EXPECT_EQ(at16(volume.header(), 2), 4);
    EXPECT_EQ(at32(volume.header(), 32), 3U) << "files";
    EXPECT_EQ(at32(volume.header(), 36), 3U) << "folders: two, and the kernel's own for hard links";
    EXPECT_EQ(at32(volume.header(), 40), space.f_bsize);
    EXPECT_EQ(at32(volume.header(), 44), space.f_blocks);
    EXPECT_EQ(at32(volume.header(), 48), space.f_bfree);
    EXPECT_EQ(volume.catalogSize(), volume.leafRecords());

    const auto number = static_cast<std::uint32_t>(known[""].st_ino);
    const Bytes itself = volume.record(kRootFolder, u"A Folder");
    expectSame(itself, known[""]);
    EXPECT_EQ(at16(itself, 0), 1);
    EXPECT_EQ(at32(itself, 4), 4U) << "what is in it";
    const Bytes thread = volume.record(number, u"");
    ASSERT_GE(thread.size(), 26U);
    EXPECT_EQ(at16(thread, 0), 3);
    EXPECT_EQ(at32(thread, 4), kRootFolder);
    ASSERT_EQ(at16(thread, 8), 8);
    EXPECT_EQ(at16(thread, 10), u'A');
    EXPECT_EQ(at16(thread, 24), u'r');

    const Bytes file = volume.record(number, u"a file.txt");
    expectSame(file, known["/a file.txt"]);
    EXPECT_EQ(at16(file, 0), 2);
    EXPECT_EQ(volume.contents(file), text);
    expectSame(volume.record(number, u"below"), known["/below"]);
    // The volume keeps letters and accents apart.
    const Bytes accented = volume.record(number, u"e\u0301");
    expectSame(accented, known["/\xC3\xA9"]);
    EXPECT_EQ(volume.contents(accented), "accented");
    const Bytes link = volume.record(number, u"link");
    expectSame(link, known["/link"]);
    EXPECT_EQ(volume.contents(link), "a file.txt");
    // TN1150, symbolic links: file type and creator.
    EXPECT_EQ(at32(link, 48), 0x736C6E6BU) << "\"slnk\"";
    EXPECT_EQ(at32(link, 52), 0x72686170U) << "\"rhap\"";
}

TEST_F(Hfs, ExtentsOfAScatteredFileLeadToItsContents) {
    const std::string top = kVolume;
    // All but a little of the volume in one piece, the rest in pieces of a block, every other of
    // which is given back.
    constexpr std::size_t kBlock = 4096;
    constexpr std::size_t kSmallFiles = 60;
    struct statvfs space {};
    ASSERT_EQ(statvfs(kVolume, &space), 0);
    ASSERT_GT(space.f_bfree, kSmallFiles);
    write(top + "/most of it", std::string((space.f_bfree - kSmallFiles) * kBlock, 'm'));
    sync();
    std::size_t made = 0;
    for (; made < kSmallFiles; ++made) {
        const std::string name = top + "/small " + std::to_string(made);
        write(name, std::string(kBlock, 's'));
        sync();
        if (statusOf(name).st_size < static_cast<off_t>(kBlock)) break;
    }
    for (std::size_t index = 0; index < made; index += 2) {
        fs::remove(top + "/small " + std::to_string(index));
    }
    sync();
    std::string text;
    for (std::size_t index = 0; index < 20 * kBlock; ++index) {
        text += static_cast<char>('a' + index / 7 % 26);
    }
    write(top + "/scattered", text);
    const struct stat scattered = statusOf(top + "/scattered");
    unmount(kVolume);
    const HfsVolume volume(device_);
    const Bytes file = volume.record(kRootFolder, u"scattered");
    expectSame(file, scattered);
    EXPECT_GT(volume.extentsBeyondTheCatalog(static_cast<std::uint32_t>(scattered.st_ino)), 8U);
    EXPECT_TRUE(volume.contents(file) == text);
}

// It knows no files without a name.
TEST_F(Hfs, TakesARecordOfItsOwnFoldersWhole) {
    const std::string top = kVolume;
    fs::create_directories(top + "/records");
    const std::string record = top + "/records/Directory Backup 2026-03-02-08-00-01";
    run(KORVANE_BUILD_DIR "/PlugIns/KorvaneProDirectoryBackup quorlen '" + record + "' " + top);
    EXPECT_GT(fs::file_size(record), 0U);
    EXPECT_EQ(std::distance(fs::directory_iterator(top + "/records"), fs::directory_iterator{}), 1);
    unmount(kVolume);
}

}  // namespace
}  // namespace korvane::guest
