// The real daemon, the recovery program that it starts, and korvanectl on a real disk: put in the
// trash, recorded, emptied, recovered. Runs inside the emulated machine trash.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>

#include "Guest.h"

namespace korvane::guest {
namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;

const std::string kControl = KORVANE_BUILD_DIR "/korvanectl";
const std::string kData = "/mnt/Data";
const std::string kSafe = "/mnt/Safe";
const std::string kTrash = kData + "/.Trash-0";
const std::string kSaid = "/results/said";

std::string textOf(const std::string& path) {
    std::ifstream in{path, std::ios::binary};
    return {std::istreambuf_iterator<char>{in}, {}};
}

std::string noise(std::size_t size, unsigned seed) {
    std::mt19937 generator{seed};
    std::string text(size, '\0');
    for (char& byte : text) byte = static_cast<char>(generator());
    return text;
}

void write(const std::string& path, const std::string& text) {
    fs::create_directories(fs::path{path}.parent_path());
    std::ofstream{path, std::ios::binary} << text;
}

// As a desktop does it: the note first, then the item by a rename.
void putInTrash(const std::string& name) {
    write(kTrash + "/info/" + name + ".trashinfo",
          "[Trash Info]\nPath=" + name + "\nDeletionDate=2026-01-01T00:00:00\n");
    fs::rename(kData + "/" + name, kTrash + "/files/" + name);
}

// The item's record in the history.
std::optional<Dictionary> recordOf(const std::string& name) {
    const auto usage = readDictionary(kSupportFolder + "/Trash Usage.plist");
    if (!usage) return std::nullopt;
    for (const auto& [key, value] : *usage) {
        const Dictionary* const record = value.dictionary();
        if (record && stringValue(record->find("itemName")) == name) return *record;
    }
    return std::nullopt;
}

// Whether the daemon has collected what the recovery program wrote of the item.
bool isCollected(const std::string& name) {
    std::error_code none;
    for (fs::directory_iterator entry{kSupportFolder + "/Data", none}, end; !none && entry != end;
         entry.increment(none)) {
        const bool isOne = entry->path().filename().string().starts_with("Trash Deletes");
        if (isOne && textOf(entry->path()).find(name) != std::string::npos) return true;
    }
    return false;
}

std::map<std::string, std::string> tree(const std::string& top) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator{top}) {
        const std::string path = fs::relative(entry.path(), top);
        files[path] = entry.is_regular_file() ? textOf(entry.path()) : "(folder)";
    }
    return files;
}

class Trash : public ::testing::Test {
  protected:
    void SetUp() override {
        mountDevice(diskOf("data"), "ext4", kData);
        mountDevice(diskOf("safe"), "ext4", kSafe);
        fs::create_directories(kTrash + "/files");
        fs::permissions(kTrash, fs::perms::owner_all);
        {
            const RunningDaemon findsTheVolume;
            ASSERT_TRUE(becomes([] { return volumeEntry(kData).has_value(); }));
        }
        run(kControl + " trash on " + kData);
        daemon_.emplace();
    }
    void TearDown() override {
        daemon_.reset();
        if (HasFailure()) keepSupportFolder();
        for (const std::string& volume : {kData, kSafe}) {
            for (const auto& entry : fs::directory_iterator{volume}) fs::remove_all(entry.path());
            unmount(volume);
        }
        fs::remove_all("/Library");
        fs::remove_all("/Volumes");
    }
    void putInTrashAndSeeItRecorded(const std::string& name) {
        putInTrash(name);
        ASSERT_TRUE(becomes([&] {
            // A daemon that was still starting looks when the trash next changes.
            write(kTrash + "/files/.change", "");
            fs::remove(kTrash + "/files/.change");
            return recordOf(name).has_value();
        })) << name
            << ": not recorded";
    }
    void throwAway(const std::string& name) {
        putInTrashAndSeeItRecorded(name);
        ASSERT_TRUE(becomes([&] { return isCollected(name); })) << "not collected";
        run(kControl + " trash show " + name + " >>" + kSaid);
        fs::remove_all(kTrash + "/files/" + name);
        fs::remove(kTrash + "/info/" + name + ".trashinfo");
        ::sync();
        ASSERT_TRUE(becomes([&] {
            const auto record = recordOf(name);
            return record && record->find("Deleted") != nullptr;
        })) << "not seen to be gone";
    }
    std::optional<RunningDaemon> daemon_;
};

