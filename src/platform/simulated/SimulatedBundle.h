// A bundle whose texts and helper programs are what the test says.
#pragma once

#include <map>
#include <set>
#include <string>
#include <string_view>

#include "base/StringsTable.h"
#include "platform/Bundle.h"

namespace korvane {

class SimulatedBundle final : public Bundle {
  public:
    [[nodiscard]] std::string plugIn(std::string_view name) override {
        return plugIns_.contains(name) ? std::string{"/PlugIns/"}.append(name) : std::string{};
    }
    [[nodiscard]] std::string localizedString(std::string_view table, std::string_view key,
                                              std::string_view fallback) override {
        const auto known = tables_.find(table);
        return known == tables_.end() ? std::string{fallback} : known->second.text(key, fallback);
    }

    void setTable(const std::string& name, StringsTable table) {
        tables_.insert_or_assign(name, std::move(table));
    }
    void addPlugIn(const std::string& name) { plugIns_.insert(name); }
    void removePlugIn(const std::string& name) { plugIns_.erase(name); }

  private:
    std::map<std::string, StringsTable, std::less<>> tables_;
    std::set<std::string, std::less<>> plugIns_;
};

}  // namespace korvane
