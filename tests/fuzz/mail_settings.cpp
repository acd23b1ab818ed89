// The stored mail settings of any bytes: the codec both ways, the list of recipients, and what
// counts as an address. What is encoded has to come back; the rest only has to be defined.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "mail/Base64.h"
#include "mail/EmailAddress.h"
#include "mail/Transformers.h"

namespace {

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    using korvane::LineSeparation;
    for (const LineSeparation separation : {LineSeparation::off, LineSeparation::on}) {
        require(korvane::NewBase64Decode(korvane::NewBase64Encode(text, separation)) == text);
    }
    require(korvane::NewBase64Decode(text).size() <= (size + 3) / 4 * 3);

    const auto recipients =
        korvane::QLEmailArrayValueTransformer::arrayFromCommaDelimetedString(text);
    require(!recipients.empty());
    const std::string joined = korvane::QLEmailArrayValueTransformer::stringFromArray(recipients);
    require(korvane::QLEmailArrayValueTransformer::arrayFromCommaDelimetedString(joined) ==
            recipients);

    const bool isAddress = korvane::isEmailAddress(text);
    require(!isAddress || (text.find('@') != std::string_view::npos &&
                           text.find_first_of(" \r\n<>,") == std::string_view::npos));
    return 0;
}
