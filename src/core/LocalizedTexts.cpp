// Texts for people, from the daemon's own strings tables.

#include "core/KorvaneProDaemon.h"

namespace korvane {

std::string KorvaneProDaemon::localized(std::string_view key) {
    return machine_.bundle.localizedString(kDefaultStringsTable, key, key);
}

}  // namespace korvane