TEST_F(Trash, IsRecordedAndAfterEmptyingRecoveredByteForByte) {
    const std::string contents = noise(3'000'077, 1);
    write(kData + "/letter", contents);
    throwAway("letter");
    run(kControl + " trash recover letter " + kSafe + " >" + kSaid);
    EXPECT_EQ(textOf(kSafe + "/letter"), contents);
    EXPECT_THAT(textOf(kSaid), HasSubstr("SHA-256"));
    EXPECT_EQ(fs::status(kSafe + "/letter").permissions(), fs::perms{0600});
}

TEST_F(Trash, OfAFolderIsRecoveredWithAllThatItHeld) {
    for (unsigned i = 0; i < 10; ++i) {
        const std::string name = "/box/" + std::to_string(i % 3) + "/letter" + std::to_string(i);
        write(kData + name, noise(i * 30'000, i));
    }
    const auto before = tree(kData + "/box");
    throwAway("box");
    run(kControl + " trash recover box " + kSafe + " >" + kSaid);
    EXPECT_EQ(tree(kSafe + "/box"), before);
    EXPECT_THAT(textOf(kSaid), HasSubstr("10 of 10 files"));
}

TEST_F(Trash, OfAnItemInManyPiecesIsRecovered) {
    // Two files that grow by turns lie between each other.
    for (unsigned i = 0; i < 50; ++i) {
        for (const char* const name : {"/pieces", "/other"}) {
            std::ofstream{kData + name, std::ios::binary | std::ios::app} << noise(8192, i);
            run("sync -d " + kData + name);
        }
    }
    const std::string contents = textOf(kData + "/pieces");
    throwAway("pieces");
    run(kControl + " trash recover pieces " + kSafe + " >" + kSaid);
    EXPECT_EQ(textOf(kSafe + "/pieces"), contents);
}

TEST_F(Trash, IsNotRecoveredOntoItsOwnVolumeNorFromBlocksUsedAgain) {
    write(kData + "/letter", noise(1'000'000, 2));
    throwAway("letter");
    run("! " + kControl + " trash recover letter " + kData + " 2>" + kSaid);
    EXPECT_THAT(textOf(kSaid), HasSubstr("own volume"));
    run("! dd if=/dev/zero of=" + kData + "/filler bs=1M 2>/dev/null; sync");
    run("! " + kControl + " trash recover letter " + kSafe + " 2>" + kSaid);
    EXPECT_THAT(textOf(kSaid), HasSubstr("used again"));
}

// Its records are dated later than now from then on, and what is polled for is polled for as
// before.
TEST_F(Trash, IsKeptAndRecordedOnWhenTheClockStepsBack) {
    for (const char* const name : {"/early", "/kept", "/late"}) write(kData + name, name);
    throwAway("early");
    putInTrashAndSeeItRecorded("kept");
    const auto before = recordOf("early");
    ASSERT_TRUE(before);
    const ClockSteppedBack steppedBack{std::chrono::days{30}};
    throwAway("late");
    const auto after = recordOf("early");
    ASSERT_TRUE(after);
    EXPECT_EQ(*after, *before);
    EXPECT_TRUE(isCollected("early"));
    const auto kept = recordOf("kept");
    ASSERT_TRUE(kept);
    EXPECT_EQ(kept->find("Deleted"), nullptr);
    EXPECT_EQ(kept->find("Removed"), nullptr);
}

}  // namespace
}  // namespace korvane::guest
