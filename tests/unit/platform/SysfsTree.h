// A sysfs and a udev database in a folder of the test's own, made from a description in
// tests/fixtures/sysfs (ORIGIN.md there says how one reads).
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "TemporaryFolder.h"

namespace korvane {

class SysfsTree {
  public:
    SysfsTree() = default;
    explicit SysfsTree(const std::string& fixture) {
        std::ifstream file(std::string(KORVANE_SOURCE_DIR "/tests/fixtures/sysfs/") + fixture);
        if (!file) throw std::runtime_error(fixture);
        for (std::string line; std::getline(file, line);) add(line);
    }

    [[nodiscard]] std::string sysfs() const { return folder_ / "sys"; }
    [[nodiscard]] std::string udevData() const { return folder_ / "udev"; }

    // One line of a description.
    void add(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        std::string path;
        words >> verb >> path;
        if (verb.empty() || verb.front() == '#') return;
        std::string rest;
        std::getline(words >> std::ws, rest);
        if (verb == "block") {
            addBlock(path, rest);
        } else if (verb == "attr") {
            folder_.write("sys/" + path, unescaped(rest));
        } else if (verb == "link") {
            addLink(path, rest);
        } else if (verb == "dir") {
            std::filesystem::create_directories(folder_ / ("sys/" + path));
        } else if (verb == "udev") {
            std::ofstream(folder_ / ("udev/b" + path), std::ios::app) << "E:" << rest << "\n";
        } else {
            throw std::runtime_error(line);
        }
    }
    void remove(const std::string& path) { std::filesystem::remove_all(folder_ / ("sys/" + path)); }

  private:
    void addBlock(const std::string& path, const std::string& number) {
        folder_.write("sys/" + path + "/dev", number + "\n");
        std::filesystem::create_directories(folder_ / "udev");
        const std::string name = path.substr(path.rfind('/') + 1);
        addLink("class/block/" + name, "../../" + path);
        addLink("dev/block/" + number, "../../" + path);
    }
    void addLink(const std::string& path, const std::string& target) {
        const std::filesystem::path link = folder_ / ("sys/" + path);
        std::filesystem::create_directories(link.parent_path());
        std::filesystem::create_symlink(target, link);
    }
    static std::string unescaped(const std::string& text) {
        std::string bytes;
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text.compare(i, 2, "\\n") == 0) {
                bytes += '\n';
                i += 1;
            } else if (text.compare(i, 2, "\\x") == 0) {
                bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
                i += 3;
            } else {
                bytes += text[i];
            }
        }
        return bytes;
    }

    // Some hundred files: in memory where the machine has such a place.
    static std::filesystem::path place() {
        const std::filesystem::path inMemory = "/dev/shm";
        return std::filesystem::is_directory(inMemory) ? inMemory
                                                       : std::filesystem::temp_directory_path();
    }

    TemporaryFolder folder_{place()};
};

}  // namespace korvane
