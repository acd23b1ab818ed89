// The documents that the benchmarks read and write: records as the daemon keeps them.
#pragma once

#include <string>

#include "base/PropertyListCodec.h"

namespace korvane {

// A record of eight keys, of the kinds and lengths that records of deleted items have.
inline PropertyList recordNumber(int number) {
    return Dictionary{{"dateDeleted", 1'700'000'000.25 + number},
                      {"displayName", "Holiday pictures " + std::to_string(number) + ".jpeg"},
                      {"isFolder", number % 5 == 0},
                      {"nodeID", 1'000'000 + number},
                      {"path", "/home/somebody/.local/share/Trash/files/" + std::to_string(number)},
                      {"size", std::int64_t{4096} * number},
                      {"status", "3"},
                      {"volumeName", "Macintosh & Data"}};
}

inline PropertyList records(int count) {
    Dictionary byName;
    for (int i = 0; i < count; ++i) byName.set("System_" + std::to_string(i), recordNumber(i));
    return byName;
}

}  // namespace korvane
