// Any bytes as a udev record, as a drive's vital data pages, and as an encoded value: none is
// empty-keyed, and every text that comes out is one that can be shown.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "platform/linux/DiskFacts.h"
#include "platform/linux/UdevDatabase.h"

namespace {

void requireShowable(const std::string& text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20) std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto& [key, value] : korvane::parseUdevRecord(text)) {
        if (key.empty() || key.find('\n') != std::string::npos) std::abort();
        if (korvane::decodeUdevText(value).size() > value.size()) std::abort();
    }
    const korvane::AtaIdentity identity = korvane::parseAtaInformationPage(text);
    requireShowable(identity.model);
    requireShowable(identity.serial);
    requireShowable(korvane::parseUnitSerialPage(text));
    return 0;
}
