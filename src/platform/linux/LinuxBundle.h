// PlugIns and Resources beside the executable: build/<preset>/ in the tree, /usr/lib/korvane-pro/
// where it is installed.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "base/StringsTable.h"
#include "platform/Bundle.h"

namespace korvane {

class LinuxBundle final : public Bundle {
  public:
    // The folder of this process's own executable.
    LinuxBundle();
    // `languages`: codes such as "de", best first; English follows them by itself.
    LinuxBundle(std::string folder, std::vector<std::string> languages);

    [[nodiscard]] std::string plugIn(std::string_view name) override;
    [[nodiscard]] std::string localizedString(std::string_view table, std::string_view key,
                                              std::string_view fallback) override;

  private:
    [[nodiscard]] const StringsTable& table(std::string_view name);

    std::string folder_;
    std::vector<std::string> languages_;
    std::map<std::string, StringsTable, std::less<>> tables_;  // read when first asked for
};

}  // namespace korvane
