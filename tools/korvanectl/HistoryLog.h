// The history logs, which are alike but for what a line of one says.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/PropertyList.h"
#include "korvanectl/Document.h"
#include "korvanectl/Outcome.h"

namespace korvane::ctl {

// The log at the path, each line made into an Entry, oldest first; none when there is no log yet. A
// damaged log is a failure.
template <typename Entry>
[[nodiscard]] Outcome<std::vector<Entry>> readLog(const std::string& path,
                                                  Entry (*entryOf)(const Dictionary& fields)) {
    const Outcome<std::optional<Document>> log = readDocument(path);
    if (!log) {
        return log.failure();
    }
    std::vector<Entry> entries;
    const PropertyList* const stored = *log ? (*log)->contents.find("logEntries") : nullptr;
    if (stored == nullptr || stored->array() == nullptr) {
        return entries;
    }
    for (const PropertyList& element : *stored->array()) {
        if (const Dictionary* const fields = element.dictionary()) {
            entries.push_back(entryOf(*fields));
        }
    }
    return entries;
}

}  // namespace korvane::ctl
