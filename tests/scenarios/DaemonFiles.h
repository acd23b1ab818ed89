// Shorthands of the daemon's scenarios for the files that it shares with the main application: the
// settings document with its entries, and the usage logs.
#pragma once

#include <string>
#include <vector>

#include "base/PropertyList.h"
#include "support/Scenario.h"

namespace korvane {

// A settings document that counts as complete: every default and no entries.
[[nodiscard]] Dictionary completePreferences();

// The document as it stands in a file: what two unequal dictionaries are told apart by.
[[nodiscard]] std::string textOf(const Dictionary& document);

// Replaces the settings document, without a word to the daemon.
void putPreferences(Scenario& scenario, const Dictionary& preferences);

// The paths of the stored volume entries, in their order.
[[nodiscard]] std::vector<std::string> volumePathsIn(Scenario& scenario);
// What the stored entry of the volume says of its usage check.
[[nodiscard]] std::string usageStatusIn(Scenario& scenario, const std::string& mountPoint);
[[nodiscard]] double executionTimeUsageIn(Scenario& scenario, const std::string& mountPoint);

// The usage log of the volume with this display name, and the "result" of each of its entries.
[[nodiscard]] std::string usageLogPath(const std::string& displayName);
[[nodiscard]] std::vector<std::string> usageResultsIn(Scenario& scenario,
                                                      const std::string& displayName);

}  // namespace korvane
