// Any bytes as what a drive answers: sense data, a description, a health log. Registers come out
// of nothing that is too short to hold them, and a description of one repeated byte is none.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "platform/linux/AtaCommand.h"
#include "platform/linux/NvmeHealth.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::span<const std::uint8_t> bytes(data, size);
    if (const auto registers = korvane::registersInSense(bytes)) {
        if (size < 14) std::abort();
        (void)korvane::isThresholdExceeded(*registers);
        (void)korvane::isInStandby(*registers);
    }
    (void)korvane::isCommandUnknown(bytes);
    if (korvane::hasCriticalWarning(bytes).has_value() != (size >= korvane::kNvmeHealthLogBytes)) {
        std::abort();
    }
    korvane::IdentifyData identify{};
    std::copy_n(data, std::min(size, identify.size()), identify.begin());
    const bool isOneByte = std::all_of(identify.begin(), identify.end(),
                                       [&](std::uint8_t byte) { return byte == identify[0]; });
    if (korvane::isSmartSupported(identify) && !korvane::isIdentifyData(identify)) std::abort();
    if (isOneByte && (identify[0] == 0 || identify[0] == 0xff) &&
        korvane::isIdentifyData(identify)) {
        std::abort();
    }
    return 0;
}
