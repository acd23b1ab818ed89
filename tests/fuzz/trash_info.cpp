// Notes of a trash of any bytes, which whoever owns the trash writes: what is taken for the place
// an item came from is looked at on the disk.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "platform/linux/TrashInfo.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto origin = korvane::originInTrashInfo(text);
    if (!origin) return 0;
    if (origin->empty() || origin->size() > size) std::abort();
    if (origin->find('\0') != std::string::npos) std::abort();
    if (origin->find('\n') != std::string::npos && text.find('%') == std::string_view::npos) {
        std::abort();
    }
    return 0;
}
