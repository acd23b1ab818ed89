// Any bytes as a mount table: rows come out absolute, those that paths lead to in their order, and
// the text of any bytes leads back to them.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/MountTable.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto rows = korvane::parseMountTable(text);
    for (const korvane::MountRow& row : rows) {
        if (row.mountPoint.empty() || row.mountPoint.front() != '/') std::abort();
    }
    std::size_t before = 0;
    for (const std::size_t index : korvane::reachableMounts(rows)) {
        if (index >= rows.size() || (index <= before && before != 0)) std::abort();
        before = index;
    }
    const std::string shown = korvane::textOfBytes(text);
    if (korvane::bytesOfText(shown) != text ||
        korvane::textOfBytes(shown).empty() != text.empty()) {
        std::abort();
    }
    return 0;
}
