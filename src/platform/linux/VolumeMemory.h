// What has to be known again after a restart: the reference number of each file system seen, and
// the links this machine layer has made. A hidden property list of the daemon's own, written only
// where its folder exists; a file that is missing or damaged is an empty memory.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/PropertyListFile.h"

namespace korvane {

class VolumeMemory {
  public:
    // An empty path: remembered in memory only.
    explicit VolumeMemory(std::string path);

    // The number of the file system with this identity: 1 to 32767, the same at every call and
    // after every restart. A new one is drawn from the identity itself, so that it mostly comes
    // out the same even where the memory was lost. Nothing when all numbers are taken.
    [[nodiscard]] std::optional<std::int16_t> numberFor(const std::string& identity);
    // Names the file systems mounted now. Of the others the ones seen longest ago are forgotten
    // once there are too many.
    void keepOnly(const std::set<std::string>& mountedIdentities);

    // The links made: name to target, both as bytes.
    [[nodiscard]] const std::map<std::string, std::string>& links() const { return links_; }
    void setLinks(std::map<std::string, std::string> links);

    // Writes what has changed. False when something stays unwritten, and is worth another try.
    bool save();

  private:
    void load();

    std::string path_;
    PropertyListFiles files_;
    std::vector<std::string> seen_;  // longest ago first
    std::unordered_map<std::string, std::int16_t> numbers_;
    std::set<std::int16_t> taken_;
    std::map<std::string, std::string> links_;
    bool isChanged_ = false;
};

}  // namespace korvane
