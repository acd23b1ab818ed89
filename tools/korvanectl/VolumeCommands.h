// The settings of one volume: volume NAME get, set, reset.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/PropertyList.h"
#include "korvanectl/Preferences.h"
#include "korvanectl/Program.h"

namespace korvane::ctl {

// Sets one setting of the volume of this name or mount point, checked as the command "volume NAME
// set" does. `value` takes what was stored. `volumes` must outlive the edit.
[[nodiscard]] Edit volumeEdit(Volumes& volumes, const std::string& volume, const std::string& key,
                              const std::vector<std::string>& words,
                              const std::shared_ptr<PropertyList>& value);

}  // namespace korvane::ctl
