// Any bytes at all: parsing them ends in a value or an error, and a value that was parsed is
// written in a form that parses to the same value and is written the same again.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/PropertyListCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto value = korvane::parsePropertyList(text);
    if (!value) {
        if (value.error().message.empty()) std::abort();
        return 0;
    }
    const std::string written = korvane::formatPropertyList(*value);
    const auto again = korvane::parsePropertyList(written);
    if (!again || !(*again == *value) || korvane::formatPropertyList(*again) != written) {
        std::abort();
    }
    return 0;
}
