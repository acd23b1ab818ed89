// Result records of any bytes, also with the check made right, so that the rest is reached; what is
// put together from them must survive being written again.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "KorvaneProDataRecovery/ResultRecords.h"

namespace {

using korvane::kResultRecordSize;

void check(const korvane::RecordedItem& item) {
    const std::string bytes = korvane::encodeItem(item);
    korvane::ItemAssembly assembly;
    for (std::size_t at = 0; at < bytes.size(); at += kResultRecordSize) {
        std::array<std::uint8_t, kResultRecordSize> record;
        std::memcpy(record.data(), bytes.data() + at, record.size());
        const auto decoded = korvane::decodeRecord(record);
        if (!decoded) std::abort();
        const auto whole = assembly.add(*decoded);
        const bool isLast = at + kResultRecordSize == bytes.size();
        if (whole.has_value() != isLast) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    korvane::ItemAssembly assembly;
    for (std::size_t at = 0; at < size; at += kResultRecordSize) {
        std::array<std::uint8_t, kResultRecordSize> record{};
        std::memcpy(record.data(), data + at, std::min(size - at, record.size()));
        if (const auto decoded = korvane::decodeRecord(record)) {
            if (const auto whole = assembly.add(*decoded)) check(whole->item);
        }
        korvane::sealRecord(record);
        if (const auto decoded = korvane::decodeRecord(record)) {
            if (const auto whole = assembly.add(*decoded)) check(whole->item);
        }
    }
    return 0;
}
