// A process that rewrites 200 kB in place over and over is killed a thousand times, at moments of
// chance: each time the file reads, with the old contents or the new ones.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include "TemporaryFolder.h"
#include "base/PropertyListCodec.h"
#include "base/PropertyListFile.h"

namespace korvane {
namespace {

constexpr int kKills = 1000;

constexpr std::size_t kVersions = 8;

// Documents to be written in turn. Their lengths differ, so that cutting and growing are met, too.
std::vector<std::string> versions() {
    std::vector<std::string> texts;
    for (std::size_t version = 0; version < kVersions; ++version) {
        const std::string text(480 + version * 5 % kVersions * 10,
                               static_cast<char>('a' + version));
        PropertyListArray records;
        while (records.size() < 400) records.push_back(Dictionary{{"text", text}});
        texts.push_back(formatPropertyList(records));
    }
    return texts;
}

// What writer and killer both see: the version last written whole, and whether there is one.
struct Shared {
    std::atomic<unsigned> finished;
};

[[noreturn]] void rewriteForEver(const std::string& path, const std::vector<std::string>& texts,
                                 Shared& shared) {
    for (unsigned number = shared.finished + 1;; ++number) {
        if (!writeInPlace(path, texts[number % kVersions], 0666, Durability::process)) _exit(1);
        shared.finished = number;
    }
}

TEST(KillNine, LeavesTheOldOrTheNewContentsAThousandTimes) {
    const TemporaryFolder folder;
    const std::string path = folder / "Settings.plist";
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    Shared& shared = *new (memory) Shared{};
    const std::vector<std::string> texts = versions();
    ASSERT_TRUE(writeInPlace(path, texts[0], 0666, Durability::process));

    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    int restored = 0;
    for (int kill = 0; kill < kKills; ++kill) {
        const unsigned before = shared.finished;
        const pid_t child = fork();
        if (child == 0) rewriteForEver(path, texts, shared);
        while (shared.finished == before) std::this_thread::yield();
        const auto delay = std::uniform_int_distribution<int>(0, 2000)(random);
        std::this_thread::sleep_for(std::chrono::microseconds(delay));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";

        const std::string raw = contentsOf(path);
        const bool isTorn = std::find(texts.begin(), texts.end(), raw) == texts.end();
        // Another program that looks now sees no property list at all, never a mixture of two.
        ASSERT_TRUE(!isTorn || !parsePropertyList(raw));
        restored += isTorn ? 1 : 0;
        PropertyListFiles files;
        const auto value = files.read(path);
        ASSERT_TRUE(value) << value.error().message;
        const std::string found = formatPropertyList(*value);
        const bool isNew = found == texts[(shared.finished + 1) % kVersions];
        ASSERT_TRUE(isNew || found == texts[shared.finished % kVersions]);
        shared.finished += isNew ? 1 : 0;
        ASSERT_FALSE(std::filesystem::exists(savingSiblingOf(path)) && isTorn);
    }
    std::printf("%d of %d kills left a torn file that was restored\n", restored, kKills);
    munmap(memory, sizeof(Shared));
}

// Keys are added a hundred at a time.
TEST(KillNine, LosesNoRecordThatWasWritten) {
    constexpr int kScans = 300;
    constexpr std::size_t kRecords = 100;
    const TemporaryFolder folder;
    const std::string path = folder / "Records.plist";
    ASSERT_TRUE(writeInPlace(path, formatPropertyList(Dictionary{}), 0666, Durability::process));
    const unsigned seed = std::random_device{}();
    std::mt19937 random(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::size_t known = 0;
    for (int scan = 0; scan < kScans; ++scan) {
        const pid_t child = fork();
        if (child == 0) {
            PropertyListFiles files;
            for (std::size_t first = known;; first += kRecords) {
                const auto edit = [&](PropertyList& value) {
                    for (std::size_t number = first; number < first + kRecords; ++number) {
                        value.dictionary()->set(std::to_string(number), std::string(100, 'x'));
                    }
                    return true;
                };
                if (!files.change(path, edit, 0666, Durability::process)) _exit(1);
            }
        }
        const auto delay = std::uniform_int_distribution<int>(0, 20'000)(random);
        std::this_thread::sleep_for(std::chrono::microseconds(delay));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFSIGNALED(status)) << "the writer ended by itself";
        // What another program could see before the file was restored is all there after it.
        const auto raw = parsePropertyList(contentsOf(path));
        ASSERT_TRUE(!raw || raw->dictionary()->size() >= known);
        PropertyListFiles files;
        const auto value = files.read(path);
        ASSERT_TRUE(value) << value.error().message;
        ASSERT_GE(value->dictionary()->size(), raw ? raw->dictionary()->size() : known);
        known = value->dictionary()->size();
    }
    EXPECT_GT(known, 0u);
}

}  // namespace
}  // namespace korvane
