#include "core/SettingsDigest.h"

#include <algorithm>
#include <string_view>

#include "base/PropertyListCodec.h"
#include "base/PropertyListMark.h"

namespace korvane {

namespace {

constexpr std::string_view kProgress[] = {"directoryStatus",    "executionTimeDirectory",
                                          "executionTimeSmart", "executionTimeUsage",
                                          "smartStatus",        "usageStatus"};
// The tags around a value, with its indentation.
constexpr std::size_t kTagBytes = 20;

void addText(SettingsDigest& digest, std::string_view text) {
    constexpr std::uint64_t kOddFactor = 0x9E3779B97F4A7C15U;
    digest.fingerprint = digest.fingerprint * kOddFactor + fingerprintOf(text);
    digest.bytes += text.size();
}

void add(SettingsDigest& digest, const PropertyList& value) {
    digest.bytes += kTagBytes;
    if (const Dictionary* dictionary = value.dictionary()) {
        addText(digest, "{");
        for (const auto& [key, each] : *dictionary) {
            if (std::find(std::begin(kProgress), std::end(kProgress), key) != std::end(kProgress)) {
                continue;
            }
            addText(digest, key);
            add(digest, each);
        }
    } else if (const PropertyListArray* array = value.array()) {
        addText(digest, "[");
        for (const PropertyList& each : *array) add(digest, each);
    } else if (const std::string* text = value.string()) {
        addText(digest, "s");
        addText(digest, *text);
    } else if (const bool* flag = value.boolean()) {
        addText(digest, *flag ? "true" : "false");
    } else {
        addText(digest, formatPropertyList(value));
    }
    addText(digest, ";");
}

}  // namespace

SettingsDigest digestSettings(const PropertyList& document) {
    SettingsDigest digest;
    add(digest, document);
    return digest;
}

}  // namespace korvane
