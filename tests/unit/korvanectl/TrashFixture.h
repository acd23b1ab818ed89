// A trash history of the test's own making, with a trash folder beside it: what the daemon and its
// recovery program would have left.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "KorvaneProDataRecovery/ResultRecords.h"
#include "storage/TrashEntry.h"
#include "trash/TrashFormats.h"
#include "unit/korvanectl/ProgramFixture.h"

namespace korvane::ctl {

class TrashFixture : public KorvanectlTest {
  protected:
    // Puts a file or folder that stands in the trash into the history.
    std::uint64_t keep(const std::string& name, Time when, const char* left = nullptr) {
        struct stat status {};
        EXPECT_EQ(::lstat((trash() + "/" + name).c_str(), &status), 0) << name;
        keepNode(name, status.st_ino, when, left);
        return status.st_ino;
    }
    void keepNode(const std::string& name, std::uint64_t node, Time when,
                  const char* left = nullptr) {
        const auto second = [](Time time) {
            return PropertyList{std::chrono::floor<std::chrono::seconds>(time)};
        };
        Dictionary record{{"itemName", name},       {"nodeID", std::to_string(node)},
                          {"volRefNum", "-1"},      {"dirPath", trash()},
                          {"volumeName", "System"}, {"totalSize", 0.0},
                          {"addDate", second(when)}};
        if (left != nullptr) record.set(left, second(when + std::chrono::hours{1}));
        usage.set("System_" + std::to_string(node), std::move(record));
        folder.write(kTrashUsageFile, formatPropertyList(usage));
    }
    // Appends what the recovery program recorded of an item.
    void keepRecords(const std::vector<RecordedItem>& items, const char* hour = "2025-12-31-23") {
        const std::string name = std::string("System/Trash Deletes ") + hour;
        std::filesystem::create_directories(folder / "System");
        std::ofstream records{folder / name, std::ios::binary | std::ios::app};
        if (records.tellp() == 0) {
            const TrashRecord header = encodeTrashDeletesHeader({"/dev/sda1", "/", "", false});
            records.write(header.data(), header.size());
        }
        for (const RecordedItem& item : items) records << encodeItem(item);
    }
    static RecordedItem recorded(const std::string& name, std::uint64_t node) {
        return {.flags = kRecordHasChecksum,
                .node = node,
                .trashNode = node,
                .mode = S_IFREG | 0644,
                .size = 8192,
                .modified = 1'767'000'000,
                .name = name,
                .extents = {{0, 4096, 4096, 0}, {4096, 65536, 4096, 0}}};
    }
    [[nodiscard]] std::string trash() const { return folder / "Trash/files"; }
    [[nodiscard]] static std::string read(const std::string& path) {
        std::ifstream in{path, std::ios::binary};
        return {std::istreambuf_iterator<char>{in}, {}};
    }
    [[nodiscard]] std::string lineOf(const std::string& text) const {
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            if (line.find(text) != std::string::npos) return line;
        }
        return {};
    }
    Dictionary usage{{"totalSize", 12.0}};
};

}  // namespace korvane::ctl
