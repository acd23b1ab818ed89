// Any bytes at all: parsing them ends in a value or an error, and a value that was parsed is
// written in a form that parses to the same value and is written the same again. What the reader of
// the plain form takes the general one takes as the same value, and it takes all that was written.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "base/PropertyListCodec.h"
#include "base/PropertyListReaders.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto value = korvane::parseAnyPropertyList(text);
    const auto plain = korvane::parsePlainPropertyList(text);
    if (plain && (!value || !(*plain == *value))) std::abort();
    if (!value) {
        if (value.error().message.empty()) std::abort();
        return 0;
    }
    const std::string written = korvane::formatPropertyList(*value);
    const auto again = korvane::parsePlainPropertyList(written);
    const auto third = korvane::parseAnyPropertyList(written);
    if (!again || !third || !(*third == *value) || !(*again == *value) ||
        korvane::formatPropertyList(*again) != written) {
        std::abort();
    }
    return 0;
}
